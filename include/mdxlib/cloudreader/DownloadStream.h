// A std::istream over a Kz::File: what Kz::CloudReader::openStream returns.
// It owns its streambuf and can be moved.
#pragma once

#include <mdxlib/Export.h>

#include <istream>
#include <memory>

namespace Kz {

class DownloadStreambuf;

class MDX_EXPORT DownloadStream : public std::istream
{
public:
    explicit DownloadStream(DownloadStreambuf* buffer);
    DownloadStream(DownloadStream&& other) noexcept;
    DownloadStream& operator=(DownloadStream&& other) noexcept;
    // Closes and deletes the streambuf.
    virtual ~DownloadStream();

    long long length() const;
    bool isOpen() const;
    bool isBad() const;
    bool close();

private:
    DownloadStreambuf* mBuffer;
};

} // namespace Kz
