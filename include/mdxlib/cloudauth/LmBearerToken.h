// An OAuth bearer token as the Azure and Google credential classes keep it:
// the ready "Authorization: <type> <token>" header line and its expiry.
// Both fetch it the same two ways, from the instance metadata service of
// the cloud the process runs on, or by posting a form to a token endpoint,
// and renew it 500 seconds before it expires. Not thread-safe on its own:
// its owner holds its mutex around every call.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>
#include <QJsonObject>

#include <chrono>
#include <string>

class LmCurlClient;

class MDX_EXPORT LmBearerToken
{
public:
    using TimePoint = std::chrono::system_clock::time_point;

    // True while a header is held and more than 500 s of it remain.
    bool fresh(TimePoint now) const;
    QByteArray const& header() const { return mHeader; }
    TimePoint expiry() const { return mExpiry; }

    // Keeps "access_token", "token_type" and "expires_in" of a token
    // answer; false (and nothing changed) when a field is missing.
    bool store(QJsonObject const& answer, TimePoint now);

    // GET url with the metadata service's request header; true when a
    // token was stored. Failures are logged with the service's answer.
    bool fetchFromMetadata(LmCurlClient& client, std::string const& url, char const* requestHeader);

    // POST a form payload to a token endpoint; true when a token was stored.
    bool fetchFromEndpoint(LmCurlClient& client, std::string const& url, QByteArray const& payload,
                           TimePoint now);

    // "expires_in" as a number or as a string of digits.
    static int expiresInSeconds(QJsonObject const& answer);

private:
    QByteArray mHeader;
    TimePoint mExpiry;
};
