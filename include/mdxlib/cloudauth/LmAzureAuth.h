// The "Authorization:" line for Azure Blob Storage.
//
// Two sources, in this order: the managed identity token of the Azure
// instance metadata service, and a client-credentials grant at the login
// endpoint with the tenant, client and secret of the key=value file named by
// AZURE_APPLICATION_CREDENTIALS. Whether this process runs on an Azure
// instance is decided once, by a short connection attempt to the metadata
// address (not at all when the variable is set). The line is cached and
// renewed when less than 500 seconds of its life remain. The mutex is held
// across a renewal's HTTP calls: one thread renews, the others wait and then
// find the new line. No exception leaves this class; a failure logs and
// gives an empty line.
//
// Deployment constants (ExResource::getParameter):
//   MDX_AZURE_METADATA_ADDRESS  "169.254.169.254" (may carry ":port", else 80)
//   MDX_AZURE_LOGIN_ENDPOINT    "https://login.microsoftonline.com/"
//   MDX_AZURE_STORAGE_RESOURCE  "https://storage.azure.com/"
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/cloudauth/LmAzureAuthInfo.h>
#include <mdxlib/cloudauth/LmBearerToken.h>

#include <QByteArray>

#include <chrono>
#include <mutex>
#include <string>

class LmCurlClient;

class MDX_EXPORT LmAzureAuth
{
public:
    LmAzureAuth() = default;
    LmAzureAuth(LmAzureAuth const&) = delete;
    LmAzureAuth& operator=(LmAzureAuth const&) = delete;

    // The whole line, or empty on failure.
    QByteArray authorizationHeader(LmCurlClient& client);
    bool getAccessTokenFromMetadata(LmCurlClient& client);
    bool loadCredentials();
    bool setCredentials(LmAzureAuthInfo const& info);
    // The form body of the client-credentials grant.
    QByteArray tokenPayload() const;

    std::chrono::system_clock::time_point expiry() const;

    static std::string metadataAddress();
    static std::string loginEndpoint();
    static std::string storageResource();
    // "<login endpoint><tenant>/oauth2/token"
    std::string tokenUrl() const;
    // For tests: forgets whether this process runs on an Azure instance.
    static void resetMetadataDecision();

private:
    mutable std::mutex mMutex;
    LmBearerToken mToken;
    QByteArray mTenantId;
    QByteArray mClientId;
    QByteArray mClientSecret;
};
