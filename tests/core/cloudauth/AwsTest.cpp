// S3 credentials and signatures end to end against loopback peers, run
// through run_with_peers.py --with aws:
//   - ec2_metadata_peer.py: the instance metadata service, with failure
//     modes and request counts;
//   - sigv4_peer.py: an S3 front that recomputes every signature with
//     botocore and answers 403 SignatureDoesNotMatch when it differs;
//   - s3rver: a working S3 store for whole object round trips.
// All of it runs in one process, so every test sets the environment it
// needs and puts it back, and the client singleton's credentials are set
// explicitly where a test goes through the client's s3 URLs.
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
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

// ------------------------------------------------------------- helpers

std::string env(char const* name)
{
    char const* value = std::getenv(name);
    return value ? value : "";
}

class ScopedEnv
{
public:
    ScopedEnv() = default;
    ScopedEnv(ScopedEnv const&) = delete;
    ScopedEnv& operator=(ScopedEnv const&) = delete;
    ~ScopedEnv()
    {
        for (auto it = mSaved.rbegin(); it != mSaved.rend(); ++it) {
            if (it->second)
                setenv(it->first.c_str(), it->second->c_str(), 1);
            else
                unsetenv(it->first.c_str());
        }
        ExResource::reloadConfiguration();
    }
    ScopedEnv& set(std::string const& name, std::string const& value)
    {
        remember(name);
        setenv(name.c_str(), value.c_str(), 1);
        ExResource::reloadConfiguration();
        return *this;
    }
    ScopedEnv& unset(std::string const& name)
    {
        remember(name);
        unsetenv(name.c_str());
        ExResource::reloadConfiguration();
        return *this;
    }

private:
    void remember(std::string const& name)
    {
        for (auto const& entry : mSaved)
            if (entry.first == name)
                return;
        char const* value = std::getenv(name.c_str());
        mSaved.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
    }
    std::vector<std::pair<std::string, std::optional<std::string>>> mSaved;
};

class LogCapture
{
public:
    LogCapture()
    {
        getTheLogInstance()->setWriteCallback([this](int level, std::string const& message) {
            std::lock_guard<std::mutex> lock(mMutex);
            mMessages.emplace_back(level, message);
        });
    }
    ~LogCapture() { getTheLogInstance()->setWriteCallback(nullptr); }
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    int count(int level, std::string const& part) const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        int n = 0;
        for (auto const& [l, m] : mMessages)
            if (l == level && m.find(part) != std::string::npos)
                ++n;
        return n;
    }
    std::vector<std::string> errors() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        std::vector<std::string> found;
        for (auto const& [l, m] : mMessages)
            if (l == McLogFile::LevelError)
                found.push_back(m);
        return found;
    }

private:
    mutable std::mutex mMutex;
    std::vector<std::pair<int, std::string>> mMessages;
};

int closedPort()
{
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = -1;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

// One request outside the code under test, for the peers' control paths.
LmCurlResponse rawRequest(std::string const& verb, std::string const& url,
                          std::vector<std::string> const& headers = {}, QByteArray const& body = QByteArray())
{
    try {
        LmCurlRawClient client(std::make_shared<LmCurlHandleFactory>(1), nullptr);
        LmCurlRequest request(url, verb);
        request.setPayload(std::string_view(body.constData(), static_cast<size_t>(body.size())));
        for (std::string const& line : headers)
            request.addRequestHeader(line);
        return client.process(request);
    } catch (std::exception const& e) {
        ADD_FAILURE() << verb << " " << url << ": " << e.what();
        return LmCurlResponse(0, {}, std::make_unique<std::string>());
    }
}

QJsonObject rawJson(std::string const& url)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString(rawRequest("GET", url).getPayload())).object();
}

QByteArray testBytes(int size, uint32_t seed)
{
    QByteArray data(size, '\0');
    uint32_t x = seed;
    for (int i = 0; i < size; ++i) {
        x = x * 1664525u + 1013904223u;
        data[i] = static_cast<char>(x >> 24);
    }
    return data;
}

std::string md5Base64(QByteArray const& data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Md5).toBase64().toStdString();
}

std::string readAll(std::istream& stream)
{
    std::string data;
    char buffer[65536];
    while (stream) {
        stream.read(buffer, sizeof buffer);
        data.append(buffer, static_cast<size_t>(stream.gcount()));
    }
    return data;
}

bool writeFile(QString const& path, QByteArray const& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(text) == text.size();
}

std::shared_ptr<LmAwsAuth::Credentials> credentials(QByteArray const& keyId, QByteArray const& secret,
                                                    QByteArray const& region, std::string const& token = "")
{
    auto result = std::make_shared<LmAwsAuth::Credentials>();
    result->accessKeyId = keyId;
    result->secretAccessKey = secret;
    result->region = region;
    result->token = token;
    LmAwsAuth::computeSecreteSigV4(result, QDateTime::currentDateTimeUtc().date());
    return result;
}

// The identities sigv4_peer.py knows without being told.
auto plainIdentity(QByteArray const& region = "us-east-1")
{
    return credentials("AKIDSIGV4PLAIN", "sigv4/plain/SECRETKEY", region);
}
auto tokenIdentity(QByteArray const& region = "us-east-1")
{
    return credentials("ASIASIGV4TOKEN", "sigv4/token/SECRETKEY", region, "sigv4-session-token/EXAMPLE==");
}

// ------------------------------------------------------------- fixtures

class AwsPeers : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (env("MDX_EC2_PORT").empty())
            GTEST_SKIP() << "run through run_with_peers.py --with aws";
        client = LmCurlClient::instance();
        client->setRetrySleeper([this](long long ms) {
            std::lock_guard<std::mutex> lock(waitsMutex);
            waits.push_back(ms);
        });
        client->setNumConcurrentRequestsPerFile(4);
        client->setChunkSizeForPartialRequests(12582912);
        client->helper()->awsAuth()->setCredentials(nullptr);
        fileConfig = QDir(dir.path()).filePath("file-config");
        ASSERT_TRUE(writeFile(fileConfig, "[default]\naws_access_key_id = FILEKEY\n"
                                          "aws_secret_access_key = file/secret\nregion = eu-west-1\n"));
        vars.set("AWS_CONFIG_FILE", fileConfig.toStdString()).unset("IAM_ROLE").unset("MDX_CONFIG");
        LmAwsAuth::resetInstanceProbe();
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

    size_t waitCount()
    {
        std::lock_guard<std::mutex> lock(waitsMutex);
        return waits.size();
    }

    LmCurlClient* client = nullptr;
    QTemporaryDir dir;
    QString fileConfig;
    ScopedEnv vars;
    std::mutex waitsMutex;
    std::vector<long long> waits;
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
        port = env("MDX_EC2_PORT");
        vars.set("MDX_EC2_METADATA_ADDRESS", "127.0.0.1:" + port);
        setMode("normal");
    }

    std::string peer(std::string const& path) const { return "http://127.0.0.1:" + port + path; }
    void setMode(std::string const& name, std::string const& options = "")
    {
        LmCurlResponse const answer =
            rawRequest("POST", peer("/__mode?name=" + name + (options.empty() ? "" : "&" + options)));
        ASSERT_EQ(answer.getResponseCode(), 200) << answer.getPayload();
    }
    QJsonObject stats() const { return rawJson(peer("/__stats")); }
    static int count(QJsonObject const& stats, std::string const& request)
    {
        return stats.value("requests").toObject().value(QString::fromStdString(request)).toInt(0);
    }

    static constexpr char const* kToken = "PUT /latest/api/token";
    static constexpr char const* kRegion = "GET /latest/meta-data/placement/region";
    static constexpr char const* kRoles = "GET /latest/meta-data/iam/security-credentials";
    static constexpr char const* kRole = "GET /latest/meta-data/iam/security-credentials/mdx-test-role";

    std::string port;
};

TEST_F(Metadata, credentialsTokenRegionRoleAndExpiry)
{
    setMode("normal", "expires_in=3600");
    LmAwsAuth auth;
    QDateTime const now = QDateTime::currentDateTimeUtc();
    auto const found = auth.getCredentials(now);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->accessKeyId, "ASIAMETADATAEXAMPLE");
    EXPECT_EQ(found->secretAccessKey, "metadata/secret/EXAMPLEKEY");
    EXPECT_EQ(found->token, "metadata-session-token-EXAMPLE");
    EXPECT_EQ(found->region, "us-east-1");
    ASSERT_TRUE(found->expiration.isValid());
    EXPECT_NEAR(static_cast<double>(now.secsTo(found->expiration)), 3600.0, 60.0);
    EXPECT_EQ(found->signingDate, now.date());
    EXPECT_EQ(found->signingKey.size(), 32);

    QJsonObject const s = stats();
    EXPECT_EQ(count(s, kToken), 1);
    EXPECT_EQ(count(s, kRegion), 1);
    EXPECT_EQ(count(s, kRoles), 1);
    EXPECT_EQ(count(s, kRole), 1);
    EXPECT_EQ(s.value("total").toInt(), 4);
    EXPECT_EQ(s.value("ttl_headers").toArray(), QJsonArray{"21600"});
    QString const token = s.value("tokens").toArray().at(0).toString();
    ASSERT_FALSE(token.isEmpty());
    // Every GET carried the token it got.
    for (char const* request : {kRegion, kRoles, kRole})
        EXPECT_EQ(s.value("token_headers").toObject().value(request).toArray(), QJsonArray{token}) << request;
    // The peer insists on it, so the answers above prove it was sent.
    EXPECT_EQ(rawRequest("GET", peer("/latest/meta-data/placement/region")).getResponseCode(), 401);

    // Valid for another hour: no second trip.
    EXPECT_EQ(auth.getCredentials(QDateTime::currentDateTimeUtc()), found);
    EXPECT_EQ(count(stats(), kToken), 1);
}

TEST_F(Metadata, regionOfTheInstanceSelectsTheHost)
{
    setMode("normal", "region=eu-north-1");
    vars.set("MDX_S3_DOMAIN", "example.localhost");
    LmAwsAuth auth;
    std::vector<std::string> headers;
    EXPECT_EQ(auth.prepareRequest("GET", "s3://b/k", headers), "https://b.s3.eu-north-1.example.localhost/k");
    ASSERT_EQ(headers.size(), 5u);
    EXPECT_EQ(headers[3], "X-Amz-Security-Token: metadata-session-token-EXAMPLE");
    EXPECT_NE(headers[4].find("Credential=ASIAMETADATAEXAMPLE/"), std::string::npos) << headers[4];
}

TEST_F(Metadata, withoutATokenTheRequestsGoOnWithoutTheHeader)
{
    setMode("no_token");
    LogCapture log;
    LmAwsAuth auth;
    auto const found = auth.getCredentials(QDateTime::currentDateTimeUtc());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->accessKeyId, "ASIAMETADATAEXAMPLE");
    EXPECT_EQ(log.count(McLogFile::LevelError, "Could not obtain meta-data token (403)"), 1);
    QJsonObject const s = stats();
    EXPECT_EQ(count(s, kToken), 1);
    for (char const* request : {kRegion, kRoles, kRole})
        EXPECT_EQ(s.value("token_headers").toObject().value(request).toArray(), QJsonArray{QJsonValue()})
            << request;
}

TEST_F(Metadata, emptyRegionFallsBackToTheFile)
{
    setMode("empty_region");
    LmAwsAuth auth;
    auto const found = auth.getCredentials(QDateTime::currentDateTimeUtc());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->accessKeyId, "FILEKEY");
    EXPECT_EQ(found->region, "eu-west-1");
    EXPECT_TRUE(found->token.empty());
    EXPECT_TRUE(found->expiration.isNull());
    QJsonObject const s = stats();
    EXPECT_EQ(count(s, kRegion), 1);
    EXPECT_EQ(count(s, kRoles), 0);
    EXPECT_EQ(count(s, kRole), 0);
}

TEST_F(Metadata, emptyRoleFallsBackToTheFile)
{
    setMode("empty_role");
    LogCapture log;
    LmAwsAuth auth;
    EXPECT_EQ(auth.getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId, "FILEKEY");
    EXPECT_EQ(log.count(McLogFile::LevelWarning, "Could not determine IAM role"), 1);
    EXPECT_EQ(count(stats(), kRole), 0);
}

TEST_F(Metadata, serverErrorsAreRetriedThenTheFileIsUsed)
{
    setMode("error500");
    LogCapture log;
    LmAwsAuth auth;
    auto const found = auth.getCredentials(QDateTime::currentDateTimeUtc());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->accessKeyId, "FILEKEY");
    QJsonObject const s = stats();
    EXPECT_EQ(count(s, kToken), 1);  // one raw PUT, no retry
    EXPECT_EQ(count(s, kRegion), 6); // the stream-opening retry loop
    EXPECT_EQ(waitCount(), 5u);
    EXPECT_EQ(count(s, kRoles), 0);
    EXPECT_EQ(log.count(McLogFile::LevelError, "Could not obtain meta-data token (500)"), 1);
    EXPECT_EQ(log.count(McLogFile::LevelError, "Could not get region from " +
                                                   peer("/latest/meta-data/placement/region") +
                                                   " (response code 500)"),
              1);

    // A 500 is an answer: the service is still taken to be there.
    setMode("normal");
    LmAwsAuth again;
    EXPECT_EQ(again.getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId, "ASIAMETADATAEXAMPLE");
}

TEST_F(Metadata, brokenCredentialDocumentsFallBackToTheFile)
{
    setMode("error500_credentials");
    {
        LogCapture log;
        LmAwsAuth auth;
        EXPECT_EQ(auth.getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId, "FILEKEY");
        EXPECT_EQ(count(stats(), kRole), 6);
        EXPECT_EQ(log.count(McLogFile::LevelError,
                            "Cannot read security credentials from " +
                                peer("/latest/meta-data/iam/security-credentials/mdx-test-role")),
                  1);
    }
    setMode("invalid_credentials");
    {
        LogCapture log;
        LmAwsAuth auth;
        EXPECT_EQ(auth.getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId, "FILEKEY");
        EXPECT_EQ(log.count(McLogFile::LevelError, "Got invalid security credentials from"), 1);
    }
}

TEST_F(Metadata, noServiceAtAllIsNoticedOnceAndQuickly)
{
    vars.set("MDX_EC2_METADATA_ADDRESS", "127.0.0.1:" + std::to_string(closedPort()));
    LmAwsAuth auth;
    auto const t0 = std::chrono::steady_clock::now();
    auto const found = auth.getCredentials(QDateTime::currentDateTimeUtc());
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(500));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->accessKeyId, "FILEKEY");

    // The probe's verdict stands for the process: a service that appears
    // later is not asked.
    vars.set("MDX_EC2_METADATA_ADDRESS", "127.0.0.1:" + port);
    LmAwsAuth later;
    EXPECT_EQ(later.getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId, "FILEKEY");
    EXPECT_EQ(stats().value("total").toInt(), 0);

    LmAwsAuth::resetInstanceProbe();
    LmAwsAuth probed;
    EXPECT_EQ(probed.getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId, "ASIAMETADATAEXAMPLE");
}

TEST_F(Metadata, aServiceThatNeverAnswersIsGivenUpForTheProcess)
{
    // The probe connects, but no request gets an answer: the region read
    // gets no HTTP status at all and turns the verdict to "no instance".
    setMode("hangup");
    LmAwsAuth auth;
    EXPECT_EQ(auth.getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId, "FILEKEY");
    QJsonObject const s = stats();
    EXPECT_GE(count(s, kToken), 1);
    EXPECT_GE(count(s, kRegion), 1);
    EXPECT_EQ(count(s, kRoles), 0);

    setMode("normal");
    LmAwsAuth later;
    EXPECT_EQ(later.getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId, "FILEKEY");
    EXPECT_EQ(stats().value("total").toInt(), 0);
}

TEST_F(Metadata, manyThreadsAtOnceRenewOnce)
{
    setMode("normal", "delay=0.3");
    LmAwsAuth auth;
    constexpr int kThreads = 8;
    std::mutex mutex;
    std::condition_variable start;
    int ready = 0;
    std::vector<std::shared_ptr<LmAwsAuth::Credentials>> results(kThreads);
    std::vector<std::string> keyIds(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            {
                std::unique_lock<std::mutex> lock(mutex);
                ++ready;
                start.notify_all();
                start.wait(lock, [&] { return ready == kThreads; });
            }
            if (i % 2 == 0) {
                results[i] = auth.getCredentials(QDateTime::currentDateTimeUtc());
            } else {
                std::vector<std::string> headers;
                auth.prepareRequest("GET", "s3://b/k", headers);
                keyIds[i] = headers.empty() ? "" : headers.back();
            }
        });
    }
    for (std::thread& t : threads)
        t.join();
    for (int i = 0; i < kThreads; i += 2) {
        ASSERT_TRUE(results[i]) << i;
        EXPECT_EQ(results[i], results[0]);
    }
    EXPECT_EQ(results[0]->accessKeyId, "ASIAMETADATAEXAMPLE");
    for (int i = 1; i < kThreads; i += 2)
        EXPECT_NE(keyIds[i].find("Credential=ASIAMETADATAEXAMPLE/"), std::string::npos) << keyIds[i];
    QJsonObject const s = stats();
    EXPECT_EQ(count(s, kToken), 1);
    EXPECT_EQ(count(s, kRegion), 1);
    EXPECT_EQ(count(s, kRoles), 1);
    EXPECT_EQ(count(s, kRole), 1);
}

TEST_F(Metadata, iamRoleFromTheEnvironmentSkipsTheRoleList)
{
    vars.set("IAM_ROLE", "mdx-test-role");
    LmAwsAuth auth;
    EXPECT_EQ(auth.getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId, "ASIAMETADATAEXAMPLE");
    QJsonObject const s = stats();
    EXPECT_EQ(count(s, kRoles), 0);
    EXPECT_EQ(count(s, kRole), 1);

    // A role the instance does not have: 404, not retried, then the file.
    setMode("normal");
    vars.set("IAM_ROLE", "no-such-role");
    LogCapture log;
    LmAwsAuth other;
    EXPECT_EQ(other.getCredentials(QDateTime::currentDateTimeUtc())->accessKeyId, "FILEKEY");
    EXPECT_EQ(count(stats(), "GET /latest/meta-data/iam/security-credentials/no-such-role"), 1);
    EXPECT_EQ(log.count(McLogFile::LevelError, "Cannot read security credentials from"), 1);
}

TEST_F(Metadata, shortLivedCredentialsAreReadAgainOnEveryUse)
{
    // 100 s of life is inside the 120 s margin: each use renews.
    setMode("normal", "expires_in=100");
    LmAwsAuth auth;
    auto const first = auth.getCredentials(QDateTime::currentDateTimeUtc());
    ASSERT_TRUE(first);
    auto const second = auth.getCredentials(QDateTime::currentDateTimeUtc());
    ASSERT_TRUE(second);
    EXPECT_NE(first, second);
    EXPECT_EQ(count(stats(), kToken), 2);
    EXPECT_EQ(count(stats(), kRole), 2);
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
        if (env("MDX_SIGV4_PORT").empty())
            GTEST_SKIP() << "sigv4_peer.py did not start (python3-botocore missing?)";
        port = env("MDX_SIGV4_PORT");
        vars.set("MDX_S3_DOMAIN", "localhost:" + port)
            .set("MDX_EC2_METADATA_ADDRESS", "127.0.0.1:" + std::to_string(closedPort()))
            .set("AWS_CONFIG_FILE", QDir(dir.path()).filePath("none").toStdString());
        ASSERT_EQ(rawRequest("POST", control("/__reset")).getResponseCode(), 200);
    }

    std::string control(std::string const& path) const { return "https://127.0.0.1:" + port + path; }
    QJsonArray recorded() const { return rawJson(control("/__stats")).value("requests").toArray(); }

    struct Answer
    {
        int code = 0;
        std::string body;
    };

    // Signs with auth and sends with the client's plain paths.
    Answer send(LmAwsAuth& auth, char const* verb, std::string const& s3url,
                std::vector<std::string> headers = {}, QByteArray const& body = QByteArray(),
                char const* sendAs = nullptr)
    {
        std::string const url = auth.prepareRequest(verb, s3url, headers);
        std::string const method = sendAs ? sendAs : verb;
        Answer answer;
        if (method == "GET" || method == "HEAD" || method == "POST") {
            int const flags = method == "HEAD" ? LmCurlClient::Head | LmCurlClient::Tolerate404 : 0;
            LmCurlDownloadStream stream = client->createDownloadStreamAndPeek(url, body, headers, flags);
            answer.body = readAll(stream);
            answer.code = stream.httpStatus().responseCode;
        } else if (method == "PUT") {
            LmCurlResponse const response = client->put(url, headers, body);
            answer.code = response.getResponseCode();
            answer.body = response.getPayload();
        } else {
            LmCurlResponse const response = rawRequest(method, url, headers, body);
            answer.code = response.getResponseCode();
            answer.body = response.getPayload();
        }
        return answer;
    }

    std::string port;
};

TEST_F(Signatures, everyVerbWithAndWithoutSessionToken)
{
    QByteArray const body = testBytes(70000, 1);
    std::string const md5 = md5Base64(body);
    struct Case
    {
        char const* verb;
        char const* url;
        bool md5;
        int expected;
    };
    std::vector<Case> const cases = {
        {"GET", "s3://mdx-bucket/object.bin", false, 200},
        {"GET", "s3://mdx-bucket/dir/sub/object.dcm", false, 200},
        {"HEAD", "s3://mdx-bucket/object.bin", false, 200},
        {"PUT", "s3://mdx-bucket/object.bin", false, 200},
        {"PUT", "s3://mdx-bucket/object.bin", true, 200},
        {"POST", "s3://mdx-bucket/big.bin?uploads=", false, 200},
        {"PUT", "s3://mdx-bucket/big.bin?partNumber=1&uploadId=x", true, 200},
        {"PUT", "s3://mdx-bucket/big.bin?partNumber=1&uploadId=x", false, 200},
        {"DELETE", "s3://mdx-bucket/object.bin", false, 204},
        {"DELETE", "s3://mdx-bucket/big.bin?uploadId=x", false, 204},
        {"POST", "s3://mdx-bucket/?delete=", true, 200}, // a bucket-level call: URI "/"
    };
    int sent = 0;
    for (bool withToken : {false, true}) {
        LmAwsAuth auth;
        auth.setCredentials(withToken ? tokenIdentity() : plainIdentity());
        for (Case const& c : cases) {
            SCOPED_TRACE(std::string(c.verb) + " " + c.url + (c.md5 ? " md5" : "") +
                         (withToken ? " token" : ""));
            std::vector<std::string> headers;
            if (c.md5)
                headers.push_back("Content-MD5: " + md5);
            bool const hasBody = std::string(c.verb) == "PUT" || std::string(c.verb) == "POST";
            Answer const answer = send(auth, c.verb, c.url, headers, hasBody ? body : QByteArray());
            EXPECT_EQ(answer.code, c.expected) << answer.body;
            ++sent;
            QJsonArray const seen = recorded();
            ASSERT_EQ(seen.size(), sent);
            QJsonObject const last = seen.last().toObject();
            EXPECT_EQ(last.value("method").toString().toStdString(), c.verb);
            EXPECT_EQ(last.value("bucket").toString(), "mdx-bucket");
            EXPECT_EQ(last.value("region").toString(), "us-east-1");
            QStringList signedHeaders;
            for (QJsonValue const& v : last.value("signed_headers").toArray())
                signedHeaders << v.toString();
            QString expectedList = "host;x-amz-content-sha256;x-amz-date";
            if (c.md5)
                expectedList.prepend("content-md5;");
            if (withToken)
                expectedList += ";x-amz-security-token";
            EXPECT_EQ(signedHeaders.join(';'), expectedList);
            EXPECT_EQ(last.value("content_md5").toBool(), c.md5);
            EXPECT_EQ(last.value("token").toBool(), withToken);
        }
    }
}

TEST_F(Signatures, otherRegionsSignWithTheirOwnScope)
{
    LmAwsAuth auth;
    auth.setCredentials(plainIdentity("eu-central-1"));
    EXPECT_EQ(send(auth, "GET", "s3://mdx-bucket/object.bin").code, 200);
    EXPECT_EQ(recorded().last().toObject().value("region").toString(), "eu-central-1");
}

TEST_F(Signatures, thePeerRefusesWhatDoesNotFit)
{
    QByteArray const body = testBytes(1000, 2);
    LmAwsAuth wrongSecret;
    wrongSecret.setCredentials(credentials("AKIDSIGV4PLAIN", "not-the-secret", "us-east-1"));
    Answer const get = send(wrongSecret, "GET", "s3://mdx-bucket/object.bin");
    EXPECT_EQ(get.code, 403);
    EXPECT_NE(get.body.find("<Code>SignatureDoesNotMatch</Code>"), std::string::npos) << get.body;
    Answer const put =
        send(wrongSecret, "PUT", "s3://mdx-bucket/object.bin", {"Content-MD5: " + md5Base64(body)}, body);
    EXPECT_EQ(put.code, 403);
    EXPECT_NE(put.body.find("SignatureDoesNotMatch"), std::string::npos) << put.body;

    LmAwsAuth unknown;
    unknown.setCredentials(credentials("AKIDUNKNOWN", "x", "us-east-1"));
    EXPECT_NE(send(unknown, "GET", "s3://mdx-bucket/object.bin").body.find("InvalidAccessKeyId"),
              std::string::npos);

    LmAwsAuth tokenMissing;
    tokenMissing.setCredentials(credentials("ASIASIGV4TOKEN", "sigv4/token/SECRETKEY", "us-east-1"));
    EXPECT_NE(send(tokenMissing, "GET", "s3://mdx-bucket/object.bin").body.find("InvalidToken"),
              std::string::npos);

    LmAwsAuth good;
    good.setCredentials(plainIdentity());
    // A signed verb cannot be swapped.
    Answer const swapped = send(good, "GET", "s3://mdx-bucket/object.bin", {}, QByteArray(), "DELETE");
    EXPECT_EQ(swapped.code, 403);
    EXPECT_NE(swapped.body.find("SignatureDoesNotMatch"), std::string::npos);

    // Content-MD5 is part of the signature: changed after signing, it fails.
    std::vector<std::string> headers{"Content-MD5: " + md5Base64(body)};
    std::string const url = good.prepareRequest("PUT", "s3://mdx-bucket/object.bin", headers);
    for (std::string& line : headers)
        if (line.rfind("Content-MD5: ", 0) == 0)
            line = "Content-MD5: " + md5Base64(testBytes(1000, 3));
    LmCurlResponse const tampered = client->put(url, headers, testBytes(1000, 3));
    EXPECT_EQ(tampered.getResponseCode(), 403);
    EXPECT_NE(tampered.getPayload().find("SignatureDoesNotMatch"), std::string::npos);

    // Signed correctly, but the body is not the one the digest is for.
    std::vector<std::string> digestOfOther{"Content-MD5: " + md5Base64(testBytes(1000, 4))};
    std::string const target = good.prepareRequest("PUT", "s3://mdx-bucket/object.bin", digestOfOther);
    LmCurlResponse const bad = client->put(target, digestOfOther, body);
    EXPECT_EQ(bad.getResponseCode(), 400);
    EXPECT_NE(bad.getPayload().find("BadDigest"), std::string::npos);

    // Anonymous requests are refused, as the real service refuses them.
    LmAwsAuth none;
    std::vector<std::string> noHeaders;
    std::string const anonymous = none.prepareRequest("GET", "s3://mdx-bucket/object.bin", noHeaders);
    EXPECT_EQ(anonymous, "https://mdx-bucket.s3.localhost:" + port + "/object.bin");
    EXPECT_TRUE(noHeaders.empty());
    EXPECT_EQ(rawRequest("GET", anonymous).getResponseCode(), 403);
}

TEST_F(Signatures, theClientsS3Operations)
{
    client->helper()->awsAuth()->setCredentials(tokenIdentity());
    LmCurlDownloadStream stream = client->read("s3://mdx-bucket/object.bin", false);
    EXPECT_EQ(stream.httpStatus().responseCode, 200);
    EXPECT_EQ(readAll(stream), "sigv4 ok\n");

    EXPECT_EQ(client->head("s3://mdx-bucket/object.bin").responseCode, 200);
    LmHttpStatus status;
    EXPECT_EQ(client->readBytes("s3://mdx-bucket/object.bin", status), "sigv4 ok\n");
    EXPECT_EQ(status.responseCode, 200);
    EXPECT_EQ(client->readRange("s3://mdx-bucket/object.bin", "0-3", false).httpStatus().responseCode, 200);
    QByteArray const started =
        client->postBytesRaw("s3://mdx-bucket/big.bin?uploads=", "<x/>", "application/xml", status);
    EXPECT_EQ(status.responseCode, 200);
    EXPECT_TRUE(started.contains("<UploadId>sigv4-peer-upload</UploadId>")) << started.constData();
    EXPECT_TRUE(client->deleteObject("s3://mdx-bucket/object.bin"));

    QJsonArray const seen = recorded();
    ASSERT_EQ(seen.size(), 6);
    QStringList verbs;
    for (QJsonValue const& v : seen) {
        EXPECT_EQ(v.toObject().value("status").toInt() / 100, 2)
            << v.toObject().value("code").toString().toStdString();
        EXPECT_EQ(v.toObject().value("access_key").toString(), "ASIASIGV4TOKEN");
        verbs << v.toObject().value("method").toString();
    }
    EXPECT_EQ(verbs.join(' '), "GET HEAD GET GET POST DELETE");
}

TEST_F(Signatures, deleteSucceedsOn204And404Only)
{
    client->helper()->awsAuth()->setCredentials(plainIdentity());
    EXPECT_TRUE(client->deleteObject("s3://mdx-bucket/a.bin")); // 204
    struct Case
    {
        int status;
        bool success;
    };
    for (Case const& c : {Case{404, true}, Case{500, false}, Case{403, false}, Case{200, false}}) {
        ASSERT_EQ(rawRequest("POST", control("/__fail?count=1&status=" + std::to_string(c.status)))
                      .getResponseCode(),
                  200);
        EXPECT_EQ(client->deleteObject("s3://mdx-bucket/a.bin"), c.success) << c.status;
    }
    // One request each: a delete is never retried.
    QJsonArray const seen = recorded();
    ASSERT_EQ(seen.size(), 5);
    for (QJsonValue const& v : seen)
        EXPECT_EQ(v.toObject().value("method").toString(), "DELETE");
    EXPECT_EQ(seen[4].toObject().value("status").toInt(), 200);
}

TEST_F(Signatures, everyRetryIsSignedAnew)
{
    client->helper()->awsAuth()->setCredentials(plainIdentity());
    ASSERT_EQ(rawRequest("POST", control("/__fail?count=2&status=503")).getResponseCode(), 200);
    // Between the tries the credentials change; the next try must use them.
    int tries = 0;
    client->setRetrySleeper([&](long long) {
        ++tries;
        client->helper()->awsAuth()->setCredentials(tries == 1 ? tokenIdentity()
                                                               : plainIdentity("eu-central-1"));
    });
    LmCurlDownloadStream stream = client->read("s3://mdx-bucket/retry.bin", false);
    EXPECT_EQ(stream.httpStatus().responseCode, 200);
    EXPECT_EQ(tries, 2);
    QJsonArray const seen = recorded();
    ASSERT_EQ(seen.size(), 3);
    EXPECT_EQ(seen[0].toObject().value("status").toInt(), 503);
    EXPECT_EQ(seen[0].toObject().value("access_key").toString(), "AKIDSIGV4PLAIN");
    EXPECT_EQ(seen[1].toObject().value("status").toInt(), 503);
    EXPECT_EQ(seen[1].toObject().value("access_key").toString(), "ASIASIGV4TOKEN");
    EXPECT_EQ(seen[2].toObject().value("status").toInt(), 200);
    EXPECT_EQ(seen[2].toObject().value("access_key").toString(), "AKIDSIGV4PLAIN");
    EXPECT_EQ(seen[2].toObject().value("region").toString(), "eu-central-1");
}

TEST_F(Signatures, aRefusedSignatureIsNotRetried)
{
    client->helper()->awsAuth()->setCredentials(credentials("AKIDSIGV4PLAIN", "wrong", "us-east-1"));
    LogCapture log;
    LmCurlDownloadStream stream = client->read("s3://mdx-bucket/denied.bin", false);
    EXPECT_EQ(stream.httpStatus().responseCode, 403);
    EXPECT_EQ(waitCount(), 0u);
    EXPECT_EQ(recorded().size(), 1);
    EXPECT_EQ(log.count(McLogFile::LevelError, "GET s3://mdx-bucket/denied.bin unrecoverable error 403"), 1);
}

// ========================================================= s3rver round trip

class S3rver : public AwsPeers
{
protected:
    void SetUp() override
    {
        AwsPeers::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        if (env("MDX_S3RVER_PORT").empty())
            GTEST_SKIP() << "s3rver did not start (node/npm or the registry missing?)";
        port = env("MDX_S3RVER_PORT");
        QString const config = QDir(dir.path()).filePath("s3rver-config");
        ASSERT_TRUE(writeFile(config, "[default]\naws_access_key_id = S3RVER\n"
                                      "aws_secret_access_key = S3RVER\nregion = us-east-1\n"));
        vars.set("MDX_S3_DOMAIN", "localhost:" + port)
            .set("MDX_EC2_METADATA_ADDRESS", "127.0.0.1:" + std::to_string(closedPort()))
            .set("AWS_CONFIG_FILE", config.toStdString());
    }

    // A PUT as the upload code does it: the digest is signed with the rest.
    LmCurlResponse put(std::string const& s3url, QByteArray const& body)
    {
        std::vector<std::string> headers{"Content-MD5: " + md5Base64(body),
                                         "Content-Type: application/octet-stream"};
        std::string const url = client->helper()->awsAuth()->prepareRequest("PUT", s3url, headers);
        EXPECT_EQ(url, "https://mybucket.s3.us-east-1.localhost:" + port +
                           s3url.substr(std::string("s3://mybucket").size()));
        return client->put(url, headers, body);
    }

    std::string port;
};

TEST_F(S3rver, putReadHeadAndDelete)
{
    std::string const url = "s3://mybucket/studies/1.2.3/object.bin";
    QByteArray const body = testBytes(300 * 1024, 7);
    LmCurlResponse const stored = put(url, body);
    ASSERT_EQ(stored.getResponseCode(), 200) << stored.getPayload();
    std::string const etag =
        "\"" + QCryptographicHash::hash(body, QCryptographicHash::Md5).toHex().toStdString() + "\"";
    EXPECT_EQ(stored.getSingleHeader("etag").value_or(""), etag);
    // The credentials came from the configuration file.
    auto const used = client->helper()->awsAuth()->getCredentials(QDateTime::currentDateTimeUtc());
    ASSERT_TRUE(used);
    EXPECT_EQ(used->accessKeyId, "S3RVER");

    LmCurlDownloadStream whole = client->read(url, false);
    EXPECT_EQ(whole.httpStatus().responseCode, 200);
    EXPECT_EQ(readAll(whole), body.toStdString());

    // Ranged and in parallel: every range carries the first request's
    // signature, which covers no range.
    client->setChunkSizeForPartialRequests(64 * 1024);
    LmCurlDownloadStream ranged = client->read(url, true);
    EXPECT_EQ(ranged.httpStatus().responseCode, 206);
    EXPECT_EQ(readAll(ranged), body.toStdString());
    EXPECT_FALSE(ranged.httpStatus().curlError);

    LmCurlDownloadStream part = client->readRange(url, "1000-1999", false);
    EXPECT_EQ(part.httpStatus().responseCode, 206);
    EXPECT_EQ(readAll(part), body.mid(1000, 1000).toStdString());

    LmHttpStatus const head = client->head(url);
    EXPECT_EQ(head.responseCode, 200);
    ASSERT_TRUE(head.header("content-length"));
    EXPECT_EQ(*head.header("content-length"), std::to_string(body.size()));

    LmHttpStatus status;
    EXPECT_EQ(client->readBytes(url, status), body);
    EXPECT_EQ(status.responseCode, 206); // readBytes starts with a range

    EXPECT_TRUE(client->deleteObject(url));
    EXPECT_EQ(client->head(url).responseCode, 404);
    EXPECT_TRUE(client->deleteObject(url)); // gone already: still a success
}

TEST_F(S3rver, missingObjectsAreQuiet)
{
    LogCapture log;
    EXPECT_EQ(client->head("s3://mybucket/no/such/object").responseCode, 404);
    LmHttpStatus status;
    // The bytes are the service's error document; the status tells.
    QByteArray const document = client->readBytes("s3://mybucket/no/such/object", status);
    EXPECT_EQ(status.responseCode, 404);
    EXPECT_TRUE(document.contains("NoSuchKey")) << document.constData();
    EXPECT_EQ(log.errors(), std::vector<std::string>{});
    EXPECT_EQ(waitCount(), 0u);
}

TEST_F(S3rver, emptyAndNestedObjects)
{
    ASSERT_EQ(put("s3://mybucket/empty.bin", QByteArray()).getResponseCode(), 200);
    // Read without a range: s3rver answers a range of an empty object with
    // a Content-Length of 1 and no byte.
    LmCurlDownloadStream empty = client->read("s3://mybucket/empty.bin", false);
    EXPECT_EQ(empty.httpStatus().responseCode, 200);
    EXPECT_EQ(readAll(empty), "");
    EXPECT_EQ(*empty.httpStatus().header("content-length"), "0");
    LmHttpStatus status;

    QByteArray const small = testBytes(1000, 9);
    ASSERT_EQ(put("s3://mybucket/a/b/c/d.dcm", small).getResponseCode(), 200);
    EXPECT_EQ(client->readBytes("s3://mybucket/a/b/c/d.dcm", status), small);
    EXPECT_TRUE(client->deleteObject("s3://mybucket/a/b/c/d.dcm"));
    EXPECT_TRUE(client->deleteObject("s3://mybucket/empty.bin"));
}

} // namespace
