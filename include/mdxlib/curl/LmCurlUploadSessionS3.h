// An upload to Amazon S3: one signed PUT for an object that fits one chunk,
// else a multipart upload (create, one PUT per part, complete). A multipart
// upload that does not finish is aborted, by cancel() or the destructor, so
// that no invisible parts stay on the bucket. Every request is signed anew
// for each try, since the date in the signature moves; each chunk carries its
// Content-MD5. Status 400 and 403 end at once, everything else is retried.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/curl/LmCurlRetryPolicy.h>
#include <mdxlib/curl/LmCurlUploadSessionBase.h>

#include <QByteArray>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class LmAwsAuth;

class MDX_EXPORT LmCurlUploadSessionS3 : public LmCurlUploadSessionBase
{
public:
    LmCurlUploadSessionS3(std::unique_ptr<LmCurlRawClientBase> client, std::shared_ptr<LmAwsAuth> auth,
                          std::string const& url, std::string const& contentType);
    ~LmCurlUploadSessionS3() override;

    void uploadChunk(std::string_view data, bool last) override;
    void cancel() override;
    bool done() const override { return mIsDone; }
    void setExpectedHashAndSize(char const* hash, long long size) override;
    std::string const& loggingUrl() const override { return mUrl; }

    void uploadSingleChunk(std::string_view data);
    void createMultiPartUpload();
    void completeMultiPartUpload();
    void abortMultiPartUpload();

    std::string const& contentType() const { return mContentType; }
    std::string const& uploadId() const { return mUploadId; }
    std::vector<std::string> const& etags() const { return mEtags; }
    // The wait between tries; tests make it short.
    void setRetrySleeper(LmCurlRetry::Sleeper sleeper) { mSleeper = std::move(sleeper); }

private:
    // Signs and sends one request; the signature's headers go onto a fresh
    // copy of headers.
    LmCurlResponse send(char const* verb, std::string const& url, std::vector<std::string> const& headers,
                        std::string_view body);

    std::string mUrl;
    std::string mContentType;
    bool mIsFirstChunk = true;
    std::string mUploadId;
    std::vector<std::string> mEtags;
    uint64_t mBytesUploaded = 0;
    bool mIsDone = false;
    std::shared_ptr<LmAwsAuth> mAwsAuth;
    std::unique_ptr<LmCurlRawClientBase> mClient;
    QByteArray mExpectedHash;
    int64_t mExpectedSize = 0;
    LmCurlRetry::Sleeper mSleeper = LmCurlRetry::sleepFor;
};
