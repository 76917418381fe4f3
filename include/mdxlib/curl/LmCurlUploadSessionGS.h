// An upload to Google Cloud Storage by the XML API's resumable protocol. An
// object that fits one chunk goes up by a single PUT. A larger one opens a
// session (POST with "x-goog-resumable: start", answered 201 with the
// session's URL in "Location"); every chunk then goes to that URL with its
// Content-Range, and the server's 308 says in "Range: bytes=0-N" how much it
// holds. The session follows the server's count: what did not arrive is sent
// again at once, and after a failure a status query ("bytes */*") asks where
// things stand. The running MD5 of everything written is checked against
// the "x-goog-hash" of the finished object.
//
// The authorization line is fetched once, when the session is made; chunk
// and status requests go without it, the session URL being the credential.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/curl/LmCurlRetryPolicy.h>
#include <mdxlib/curl/LmCurlUploadSessionBase.h>

#include <QByteArray>
#include <QCryptographicHash>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class MDX_EXPORT LmCurlUploadSessionGS : public LmCurlUploadSessionBase
{
public:
    // What an answer of the service says.
    struct UploadResponse
    {
        int code = 0;
        bool success = false;
        bool finished = false;
        std::string location;
        int64_t nextByte = -1; // the next byte the server wants; -1 when unknown
        QByteArray md5;        // hexadecimal, as the server reports it
    };

    LmCurlUploadSessionGS(std::unique_ptr<LmCurlRawClientBase> client, std::string const& authorization,
                          std::string const& uploadUrl, std::string const& url,
                          std::string const& contentType);
    ~LmCurlUploadSessionGS() override;

    void uploadChunk(std::string_view data, bool last) override;
    void cancel() override;
    bool done() const override { return mIsDone; }
    void setExpectedHashAndSize(char const* hash, long long size) override;
    std::string const& loggingUrl() const override { return mUrl; }

    void initSession();
    void uploadSingleChunk(std::string_view data);
    void resetSession(LmCurlExponentialBackoffRetryPolicy& policy);
    void validateHash(QByteArray const& remote);

    // Throws UnrecoverableResponseError for a code asking again cannot help.
    static UploadResponse parseResponse(LmCurlResponse const& response);
    // "Code: ..., Message: ..." of an XML error, the start of anything else.
    static std::string parseErrorPayload(std::string const& payload);

    std::string const& sessionUrl() const { return mSessionUrl; }
    uint64_t bytesWritten() const { return mBytesWritten; }
    // The wait between tries; tests make it short.
    void setRetrySleeper(LmCurlRetry::Sleeper sleeper) { mSleeper = std::move(sleeper); }

private:
    LmCurlResponse send(char const* verb, std::string const& target, std::vector<std::string> const& headers,
                        std::string_view body, bool authorize);
    QByteArray localHash() const;
    void finish(QByteArray const& remoteHash);

    std::string mSessionUrl;
    uint64_t mBytesWritten = 0;
    uint64_t mNextExpectedByte = 0;
    std::string mUrl;
    std::string mContentType;
    std::string mUploadUrl;
    bool mIsFirstChunk = true;
    bool mIsDone = false;
    std::string mAuthorization;
    std::unique_ptr<LmCurlRawClientBase> mClient;
    QCryptographicHash mMd5{QCryptographicHash::Md5};
    QByteArray mExpectedHash;
    int64_t mExpectedSize = 0;
    LmCurlRetry::Sleeper mSleeper = LmCurlRetry::sleepFor;
};
