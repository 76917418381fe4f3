#include <mdxlib/curl/LmCurlUploadSessionS3.h>

#include "core/curl/LmCurlUploadSupport.h"

#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/curl/LmCurlErrors.h>
#include <mdxlib/platform/McLogFile.h>

#include <stdexcept>

namespace {

McLogFile& log()
{
    return *getTheLogInstance();
}

// True for success; throws for the codes that asking again cannot change;
// false (retry) for everything else.
bool checkResponse(LmCurlResponse const& response)
{
    int const code = response.getResponseCode();
    if (code >= 200 && code <= 299)
        return true;
    if (code == 400 || code == 403)
        throw UnrecoverableResponseError("Got HTTP status code " + std::to_string(code) +
                                         ", which indicates an unrecoverable error:\n" +
                                         response.getPayload());
    log().tracef(McLogFile::LevelWarning, "AWS", "Got HTTP status code %d:\n%s", code,
                 response.getPayload().c_str());
    return false;
}

// S3 quotes its ETags; the completion names them without.
std::string unquoted(std::string etag)
{
    if (etag.size() >= 3 && etag.front() == '"')
        etag = etag.substr(1, etag.size() - 2);
    return etag;
}

} // namespace

LmCurlUploadSessionS3::LmCurlUploadSessionS3(std::unique_ptr<LmCurlRawClientBase> client,
                                             std::shared_ptr<LmAwsAuth> auth, std::string const& url,
                                             std::string const& contentType)
    : mUrl(url)
    , mContentType(contentType.empty() ? std::string("application/octet-stream") : contentType)
    , mAwsAuth(std::move(auth))
    , mClient(std::move(client))
{
}

LmCurlUploadSessionS3::~LmCurlUploadSessionS3()
{
    if (!mUploadId.empty())
        abortMultiPartUpload();
}

void LmCurlUploadSessionS3::setExpectedHashAndSize(char const* hash, long long size)
{
    mExpectedHash = QByteArray(hash ? hash : "");
    mExpectedSize = size;
}

void LmCurlUploadSessionS3::cancel()
{
    if (!mUploadId.empty())
        abortMultiPartUpload();
}

LmCurlResponse LmCurlUploadSessionS3::send(char const* verb, std::string const& url,
                                           std::vector<std::string> const& headers, std::string_view body)
{
    std::vector<std::string> signedHeaders = headers;
    std::string const target = mAwsAuth->prepareRequest(verb, url, signedHeaders);
    LmCurlRequest request(target, verb);
    for (std::string const& line : signedHeaders)
        request.addRequestHeader(line);
    // The body is at hand: no "100-continue" round trip before it.
    request.addRequestHeader("Expect:");
    request.setPayload(body);
    return mClient->process(request);
}

void LmCurlUploadSessionS3::uploadChunk(std::string_view data, bool last)
{
    mBytesUploaded += data.size();
    if (last) {
        LmCurlUpload::checkFinalSize(mBytesUploaded, mExpectedSize);
        if (mIsFirstChunk) {
            mIsFirstChunk = false;
            uploadSingleChunk(data);
            return;
        }
    } else if (mIsFirstChunk) {
        createMultiPartUpload();
    }
    mIsFirstChunk = false;
    QByteArray const digest = LmCurlUpload::md5(data);
    std::vector<std::string> const headers{LmCurlUpload::lengthHeader(data.size()),
                                           LmCurlUpload::contentMd5Header(digest)};
    LmCurlUpload::retry(mSleeper, "Retry policy exhausted while uploading chunk", [&] {
        try {
            std::string const url =
                mUrl + "?partNumber=" + std::to_string(mEtags.size() + 1) + "&uploadId=" + mUploadId;
            LmCurlResponse const response = send("PUT", url, headers, data);
            if (!checkResponse(response))
                return false;
            mEtags.push_back(unquoted(response.getSingleHeader("etag").value_or(std::string())));
            if (last) {
                completeMultiPartUpload();
                mUploadId.clear();
                mIsDone = true;
            }
            return true;
        } catch (CurlError const& e) {
            log().errorf("Received curl error while uploading chunk. File: %s. Error: %s.", mUrl.c_str(),
                         e.what());
            return false;
        }
    });
}

void LmCurlUploadSessionS3::uploadSingleChunk(std::string_view data)
{
    LmCurlUpload::putWhole(mSleeper, mUrl, data, mExpectedHash, {},
                           [&](std::vector<std::string> const& headers) {
                               if (!checkResponse(send("PUT", mUrl, headers, data)))
                                   return false;
                               mIsDone = true;
                               return true;
                           });
}

void LmCurlUploadSessionS3::createMultiPartUpload()
{
    std::string payload;
    LmCurlUpload::retry(mSleeper, "Retry policy exhausted while creating multipart upload", [&] {
        try {
            LmCurlResponse const response =
                send("POST", mUrl + "?uploads=", {LmCurlUpload::lengthHeader(0)}, {});
            if (!checkResponse(response))
                return false;
            payload = response.getPayload();
            return true;
        } catch (CurlError const& e) {
            log().warnf("Received curl error while creating multipart upload. File: %s. Error: %s",
                        mUrl.c_str(), e.what());
            return false;
        }
    });
    QString root;
    QString id;
    if (!LmCurlUpload::readXmlRoot(payload, "UploadId", root, id))
        id.clear();
    mUploadId = id.toLocal8Bit().toStdString();
    mEtags.clear();
    if (mUploadId.empty())
        throw UnrecoverableResponseError("Response did not contain an UploadId: " + payload);
}

void LmCurlUploadSessionS3::completeMultiPartUpload()
{
    std::string body = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><CompleteMultipartUpload>";
    for (size_t i = 0; i < mEtags.size(); ++i)
        body += "<Part><ETag>" + mEtags[i] + "</ETag><PartNumber>" + std::to_string(i + 1) +
                "</PartNumber></Part>";
    body += "</CompleteMultipartUpload>";
    std::vector<std::string> const headers{LmCurlUpload::lengthHeader(body.size()),
                                           "Content-Type: application/xml"};
    LmCurlUpload::retry(mSleeper, "Retry policy exhausted while completing multipart upload", [&] {
        try {
            LmCurlResponse const response = send("POST", mUrl + "?uploadId=" + mUploadId, headers, body);
            if (!checkResponse(response))
                return false;
            // S3 may answer 200 and still fail, with an Error document in the
            // body; asking again would not help.
            QString root;
            QString unused;
            if (!LmCurlUpload::readXmlRoot(response.getPayload(), QString(), root, unused) ||
                root != "CompleteMultipartUploadResult")
                throw UnrecoverableResponseError("Unexpected response from CompleteMultiPartUpload:\n" +
                                                 response.getPayload());
            return true;
        } catch (CurlError const& e) {
            log().warnf("Received curl error while completing multipart upload. File: %s. Error: %s",
                        mUrl.c_str(), e.what());
            return false;
        }
    });
}

void LmCurlUploadSessionS3::abortMultiPartUpload()
{
    try {
        LmCurlUpload::retry(mSleeper, "Retry policy exhausted while aborting multipart upload", [&] {
            try {
                if (!checkResponse(send("DELETE", mUrl + "?uploadId=" + mUploadId, {}, {})))
                    return false;
                log().printf("Successfully aborted multipart upload. File: %s", mUrl.c_str());
                mUploadId.clear();
                return true;
            } catch (CurlError const& e) {
                log().warnf("Received curl error while aborting multipart upload. File: %s. Error: %s",
                            mUrl.c_str(), e.what());
                return false;
            }
        });
    } catch (RetryPolicyExhaustedError const&) {
        // Ends in silence, the upload ID kept.
    } catch (std::exception const& e) {
        log().warnf("Exception while aborting multipart upload: %s", e.what());
    }
}
