#include <mdxlib/curl/LmCurlClient.h>

#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/curl/LmCurlRetryPolicy.h>
#include <mdxlib/curl/LmCurlSettings.h>
#include <mdxlib/curl/LmCurlUploadSessionAzure.h>
#include <mdxlib/curl/LmCurlUploadSessionGS.h>
#include <mdxlib/curl/LmCurlUploadSessionS3.h>
#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McFilename.h>
#include <mdxlib/platform/McLogFile.h>

#include <algorithm>

bool LmCurlClient::sDebug = false;

namespace {

constexpr unsigned long kFactoryCapacity = 64;
constexpr int kMinFirstRange = 1025;
constexpr int kReadBlock = 16384;
constexpr int kInitialReadBuffer = 131072;

bool startsWith(std::string const& text, char const* prefix)
{
    return text.rfind(prefix, 0) == 0;
}

void copyStatus(LmHttpStatus const& from, LmHttpStatus& to)
{
    to.responseCode = from.responseCode;
    to.headers = from.headers;
    to.curlError = from.curlError;
    to.bytesReceived = from.bytesReceived;
    to.timeToFirstHeader = from.timeToFirstHeader;
    to.next = from.next;
}

char const* verbFor(QByteArray const& postData, int flags)
{
    if (!postData.isEmpty())
        return "POST";
    return (flags & LmCurlClient::Head) ? "HEAD" : "GET";
}

void logHeaders(LmHttpStatus const& status)
{
    for (auto const& [name, value] : status.headers)
        getTheLogInstance()->printf("%s", lmRedactSecrets(name + ": " + value).c_str());
}

} // namespace

// ---------------------------------------------------------------- client

LmCurlClient* LmCurlClient::instance()
{
    static LmCurlClient* client = new LmCurlClient; // lives until the process ends
    return client;
}

LmCurlClient::LmCurlClient()
    : mHelper(std::make_shared<LmCurlHelper>(this))
    , mDownloadFactory(std::make_shared<LmCurlHandleFactory>(kFactoryCapacity))
    , mRawFactory(std::make_shared<LmCurlHandleFactory>(kFactoryCapacity))
    , mRetrySleeper(LmCurlRetry::sleepFor)
{
    sDebug = LmCurlSettings::get().debug;
}

LmCurlClient::~LmCurlClient() = default;

void LmCurlClient::setRetrySleeper(std::function<void(long long)> sleeper)
{
    mRetrySleeper = sleeper ? std::move(sleeper) : std::function<void(long long)>(LmCurlRetry::sleepFor);
}

std::string LmCurlClient::url(std::string const& path)
{
    return "https://" + ExResource::getWebServiceHostExternal() + "/sola/Browser.svc/" + path;
}

bool LmCurlClient::isUrl(char const* path)
{
    return McFilename::isUrl(path);
}

LmCurlDownloadRequest* LmCurlClient::createDownloadRequest(std::string const& url, QByteArray const& postData,
                                                           std::vector<std::string> headers, int flags)
{
    auto* request = new LmCurlDownloadRequest(mDownloadFactory, mHelper->share());
    if (!postData.isEmpty())
        headers.emplace_back("Expect: "); // no "Expect: 100-continue" round trip
    if (startsWith(url, "gs")) {
        request->mUrl = LmCurlHelper::convertGoogleUrl(url, true, !postData.isEmpty());
        mHelper->addGoogleAuthorizationHeader(headers);
    } else if (startsWith(url, "az")) {
        request->mUrl = LmCurlHelper::convertAzureUrl(url);
        mHelper->addAzureAuthorizationHeader(request->mUrl, headers);
    } else if (startsWith(url, "s3")) {
        request->mUrl = mHelper->awsAuth()->prepareRequest(verbFor(postData, flags), url, headers);
    } else {
        request->mUrl = url;
        std::string const& session = mHelper->sessionID();
        if (session.empty())
            mHelper->addRequestHeaders(url, headers);
        else if (mHelper->sessionIDIsBearerToken())
            headers.push_back("Authorization: Bearer " + session);
        else
            request->mUrl += (url.find('?') == std::string::npos ? "?s=" : "&s=") + session;
    }
    if ((flags & PartialRequests) && postData.isEmpty() && mNumConcurrentRequestsPerFile >= 2) {
        request->mFrom = 0;
        request->mTo = std::max(mChunkSizeForPartialRequests, kMinFirstRange) - 1;
    }
    request->resetOptions(postData, std::move(headers), (flags & Head) != 0);
    request->addToMulti();
    return request;
}

LmCurlDownloadStream LmCurlClient::createDownloadStreamAndPeek(std::string const& url,
                                                               QByteArray const& postData,
                                                               std::vector<std::string> const& headers,
                                                               int flags)
{
    McLogFile* log = getTheLogInstance();
    auto policy = LmCurlExponentialBackoffRetryPolicy::forRequests();
    // A presigned URL carries its signature in the query.
    std::string const shown = lmRedactSecrets(url);
    for (;;) {
        // Each try is a new request, so authentication is applied anew.
        LmCurlDownloadStream stream(new LmCurlDownloadStreambuf(
            createDownloadRequest(url, postData, headers, flags), mNumConcurrentRequestsPerFile));
        stream.peek();
        LmHttpStatus const& status = stream.httpStatus();
        if (status.responseCode >= 200 && status.responseCode <= 299 && !status.curlError)
            return stream;
        char const* verb = verbFor(postData, flags);
        if (status.unrecoverable()) {
            if ((flags & Tolerate404) && status.responseCode == 404)
                return stream;
            log->errorf("%s %s unrecoverable error %d\n", verb, shown.c_str(), status.responseCode);
            logHeaders(status);
            return stream;
        }
        if (!status.curlError) {
            log->errorf("%s %s transient error %d\n", verb, shown.c_str(), status.responseCode);
            logHeaders(status);
        }
        if (policy.isExhausted()) {
            log->errorf("%s %s retry policy exhausted", verb, shown.c_str());
            return stream;
        }
        mRetrySleeper(policy.onFailure());
        log->warnf("Retrying %s %s", verb, shown.c_str());
    }
}

LmHttpStatus LmCurlClient::head(std::string const& url)
{
    LmCurlDownloadStream stream = createDownloadStreamAndPeek(url, QByteArray(), {}, Head | Tolerate404);
    LmHttpStatus result;
    copyStatus(stream.httpStatus(), result);
    return result;
}

LmCurlDownloadStream LmCurlClient::read(std::string const& url, bool partial)
{
    return read(url, std::vector<std::string>(), partial);
}

LmCurlDownloadStream LmCurlClient::read(std::string const& url, std::vector<std::string> const& headers,
                                        bool partial)
{
    return createDownloadStreamAndPeek(url, QByteArray(), headers, partial ? PartialRequests : 0);
}

LmCurlDownloadStream LmCurlClient::readRange(std::string const& url, std::string const& range, bool partial)
{
    return read(url, std::vector<std::string>{"Range: bytes=" + range}, partial);
}

QByteArray LmCurlClient::readBytes(std::string const& url, LmHttpStatus& status)
{
    return readBytes(url, std::vector<std::string>(), status);
}

QByteArray LmCurlClient::readBytes(std::string const& url, std::vector<std::string> const& headers,
                                   LmHttpStatus& status)
{
    LmCurlDownloadStream stream =
        createDownloadStreamAndPeek(url, QByteArray(), headers, PartialRequests | Tolerate404);
    auto const length = static_cast<int32_t>(stream.contentLength());
    QByteArray result;
    qint64 filled = 0;
    if (length > 0) {
        result.resize(length);
        while (filled < length && stream) {
            stream.read(result.data() + filled, length - filled);
            if (stream.gcount() <= 0)
                break;
            filled += stream.gcount();
        }
    } else {
        result.resize(kInitialReadBuffer);
        for (;;) {
            stream.read(result.data() + filled, result.size() - filled);
            if (stream.gcount() <= 0)
                break;
            filled += stream.gcount();
            if (filled > result.size() / 2)
                result.resize(result.size() * 2);
        }
    }
    copyStatus(stream.httpStatus(), status);
    result.resize(static_cast<int>(filled));
    return result;
}

QJsonDocument LmCurlClient::readJson(std::string const& url, LmHttpStatus& status)
{
    return QJsonDocument::fromJson(readBytes(url, status));
}

QJsonDocument LmCurlClient::postJson(std::string const& url, QJsonObject const& body, LmHttpStatus& status)
{
    return postBytes(url, QJsonDocument(body).toJson(), "application/json", status);
}

QJsonDocument LmCurlClient::postBytes(std::string const& url, QByteArray const& body,
                                      std::string const& contentType, LmHttpStatus& status)
{
    return QJsonDocument::fromJson(postBytesRaw(url, body, contentType, status));
}

QJsonDocument LmCurlClient::postBytes(std::string const& url, QByteArray const& body, LmHttpStatus& status)
{
    return postBytes(url, body, "application/octet-stream", status);
}

QByteArray LmCurlClient::postBytesRaw(std::string const& url, QByteArray const& body,
                                      std::string const& contentType, LmHttpStatus& status)
{
    std::vector<std::string> const headers{"Content-Type: " + contentType};
    LmCurlDownloadStream stream = createDownloadStreamAndPeek(url, body, headers, 0);
    QByteArray result;
    char block[kReadBlock];
    for (;;) {
        stream.read(block, kReadBlock);
        if (stream.gcount() <= 0)
            break;
        result.append(block, static_cast<int>(stream.gcount()));
    }
    copyStatus(stream.httpStatus(), status);
    return result;
}

LmCurlResponse LmCurlClient::put(std::string const& url, std::vector<std::string> const& headers,
                                 QByteArray const& body)
{
    try {
        LmCurlRequest request(url, "PUT");
        request.setPayload(std::string_view(body.constData(), static_cast<size_t>(body.size())));
        for (std::string const& line : headers)
            request.addRequestHeader(line);
        LmCurlRawClient client(mRawFactory, mHelper->share());
        return client.process(request);
    } catch (std::exception const& e) {
        getTheLogInstance()->errorf("Exception in LmCurlClient::put(%s): %s", lmRedactSecrets(url).c_str(),
                                    e.what());
        return LmCurlResponse(0, {}, std::make_unique<std::string>());
    }
}

bool LmCurlClient::deleteObject(std::string const& url)
{
    try {
        std::vector<std::string> headers;
        std::string target;
        std::vector<int> success;
        if (startsWith(url, "gs")) {
            target = LmCurlHelper::convertGoogleUrl(url, false, false);
            mHelper->addGoogleAuthorizationHeader(headers);
            headers.emplace_back("Cache-Control: no-transform");
            headers.emplace_back("Content-Length: 0");
            success = {204, 404};
        } else if (startsWith(url, "s3")) {
            target = mHelper->awsAuth()->prepareRequest("DELETE", url, headers);
            success = {204, 404};
        } else if (startsWith(url, "az")) {
            target = LmCurlHelper::convertAzureUrl(url);
            mHelper->addAzureAuthorizationHeader(target, headers);
            headers.emplace_back("x-ms-version: 2020-04-08");
            success = {202, 404};
        } else {
            getTheLogInstance()->errorf("Error deleting %s: not implemented", lmRedactSecrets(url).c_str());
            return false;
        }
        LmCurlRequest request(target, "DELETE");
        for (std::string const& line : headers)
            request.addRequestHeader(line);
        LmCurlRawClient client(std::make_shared<LmCurlHandleFactory>(1), mHelper->share());
        int const code = client.process(request).getResponseCode();
        return std::find(success.begin(), success.end(), code) != success.end();
    } catch (std::exception const& e) {
        getTheLogInstance()->errorf("Error deleting %s: %s", lmRedactSecrets(url).c_str(), e.what());
        return false;
    }
}

// ------------------------------------------------------------------ uploads

std::unique_ptr<LmCurlUploadSessionBase>
LmCurlClient::createResumableUploadSession(std::string const& url, std::string const& contentType)
{
    auto rawClient = std::make_unique<LmCurlRawClient>(mRawFactory, mHelper->share());
    if (startsWith(url, "s3")) {
        auto session = std::make_unique<LmCurlUploadSessionS3>(std::move(rawClient), mHelper->awsAuth(), url,
                                                               contentType);
        session->setRetrySleeper(mRetrySleeper);
        return session;
    }
    if (startsWith(url, "az")) {
        std::string const converted = LmCurlHelper::convertAzureUrl(url);
        // Fetched once: the session keeps this line for its whole life. An
        // empty line still makes the session, and the service's 401 or 403
        // on the first chunk is the answer.
        std::string const authorization = mHelper->azureAuth().authorizationHeader(*this).toStdString();
        auto session =
            std::make_unique<LmCurlUploadSessionAzure>(std::move(rawClient), authorization, converted);
        session->setRetrySleeper(mRetrySleeper);
        return session;
    }
    // Every other URL is taken for Google Cloud Storage. As for Azure, an
    // empty line still makes the session and the service's 401 or 403 is the
    // answer.
    std::string const converted = LmCurlHelper::convertGoogleUrl(url, true, true);
    std::string const authorization = mHelper->googleAuth().authorizationHeader(*this).toStdString();
    auto session =
        std::make_unique<LmCurlUploadSessionGS>(std::move(rawClient), authorization, converted, url, contentType);
    session->setRetrySleeper(mRetrySleeper);
    return session;
}

bool LmCurlClient::setGoogleAuthentication(QJsonObject const& serviceAccount)
{
    return mHelper->googleAuth().loadCredentialsFromJson(serviceAccount, "");
}

LmCurlUploadStream LmCurlClient::write(std::string const& url)
{
    try {
        std::unique_ptr<LmCurlUploadSessionBase> session = createResumableUploadSession(url, std::string());
        if (!session)
            return LmCurlUploadStream(nullptr);
        return LmCurlUploadStream(std::make_unique<LmCurlUploadStreambuf>(std::move(session)));
    } catch (std::exception const& e) {
        getTheLogInstance()->warnf("Exception while creating upload session for file %s: %s",
                                   lmRedactSecrets(url).c_str(), e.what());
        return LmCurlUploadStream(nullptr);
    }
}
