#include <mdxlib/cloudauth/LmGoogleAuth.h>

#include "CredentialsFile.h"
#include "MetadataProbe.h"

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>

#include <QFile>
#include <QJsonDocument>
#include <QUrl>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <atomic>
#include <cstdlib>
#include <memory>

namespace {

constexpr int kAssertionLifetimeSeconds = 3600;
constexpr char kCredentialsVariable[] = "GOOGLE_APPLICATION_CREDENTIALS";
constexpr char kMetadataTokenPath[] = "/computeMetadata/v1/instance/service-accounts/default/token";

// -1 not yet decided, 0 no, 1 yes: whether this process asks the metadata
// server. Decided once per process; an atomic rather than a function-local
// static so that tests can make the decision again.
std::atomic<int> sUseMetadata{-1};

struct MdCtxFree
{
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
struct BioFree
{
    void operator()(BIO* p) const { BIO_free(p); }
};
struct PkeyFree
{
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};

McLogFile& log()
{
    return *getTheLogInstance();
}

long long secondsSinceEpoch(LmGoogleAuth::TimePoint t)
{
    return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

QByteArray urlSafeBase64Encode(QByteArray const& data)
{
    QByteArray text = data.toBase64();
    text.replace('+', '-').replace('/', '_');
    while (text.endsWith('='))
        text.chop(1);
    return text;
}

std::string stringValue(QJsonObject const& object, char const* key)
{
    return object.value(key).toString().toStdString();
}

} // namespace

std::string LmGoogleAuth::metadataHost()
{
    return ExResource::getParameter("MDX_GCE_METADATA_HOST", "metadata.google.internal");
}

std::string LmGoogleAuth::defaultTokenUri()
{
    return ExResource::getParameter("MDX_GOOGLE_TOKEN_URI", "https://oauth2.googleapis.com/token");
}

std::string LmGoogleAuth::cloudPlatformScope()
{
    return ExResource::getParameter("MDX_GOOGLE_SCOPE", "https://www.googleapis.com/auth/cloud-platform");
}

void LmGoogleAuth::resetMetadataDecision()
{
    sUseMetadata = -1;
}

QByteArray LmGoogleAuth::authorizationHeader(LmCurlClient& client)
{
    std::lock_guard<std::mutex> lock(mMutex);
    auto const now = std::chrono::system_clock::now();
    if (mToken.fresh(now) || getAccessTokenFromMetadata(client))
        return mToken.header();
    if (!loadCredentials() || !mToken.fetchFromEndpoint(client, mTokenUri, refreshPayload(now), now))
        return QByteArray();
    return mToken.header();
}

bool LmGoogleAuth::getAccessTokenFromMetadata(LmCurlClient& client)
{
    if (sUseMetadata == -1)
        sUseMetadata = shouldAskMetadataService(kCredentialsVariable, LmGoogleAuth::metadataHost(),
                                                "not running on a GCP instance")
                           ? 1
                           : 0;
    if (sUseMetadata == 0)
        return false;
    return mToken.fetchFromMetadata(client, "http://" + metadataHost() + kMetadataTokenPath,
                                    "Metadata-Flavor: Google");
}

bool LmGoogleAuth::loadCredentials()
{
    if (!mTokenUri.empty() && !mPrivateKey.empty())
        return true; // read once
    QFile file;
    if (!openCredentialsFile(kCredentialsVariable, "ADC file", false, file))
        return false;
    QByteArray const path = file.fileName().toLocal8Bit();
    char const* source = path.constData();
    QJsonDocument const document = QJsonDocument::fromJson(file.readAll());
    if (!document.isObject()) {
        log().errorf("Could not read Json document from %s", source);
        return false;
    }
    if (document.object().isEmpty()) {
        log().errorf("Empty Json object in %s", source);
        return false;
    }
    return loadCredentialsFromJson(document.object(), source);
}

bool LmGoogleAuth::loadCredentialsFromJson(QJsonObject const& object, char const* source)
{
    char const* name = source ? source : "";
    std::string const type = stringValue(object, "type");
    if (type != "service_account") {
        log().errorf("Credential type is '%s' in %s, expected 'service_account'", type.c_str(), name);
        return false;
    }
    mPrivateKeyId = stringValue(object, "private_key_id");
    if (mPrivateKeyId.empty()) {
        log().errorf("Field 'private_key_id' is missing in %s", name);
        return false;
    }
    mPrivateKey = stringValue(object, "private_key");
    if (mPrivateKey.empty()) {
        log().errorf("Field 'private_key' is missing in %s", name);
        return false;
    }
    mClientEmail = stringValue(object, "client_email");
    // This tests the key once more, not the e-mail, on purpose: a key
    // without "client_email" is accepted here and the token endpoint, which
    // knows the account, is the one to refuse its assertion.
    if (mPrivateKey.empty()) {
        log().errorf("Field 'client_email' is missing in %s", name);
        return false;
    }
    mTokenUri = stringValue(object, "token_uri");
    if (mTokenUri.empty())
        mTokenUri = defaultTokenUri();
    mGrantBody = "grant_type=" + QUrl::toPercentEncoding("urn:ietf:params:oauth:grant-type:jwt-bearer");
    return true;
}

QByteArray LmGoogleAuth::assertionHeader() const
{
    QJsonObject header;
    header["alg"] = "RS256";
    header["kid"] = QString::fromStdString(mPrivateKeyId);
    header["typ"] = "JWT";
    return QJsonDocument(header).toJson(QJsonDocument::Compact);
}

QByteArray LmGoogleAuth::assertionPayload(TimePoint now) const
{
    QJsonObject payload;
    payload["iss"] = QString::fromStdString(mClientEmail);
    std::string scope;
    for (std::string const& s : mScopes)
        scope += (scope.empty() ? "" : ",") + s;
    payload["scope"] = QString::fromStdString(scope.empty() ? cloudPlatformScope() : scope);
    payload["aud"] = QString::fromStdString(mTokenUri);
    // Whole seconds as JSON integers: a QJsonValue of a qint64 this size is
    // written without fraction or exponent.
    payload["iat"] = static_cast<qint64>(secondsSinceEpoch(now));
    payload["exp"] = static_cast<qint64>(secondsSinceEpoch(now) + kAssertionLifetimeSeconds);
    if (!mSubject.empty())
        payload["sub"] = QString::fromStdString(mSubject);
    return QJsonDocument(payload).toJson(QJsonDocument::Compact);
}

QByteArray LmGoogleAuth::refreshPayload(TimePoint now) const
{
    QByteArray const signingInput =
        urlSafeBase64Encode(assertionHeader()) + "." + urlSafeBase64Encode(assertionPayload(now));
    QByteArray const signature = urlSafeBase64Encode(signStringWithPem(signingInput));
    // The assertion's alphabet (URL-safe Base64 and '.') needs no escaping.
    return mGrantBody + "&assertion=" + signingInput + "." + signature;
}

QByteArray LmGoogleAuth::signStringWithPem(QByteArray const& data) const
{
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> context(EVP_MD_CTX_new());
    if (!context) {
        log().errorf("Could not create context for OpenSSL digest.");
        return QByteArray();
    }
    EVP_MD const* digest = EVP_sha256();
    if (!digest) {
        log().errorf("Could not find sha256 digest in OpenSSL.");
        return QByteArray();
    }
    std::unique_ptr<BIO, BioFree> buffer(
        BIO_new_mem_buf(mPrivateKey.data(), static_cast<int>(mPrivateKey.size())));
    if (!buffer) {
        log().errorf("Could not create PEM buffer.");
        return QByteArray();
    }
    std::unique_ptr<EVP_PKEY, PkeyFree> key(PEM_read_bio_PrivateKey(buffer.get(), nullptr, nullptr, nullptr));
    if (!key) {
        log().errorf("Could not parse PEM to get private key.");
        return QByteArray();
    }
    if (EVP_DigestSignInit(context.get(), nullptr, digest, nullptr, key.get()) != 1) {
        log().errorf("Could not initialize PEM digest.");
        return QByteArray();
    }
    if (EVP_DigestUpdate(context.get(), data.constData(), static_cast<size_t>(data.size())) != 1) {
        log().errorf("Could not update PEM digest.");
        return QByteArray();
    }
    size_t length = 0;
    if (EVP_DigestSignFinal(context.get(), nullptr, &length) != 1) {
        log().errorf("Could not finalize PEM digest (1/2).");
        return QByteArray();
    }
    QByteArray signature(static_cast<int>(length), '\0');
    if (EVP_DigestSignFinal(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length) !=
        1) {
        log().errorf("Could not finalize PEM digest (2/2).");
        return QByteArray();
    }
    signature.resize(static_cast<int>(length));
    return signature;
}
