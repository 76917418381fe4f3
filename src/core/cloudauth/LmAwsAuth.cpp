#include <mdxlib/cloudauth/LmAwsAuth.h>

#include "MetadataProbe.h"

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QMessageAuthenticationCode>
#include <QSettings>

#include <cstdlib>

namespace {

char const kCategory[] = "AWS";
constexpr int kRenewBeforeSeconds = 120;

// -1 not yet known, 0 no, 1 yes. Changed only under an LmAwsAuth mutex.
int sIsRunningOnEC2Instance = -1;

McLogFile& log()
{
    return *getTheLogInstance();
}

bool debug()
{
    return LmCurlClient::sDebug;
}

QByteArray hmacSha256(QByteArray const& key, QByteArray const& data)
{
    return QMessageAuthenticationCode::hash(data, key, QCryptographicHash::Sha256);
}

std::string metadataAddress()
{
    return ExResource::getParameter("MDX_EC2_METADATA_ADDRESS", "169.254.169.254");
}

std::string baseUrl()
{
    return LmAwsAuth::metadataBase() + "/latest/meta-data/";
}

std::vector<std::string> tokenHeader(std::string const& token)
{
    if (token.empty())
        return {};
    return {"X-aws-ec2-metadata-token: " + token};
}

bool usable(std::shared_ptr<LmAwsAuth::Credentials> const& credentials, QDateTime const& now)
{
    return credentials &&
           (credentials->expiration.isNull() || now.secsTo(credentials->expiration) >= kRenewBeforeSeconds);
}

bool ok(LmHttpStatus const& status)
{
    return status.responseCode >= 200 && status.responseCode <= 299 && !status.curlError;
}

} // namespace

LmAwsAuth::LmAwsAuth() = default;

std::string LmAwsAuth::metadataBase()
{
    return "http://" + metadataAddress();
}

void LmAwsAuth::resetInstanceProbe()
{
    sIsRunningOnEC2Instance = -1;
}

void LmAwsAuth::setCredentials(std::shared_ptr<Credentials> credentials)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mCredentials = std::move(credentials);
}

void LmAwsAuth::computeSecreteSigV4(std::shared_ptr<Credentials> const& credentials, QDate const& date)
{
    if (!credentials)
        return;
    credentials->signingDate = date;
    // Qt 5 formats QDate::toString(format) with the system locale, whose
    // digits need not be ASCII (Arabic, Persian, Burmese...); the signature
    // wants ASCII whatever the user's language.
    credentials->dateStamp = QLocale::c().toString(date, QStringLiteral("yyyyMMdd")).toLatin1();
    QByteArray const kDate = hmacSha256("AWS4" + credentials->secretAccessKey, credentials->dateStamp);
    QByteArray const kRegion = hmacSha256(kDate, credentials->region);
    QByteArray const kService = hmacSha256(kRegion, "s3");
    credentials->signingKey = hmacSha256(kService, "aws4_request");
}

std::shared_ptr<LmAwsAuth::Credentials> LmAwsAuth::getCredentials(QDateTime const& now)
{
    QDate const today = now.toUTC().date();
    std::shared_ptr<Credentials> current;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        current = mCredentials;
    }
    if (usable(current, now)) {
        if (current->signingDate == today)
            return current;
        // A new UTC day: a new signing key, no network. Holders of the old
        // object keep it unchanged.
        auto rekeyed = std::make_shared<Credentials>(*current);
        computeSecreteSigV4(rekeyed, today);
        std::lock_guard<std::mutex> lock(mMutex);
        mCredentials = rekeyed;
        return rekeyed;
    }

    // Renew under the mutex, so that one thread goes to the network and the
    // others wait for its result.
    std::lock_guard<std::mutex> lock(mMutex);
    if (usable(mCredentials, now) && mCredentials->signingDate == today)
        return mCredentials;
    std::shared_ptr<Credentials> fresh = readCredentialsFromMetaData();
    if (!fresh)
        fresh = readCredentialsFromFile();
    computeSecreteSigV4(fresh, today);
    mCredentials = fresh;
    return fresh;
}

std::shared_ptr<LmAwsAuth::Credentials> LmAwsAuth::readCredentialsFromMetaData()
{
    std::string const address = metadataAddress();
    if (sIsRunningOnEC2Instance == -1) {
        sIsRunningOnEC2Instance = metadataServiceAnswers(address) ? 1 : 0;
        if (!sIsRunningOnEC2Instance && debug())
            log().tracef(McLogFile::LevelInfo, kCategory,
                         "Could not connect to %s - not running on an EC2 instance", address.c_str());
    }
    if (sIsRunningOnEC2Instance == 0)
        return nullptr;

    LmCurlClient* client = LmCurlClient::instance();
    std::string token;
    LmCurlResponse const tokenResponse = client->put(
        metadataBase() + "/latest/api/token", {"X-aws-ec2-metadata-token-ttl-seconds: 21600"}, QByteArray());
    if (tokenResponse.getResponseCode() == 200 && !tokenResponse.getPayload().empty()) {
        token = tokenResponse.getPayload();
        if (debug())
            log().tracef(McLogFile::LevelInfo, kCategory, "Successfully obtained meta-data token '%s'",
                         token.c_str());
    } else {
        log().tracef(McLogFile::LevelError, kCategory, "Could not obtain meta-data token (%d): %s",
                     tokenResponse.getResponseCode(), lmRedactSecrets(tokenResponse.getPayload()).c_str());
    }

    QByteArray const region = getRegionFromMetaData(token);
    if (region.isEmpty())
        return nullptr;
    std::string const role = getIAMRole(token);
    if (role.empty()) {
        log().tracef(McLogFile::LevelWarning, kCategory, "Could not determine IAM role");
        return nullptr;
    }
    log().tracef(McLogFile::LevelInfo, kCategory,
                 "Reading security credentials from instance meta-data (IAM role %s)", role.c_str());

    std::string const url = baseUrl() + "iam/security-credentials/" + role;
    LmHttpStatus status;
    QByteArray const reply = client->readBytes(url, tokenHeader(token), status);
    QJsonObject const object = QJsonDocument::fromJson(reply).object();
    if (!ok(status) || object.isEmpty()) {
        log().tracef(McLogFile::LevelError, kCategory, "Cannot read security credentials from %s\n%s",
                     url.c_str(), lmRedactSecrets(reply.toStdString()).c_str());
        return nullptr;
    }
    if (debug())
        log().tracef(McLogFile::LevelInfo, kCategory, "Response:\n%s", reply.constData());
    auto credentials = std::make_shared<Credentials>();
    credentials->accessKeyId = object.value("AccessKeyId").toString().toLatin1();
    credentials->secretAccessKey = object.value("SecretAccessKey").toString().toLatin1();
    credentials->token = object.value("Token").toString().toStdString();
    credentials->expiration = QDateTime::fromString(object.value("Expiration").toString(), Qt::ISODate);
    credentials->region = region;
    if (credentials->accessKeyId.isEmpty() || credentials->secretAccessKey.isEmpty()) {
        log().tracef(McLogFile::LevelError, kCategory, "Got invalid security credentials from %s\n%s",
                     url.c_str(), lmRedactSecrets(reply.toStdString()).c_str());
        return nullptr;
    }
    if (debug())
        log().tracef(
            McLogFile::LevelInfo, kCategory,
            "Got security credentials from meta-data, will expire in %lld min.",
            static_cast<long long>(QDateTime::currentDateTimeUtc().secsTo(credentials->expiration) / 60));
    return credentials;
}

QByteArray LmAwsAuth::getRegionFromMetaData(std::string const& token)
{
    std::string const url = baseUrl() + "placement/region";
    LmHttpStatus status;
    QByteArray const reply = LmCurlClient::instance()->readBytes(url, tokenHeader(token), status);
    if (ok(status)) {
        if (debug())
            log().tracef(McLogFile::LevelInfo, kCategory, "Region from instance meta-data: %s",
                         reply.constData());
        return reply;
    }
    if (status.responseCode == 0) {
        sIsRunningOnEC2Instance = 0;
        if (debug())
            log().tracef(McLogFile::LevelInfo, kCategory,
                         "Could not get region from %s - not running on an EC2 instance", url.c_str());
        return QByteArray();
    }
    log().tracef(McLogFile::LevelError, kCategory, "Could not get region from %s (response code %d)",
                 url.c_str(), status.responseCode);
    return QByteArray();
}

std::string LmAwsAuth::getIAMRole(std::string const& token)
{
    if (char const* role = std::getenv("IAM_ROLE")) {
        if (debug())
            log().tracef(McLogFile::LevelInfo, kCategory, "Environment variable IAM_ROLE = %s", role);
        return role;
    }
    LmHttpStatus status;
    QByteArray const reply = LmCurlClient::instance()->readBytes(baseUrl() + "iam/security-credentials",
                                                                 tokenHeader(token), status);
    if (!ok(status)) {
        log().tracef(McLogFile::LevelError, kCategory,
                     "Could not read IAM roles from %siam/security-credentials", baseUrl().c_str());
        log().tracef(McLogFile::LevelError, kCategory, "Response code %d\n%s", status.responseCode,
                     lmRedactSecrets(reply.toStdString()).c_str());
        return std::string();
    }
    if (debug())
        log().tracef(McLogFile::LevelInfo, kCategory, "Data read from %siam/security-credentials:\n%s",
                     baseUrl().c_str(), reply.constData());
    return reply.split('\n').value(0).toStdString();
}

std::shared_ptr<LmAwsAuth::Credentials> LmAwsAuth::readCredentialsFromFile()
{
    QString path;
    if (char const* configured = std::getenv("AWS_CONFIG_FILE")) {
        path = QString::fromLocal8Bit(configured);
        if (debug())
            log().tracef(McLogFile::LevelInfo, kCategory, "Environment variable AWS_CONFIG_FILE = %s",
                         configured);
    } else {
        path = QDir::homePath() + "/.aws/config";
    }
    QByteArray const localPath = path.toLocal8Bit();
    if (!QFileInfo::exists(path)) {
        log().tracef(McLogFile::LevelError, kCategory, "AWS config file %s does not exist",
                     localPath.constData());
        return nullptr;
    }
    log().tracef(McLogFile::LevelInfo, kCategory, "Reading credentials from config file %s",
                 localPath.constData());
    QSettings settings(path, QSettings::IniFormat);
    if (settings.status() != QSettings::NoError) {
        log().tracef(McLogFile::LevelError, kCategory, "Could not open %s: %s", localPath.constData(),
                     settings.status() == QSettings::AccessError ? "access error" : "format error");
        return nullptr;
    }
    if (!settings.contains("aws_access_key_id"))
        settings.beginGroup("default");
    auto credentials = std::make_shared<Credentials>();
    credentials->accessKeyId = settings.value("aws_access_key_id").toString().toLatin1();
    credentials->secretAccessKey = settings.value("aws_secret_access_key").toString().toLatin1();
    credentials->region = settings.value("region").toString().toLatin1();
    if (credentials->accessKeyId.isEmpty() || credentials->secretAccessKey.isEmpty() ||
        credentials->region.isEmpty()) {
        log().tracef(McLogFile::LevelError, kCategory,
                     "aws_access_key_id, aws_secret_access_key, and/or region not set in [default] section");
        return nullptr;
    }
    if (debug()) {
        log().tracef(McLogFile::LevelInfo, kCategory, "aws_access_key_id = %s",
                     credentials->accessKeyId.constData());
        log().tracef(McLogFile::LevelInfo, kCategory, "aws_secret_access_key = %s",
                     credentials->secretAccessKey.constData());
        log().tracef(McLogFile::LevelInfo, kCategory, "region = %s", credentials->region.constData());
    }
    return credentials;
}

std::string LmAwsAuth::prepareRequest(char const* verb, std::string const& url,
                                      std::vector<std::string>& headers)
{
    QDateTime const now = QDateTime::currentDateTimeUtc();
    // The credentials of the day of now: signRequest takes the date stamp
    // from them and the time from now.
    std::shared_ptr<Credentials> const credentials = getCredentials(now);
    return signRequest(verb, url, headers, credentials.get(), now);
}

std::string LmAwsAuth::signRequest(char const* verb, std::string const& url,
                                   std::vector<std::string>& headers, Credentials const* credentials,
                                   QDateTime const& nowIn)
{
    QDateTime const now = nowIn.toUTC();

    size_t at = std::min<size_t>(2, url.size());
    while (at < url.size() && url[at] == '/')
        ++at;
    // Skip the rest of the scheme ("s3:" has its colon at index 2).
    if (at < url.size() && url[at] == ':') {
        ++at;
        while (at < url.size() && url[at] == '/')
            ++at;
    }
    size_t const bucketEnd = url.find('/', at);
    std::string const bucket =
        url.substr(at, bucketEnd == std::string::npos ? std::string::npos : bucketEnd - at);
    std::string const keyPart = bucketEnd == std::string::npos ? std::string() : url.substr(bucketEnd);

    std::string host = bucket + ".s3.";
    if (credentials && !credentials->region.isEmpty())
        host += credentials->region.toStdString() + ".";
    host += LmCurlEndpoints::s3Domain();
    std::string const result = "https://" + host + keyPart;
    if (!credentials)
        return result;

    size_t const query = keyPart.find('?');
    std::string const canonicalUri = keyPart.substr(0, query);
    std::string const canonicalQuery = query == std::string::npos ? std::string() : keyPart.substr(query + 1);
    std::string md5;
    bool hasMd5 = false;
    for (std::string const& line : headers) {
        if (line.rfind("Content-MD5: ", 0) == 0) {
            md5 = line.substr(13);
            hasMd5 = true;
        }
    }
    std::string const amzDate = QLocale::c().toString(now, QStringLiteral("yyyyMMddThhmmssZ")).toStdString();
    std::string const payloadHash = "UNSIGNED-PAYLOAD";
    std::string const& token = credentials->token;

    headers.push_back("Host: " + host);
    headers.push_back("X-Amz-Content-SHA256: " + payloadHash);
    headers.push_back("X-Amz-Date: " + amzDate);
    if (!token.empty())
        headers.push_back("X-Amz-Security-Token: " + token);

    std::string const signedHeaders = std::string(hasMd5 ? "content-md5;" : "") +
                                      "host;x-amz-content-sha256;x-amz-date" +
                                      (token.empty() ? "" : ";x-amz-security-token");
    std::string canonical = std::string(verb) + "\n" + canonicalUri + "\n" + canonicalQuery + "\n";
    if (hasMd5)
        canonical += "content-md5:" + md5 + "\n";
    canonical += "host:" + host + "\n";
    canonical += "x-amz-content-sha256:" + payloadHash + "\n";
    canonical += "x-amz-date:" + amzDate + "\n";
    if (!token.empty())
        canonical += "x-amz-security-token:" + token + "\n";
    canonical += "\n" + signedHeaders + "\n" + payloadHash;
    if (debug())
        log().tracef(McLogFile::LevelInfo, kCategory, "Canonical request:\n%s", canonical.c_str());

    QByteArray const canonicalHash =
        QCryptographicHash::hash(QByteArray::fromStdString(canonical), QCryptographicHash::Sha256).toHex();
    std::string const scope =
        credentials->dateStamp.toStdString() + "/" + credentials->region.toStdString() + "/s3/aws4_request";
    std::string const toSign =
        "AWS4-HMAC-SHA256\n" + amzDate + "\n" + scope + "\n" + canonicalHash.toStdString();
    if (debug())
        log().tracef(McLogFile::LevelInfo, kCategory, "String to sign:\n%s", toSign.c_str());
    std::string const signature =
        hmacSha256(credentials->signingKey, QByteArray::fromStdString(toSign)).toHex().toStdString();
    headers.push_back("Authorization: AWS4-HMAC-SHA256 Credential=" + credentials->accessKeyId.toStdString() +
                      "/" + scope + ", SignedHeaders=" + signedHeaders + ", Signature=" + signature);
    return result;
}
