// Where a copy reads from: a file of the cloud reader (container members,
// WADO objects), a streaming HTTP download (any other URL), or a local file.
// Besides the stream it keeps what tells a whole object from one whose
// transfer broke off.
#pragma once

#include <mdxlib/cloudreader/DownloadStream.h>
#include <mdxlib/curl/LmCurlDownload.h>

#include <fstream>
#include <istream>
#include <memory>
#include <string>

class CopySource
{
public:
    explicit CopySource(std::string const& path);

    // Null when nothing could be opened.
    std::istream* stream() const { return mStream; }
    // Why the source could not be opened; empty when it could.
    std::string const& openFault() const { return mOpenFault; }
    // Bytes of the whole object, -1 when unknown.
    long long length() const;
    // Empty when the source could be read to its end after delivered bytes
    // came out of it; otherwise why not.
    std::string fault(long long delivered) const;
    void close();

private:
    std::unique_ptr<Kz::DownloadStream> mCloud;
    std::unique_ptr<LmCurlDownloadStream> mCurl;
    std::unique_ptr<std::ifstream> mLocal;
    std::istream* mStream = nullptr;
    std::string mOpenFault;
    long long mLocalLength = -1;
};
