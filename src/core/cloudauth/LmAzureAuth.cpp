#include <mdxlib/cloudauth/LmAzureAuth.h>

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McSocket.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

#include <atomic>
#include <cmath>
#include <cstdlib>

namespace {

constexpr int kRenewBeforeSeconds = 500;
constexpr int kProbeTimeoutMsec = 50;
constexpr char kCredentialsVariable[] = "AZURE_APPLICATION_CREDENTIALS";

// -1 not yet decided, 0 no, 1 yes: whether this process asks the instance
// metadata service. Decided once per process.
std::atomic<int> sUseMetadata{-1};

McLogFile& log()
{
    return *getTheLogInstance();
}

bool debug()
{
    return LmCurlClient::sDebug;
}

bool ok(LmHttpStatus const& status)
{
    return status.responseCode >= 200 && status.responseCode <= 299 && !status.curlError;
}

std::string compact(QJsonDocument const& document)
{
    return lmRedactSecrets(document.toJson(QJsonDocument::Compact).toStdString());
}

bool credentialsVariableSet()
{
    char const* value = std::getenv(kCredentialsVariable);
    return value && *value;
}

bool decideMetadata()
{
    if (credentialsVariableSet())
        return false;
    std::string const address = LmAzureAuth::metadataAddress();
    std::string host = address;
    int port = 80;
    size_t const colon = address.rfind(':');
    if (colon != std::string::npos) {
        host = address.substr(0, colon);
        port = std::atoi(address.c_str() + colon + 1);
    }
    int const socket = McSocket::connect(host.c_str(), port, kProbeTimeoutMsec, 0, 0);
    if (socket >= 0) {
        McSocket::close(socket);
        return true;
    }
    if (debug())
        log().warnf("Could not connect to %s - not running on an Azure instance", address.c_str());
    return false;
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
    return mExpiry;
}

int LmAzureAuth::expiresInSeconds(QJsonObject const& answer)
{
    QJsonValue const value = answer.value("expires_in");
    if (value.isString())
        return value.toString().toInt();
    return static_cast<int>(std::rint(value.toDouble()));
}

bool LmAzureAuth::storeToken(QJsonObject const& answer, std::chrono::system_clock::time_point now)
{
    QByteArray const token = answer.value("access_token").toString().toUtf8();
    QByteArray const type = answer.value("token_type").toString().toUtf8();
    if (token.isEmpty() || type.isEmpty())
        return false;
    mAuthorizationHeader = "Authorization: " + type + " " + token;
    mExpiry = now + std::chrono::seconds(expiresInSeconds(answer));
    return true;
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
    if (!mAuthorizationHeader.isEmpty() && mExpiry - std::chrono::seconds(kRenewBeforeSeconds) >= now)
        return mAuthorizationHeader;
    if (getAccessTokenFromMetadata(client))
        return mAuthorizationHeader;
    if (!loadCredentials())
        return QByteArray();
    std::string const url = tokenUrl();
    LmHttpStatus status;
    QJsonDocument const answer =
        client.postBytes(url, tokenPayload(), "application/x-www-form-urlencoded", status);
    if (!ok(status)) {
        log().errorf("Could not get authorization header from %s, response code %d. %s", url.c_str(),
                     status.responseCode, compact(answer).c_str());
        return QByteArray();
    }
    if (!storeToken(answer.object(), now)) {
        log().errorf("Invalid authorization response. %s", compact(answer).c_str());
        return QByteArray();
    }
    return mAuthorizationHeader;
}

bool LmAzureAuth::getAccessTokenFromMetadata(LmCurlClient& client)
{
    if (sUseMetadata == -1)
        sUseMetadata = decideMetadata() ? 1 : 0;
    if (sUseMetadata == 0)
        return false;
    std::string const url =
        "http://" + metadataAddress() +
        "/metadata/identity/oauth2/token?api-version=2018-02-01&resource=" + storageResource();
    LmHttpStatus status;
    QByteArray const reply = client.readBytes(url, {"Metadata: true"}, status);
    if (ok(status) && !reply.isEmpty()) {
        QJsonDocument const answer = QJsonDocument::fromJson(reply);
        if (storeToken(answer.object(), std::chrono::system_clock::now())) {
            if (debug())
                log().printf("Successfully obtained access token from instance meta-data, expires in %d sec",
                             expiresInSeconds(answer.object()));
            return true;
        }
        log().errorf("Invalid meta-data response. %s", lmRedactSecrets(reply.toStdString()).c_str());
        return false;
    }
    log().errorf("Could not obtain access token from meta-data (%d): %s", status.responseCode,
                 lmRedactSecrets(reply.toStdString()).c_str());
    return false;
}

bool LmAzureAuth::loadCredentials()
{
    if (!mClientSecret.isEmpty())
        return true; // the file is read once
    char const* variable = std::getenv(kCredentialsVariable);
    if (!variable) {
        log().errorf("Environment variable %s not defined", kCredentialsVariable);
        return false;
    }
    QString const path = QString::fromLocal8Bit(variable);
    if (!QFileInfo::exists(path)) {
        log().errorf("Credentials file %s does not exist", variable);
        return false;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        log().errorf("Could not open %s: %s", variable, file.errorString().toLocal8Bit().constData());
        return false;
    }
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
