// A std::streambuf over a Kz::File, with a one-byte get area: bulk reads go
// straight from the file's pages into the caller's buffer.
#pragma once

#include <mdxlib/Export.h>

#include <memory>
#include <streambuf>

namespace Kz {

class File;

class MDX_EXPORT DownloadStreambuf : public std::streambuf
{
public:
    explicit DownloadStreambuf(std::shared_ptr<File> file);

    long long length() const;
    bool isOpen() const;
    bool isBad() const;
    bool close();

protected:
    int_type underflow() override;
    std::streamsize xsgetn(char* dest, std::streamsize n) override;

private:
    std::shared_ptr<File> mFile;
    char mByte = 0;
};

} // namespace Kz
