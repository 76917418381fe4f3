// S3 credentials and signatures end to end against the loopback peers of run_with_peers.py --with aws:
// ec2_metadata_peer.py (instance metadata, failure modes, request counts), sigv4_peer.py (recomputes
// every signature with botocore, 403 SignatureDoesNotMatch when it differs) and s3rver (a working
// store). One process: every test sets the environment it needs and the client's credentials.
#include "support/TestSupport.h"

#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlDownload.h>
#include <mdxlib/curl/LmCurlHandleFactory.h>
#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

namespace {

using Strings = std::vector<std::string>;

using mdxtest::LogCapture;
using mdxtest::ScopedEnv;

// A loopback address on which nothing listens.
std::string closedAddress()
{
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    ::close(fd);
    return "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

// One request outside the code under test, for the peers' control paths.
LmCurlResponse rawRequest(std::string const& verb, std::string const& url, Strings const& headers = {},
                          QByteArray const& body = QByteArray())
{
    LmCurlRawClient client(std::make_shared<LmCurlHandleFactory>(1), nullptr);
    LmCurlRequest request(url, verb);
    request.setPayload(std::string_view(body.constData(), static_cast<size_t>(body.size())));
    for (std::string const& line : headers)
        request.addRequestHeader(line);
    return client.process(request);
}

QJsonObject rawJson(std::string const& url)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(rawRequest("GET", url).getPayload())).object();
}

QByteArray testBytes(int size, uint32_t seed)
{
    QByteArray data(size, '\0');
    for (int i = 0; i < size; ++i)
        data[i] = static_cast<char>((seed = seed * 1664525u + 1013904223u) >> 24);
    return data;
}

std::string md5Base64(QByteArray const& data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Md5).toBase64().toStdString();
}

bool writeFile(QString const& path, QByteArray const& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(text) == text.size();
}

std::shared_ptr<LmAwsAuth::Credentials> credentials(QByteArray keyId, QByteArray secret,
                                                    QByteArray region = "us-east-1", std::string token = "")
{
    auto result = std::make_shared<LmAwsAuth::Credentials>(LmAwsAuth::Credentials{
        keyId, secret, region, token, QDateTime(), QDate(), QByteArray(), QByteArray()});
    LmAwsAuth::computeSecreteSigV4(result, QDateTime::currentDateTimeUtc().date());
    return result;
}

// The identities sigv4_peer.py knows.
auto plainIdentity(QByteArray const& region = "us-east-1")
{
    return credentials("AKIDSIGV4PLAIN", "sigv4/plain/SECRETKEY", region);
}
auto tokenIdentity()
{
    return credentials("ASIASIGV4TOKEN", "sigv4/token/SECRETKEY", "us-east-1",
                       "sigv4-session-token/EXAMPLE==");
}

class AwsPeers : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (env("MDX_EC2_PORT").empty())
            GTEST_SKIP() << "run through run_with_peers.py --with aws";
        client = LmCurlClient::instance();
        TearDown();
        client->setRetrySleeper([this](long long) { ++waits; });
        QString const config = QDir(dir.path()).filePath("file-config");
        ASSERT_TRUE(writeFile(config, "[default]\naws_access_key_id = FILEKEY\n"
                                      "aws_secret_access_key = file/secret\nregion = eu-west-1\n"));
        vars.set("AWS_CONFIG_FILE", config.toStdString()).unset("IAM_ROLE").unset("MDX_CONFIG");
    }
    void TearDown() override
    {
        if (!client)
            return;
        client->setRetrySleeper(nullptr);
        client->setNumConcurrentRequestsPerFile(4);
        client->setChunkSizeForPartialRequests(12582912);
        client->helper()->awsAuth()->setCredentials(nullptr);
        LmAwsAuth::resetInstanceProbe();
    }

    static std::string env(char const* name) { return std::getenv(name) ? std::getenv(name) : ""; }
    static std::string readAll(std::istream& in) { return {std::istreambuf_iterator<char>(in), {}}; }

    LmCurlClient* client = nullptr;
    QTemporaryDir dir;
    ScopedEnv vars;
    std::atomic<int> waits{0};
};

// =============================================== instance metadata service

class Metadata : public AwsPeers
{
protected:
    void SetUp() override
    {
        AwsPeers::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        vars.set("MDX_EC2_METADATA_ADDRESS", "127.0.0.1:" + env("MDX_EC2_PORT"));
        setMode("normal");
    }

    std::string peer(std::string const& path) const
    {
        return "http://127.0.0.1:" + env("MDX_EC2_PORT") + path;
    }
    void setMode(std::string const& name, std::string const& options = "")
    {
        ASSERT_EQ(rawRequest("POST", peer("/__mode?name=" + name + "&" + options)).getResponseCode(), 200);
    }
    // How often the token, the region, the role list and the role were asked for.
    std::vector<int> counts(QJsonObject stats = QJsonObject()) const
    {
        QJsonObject const asked =
            (stats.isEmpty() ? rawJson(peer("/__stats")) : stats).value("requests").toObject();
        std::vector<int> result;
        for (std::string path : {std::string("PUT /latest/api/token"), "GET " + kBase + "placement/region",
                                 "GET " + kBase + "iam/security-credentials", "GET " + kRole})
            result.push_back(asked.value(QString::fromStdString(path)).toInt(0));
        return result;
    }
    QDateTime now() const { return QDateTime::currentDateTimeUtc(); }

    std::string const kBase = "/latest/meta-data/", kRole = kBase + "iam/security-credentials/mdx-test-role";
};

TEST_F(Metadata, credentialsFromTokenRegionAndRoleAreKeptUntilTheyExpire)
{
    setMode("normal", "expires_in=3600&region=eu-north-1");
    vars.set("MDX_S3_DOMAIN", "example.localhost");
    LmAwsAuth auth;
    auto const found = auth.getCredentials(now());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->accessKeyId, "ASIAMETADATAEXAMPLE");
    EXPECT_EQ(found->secretAccessKey, "metadata/secret/EXAMPLEKEY");
    EXPECT_EQ(found->token, "metadata-session-token-EXAMPLE");
    EXPECT_EQ(found->region, "eu-north-1");
    EXPECT_NEAR(static_cast<double>(now().secsTo(found->expiration)), 3600.0, 60.0);
    EXPECT_EQ(found->signingDate, now().date());
    QJsonObject const stats = rawJson(peer("/__stats"));
    EXPECT_EQ(counts(stats), (std::vector<int>{1, 1, 1, 1}));
    EXPECT_EQ(stats.value("ttl_headers").toArray(), QJsonArray{"21600"});
    // Once a token is out, the peer insists on it (the token headers are checked with the failure modes).
    EXPECT_EQ(rawRequest("GET", peer("/latest/meta-data/placement/region")).getResponseCode(), 401);

    // Valid for another hour: no second trip, and the instance's region picks the host.
    Strings headers;
    EXPECT_EQ(auth.prepareRequest("GET", "s3://b/k", headers), "https://b.s3.eu-north-1.example.localhost/k");
    EXPECT_EQ(auth.getCredentials(now()), found);
    ASSERT_EQ(headers.size(), 5u);
    EXPECT_EQ(headers[3], "X-Amz-Security-Token: metadata-session-token-EXAMPLE");
    EXPECT_NE(headers[4].find("Credential=ASIAMETADATAEXAMPLE/"), std::string::npos) << headers[4];
    EXPECT_EQ(counts()[0], 1);

    // 100 s of life is inside the 120 s margin: each use renews.
    setMode("normal", "expires_in=100");
    LmAwsAuth shortLived;
    auto const first = shortLived.getCredentials(now());
    EXPECT_NE(shortLived.getCredentials(now()), first);
    EXPECT_EQ(counts(), (std::vector<int>{2, 2, 2, 2}));
}

TEST_F(Metadata, everyFailureModeFallsBackOrGoesOnAsItShould)
{
    struct Case
    {
        char const *mode, *iamRole, *keyId;
        std::vector<int> counts; // token, region, role list, role
        int waits, level;
        Strings logs;
    };
    int const error = McLogFile::LevelError;
    // clang-format off
    Case const cases[] = {
        {"no_token", nullptr, "ASIAMETADATAEXAMPLE", {1, 1, 1, 1}, 0, error, {"Could not obtain meta-data token (403)"}},
        {"error500", nullptr, "FILEKEY", {1, 6, 0, 0}, 5, error, {"Could not obtain meta-data token (500)",
            "Could not get region from " + peer(kBase + "placement/region") + " (response code 500)"}},
        {"empty_region", nullptr, "FILEKEY", {1, 1, 0, 0}, 0, error, {}},
        {"empty_role", nullptr, "FILEKEY", {1, 1, 1, 0}, 0, McLogFile::LevelWarning, {"Could not determine IAM role"}},
        {"error500_credentials", nullptr, "FILEKEY", {1, 1, 1, 6}, 5, error,
            {"Cannot read security credentials from " + peer(kRole)}},
        {"invalid_credentials", nullptr, "FILEKEY", {1, 1, 1, 1}, 0, error, {"Got invalid security credentials from"}},
        // A 500 did not end the service; a role named in the environment skips the list, one the
        // instance does not have is a 404, not retried.
        {"normal", "mdx-test-role", "ASIAMETADATAEXAMPLE", {1, 1, 0, 1}, 0, error, {}},
        {"normal", "no-such-role", "FILEKEY", {1, 1, 0, 0}, 0, error,
            {"Cannot read security credentials from " + peer(kBase + "iam/security-credentials/no-such-role")}},
    };
    // clang-format on
    for (Case const& c : cases) {
        SCOPED_TRACE(std::string(c.mode) + " " + (c.iamRole ? c.iamRole : ""));
        setMode(c.mode);
        vars.set("IAM_ROLE", c.iamRole ? std::optional<std::string>(c.iamRole) : std::nullopt);
        LogCapture log;
        int const waitsBefore = waits;
        auto const found = LmAwsAuth().getCredentials(now());
        ASSERT_TRUE(found);
        EXPECT_EQ(found->accessKeyId, c.keyId);
        QJsonObject const stats = rawJson(peer("/__stats"));
        EXPECT_EQ(counts(stats), c.counts);
        EXPECT_EQ(waits - waitsBefore, c.waits);
        for (std::string const& message : c.logs)
            EXPECT_EQ(log.count(c.level, message), 1) << message;
        // The GETs carry the token, or none when there is none.
        QJsonArray const tokens = stats.value("tokens").toArray();
        for (QJsonValue const& sent : stats.value("token_headers").toObject())
            for (QJsonValue const& token : sent.toArray())
                EXPECT_EQ(token, tokens.isEmpty() ? QJsonValue() : tokens.at(0));
    }
}

TEST_F(Metadata, aMissingOrSilentServiceIsGivenUpForTheProcess)
{
    // Nothing listens: noticed quickly, and a service that appears later is not asked.
    vars.set("MDX_EC2_METADATA_ADDRESS", closedAddress());
    auto const t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(LmAwsAuth().getCredentials(now())->accessKeyId, "FILEKEY");
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(500));
    vars.set("MDX_EC2_METADATA_ADDRESS", "127.0.0.1:" + env("MDX_EC2_PORT"));
    EXPECT_EQ(LmAwsAuth().getCredentials(now())->accessKeyId, "FILEKEY");
    EXPECT_EQ(counts(), (std::vector<int>{0, 0, 0, 0}));
    LmAwsAuth::resetInstanceProbe();
    EXPECT_EQ(LmAwsAuth().getCredentials(now())->accessKeyId, "ASIAMETADATAEXAMPLE");

    // Connections open but no request gets an answer: the region read turns the verdict.
    LmAwsAuth::resetInstanceProbe();
    setMode("hangup");
    EXPECT_EQ(LmAwsAuth().getCredentials(now())->accessKeyId, "FILEKEY");
    std::vector<int> const asked = counts();
    EXPECT_TRUE(asked[0] >= 1 && asked[1] >= 1 && asked[2] == 0) << asked[0] << asked[1] << asked[2];
    setMode("normal");
    EXPECT_EQ(LmAwsAuth().getCredentials(now())->accessKeyId, "FILEKEY");
    EXPECT_EQ(counts(), (std::vector<int>{0, 0, 0, 0}));
}

TEST_F(Metadata, eightThreadsAtOnceRenewOnce)
{
    setMode("normal", "delay=0.3");
    LmAwsAuth auth;
    constexpr int kThreads = 8;
    std::atomic<int> ready{0};
    Strings found(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            for (++ready; ready < kThreads;)
                std::this_thread::yield();
            Strings headers;
            if (i % 2)
                auth.prepareRequest("GET", "s3://b/k", headers);
            else if (auto const credentials = auth.getCredentials(QDateTime::currentDateTimeUtc()))
                headers.push_back("Credential=" + credentials->accessKeyId.toStdString() + "/");
            found[i] = headers.empty() ? "" : headers.back();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (std::string const& line : found)
        EXPECT_NE(line.find("Credential=ASIAMETADATAEXAMPLE/"), std::string::npos) << line;
    EXPECT_EQ(counts(), (std::vector<int>{1, 1, 1, 1}));
}

// ============================================ signatures checked by botocore

class Signatures : public AwsPeers
{
protected:
    void SetUp() override
    {
        AwsPeers::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        if ((port = env("MDX_SIGV4_PORT")).empty())
            GTEST_SKIP() << "sigv4_peer.py did not start (python3-botocore missing?)";
        vars.set("MDX_S3_DOMAIN", "localhost:" + port).set("MDX_EC2_METADATA_ADDRESS", closedAddress());
        vars.set("AWS_CONFIG_FILE", QDir(dir.path()).filePath("none").toStdString());
        ASSERT_EQ(rawRequest("POST", control("/__reset")).getResponseCode(), 200);
    }

    std::string control(std::string const& path) const { return "https://127.0.0.1:" + port + path; }
    QJsonArray recorded() const { return rawJson(control("/__stats")).value("requests").toArray(); }
    void failNext(int count, int status)
    {
        std::string const query = "count=" + std::to_string(count) + "&status=" + std::to_string(status);
        ASSERT_EQ(rawRequest("POST", control("/__fail?" + query)).getResponseCode(), 200);
    }

    // Signs with auth and sends with the client's plain paths; the answer's status and body.
    std::pair<int, std::string> send(LmAwsAuth& auth, char const* verb, std::string const& s3url,
                                     Strings headers = {}, QByteArray const& body = QByteArray(),
                                     std::string const& sendAs = "")
    {
        std::string const url = auth.prepareRequest(verb, s3url, headers);
        std::string const method = sendAs.empty() ? verb : sendAs;
        if (method == "PUT" || method == "DELETE") {
            LmCurlResponse const r =
                method == "PUT" ? client->put(url, headers, body) : rawRequest(method, url, headers);
            return {r.getResponseCode(), r.getPayload()};
        }
        int const flags = method == "HEAD" ? LmCurlClient::Head | LmCurlClient::Tolerate404 : 0;
        LmCurlDownloadStream stream = client->createDownloadStreamAndPeek(url, body, headers, flags);
        std::string const text = readAll(stream);
        return {stream.httpStatus().responseCode, text};
    }

    std::string port;
};

TEST_F(Signatures, everyVerbWithAndWithoutSessionTokenAndInAnotherRegion)
{
    QByteArray const body = testBytes(70000, 1);
    // clang-format off
    std::tuple<char const*, char const*, bool, int> const cases[] = {
        {"GET", "s3://mdx-bucket/object.bin", false, 200},  {"GET", "s3://mdx-bucket/dir/sub/object.dcm", false, 200},
        {"HEAD", "s3://mdx-bucket/object.bin", false, 200}, {"PUT", "s3://mdx-bucket/object.bin", false, 200},
        {"PUT", "s3://mdx-bucket/object.bin", true, 200},   {"POST", "s3://mdx-bucket/big.bin?uploads=", false, 200},
        {"PUT", "s3://mdx-bucket/big.bin?partNumber=1&uploadId=x", true, 200},
        {"PUT", "s3://mdx-bucket/big.bin?partNumber=1&uploadId=x", false, 200},
        {"DELETE", "s3://mdx-bucket/object.bin", false, 204}, {"DELETE", "s3://mdx-bucket/big.bin?uploadId=x", false, 204},
        {"POST", "s3://mdx-bucket/?delete=", true, 200}, // a bucket-level call: URI "/"
    };
    // clang-format on
    for (bool withToken : {false, true}) {
        LmAwsAuth auth;
        auth.setCredentials(withToken ? tokenIdentity() : plainIdentity());
        for (auto const& [verb, url, md5, expected] : cases) {
            SCOPED_TRACE(std::string(verb) + " " + url + (md5 ? " md5" : "") + (withToken ? " token" : ""));
            Strings const headers = md5 ? Strings{"Content-MD5: " + md5Base64(body)} : Strings();
            bool const hasBody = std::string(verb) == "PUT" || std::string(verb) == "POST";
            auto const [code, answer] = send(auth, verb, url, headers, hasBody ? body : QByteArray());
            EXPECT_EQ(code, expected) << answer;
            QJsonObject const seen = recorded().last().toObject();
            EXPECT_EQ(seen.value("method").toString().toStdString(), verb);
            EXPECT_EQ(seen.value("bucket").toString(), "mdx-bucket");
            EXPECT_EQ(seen.value("region").toString(), "us-east-1");
            QJsonArray signedHeaders{"host", "x-amz-content-sha256", "x-amz-date"};
            if (md5)
                signedHeaders.prepend("content-md5");
            if (withToken)
                signedHeaders.append("x-amz-security-token");
            EXPECT_EQ(seen.value("signed_headers").toArray(), signedHeaders);
            EXPECT_EQ(seen.value("content_md5").toBool(), md5);
            EXPECT_EQ(seen.value("token").toBool(), withToken);
        }
    }
    EXPECT_EQ(recorded().size(), 22);
    LmAwsAuth other;
    other.setCredentials(plainIdentity("eu-central-1"));
    EXPECT_EQ(send(other, "GET", "s3://mdx-bucket/object.bin").first, 200);
    EXPECT_EQ(recorded().last().toObject().value("region").toString(), "eu-central-1");
}

TEST_F(Signatures, thePeerRefusesWhatDoesNotFit)
{
    QByteArray const body = testBytes(1000, 2), other = testBytes(1000, 3);
    std::string const object = "s3://mdx-bucket/object.bin";
    std::tuple<std::shared_ptr<LmAwsAuth::Credentials>, char const*, int, std::string> const cases[] = {
        {credentials("AKIDSIGV4PLAIN", "not-the-secret"), "GET", 403, "SignatureDoesNotMatch"},
        {credentials("AKIDSIGV4PLAIN", "not-the-secret"), "PUT", 403, "SignatureDoesNotMatch"},
        {credentials("AKIDUNKNOWN", "x"), "GET", 403, "InvalidAccessKeyId"},
        {credentials("ASIASIGV4TOKEN", "sigv4/token/SECRETKEY"), "GET", 403,
         "InvalidToken"}, // token left out
    };
    for (auto const& [identity, verb, status, code] : cases) {
        LmAwsAuth auth;
        auth.setCredentials(identity);
        bool const put = std::string(verb) == "PUT";
        auto const [answer, text] =
            send(auth, verb, object, put ? Strings{"Content-MD5: " + md5Base64(body)} : Strings(),
                 put ? body : QByteArray());
        EXPECT_EQ(answer, status) << verb;
        EXPECT_NE(text.find("<Code>" + code + "</Code>"), std::string::npos) << text;
    }
    LmAwsAuth good;
    good.setCredentials(plainIdentity());
    // A signed verb cannot be swapped.
    auto const swapped = send(good, "GET", object, {}, QByteArray(), "DELETE");
    EXPECT_EQ(swapped.first, 403);
    EXPECT_NE(swapped.second.find("SignatureDoesNotMatch"), std::string::npos);
    // Content-MD5 is signed: changed after signing, it fails.
    Strings headers{"Content-MD5: " + md5Base64(body)};
    std::string const url = good.prepareRequest("PUT", object, headers);
    headers[0] = "Content-MD5: " + md5Base64(other);
    LmCurlResponse const tampered = client->put(url, headers, other);
    EXPECT_EQ(tampered.getResponseCode(), 403);
    EXPECT_NE(tampered.getPayload().find("SignatureDoesNotMatch"), std::string::npos);
    // Signed correctly, but the body is not the one the digest is for.
    Strings digestOfOther{"Content-MD5: " + md5Base64(other)};
    LmCurlResponse const bad =
        client->put(good.prepareRequest("PUT", object, digestOfOther), digestOfOther, body);
    EXPECT_EQ(bad.getResponseCode(), 400);
    EXPECT_NE(bad.getPayload().find("BadDigest"), std::string::npos);
    // Anonymous requests are refused, as the real service refuses them.
    Strings none;
    std::string const anonymous = LmAwsAuth().prepareRequest("GET", object, none);
    EXPECT_EQ(anonymous, "https://mdx-bucket.s3.localhost:" + port + "/object.bin");
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(rawRequest("GET", anonymous).getResponseCode(), 403);
}

TEST_F(Signatures, theClientsS3OperationsAndTheirStatusRules)
{
    client->helper()->awsAuth()->setCredentials(tokenIdentity());
    std::string const object = "s3://mdx-bucket/object.bin";
    LmCurlDownloadStream stream = client->read(object, false);
    EXPECT_EQ(stream.httpStatus().responseCode, 200);
    EXPECT_EQ(readAll(stream), "sigv4 ok\n");
    EXPECT_EQ(client->head(object).responseCode, 200);
    LmHttpStatus status;
    EXPECT_EQ(client->readBytes(object, status), "sigv4 ok\n");
    EXPECT_EQ(status.responseCode, 200);
    EXPECT_EQ(client->readRange(object, "0-3", false).httpStatus().responseCode, 200);
    QByteArray const started =
        client->postBytesRaw("s3://mdx-bucket/big.bin?uploads=", "<x/>", "application/xml", status);
    EXPECT_EQ(status.responseCode, 200);
    EXPECT_TRUE(started.contains("<UploadId>sigv4-peer-upload</UploadId>")) << started.constData();
    EXPECT_TRUE(client->deleteObject(object)); // 204
    // A delete succeeds on 204 and 404 only, and is never retried.
    for (auto const& [answer, success] :
         std::vector<std::pair<int, bool>>{{404, true}, {500, false}, {403, false}, {200, false}}) {
        failNext(1, answer);
        EXPECT_EQ(client->deleteObject(object), success) << answer;
    }
    QJsonArray const seen = recorded();
    ASSERT_EQ(seen.size(), 10);
    QStringList verbs;
    for (QJsonValue const& v : seen) {
        EXPECT_EQ(v.toObject().value("access_key").toString(), "ASIASIGV4TOKEN");
        verbs << v.toObject().value("method").toString() + " " +
                     QString::number(v.toObject().value("status").toInt());
    }
    EXPECT_EQ(verbs.join(", "),
              "GET 200, HEAD 200, GET 200, GET 200, POST 200, DELETE 204, DELETE 404, DELETE 500, "
              "DELETE 403, DELETE 200");
}

TEST_F(Signatures, everyRetryIsSignedAnewButARefusedSignatureIsNotRetried)
{
    client->helper()->awsAuth()->setCredentials(plainIdentity());
    failNext(2, 503);
    int tries = 0; // between the tries the credentials change; the next try must use them
    client->setRetrySleeper([&](long long) {
        client->helper()->awsAuth()->setCredentials(++tries == 1 ? tokenIdentity()
                                                                 : plainIdentity("eu-central-1"));
    });
    EXPECT_EQ(client->read("s3://mdx-bucket/retry.bin", false).httpStatus().responseCode, 200);
    EXPECT_EQ(tries, 2);
    QStringList seen;
    for (QJsonValue const& v : recorded())
        seen << QString::number(v.toObject().value("status").toInt()) + " " +
                    v.toObject().value("access_key").toString() + " " +
                    v.toObject().value("region").toString();
    EXPECT_EQ(seen.join(", "), "503 AKIDSIGV4PLAIN us-east-1, 503 ASIASIGV4TOKEN us-east-1, "
                               "200 AKIDSIGV4PLAIN eu-central-1");

    client->helper()->awsAuth()->setCredentials(credentials("AKIDSIGV4PLAIN", "wrong"));
    LogCapture log;
    EXPECT_EQ(client->read("s3://mdx-bucket/denied.bin", false).httpStatus().responseCode, 403);
    EXPECT_EQ(tries, 2);
    EXPECT_EQ(recorded().size(), 4);
    EXPECT_EQ(log.count(McLogFile::LevelError, "GET s3://mdx-bucket/denied.bin unrecoverable error 403"), 1);
}

// ========================================================= s3rver round trip

TEST_F(AwsPeers, s3rverPutReadRangesHeadDeleteAndQuietMisses)
{
    if (env("MDX_S3RVER_PORT").empty())
        GTEST_SKIP() << "s3rver did not start (node/npm or the registry missing?)";
    std::string const port = env("MDX_S3RVER_PORT");
    QString const config = QDir(dir.path()).filePath("s3rver-config");
    ASSERT_TRUE(writeFile(config, "[default]\naws_access_key_id = S3RVER\n"
                                  "aws_secret_access_key = S3RVER\nregion = us-east-1\n"));
    vars.set("MDX_S3_DOMAIN", "localhost:" + port).set("MDX_EC2_METADATA_ADDRESS", closedAddress());
    vars.set("AWS_CONFIG_FILE", config.toStdString());
    // A PUT as the upload code does it: the digest is signed with the rest.
    auto const put = [&](std::string const& s3url, QByteArray const& body) {
        Strings headers{"Content-MD5: " + md5Base64(body), "Content-Type: application/octet-stream"};
        std::string const url = client->helper()->awsAuth()->prepareRequest("PUT", s3url, headers);
        EXPECT_EQ(url, "https://mybucket.s3.us-east-1.localhost:" + port + s3url.substr(13));
        return client->put(url, headers, body);
    };

    auto const read = [](LmCurlDownloadStream stream, int status, QByteArray const& expected) {
        EXPECT_EQ(stream.httpStatus().responseCode, status);
        EXPECT_EQ(readAll(stream), expected.toStdString());
        EXPECT_FALSE(stream.httpStatus().curlError);
        return stream.httpStatus();
    };

    std::string const url = "s3://mybucket/studies/1.2.3/object.bin";
    QByteArray const body = testBytes(300 * 1024, 7);
    LmCurlResponse const stored = put(url, body);
    ASSERT_EQ(stored.getResponseCode(), 200) << stored.getPayload();
    EXPECT_EQ(stored.getSingleHeader("etag").value_or(""),
              "\"" + QCryptographicHash::hash(body, QCryptographicHash::Md5).toHex().toStdString() + "\"");
    EXPECT_EQ(client->helper()->awsAuth()->getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId,
              "S3RVER");
    read(client->read(url, false), 200, body);
    // Ranged and in parallel: every range carries the first request's signature, which covers no range.
    client->setChunkSizeForPartialRequests(64 * 1024);
    read(client->read(url, true), 206, body);
    read(client->readRange(url, "1000-1999", false), 206, body.mid(1000, 1000));
    LmHttpStatus status = client->head(url);
    EXPECT_EQ(status.responseCode, 200);
    EXPECT_EQ(*status.header("content-length"), std::to_string(body.size()));
    EXPECT_EQ(client->readBytes(url, status), body);
    EXPECT_EQ(status.responseCode, 206); // readBytes starts with a range
    EXPECT_TRUE(client->deleteObject(url));
    EXPECT_TRUE(client->deleteObject(url)); // gone already: still a success

    // An empty object, read without a range: s3rver answers a range of it with a length of 1 and no byte.
    ASSERT_EQ(put("s3://mybucket/empty.bin", QByteArray()).getResponseCode(), 200);
    EXPECT_EQ(
        *read(client->read("s3://mybucket/empty.bin", false), 200, QByteArray()).header("content-length"),
        "0");
    EXPECT_TRUE(client->deleteObject("s3://mybucket/empty.bin"));

    // A missing object: 404 without an error in the log or a retry; the bytes are the error document.
    LogCapture log;
    EXPECT_EQ(client->head(url).responseCode, 404);
    EXPECT_TRUE(client->readBytes(url, status).contains("NoSuchKey"));
    EXPECT_EQ(status.responseCode, 404);
    EXPECT_EQ(log.count(McLogFile::LevelError), 0);
    EXPECT_EQ(waits, 0);
}

} // namespace
