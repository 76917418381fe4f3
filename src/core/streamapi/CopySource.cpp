#include "CopySource.h"

#include "TransferCheck.h"

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/platform/McFilename.h>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

CopySource::CopySource(std::string const& path)
{
    char const* const name = path.c_str();
    if (McFilename::isInContainer(name) || McFilename::isWado(name)) {
        std::string url = path;
        LmDcmFileLoader::convertPathToURL(url);
        mCloud = std::make_unique<Kz::DownloadStream>(Kz::CloudReader::instance().openStream(url));
        // A member the container doesn't hold gives a stream without a file,
        // which reads as empty: that is a file that isn't open, not an empty one.
        if (mCloud->isBad())
            mOpenFault = "cannot open";
        mStream = mCloud.get();
    } else if (McFilename::isUrl(name)) {
        mCurl = std::make_unique<LmCurlDownloadStream>(LmCurlClient::instance()->read(path, false));
        mOpenFault = downloadFault(*mCurl, -1);
        if (!mOpenFault.empty() && mCurl->httpStatus().responseCode == 0)
            mOpenFault = "cannot connect";
        mStream = mCurl.get();
    } else {
        struct stat info;
        if (::stat(name, &info) != 0)
            mOpenFault = std::strerror(errno);
        else if (S_ISDIR(info.st_mode))
            mOpenFault = "is a folder";
        else
            mLocalLength = info.st_size;
        mLocal = std::make_unique<std::ifstream>(path, std::ios::binary);
        if (mOpenFault.empty() && !mLocal->is_open())
            mOpenFault = std::strerror(errno);
        mStream = mLocal.get();
    }
    if (mOpenFault.empty() && !mStream->good())
        mOpenFault = "cannot open";
}

long long CopySource::length() const
{
    if (mCloud)
        return mCloud->length();
    if (mCurl) {
        long long const expected = mCurl->httpStatus().expectedBytes();
        return expected >= 0 ? expected : -1;
    }
    return mLocalLength;
}

std::string CopySource::fault(long long delivered) const
{
    if (!mOpenFault.empty())
        return mOpenFault;
    if (mStream->bad())
        return "read error after " + std::to_string(delivered) + " bytes";
    if (mCloud) {
        if (mCloud->isBad())
            return "the transfer failed after " + std::to_string(delivered) + " bytes";
        long long const length = mCloud->length();
        if (length >= 0 && delivered != length)
            return "the transfer ended after " + std::to_string(delivered) + " of " + std::to_string(length) +
                   " bytes";
        return std::string();
    }
    if (mCurl)
        return downloadFault(*mCurl, delivered);
    return std::string();
}

void CopySource::close()
{
    if (mCloud)
        mCloud->close();
    if (mCurl)
        mCurl->close();
    if (mLocal)
        mLocal->close();
}
