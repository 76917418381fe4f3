// What a raw HTTP exchange takes and gives.
//
// An LmCurlRequest names URL, verb, header lines and a payload that it does
// not own (the caller keeps the bytes alive until the call returns). An
// LmCurlResponse carries the status code, the headers with lower-case names
// and the body, which is never null.
#pragma once

#include <mdxlib/Export.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class MDX_EXPORT LmCurlRequest
{
public:
    LmCurlRequest() = default;
    LmCurlRequest(std::string url, std::string verb);

    void setPayload(std::string_view payload) { mPayload = payload; }
    // "name: value" as one line.
    void addRequestHeader(std::string const& name, std::string const& value);
    void addRequestHeader(std::string const& line);
    // The whole "Authorization: ..." line.
    void addAuthorizationHeader(std::string line);

    std::string const& url() const { return mUrl; }
    std::string const& verb() const { return mVerb; }
    std::vector<std::string> const& headers() const { return mHeaders; }
    std::string_view payload() const { return mPayload; }

    std::string mUrl;
    std::string mVerb;
    std::vector<std::string> mHeaders;
    std::string_view mPayload;
};

class MDX_EXPORT LmCurlResponse
{
public:
    using Headers = std::multimap<std::string, std::string>;

    // Header names are lower-cased; a null payload throws std::runtime_error.
    LmCurlResponse(int code, Headers const& headers, std::unique_ptr<std::string> payload);
    LmCurlResponse(LmCurlResponse const& other);
    LmCurlResponse& operator=(LmCurlResponse const& other);
    // The source keeps a fresh empty payload.
    LmCurlResponse(LmCurlResponse&& other) noexcept;
    LmCurlResponse& operator=(LmCurlResponse&& other) noexcept;

    int getResponseCode() const { return mResponseCode; }
    std::string const& getPayload() const { return *mPayload; }
    Headers const& headers() const { return mHeaders; }
    // The first value of the header, whatever the case of name.
    std::optional<std::string> getSingleHeader(std::string name) const;
    std::vector<std::string> getMultiHeader(std::string name) const;

private:
    int mResponseCode = 0; // 0: no HTTP exchange took place
    Headers mHeaders;
    std::unique_ptr<std::string> mPayload;
};

// Lower-case copy, as header names are compared.
std::string lmCurlLowerCase(std::string text);
