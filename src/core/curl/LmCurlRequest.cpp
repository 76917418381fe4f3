#include <mdxlib/curl/LmCurlRequest.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

std::string lmCurlLowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

LmCurlRequest::LmCurlRequest(std::string url, std::string verb)
    : mUrl(std::move(url))
    , mVerb(std::move(verb))
{
}

void LmCurlRequest::addRequestHeader(std::string const& name, std::string const& value)
{
    mHeaders.push_back(name + ": " + value);
}

void LmCurlRequest::addRequestHeader(std::string const& line)
{
    mHeaders.push_back(line);
}

void LmCurlRequest::addAuthorizationHeader(std::string line)
{
    mHeaders.push_back(std::move(line));
}

LmCurlResponse::LmCurlResponse(int code, Headers const& headers, std::unique_ptr<std::string> payload)
    : mResponseCode(code)
    , mPayload(std::move(payload))
{
    if (!mPayload)
        throw std::runtime_error("Response payload is nullptr");
    for (auto const& [name, value] : headers)
        mHeaders.emplace(lmCurlLowerCase(name), value);
}

LmCurlResponse::LmCurlResponse(LmCurlResponse const& other)
    : mResponseCode(other.mResponseCode)
    , mHeaders(other.mHeaders)
    , mPayload(std::make_unique<std::string>(*other.mPayload))
{
}

LmCurlResponse& LmCurlResponse::operator=(LmCurlResponse const& other)
{
    if (this != &other) {
        mResponseCode = other.mResponseCode;
        mHeaders = other.mHeaders;
        mPayload = std::make_unique<std::string>(*other.mPayload);
    }
    return *this;
}

LmCurlResponse::LmCurlResponse(LmCurlResponse&& other) noexcept
    : mResponseCode(other.mResponseCode)
    , mHeaders(std::move(other.mHeaders))
    , mPayload(std::move(other.mPayload))
{
    other.mPayload = std::make_unique<std::string>();
}

LmCurlResponse& LmCurlResponse::operator=(LmCurlResponse&& other) noexcept
{
    if (this != &other) {
        mResponseCode = other.mResponseCode;
        mHeaders = std::move(other.mHeaders);
        mPayload = std::move(other.mPayload);
        other.mPayload = std::make_unique<std::string>();
    }
    return *this;
}

std::optional<std::string> LmCurlResponse::getSingleHeader(std::string name) const
{
    auto const it = mHeaders.find(lmCurlLowerCase(std::move(name)));
    if (it == mHeaders.end())
        return std::nullopt;
    return it->second;
}

std::vector<std::string> LmCurlResponse::getMultiHeader(std::string name) const
{
    std::vector<std::string> values;
    auto const range = mHeaders.equal_range(lmCurlLowerCase(std::move(name)));
    for (auto it = range.first; it != range.second; ++it)
        values.push_back(it->second);
    return values;
}
