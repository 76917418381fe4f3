// The process-wide front door for everything that speaks HTTP.
//
// Callers hand LmCurlClient a URL in one of the system's forms; the first
// two characters decide the provider:
//   "s3"        an object on Amazon S3, signed with AWS Signature V4
//   "gs"        gs://bucket/key on Google Cloud Storage
//   "az"        az://account/container/blob on Azure Blob Storage
//   "wa", "was" a WADO-URI object ("was": TLS)
//   "wr", "wrs" a WADO-RS (DICOMweb) object ("wrs": TLS)
//   otherwise   a plain URL, used as it stands
// The client turns the URL into a real one, adds the provider's
// authentication and returns a stream, bytes, JSON or a status. Stream
// operations never throw: the stream's httpStatus() tells the outcome.
//
// Every service endpoint is a deployment constant read through
// ExResource::getParameter, with the production value as default:
//   MDX_S3_DOMAIN              "amazonaws.com"
//   MDX_GCS_ENDPOINT           "https://storage.googleapis.com/"
//   MDX_GCS_DOWNLOAD_ENDPOINT  "https://storage.googleapis.com/"
//   MDX_GCS_UPLOAD_ENDPOINT    "https://storage.googleapis.com/" (XML API, resumable form)
//   MDX_GCS_HOST               "storage.googleapis.com"
//   MDX_AZURE_BLOB_SUFFIX      ".blob.core.windows.net"
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/curl/LmCurlDownload.h>
#include <mdxlib/curl/LmCurlHandleFactory.h>
#include <mdxlib/curl/LmCurlHelper.h>
#include <mdxlib/curl/LmCurlRequest.h>
#include <mdxlib/curl/LmCurlUploadSessionBase.h>
#include <mdxlib/curl/LmCurlUploadStream.h>
#include <mdxlib/curl/LmHttpStatus.h>

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace LmCurlEndpoints {
MDX_EXPORT std::string s3Domain();
MDX_EXPORT std::string gcsEndpoint();
MDX_EXPORT std::string gcsDownloadEndpoint();
MDX_EXPORT std::string gcsUploadEndpoint();
MDX_EXPORT std::string gcsHost();
MDX_EXPORT std::string azureBlobSuffix();
} // namespace LmCurlEndpoints

class MDX_EXPORT LmCurlClient
{
public:
    enum Flags
    {
        PartialRequests = 1, // first a ranged request, then parallel ranges
        Head = 2,
        Tolerate404 = 4 // a 404 is an answer, not an error to log
    };

    // The one client, made at first use, never destroyed.
    static LmCurlClient* instance();

    std::shared_ptr<LmCurlHelper> helper() const { return mHelper; }

    LmHttpStatus head(std::string const& url);
    LmCurlDownloadStream read(std::string const& url, bool partial);
    LmCurlDownloadStream read(std::string const& url, std::vector<std::string> const& headers, bool partial);
    LmCurlDownloadStream readRange(std::string const& url, std::string const& range, bool partial);
    QByteArray readBytes(std::string const& url, LmHttpStatus& status);
    QByteArray readBytes(std::string const& url, std::vector<std::string> const& headers,
                         LmHttpStatus& status);
    QJsonDocument readJson(std::string const& url, LmHttpStatus& status);
    QJsonDocument postJson(std::string const& url, QJsonObject const& body, LmHttpStatus& status);
    QJsonDocument postBytes(std::string const& url, QByteArray const& body, std::string const& contentType,
                            LmHttpStatus& status);
    QJsonDocument postBytes(std::string const& url, QByteArray const& body, LmHttpStatus& status);
    QByteArray postBytesRaw(std::string const& url, QByteArray const& body, std::string const& contentType,
                            LmHttpStatus& status);
    // One raw PUT: no retry, no authentication; code 0 on a transport failure.
    LmCurlResponse put(std::string const& url, std::vector<std::string> const& headers,
                       QByteArray const& body);
    bool deleteObject(std::string const& url);

    // An upload stream for an "s3", "az" or "gs" URL. Never
    // throws: when no session can be made, the stream has no buffer, is not
    // open and fails every write.
    LmCurlUploadStream write(std::string const& url);
    // The provider's session, chosen by the URL's first two characters (any
    // URL that is neither "s3" nor "az" is taken for Google Cloud Storage);
    // for Azure and Google the authorization line is fetched here, once for
    // the session.
    std::unique_ptr<LmCurlUploadSessionBase> createResumableUploadSession(std::string const& url,
                                                                          std::string const& contentType);

    // "https://<external web service host>/sola/Browser.svc/<path>"
    static std::string url(std::string const& path);
    static bool isUrl(char const* path);

    // A service account key as JSON, in place of GOOGLE_APPLICATION_CREDENTIALS;
    // set-up time only. False (with the reason logged) when it is unusable.
    bool setGoogleAuthentication(QJsonObject const& serviceAccount);

    void setFFS2Parameters(char const* name) { mHelper->setFFS2Parameters(name); }
    void setSessionID(std::string id, bool asBearerToken)
    {
        mHelper->setSessionID(std::move(id), asBearerToken);
    }
    std::string sessionID() const { return mHelper->sessionID(); }
    void setNumConcurrentRequestsPerFile(int count) { mNumConcurrentRequestsPerFile = count; }
    int numConcurrentRequestsPerFile() const { return mNumConcurrentRequestsPerFile; }
    void setChunkSizeForPartialRequests(int size) { mChunkSizeForPartialRequests = size; }
    int chunkSizeForPartialRequests() const { return mChunkSizeForPartialRequests; }
    static void setMaxConnects(int maxConnects) { LmCurlHelper::setMaxConnects(maxConnects); }
    static int maxConnects() { return LmCurlHelper::maxConnects(); }

    static bool sDebug;

    // The building blocks of the stream operations, for callers that need a
    // POST stream or their own flags.
    LmCurlDownloadRequest* createDownloadRequest(std::string const& url, QByteArray const& postData,
                                                 std::vector<std::string> headers, int flags);
    LmCurlDownloadStream createDownloadStreamAndPeek(std::string const& url, QByteArray const& postData,
                                                     std::vector<std::string> const& headers, int flags);

    // The sleep between stream-opening retries; tests make it short.
    void setRetrySleeper(std::function<void(long long)> sleeper);

    LmCurlClient();
    ~LmCurlClient();
    LmCurlClient(LmCurlClient const&) = delete;
    LmCurlClient& operator=(LmCurlClient const&) = delete;

private:
    int mNumConcurrentRequestsPerFile = 4;
    int mChunkSizeForPartialRequests = 12582912;
    std::shared_ptr<LmCurlHelper> mHelper;
    std::shared_ptr<LmCurlHandleFactory> mDownloadFactory;
    std::shared_ptr<LmCurlHandleFactory> mRawFactory;
    std::function<void(long long)> mRetrySleeper;
};
