#include "CopyTarget.h"

#include "TemporaryFile.h"

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/platform/McFilename.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace {

// The upload protocols the client speaks; it would take any other URL for
// Google's, so those are refused here.
bool uploadable(std::string const& url)
{
    return url.rfind("s3://", 0) == 0 || url.rfind("gs://", 0) == 0 || url.rfind("az://", 0) == 0;
}

} // namespace

CopyTarget::CopyTarget(std::string const& path, char const* hash, long long size)
    : mPath(path)
{
    if (!McFilename::isUrl(path.c_str())) {
        openLocal();
        return;
    }
    if (!uploadable(path)) {
        mOpenFault = "only s3://, gs:// and az:// objects can be written";
        return;
    }
    mUpload = std::make_unique<LmCurlUploadStream>(LmCurlClient::instance()->write(path));
    if (!mUpload->isOpen()) {
        mOpenFault = "cannot start the upload";
        return;
    }
    mUpload->setExpectedHashAndSize(hash ? hash : "", size);
    mStream = mUpload.get();
}

void CopyTarget::openLocal()
{
    // Something that is no regular file (a device, a pipe, a link) is
    // written as it stands: it can't be replaced by a rename.
    struct stat info;
    bool const direct = ::lstat(mPath.c_str(), &info) == 0 && !S_ISREG(info.st_mode);
    mWritePath = direct ? mPath : createTemporaryBeside(mPath);
    if (mWritePath.empty()) {
        mOpenFault = std::strerror(errno);
        return;
    }
    mLocal = std::make_unique<std::ofstream>(mWritePath, std::ios::binary | std::ios::trunc);
    if (!mLocal->is_open()) {
        mOpenFault = std::strerror(errno);
        if (!direct)
            std::remove(mWritePath.c_str());
        return;
    }
    mStream = mLocal.get();
}

bool CopyTarget::finish(bool keep, std::string& fault)
{
    mFinished = true;
    if (mUpload) {
        if (!keep)
            mUpload->cancel();
        mUpload->close();
        if (keep && !*mUpload)
            fault = "the upload did not complete";
        return keep && *mUpload;
    }
    if (!mLocal)
        return false;
    mLocal->close();
    bool const temporary = mWritePath != mPath;
    if (keep && mLocal->fail())
        fault = std::string("write error: ") + std::strerror(errno);
    else if (keep && temporary && std::rename(mWritePath.c_str(), mPath.c_str()) != 0)
        fault = std::string("cannot rename into place: ") + std::strerror(errno);
    else if (keep)
        return true;
    if (temporary)
        std::remove(mWritePath.c_str());
    return false;
}

CopyTarget::~CopyTarget()
{
    if (!mFinished && (mUpload || mLocal)) {
        std::string ignored;
        finish(false, ignored);
    }
}
