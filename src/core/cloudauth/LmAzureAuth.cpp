#include <mdxlib/cloudauth/LmAzureAuth.h>

#include "CredentialsFile.h"
#include "MetadataProbe.h"

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>

#include <QFile>

#include <atomic>
#include <cstdlib>

namespace {

constexpr char kCredentialsVariable[] = "AZURE_APPLICATION_CREDENTIALS";

// -1 not yet decided, 0 no, 1 yes: whether this process asks the instance
// metadata service. Decided once per process.
std::atomic<int> sUseMetadata{-1};

McLogFile& log()
{
    return *getTheLogInstance();
}

} // namespace

std::string LmAzureAuth::metadataAddress()
{
    return ExResource::getParameter("MDX_AZURE_METADATA_ADDRESS", "169.254.169.254");
}

std::string LmAzureAuth::loginEndpoint()
{
    return ExResource::getParameter("MDX_AZURE_LOGIN_ENDPOINT", "https://login.microsoftonline.com/");
}

std::string LmAzureAuth::storageResource()
{
    return ExResource::getParameter("MDX_AZURE_STORAGE_RESOURCE", "https://storage.azure.com/");
}

std::string LmAzureAuth::tokenUrl() const
{
    return loginEndpoint() + mTenantId.toStdString() + "/oauth2/token";
}

void LmAzureAuth::resetMetadataDecision()
{
    sUseMetadata = -1;
}

std::chrono::system_clock::time_point LmAzureAuth::expiry() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mToken.expiry();
}

QByteArray LmAzureAuth::tokenPayload() const
{
    // The client ID is a GUID and goes as it stands; the secret and the
    // resource may hold '&', '=', '/' and ':'.
    return "grant_type=client_credentials&client_id=" + mClientId +
           "&client_secret=" + mClientSecret.toPercentEncoding() +
           "&resource=" + QByteArray::fromStdString(storageResource()).toPercentEncoding();
}

QByteArray LmAzureAuth::authorizationHeader(LmCurlClient& client)
{
    std::lock_guard<std::mutex> lock(mMutex);
    auto const now = std::chrono::system_clock::now();
    if (mToken.fresh(now) || getAccessTokenFromMetadata(client))
        return mToken.header();
    if (!loadCredentials() || !mToken.fetchFromEndpoint(client, tokenUrl(), tokenPayload(), now))
        return QByteArray();
    return mToken.header();
}

bool LmAzureAuth::getAccessTokenFromMetadata(LmCurlClient& client)
{
    if (sUseMetadata == -1)
        sUseMetadata = shouldAskMetadataService(kCredentialsVariable, LmAzureAuth::metadataAddress(),
                                                "not running on an Azure instance")
                           ? 1
                           : 0;
    if (sUseMetadata == 0)
        return false;
    std::string const url =
        "http://" + metadataAddress() +
        "/metadata/identity/oauth2/token?api-version=2018-02-01&resource=" + storageResource();
    return mToken.fetchFromMetadata(client, url, "Metadata: true");
}

bool LmAzureAuth::loadCredentials()
{
    if (!mClientSecret.isEmpty())
        return true; // the file is read once
    QFile file;
    if (!openCredentialsFile(kCredentialsVariable, "Credentials file", true, file))
        return false;
    LmAzureAuthInfo info;
    while (!file.atEnd()) {
        QByteArray const line = file.readLine();
        int const equals = line.indexOf('=');
        if (equals < 0)
            continue;
        QByteArray const key = line.left(equals).trimmed().toLower();
        QByteArray const value = line.mid(equals + 1).trimmed();
        if (key == "tenant_id")
            info.tenantId = value;
        else if (key == "client_id")
            info.clientId = value;
        else if (key == "client_secret")
            info.clientSecret = value;
    }
    return setCredentials(info);
}

bool LmAzureAuth::setCredentials(LmAzureAuthInfo const& info)
{
    char const* missing = info.tenantId.isEmpty()       ? "tenant_id missing"
                          : info.clientId.isEmpty()     ? "client_id missing"
                          : info.clientSecret.isEmpty() ? "client_secret missing"
                                                        : nullptr;
    if (missing) {
        log().trace(McLogFile::LevelError, "Azure credentials", missing);
        return false;
    }
    mTenantId = info.tenantId;
    mClientId = info.clientId;
    mClientSecret = info.clientSecret;
    return true;
}
