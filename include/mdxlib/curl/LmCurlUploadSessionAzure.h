// An upload to Azure Blob Storage as a block blob. An object that fits one
// chunk goes up by a single Put Blob. A larger one first writes an empty
// blob, whose ETag then guards everything that follows: blocks go up by Put
// Block under 24-character Base64 IDs, and Put Block List commits them under
// "If-Match" with that ETag, so that a concurrent writer is never
// overwritten. An upload that does not finish puts the blob back to its
// committed blocks, or deletes this session's empty blob, and leaves alone a
// blob somebody else changed meanwhile. Only 500 and 503 are retried.
//
// The authorization line is fetched once, when the session is made, and not
// renewed: an upload that outlasts its token fails.
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

class MDX_EXPORT LmCurlUploadSessionAzure : public LmCurlUploadSessionBase
{
public:
    LmCurlUploadSessionAzure(std::unique_ptr<LmCurlRawClientBase> client, std::string const& authorization,
                             std::string const& url);
    ~LmCurlUploadSessionAzure() override;

    void uploadChunk(std::string_view data, bool last) override;
    void cancel() override;
    bool done() const override { return mIsDone; }
    void setExpectedHashAndSize(char const* hash, long long size) override;
    std::string const& loggingUrl() const override { return mUrl; }

    void uploadSingleChunk(std::string_view data);
    void createBlockBlob();
    static QByteArray getNextBlockID();
    // Put Block List of ids as uncommitted blocks: a normal commit.
    void commitBlockBlob(std::vector<QByteArray> const& ids);
    // False when the blob changed under us or its list cannot be read.
    bool getBlockList(std::vector<QByteArray>& out);
    static bool parseBlockList(std::vector<QByteArray>& out, std::string const& payload);
    void deleteBlob();
    void deleteOrRestore();

    std::string const& etag() const { return mEtag; }
    std::vector<QByteArray> const& blockIds() const { return mBlockIds; }
    // The wait between tries; tests make it short.
    void setRetrySleeper(LmCurlRetry::Sleeper sleeper) { mSleeper = std::move(sleeper); }

private:
    LmCurlResponse send(char const* verb, std::string const& url, std::vector<std::string> headers,
                        std::string_view body);
    void putBlockList(std::vector<QByteArray> const& ids, char const* element);

    std::string mAuthorization;
    std::string mUrl;
    bool mIsFirstChunk = true;
    std::string mEtag;
    std::vector<QByteArray> mBlockIds;
    uint64_t mBytesUploaded = 0;
    bool mIsDone = false;
    std::unique_ptr<LmCurlRawClientBase> mClient;
    QByteArray mExpectedHash;
    int64_t mExpectedSize = 0;
    LmCurlRetry::Sleeper mSleeper = LmCurlRetry::sleepFor;
};
