#include <mdxlib/curl/LmCurlSettings.h>

#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McBuildInfo.h>
#include <mdxlib/platform/McLogFile.h>

#include <curl/curl.h>
#include <openssl/crypto.h>
#include <sys/socket.h>

#include <cstdlib>
#include <mutex>

namespace {

char const kCategory[] = "CURL";

std::optional<std::string> fromEnvironment(char const* name)
{
    char const* value = std::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
}

// The parameter store alone: for the buffer sizes it is asked before the
// environment, so its answer must not be the environment's.
std::optional<std::string> fromParameterStore(char const* name)
{
    return ExResource::getStoredParameter(name);
}

LmCurlSettings& settings()
{
    static LmCurlSettings instance;
    return instance;
}

void initOnceImpl()
{
    LmCurlSettings& s = settings();
    s = LmCurlSettings::read();
    CURLcode const code = curl_global_init(CURL_GLOBAL_ALL);
    if (code != CURLE_OK)
        getTheLogInstance()->errorf("curl_global_init: %s", curl_easy_strerror(code));

    curl_version_info_data const* info = curl_version_info(CURLVERSION_NOW);
    if (info && info->ssl_version) {
        if (auto message = LmCurlSettings::tlsMismatch(info->ssl_version, OpenSSL_version(OPENSSL_VERSION)))
            getTheLogInstance()->errorf("%s", message->c_str());
    }
}

} // namespace

LmCurlSettings LmCurlSettings::parse(Lookup const& environment, Lookup const& parameters)
{
    LmCurlSettings s;
    if (auto debug = environment("CURL_DEBUG"))
        s.debug = *debug != "0";
    if (auto ciphers = environment("SSL_CIPHER_LIST"))
        s.sslCipherList = *ciphers;
    if (auto connects = environment("CURL_MAX_CONNECTS")) {
        int const value = std::atoi(connects->c_str());
        s.maxConnects = value < 6 ? 5 : value;
    }
    auto bufferSize = [&](char const* name, char const* message, int& target) {
        std::optional<std::string> value = parameters(name);
        if (!value)
            value = environment(name);
        if (value) {
            getTheLogInstance()->tracef(McLogFile::LevelInfo, kCategory, message, value->c_str());
            target = std::atoi(value->c_str());
        }
    };
    bufferSize("CURL_RECBUF_SIZE", "Using receive buffer size %s", s.recBufSize);
    bufferSize("CURL_SNDBUF_SIZE", "Using send buffer size %s", s.sndBufSize);
    return s;
}

LmCurlSettings LmCurlSettings::read()
{
    return parse(fromEnvironment, fromParameterStore);
}

LmCurlSettings const& LmCurlSettings::get()
{
    static std::once_flag once;
    std::call_once(once, initOnceImpl);
    return settings();
}

std::optional<std::string> LmCurlSettings::tlsMismatch(std::string const& curlSslVersion,
                                                       std::string const& opensslVersion)
{
    if (curlSslVersion.rfind("OpenSSL/1.0", 0) != 0 && curlSslVersion.rfind("LibreSSL/2", 0) != 0)
        return std::nullopt;
    std::string expected = curlSslVersion;
    for (char& c : expected)
        if (c == '/')
            c = ' ';
    if (expected.rfind("LibreSSL 2", 0) == 0)
        expected = "LibreSSL 2";
    if (opensslVersion.rfind(expected, 0) == 0)
        return std::nullopt;
    return "Mismatched versions of OpenSSL linked in libcurl vs. the version linked in mdxlib.\nlibcurl is "
           "linked "
           "against " +
           curlSslVersion + "\nwhile mdxlib links against " + opensslVersion +
           "\nMismatched versions are not supported.";
}

int LmCurlSettings::setSocketOptionsCallback(void*, int socket, int purpose)
{
    if (purpose != CURLSOCKTYPE_IPCXN)
        return CURL_SOCKOPT_OK;
    LmCurlSettings const& s = get();
    if (s.recBufSize != 0) {
        int const size = s.recBufSize;
        setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    if (s.sndBufSize != 0) {
        int const size = s.sndBufSize;
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    return CURL_SOCKOPT_OK;
}

std::string lmCurlUserAgent()
{
    return "Lumora " + McBuildInfo::getBuildString(4);
}
