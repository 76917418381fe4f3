// The blocking, one-request-at-a-time HTTP client.
//
// Every small, complete exchange (token fetches, upload control calls,
// chunk uploads, deletes) goes through an LmCurlRawClient: it keeps one
// pooled easy handle for its lifetime and runs each request on the calling
// thread. Certificate checks are off on purpose; the only time limit is the
// stalled-transfer rule (under 1 byte/s for 120 s). Failures throw
// CurlError; retrying is the caller's business.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/curl/LmCurlErrors.h>
#include <mdxlib/curl/LmCurlHandleFactory.h>
#include <mdxlib/curl/LmCurlRequest.h>

#include <curl/curl.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

class MDX_EXPORT LmCurlRawClientBase
{
public:
    virtual ~LmCurlRawClientBase() = default;
    virtual LmCurlResponse process(LmCurlRequest const& request) = 0;
};

class MDX_EXPORT LmCurlRawClient : public LmCurlRawClientBase
{
public:
    // share is the process-wide CURLSH*, or null.
    LmCurlRawClient(std::shared_ptr<LmCurlHandleFactory> factory, void* share);
    ~LmCurlRawClient() override;

    LmCurlRawClient(LmCurlRawClient const&) = delete;
    LmCurlRawClient& operator=(LmCurlRawClient const&) = delete;

    LmCurlResponse process(LmCurlRequest const& request) override;

    // A failure throws CurlError naming the option.
    template <typename T> void setCurlOption(CURLoption option, T value)
    {
        CURLcode const code = curl_easy_setopt(mHandle.get(), option, value);
        if (code != CURLE_OK)
            throwCurlException(code, option);
    }
    // For destructors: a failure is logged, never thrown.
    void setCurlOptionNoExcept(CURLoption option, std::nullptr_t) noexcept;
    [[noreturn]] void throwCurlException(CURLcode code) const;
    [[noreturn]] void throwCurlException(CURLcode code, CURLoption option) const;

    void* handle() const { return mHandle.get(); }

private:
    std::shared_ptr<LmCurlHandleFactory> mFactory;
    LmCurlEasyHandle mHandle;
    std::string mErrorBuffer;
};

// Binds the request's header lines to the handle for one transfer.
class MDX_EXPORT LmCurlHeaderWrapper
{
public:
    LmCurlHeaderWrapper(LmCurlRawClient& client, std::vector<std::string> const& headers);
    ~LmCurlHeaderWrapper();

    LmCurlHeaderWrapper(LmCurlHeaderWrapper const&) = delete;
    LmCurlHeaderWrapper& operator=(LmCurlHeaderWrapper const&) = delete;

private:
    LmCurlRawClient& mClient;
    curl_slist* mList = nullptr;
};

// Binds the body, header and socket callbacks to the handle for one transfer.
class MDX_EXPORT LmCurlRawCallbackHandler
{
public:
    explicit LmCurlRawCallbackHandler(LmCurlRawClient& client);
    ~LmCurlRawCallbackHandler();

    LmCurlRawCallbackHandler(LmCurlRawCallbackHandler const&) = delete;
    LmCurlRawCallbackHandler& operator=(LmCurlRawCallbackHandler const&) = delete;

    // Hands the body out and keeps a fresh empty one.
    std::unique_ptr<std::string> moveResponsePayload();
    std::multimap<std::string, std::string> const& getResponseHeaders() const { return mHeaders; }

    size_t handleBody(char const* data, size_t size);
    // One header line with its CR LF; returns n whatever it did with it.
    size_t handleHeader(char const* line, size_t n);

private:
    LmCurlRawClient& mClient;
    std::unique_ptr<std::string> mPayload;
    std::multimap<std::string, std::string> mHeaders;
};

// Splits a header line "Name: value\r\n" by the transport's rule: one blank
// after the colon is assumed; a line without a colon is a name with an empty
// value; lines under 3 bytes or without CR LF are not headers (false).
MDX_EXPORT bool lmCurlParseHeaderLine(char const* line, size_t n, std::string& name, std::string& value);

// "CURLOPT_URL" and the like, for messages about a failed option.
MDX_EXPORT std::string lmCurlOptionName(CURLoption option);
