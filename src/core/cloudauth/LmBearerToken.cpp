#include <mdxlib/cloudauth/LmBearerToken.h>

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/platform/McLogFile.h>

#include <QJsonDocument>

#include <cmath>

namespace {

constexpr int kRenewBeforeSeconds = 500;

McLogFile& log()
{
    return *getTheLogInstance();
}

bool ok(LmHttpStatus const& status)
{
    return status.responseCode >= 200 && status.responseCode <= 299 && !status.curlError;
}

std::string redacted(QByteArray const& text)
{
    return lmRedactSecrets(text.toStdString());
}

} // namespace

bool LmBearerToken::fresh(TimePoint now) const
{
    return !mHeader.isEmpty() && mExpiry - std::chrono::seconds(kRenewBeforeSeconds) >= now;
}

int LmBearerToken::expiresInSeconds(QJsonObject const& answer)
{
    QJsonValue const value = answer.value("expires_in");
    if (value.isString())
        return value.toString().toInt();
    return static_cast<int>(std::rint(value.toDouble()));
}

bool LmBearerToken::store(QJsonObject const& answer, TimePoint now)
{
    QByteArray const token = answer.value("access_token").toString().toUtf8();
    QByteArray const type = answer.value("token_type").toString().toUtf8();
    if (token.isEmpty() || type.isEmpty())
        return false;
    mHeader = "Authorization: " + type + " " + token;
    mExpiry = now + std::chrono::seconds(expiresInSeconds(answer));
    return true;
}

bool LmBearerToken::fetchFromMetadata(LmCurlClient& client, std::string const& url, char const* requestHeader)
{
    LmHttpStatus status;
    QByteArray const reply = client.readBytes(url, {requestHeader}, status);
    if (!ok(status) || reply.isEmpty()) {
        log().errorf("Could not obtain access token from meta-data (%d): %s", status.responseCode,
                     redacted(reply).c_str());
        return false;
    }
    QJsonObject const answer = QJsonDocument::fromJson(reply).object();
    if (!store(answer, std::chrono::system_clock::now())) {
        log().errorf("Invalid meta-data response. %s", redacted(reply).c_str());
        return false;
    }
    if (LmCurlClient::sDebug)
        log().printf("Successfully obtained access token from instance meta-data, expires in %d sec",
                     expiresInSeconds(answer));
    return true;
}

bool LmBearerToken::fetchFromEndpoint(LmCurlClient& client, std::string const& url, QByteArray const& payload,
                                      TimePoint now)
{
    LmHttpStatus status;
    QJsonDocument const answer = client.postBytes(url, payload, "application/x-www-form-urlencoded", status);
    auto const text = [&answer] { return redacted(answer.toJson(QJsonDocument::Compact)); };
    if (!ok(status)) {
        log().errorf("Could not get authorization header from %s, response code %d. %s", url.c_str(),
                     status.responseCode, text().c_str());
        return false;
    }
    if (!store(answer.object(), now)) {
        log().errorf("Invalid authorization response. %s", text().c_str());
        return false;
    }
    return true;
}
