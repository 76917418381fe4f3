#include <mdxlib/curl/LmCurlRawClient.h>

#include <mdxlib/curl/LmCurlSettings.h>
#include <mdxlib/platform/McLogFile.h>

#include <sys/socket.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr long kLowSpeedLimit = 1;
constexpr long kLowSpeedTime = 120;
constexpr int64_t kRawSocketBuffer = 262144;

size_t writeCallback(char* data, size_t size, size_t count, void* handler)
{
    return static_cast<LmCurlRawCallbackHandler*>(handler)->handleBody(data, size * count);
}

size_t headerCallback(char* data, size_t size, size_t count, void* handler)
{
    return static_cast<LmCurlRawCallbackHandler*>(handler)->handleHeader(data, size * count);
}

// Raw exchanges are small and latency-bound; generous fixed socket buffers
// serve them better than the system's defaults. (Download sockets take the
// configured sizes instead.)
int socketCallback(void*, curl_socket_t socket, curlsocktype purpose)
{
    if (purpose == CURLSOCKTYPE_IPCXN) {
        int64_t const size = kRawSocketBuffer;
        setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    return CURL_SOCKOPT_OK;
}

} // namespace

bool lmCurlParseHeaderLine(char const* line, size_t n, std::string& name, std::string& value)
{
    if (n < 3 || line[n - 2] != '\r' || line[n - 1] != '\n')
        return false;
    void const* colon = std::memchr(line, ':', n);
    size_t const at = colon ? static_cast<size_t>(static_cast<char const*>(colon) - line) : n;
    if (colon && at < n - 2) {
        name.assign(line, at);
        size_t const start = at + 2; // one blank after the colon is assumed
        value = start < n - 2 ? std::string(line + start, n - 2 - start) : std::string();
    } else {
        name.assign(line, n - 2);
        value.clear();
    }
    return true;
}

std::string lmCurlOptionName(CURLoption option)
{
    curl_easyoption const* known = curl_easy_option_by_id(option);
    return known ? std::string("CURLOPT_") + known->name : "curl option " + std::to_string(option);
}

// ------------------------------------------------------------- raw client

LmCurlRawClient::LmCurlRawClient(std::shared_ptr<LmCurlHandleFactory> factory, void* share)
    : mFactory(std::move(factory))
    , mHandle(mFactory->createHandle())
    , mErrorBuffer(CURL_ERROR_SIZE, '\0')
{
    LmCurlSettings const& settings = LmCurlSettings::get();
    setCurlOption(CURLOPT_ERRORBUFFER, mErrorBuffer.data());
    setCurlOption(CURLOPT_SHARE, share);
    setCurlOption(CURLOPT_SSL_VERIFYPEER, 0L);
    setCurlOption(CURLOPT_SSL_VERIFYHOST, 0L);
    setCurlOption(CURLOPT_NOSIGNAL, 1L);
    std::string const agent = lmCurlUserAgent();
    setCurlOption(CURLOPT_USERAGENT, agent.c_str());
    if (!settings.sslCipherList.empty())
        setCurlOption(CURLOPT_SSL_CIPHER_LIST, settings.sslCipherList.c_str());
    setCurlOption(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimit);
    setCurlOption(CURLOPT_LOW_SPEED_TIME, kLowSpeedTime);
    setCurlOption(CURLOPT_MAXCONNECTS, static_cast<long>(settings.maxConnects));
    if (settings.debug) {
        setCurlOption(CURLOPT_VERBOSE, 1L);
        setCurlOption(CURLOPT_STDERR, stdout);
    }
}

LmCurlRawClient::~LmCurlRawClient()
{
    setCurlOptionNoExcept(CURLOPT_ERRORBUFFER, nullptr);
    mFactory->cleanupHandle(std::move(mHandle));
}

void LmCurlRawClient::setCurlOptionNoExcept(CURLoption option, std::nullptr_t) noexcept
{
    CURLcode const code = curl_easy_setopt(mHandle.get(), option, nullptr);
    if (code != CURLE_OK)
        getTheLogInstance()->errorf(
            "Got error code while setting curl option. Curl option: %d. Return value: %d",
            static_cast<int>(option), static_cast<int>(code));
}

void LmCurlRawClient::throwCurlException(CURLcode code) const
{
    std::string text = std::string("Curl error code: ") + curl_easy_strerror(code);
    if (mErrorBuffer[0] != '\0')
        text += std::string(" Error description: ") + mErrorBuffer.c_str();
    throw CurlError(text);
}

void LmCurlRawClient::throwCurlException(CURLcode code, CURLoption option) const
{
    throw CurlError(std::string("Curl error code: ") + curl_easy_strerror(code) +
                    " Curl option: " + lmCurlOptionName(option));
}

LmCurlResponse LmCurlRawClient::process(LmCurlRequest const& request)
{
    mErrorBuffer.assign(CURL_ERROR_SIZE, '\0');
    setCurlOption(CURLOPT_ERRORBUFFER, mErrorBuffer.data());
    setCurlOption(CURLOPT_URL, request.url().c_str());
    setCurlOption(CURLOPT_CUSTOMREQUEST, request.verb().c_str());
    LmCurlRawCallbackHandler handler(*this);
    LmCurlHeaderWrapper headers(*this, request.headers());
    std::string_view const payload = request.payload();
    if (!payload.empty()) {
        setCurlOption(CURLOPT_POSTFIELDSIZE, static_cast<long>(payload.size()));
        setCurlOption(CURLOPT_POSTFIELDS, payload.data());
    } else {
        setCurlOption(CURLOPT_POSTFIELDSIZE, 0L);
    }
    CURLcode code = curl_easy_perform(mHandle.get());
    if (code != CURLE_OK)
        throwCurlException(code);
    long responseCode = 0;
    code = curl_easy_getinfo(mHandle.get(), CURLINFO_RESPONSE_CODE, &responseCode);
    if (code != CURLE_OK)
        throwCurlException(code);
    return LmCurlResponse(static_cast<int>(responseCode), handler.getResponseHeaders(),
                          handler.moveResponsePayload());
}

// ------------------------------------------------------------ header wrapper

LmCurlHeaderWrapper::LmCurlHeaderWrapper(LmCurlRawClient& client, std::vector<std::string> const& headers)
    : mClient(client)
{
    for (std::string const& line : headers) {
        curl_slist* list = curl_slist_append(mList, line.c_str());
        if (!list) {
            curl_slist_free_all(mList);
            mList = nullptr;
            throw CurlError("Failed to add curl request header");
        }
        mList = list;
    }
    mClient.setCurlOption(CURLOPT_HTTPHEADER, mList);
}

LmCurlHeaderWrapper::~LmCurlHeaderWrapper()
{
    mClient.setCurlOptionNoExcept(CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(mList);
}

// --------------------------------------------------------- callback handler

LmCurlRawCallbackHandler::LmCurlRawCallbackHandler(LmCurlRawClient& client)
    : mClient(client)
    , mPayload(std::make_unique<std::string>())
{
    mClient.setCurlOption(CURLOPT_WRITEDATA, static_cast<void*>(this));
    mClient.setCurlOption(CURLOPT_WRITEFUNCTION, writeCallback);
    mClient.setCurlOption(CURLOPT_HEADERDATA, static_cast<void*>(this));
    mClient.setCurlOption(CURLOPT_HEADERFUNCTION, headerCallback);
    mClient.setCurlOption(CURLOPT_SOCKOPTDATA, static_cast<void*>(this));
    mClient.setCurlOption(CURLOPT_SOCKOPTFUNCTION, socketCallback);
}

LmCurlRawCallbackHandler::~LmCurlRawCallbackHandler()
{
    mClient.setCurlOptionNoExcept(CURLOPT_WRITEDATA, nullptr);
    mClient.setCurlOptionNoExcept(CURLOPT_WRITEFUNCTION, nullptr);
    mClient.setCurlOptionNoExcept(CURLOPT_HEADERDATA, nullptr);
    mClient.setCurlOptionNoExcept(CURLOPT_HEADERFUNCTION, nullptr);
    mClient.setCurlOptionNoExcept(CURLOPT_SOCKOPTDATA, nullptr);
    mClient.setCurlOptionNoExcept(CURLOPT_SOCKOPTFUNCTION, nullptr);
}

std::unique_ptr<std::string> LmCurlRawCallbackHandler::moveResponsePayload()
{
    std::unique_ptr<std::string> payload = std::move(mPayload);
    mPayload = std::make_unique<std::string>();
    return payload;
}

size_t LmCurlRawCallbackHandler::handleBody(char const* data, size_t size)
{
    if (size == 0)
        return 0;
    mPayload->append(data, size);
    return size;
}

size_t LmCurlRawCallbackHandler::handleHeader(char const* line, size_t n)
{
    std::string name;
    std::string value;
    if (lmCurlParseHeaderLine(line, n, name, value))
        mHeaders.emplace(std::move(name), std::move(value));
    return n;
}
