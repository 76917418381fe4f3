// The "Authorization:" line for Google Cloud Storage.
//
// Two sources, in this order: the token service of the Compute Engine
// metadata server, and a service account key (from the JSON file named by
// GOOGLE_APPLICATION_CREDENTIALS, or from JSON the application hands in),
// from which an RS256-signed JWT is made and traded for an access token at
// the OAuth 2.0 token endpoint. Whether this process runs on a Compute
// Engine instance is decided once, by a short connection attempt to the
// metadata host (not at all when the variable is set and not empty). The
// line is cached and renewed when less than 500 seconds of its life remain.
// The mutex is held across a renewal's HTTP calls: one thread renews, the
// others wait and then find the new line. No exception leaves this class; a
// failure logs and gives an empty line.
//
// Deployment constants (ExResource::getParameter):
//   MDX_GCE_METADATA_HOST  "metadata.google.internal" (may carry ":port", else 80)
//   MDX_GOOGLE_TOKEN_URI   "https://oauth2.googleapis.com/token" (when the key has no "token_uri")
//   MDX_GOOGLE_SCOPE       "https://www.googleapis.com/auth/cloud-platform"
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/cloudauth/LmBearerToken.h>

#include <QByteArray>
#include <QJsonObject>

#include <chrono>
#include <mutex>
#include <set>
#include <string>

class LmCurlClient;

class MDX_EXPORT LmGoogleAuth
{
public:
    using TimePoint = std::chrono::system_clock::time_point;

    LmGoogleAuth() = default;
    LmGoogleAuth(LmGoogleAuth const&) = delete;
    LmGoogleAuth& operator=(LmGoogleAuth const&) = delete;

    // "Authorization: <type> <token>", or empty on failure.
    QByteArray authorizationHeader(LmCurlClient& client);
    // source names the JSON in log lines.
    bool loadCredentialsFromJson(QJsonObject const& object, char const* source);
    bool loadCredentials();
    bool getAccessTokenFromMetadata(LmCurlClient& client);
    // The form body of the token request: the grant and the signed JWT.
    QByteArray refreshPayload(TimePoint now) const;
    QByteArray assertionHeader() const;
    QByteArray assertionPayload(TimePoint now) const;
    // The RS256 signature of data with privateKey; empty on failure.
    QByteArray signStringWithPem(QByteArray const& data) const;

    std::string const& tokenUri() const { return mTokenUri; }
    std::string const& clientEmail() const { return mClientEmail; }

    static std::string metadataHost();
    static std::string defaultTokenUri();
    static std::string cloudPlatformScope();
    // For tests: forgets whether this process runs on a Compute Engine instance.
    static void resetMetadataDecision();

private:
    std::string mClientEmail;
    std::string mPrivateKeyId;
    std::string mPrivateKey;
    std::string mTokenUri;
    std::set<std::string> mScopes;
    std::string mSubject;
    QByteArray mGrantBody;
    std::mutex mMutex;
    LmBearerToken mToken;
};
