// Where a copy writes to: an upload to an s3://, az:// or gs:// object, or a
// local file. A regular local file is written under a temporary name beside
// it and renamed at the end, so that a copy that fails leaves no part behind
// and an older file of that name as it was.
#pragma once

#include <mdxlib/curl/LmCurlUploadStream.h>

#include <fstream>
#include <memory>
#include <ostream>
#include <string>

class CopyTarget
{
public:
    // hash and size go to an upload, which checks them before it completes.
    CopyTarget(std::string const& path, char const* hash, long long size);
    ~CopyTarget();
    CopyTarget(CopyTarget const&) = delete;
    CopyTarget& operator=(CopyTarget const&) = delete;

    // Null when the target could not be opened; openFault() says why.
    std::ostream* stream() const { return mStream; }
    std::string const& openFault() const { return mOpenFault; }
    // keep: complete the target; otherwise give it up. True when a kept
    // target is complete; fault says why not.
    bool finish(bool keep, std::string& fault);

private:
    void openLocal();

    std::string mPath;
    std::string mWritePath;
    std::unique_ptr<LmCurlUploadStream> mUpload;
    std::unique_ptr<std::ofstream> mLocal;
    std::ostream* mStream = nullptr;
    std::string mOpenFault;
    bool mFinished = false;
};
