#include <mdxlib/curl/LmCurlClient.h>

#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/curl/LmCurlErrors.h>
#include <mdxlib/curl/LmCurlSettings.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/StorageManager.h>

#include <curl/curl.h>

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<int> gMaxConnectsOverride{0};

} // namespace

namespace LmCurlEndpoints {

std::string s3Domain()
{
    return ExResource::getParameter("MDX_S3_DOMAIN", "amazonaws.com");
}

std::string gcsEndpoint()
{
    return ExResource::getParameter("MDX_GCS_ENDPOINT", "https://storage.googleapis.com/");
}

std::string gcsDownloadEndpoint()
{
    return ExResource::getParameter("MDX_GCS_DOWNLOAD_ENDPOINT", "https://storage.googleapis.com/");
}

std::string gcsUploadEndpoint()
{
    // The XML API's resumable upload: the session starts with a POST to the
    // object's own URL carrying "x-goog-resumable: start". (The JSON API's
    // "/upload/storage/v1/b/" wants "/o?uploadType=resumable&name=" instead,
    // which is not the protocol spoken here.)
    return ExResource::getParameter("MDX_GCS_UPLOAD_ENDPOINT", "https://storage.googleapis.com/");
}

std::string gcsHost()
{
    return ExResource::getParameter("MDX_GCS_HOST", "storage.googleapis.com");
}

std::string azureBlobSuffix()
{
    return ExResource::getParameter("MDX_AZURE_BLOB_SUFFIX", ".blob.core.windows.net");
}

} // namespace LmCurlEndpoints

LmCurlHelper::LmCurlHelper(LmCurlClient* owner)
    : mAws(std::make_shared<LmAwsAuth>())
    , mOwner(owner)
{
    mAzureAuthorization = [this] { return mAzure.authorizationHeader(*mOwner).toStdString(); };
    mGoogleAuthorization = [this] { return mGoogle.authorizationHeader(*mOwner).toStdString(); };
    LmCurlSettings::get();
    mShare = curl_share_init();
    // Without its locks the share would be used from many threads unguarded:
    // a failure here is no half-working state to go on with.
    auto const set = [this](CURLSHoption option, char const* name, auto value) {
        CURLSHcode const code = curl_share_setopt(mShare, option, value);
        if (code != CURLSHE_OK) {
            curl_share_cleanup(mShare);
            throw CurlError(std::string("curl_share_setopt ") + name + ": " + curl_share_strerror(code));
        }
    };
    set(CURLSHOPT_LOCKFUNC, "CURLSHOPT_LOCKFUNC", &LmCurlHelper::lock);
    set(CURLSHOPT_UNLOCKFUNC, "CURLSHOPT_UNLOCKFUNC", &LmCurlHelper::unlock);
    set(CURLSHOPT_USERDATA, "CURLSHOPT_USERDATA", static_cast<void*>(this));
    set(CURLSHOPT_SHARE, "CURLSHOPT_SHARE CURL_LOCK_DATA_CONNECT", CURL_LOCK_DATA_CONNECT);
    set(CURLSHOPT_SHARE, "CURLSHOPT_SHARE CURL_LOCK_DATA_SSL_SESSION", CURL_LOCK_DATA_SSL_SESSION);
    set(CURLSHOPT_SHARE, "CURLSHOPT_SHARE CURL_LOCK_DATA_DNS", CURL_LOCK_DATA_DNS);
}

LmCurlHelper::~LmCurlHelper()
{
    CURLSHcode const code = curl_share_cleanup(mShare);
    if (code != CURLSHE_OK)
        getTheLogInstance()->errorf("curl_share_cleanup: %s", curl_share_strerror(code));
}

std::mutex* LmCurlHelper::mutexFor(int data)
{
    switch (data) {
    case CURL_LOCK_DATA_SHARE:
        return &mShareMutex;
    case CURL_LOCK_DATA_DNS:
        return &mDnsMutex;
    case CURL_LOCK_DATA_SSL_SESSION:
        return &mSslMutex;
    case CURL_LOCK_DATA_CONNECT:
        return &mConnectMutex;
    default:
        return nullptr; // cookies and unknown kinds are not shared
    }
}

void LmCurlHelper::lock(void*, int data, int, void* helper)
{
    if (std::mutex* m = static_cast<LmCurlHelper*>(helper)->mutexFor(data))
        m->lock();
}

void LmCurlHelper::unlock(void*, int data, void* helper)
{
    if (std::mutex* m = static_cast<LmCurlHelper*>(helper)->mutexFor(data))
        m->unlock();
}

std::string LmCurlHelper::sslCipherList()
{
    return LmCurlSettings::get().sslCipherList;
}

int LmCurlHelper::maxConnects()
{
    int const configured = gMaxConnectsOverride.load();
    return configured > 0 ? configured : LmCurlSettings::get().maxConnects;
}

void LmCurlHelper::setMaxConnects(int maxConnects)
{
    gMaxConnectsOverride.store(maxConnects);
}

// ----------------------------------------------------------------- URLs

std::string LmCurlHelper::getTransferSyntaxUID(int number)
{
    static char const* const kJpeg[] = {"50", "51", "52", "53", "54", "55", "56", "57", "58",
                                        "59", "60", "61", "62", "63", "64", "65", "66"};
    switch (number) {
    case 2:
    case 8:
    case 123:
        return "1.2.840.10008.1.2.4.70";
    case 104:
        return "1.2.840.10008.1.2.1.99";
    case 105:
        return "1.2.840.10008.1.2.5";
    case 124:
        return "1.2.840.10008.1.2.4.90";
    case 125:
        return "1.2.840.10008.1.2.4.91";
    case 126:
        return "1.2.840.10008.1.2.4.80";
    case 127:
        return "1.2.840.10008.1.2.4.81";
    case 128:
        return "1.2.840.10008.1.2.4.100";
    case 139:
        return "1.2.840.10008.1.2.4.94";
    case 140:
        return "1.2.840.10008.1.2.4.95";
    case 141:
        return "1.2.840.10008.1.2.4.107";
    case 142:
        return "1.2.840.10008.1.2.4.108";
    case 143:
        return "1.2.840.10008.1.2.7.1";
    case 144:
        return "1.2.840.10008.1.2.7.2";
    case 145:
        return "1.2.840.10008.1.2.7.3";
    case 146:
        return "1.2.840.10008.1.2.1.98";
    default:
        break;
    }
    if (number >= 106 && number <= 122)
        return std::string("1.2.840.10008.1.2.4.") + kJpeg[number - 106];
    if (number >= 133 && number <= 138)
        return "1.2.840.10008.1.2.4." + std::to_string(101 + number - 133);
    return std::string();
}

std::string LmCurlHelper::convertWadoUrl(std::string const& url, std::vector<std::string>& headers) const
{
    size_t const tail = url.find("_x");
    size_t const end = tail == std::string::npos ? url.size() : tail;
    if (end == 0)
        return std::string();
    size_t const instanceSlash = url.rfind('/', end - 1);
    if (instanceSlash == std::string::npos || instanceSlash == 0)
        return std::string();
    size_t const seriesSlash = url.rfind('/', instanceSlash - 1);
    if (seriesSlash == std::string::npos || seriesSlash == 0)
        return std::string();
    size_t const studySlash = url.rfind('/', seriesSlash - 1);
    if (studySlash == std::string::npos)
        return std::string();

    bool const tls = url.size() > 2 && url[2] == 's';
    size_t const schemeEnd = tls ? 3 : 2; // behind "wa"/"wr" or "was"/"wrs"
    if (studySlash < schemeEnd)
        return std::string();
    std::string const study = url.substr(studySlash + 1, seriesSlash - studySlash - 1);
    std::string const series = url.substr(seriesSlash + 1, instanceSlash - seriesSlash - 1);
    std::string const instance = url.substr(instanceSlash + 1, end - instanceSlash - 1);
    int const number = tail == std::string::npos ? 0 : std::atoi(url.c_str() + tail + 2);
    std::string const syntax = getTransferSyntaxUID(number);

    std::string result = tls ? "https" : "http";
    result += url.substr(schemeEnd, studySlash - schemeEnd);
    if (url.size() > 1 && url[1] == 'r') {
        result += "/studies/" + study + "/series/" + series + "/instances/" + instance;
        std::string accept = "Accept: multipart/related; type=\"application/dicom\"";
        if (!syntax.empty())
            accept += "; transfer-syntax=" + syntax;
        headers.push_back(accept);
    } else {
        result += "?requestType=WADO&studyUID=" + study + "&seriesUID=" + series + "&objectUID=" + instance;
        if (!syntax.empty())
            result += "&transferSyntax=" + syntax;
    }
    return result;
}

std::string LmCurlHelper::convertGoogleUrl(std::string const& url, bool dataTransfer, bool writing)
{
    std::string result = !dataTransfer ? LmCurlEndpoints::gcsEndpoint()
                         : writing     ? LmCurlEndpoints::gcsUploadEndpoint()
                                       : LmCurlEndpoints::gcsDownloadEndpoint();
    size_t at = std::min<size_t>(3, url.size());
    while (at < url.size() && url[at] == '/')
        ++at;
    size_t const bucketEnd = url.find('/', at);
    if (bucketEnd == std::string::npos) {
        result += url.substr(at);
        return result;
    }
    result += url.substr(at, bucketEnd - at + 1);
    // The whole key is one path segment behind the bucket.
    for (size_t i = bucketEnd + 1; i < url.size(); ++i) {
        if (url[i] == '/')
            result += "%2F";
        else
            result += url[i];
    }
    return result;
}

std::string LmCurlHelper::convertAzureUrl(std::string const& url)
{
    size_t const firstSlash = url.find('/');
    if (firstSlash == std::string::npos || url.compare(firstSlash, 2, "//") != 0)
        return url;
    size_t const hostStart = firstSlash + 2;
    size_t const pathStart = url.find('/', hostStart);
    if (pathStart == std::string::npos)
        return url;
    std::string const host = url.substr(hostStart, pathStart - hostStart);
    std::string result = "https://" + host;
    if (host.find('.') == std::string::npos && host.find(':') == std::string::npos)
        result += LmCurlEndpoints::azureBlobSuffix(); // a bare account name
    result += url.substr(pathStart);
    return result;
}

void LmCurlHelper::setGoogleAuthorizationProvider(AuthorizationProvider provider)
{
    mGoogleAuthorization = std::move(provider);
}

void LmCurlHelper::setAzureAuthorizationProvider(AuthorizationProvider provider)
{
    mAzureAuthorization = std::move(provider);
}

void LmCurlHelper::addGoogleAuthorizationHeader(std::vector<std::string>& headers) const
{
    std::string const line = mGoogleAuthorization ? mGoogleAuthorization() : std::string();
    if (line.empty())
        return;
    headers.push_back(line);
    headers.push_back("Host: " + LmCurlEndpoints::gcsHost());
    headers.emplace_back("Cache-Control: no-transform");
}

void LmCurlHelper::addAzureAuthorizationHeader(std::string const& url,
                                               std::vector<std::string>& headers) const
{
    std::string const line = mAzureAuthorization ? mAzureAuthorization() : std::string();
    if (line.empty())
        return;
    headers.push_back(line);
    headers.emplace_back("Cache-Control: no-transform");
    headers.emplace_back("x-ms-version: 2020-04-08");
    size_t const slash = url.size() > 8 ? url.find('/', 8) : std::string::npos;
    if (slash != std::string::npos)
        headers.push_back("Host: " + url.substr(8, slash - 8));
}

// ------------------------------------------------------- file servers

void LmCurlHelper::setFFS2Parameters(char const* name)
{
    std::string const configName = name ? name : "";
    std::string port;
    std::string token;
    GetGlobalConfig(configName, "FFS2", "Port", port);
    GetGlobalConfig(configName, "FFS2", "BearerToken", token);
    std::vector<std::string> const servers = Lmg::StorageManager::getStorageServers(name);
    std::lock_guard<std::mutex> lock(mFFS2Mutex);
    if (!port.empty()) {
        for (std::string const& server : servers)
            mFFS2Ports.emplace(server, port); // an existing entry keeps its value
    }
    if (!token.empty()) {
        for (std::string const& server : servers)
            mFFS2BearerTokens.emplace("http://" + server + ":" + (port.empty() ? "8181" : port), token);
    }
}

std::string LmCurlHelper::getFFS2Port(std::string const& server) const
{
    std::lock_guard<std::mutex> lock(mFFS2Mutex);
    auto const it = mFFS2Ports.find(server);
    return it == mFFS2Ports.end() ? "8181" : it->second;
}

std::string LmCurlHelper::getFFS2BearerToken(std::string const& url) const
{
    if (url.size() < 7)
        return std::string();
    size_t const scheme = url.find("//", 5);
    if (scheme == std::string::npos)
        return std::string();
    size_t const slash = url.find('/', scheme + 2);
    if (slash == std::string::npos)
        return std::string();
    std::lock_guard<std::mutex> lock(mFFS2Mutex);
    auto const it = mFFS2BearerTokens.find(url.substr(0, slash));
    return it == mFFS2BearerTokens.end() ? std::string() : it->second;
}

void LmCurlHelper::addRequestHeaders(std::string const& url, std::vector<std::string>& headers) const
{
    std::string const token = getFFS2BearerToken(url);
    if (!token.empty())
        headers.push_back("Authorization: Bearer " + token);
}

void LmCurlHelper::setSessionID(std::string id, bool asBearerToken)
{
    mSessionID = std::move(id);
    mSessionIDIsBearerToken = asBearerToken;
}
