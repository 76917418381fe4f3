// The transport without a network: settings, pools, value types, retry loops, log redaction, and
// the client's URL rules and request building (requests are built, never started).
#include "support/TestSupport.h"

#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlErrors.h>
#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/curl/LmCurlRetryPolicy.h>
#include <mdxlib/curl/LmCurlSettings.h>
#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/platform/McLogFile.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <climits>
#include <map>
#include <set>
#include <tuple>

namespace {

using Strings = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using mdxtest::LogCapture;
using mdxtest::ScopedEnv;

LmCurlSettings::Lookup table(std::map<std::string, std::string> values)
{
    return [values](char const* name) -> std::optional<std::string> {
        auto const it = values.find(name);
        return it == values.end() ? std::nullopt : std::optional<std::string>(it->second);
    };
}

bool writeFile(QString const& path, QByteArray const& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(text) == text.size();
}

// ================================================================ settings

TEST(CurlSettings, environmentRules)
{
    auto const none = table({});
    LmCurlSettings const defaults = LmCurlSettings::parse(none, none);
    EXPECT_FALSE(defaults.debug);
    EXPECT_EQ(defaults.sslCipherList, "AES128-GCM-SHA256");
    EXPECT_EQ(defaults.maxConnects, 256);
    EXPECT_EQ(defaults.recBufSize, 0);
    for (auto const& [value, expected] :
         std::vector<std::pair<char const*, int>>{{"3", 5}, {"6", 6}, {"abc", 5}})
        EXPECT_EQ(LmCurlSettings::parse(table({{"CURL_MAX_CONNECTS", value}}), none).maxConnects, expected);
    EXPECT_FALSE(LmCurlSettings::parse(table({{"CURL_DEBUG", "0"}}), none).debug);
    EXPECT_TRUE(LmCurlSettings::parse(table({{"CURL_DEBUG", ""}}), none).debug);
    EXPECT_EQ(LmCurlSettings::parse(table({{"SSL_CIPHER_LIST", ""}}), none).sslCipherList, "");
    EXPECT_EQ(lmCurlUserAgent().rfind("Lumora 0.", 0), 0u);
}

TEST(CurlSettings, theParameterFileWinsOverTheEnvironmentForBufferSizesOnly)
{
    QTemporaryDir dir;
    QString const ini = QDir(dir.path()).filePath("mdx.ini");
    ASSERT_TRUE(writeFile(ini, "CURL_RECBUF_SIZE=1000\nCURL_SNDBUF_SIZE=3000\nCURL_MAX_CONNECTS=7\n"));
    ScopedEnv env;
    env.set("MDX_CONFIG", ini.toStdString()).set("CURL_RECBUF_SIZE", "2000").set("CURL_MAX_CONNECTS", "9");
    env.unset("CURL_SNDBUF_SIZE");
    LogCapture log;
    LmCurlSettings settings = LmCurlSettings::read();
    EXPECT_EQ(settings.recBufSize, 1000);
    EXPECT_EQ(settings.sndBufSize, 3000);
    EXPECT_EQ(settings.maxConnects, 9); // other settings keep the environment first
    EXPECT_EQ(log.count(McLogFile::LevelInfo, "Using receive buffer size 1000"), 1);
    env.unset("MDX_CONFIG");
    settings = LmCurlSettings::read();
    EXPECT_EQ(settings.recBufSize, 2000);
    EXPECT_EQ(settings.sndBufSize, 0);
}

TEST(CurlSettings, tlsLibraryCheck)
{
    // Only OpenSSL 1.0 and LibreSSL 2 builds of libcurl are checked.
    std::tuple<char const*, char const*, bool> const cases[] = {
        {"OpenSSL/1.1.1w", "anything", false},
        {"OpenSSL/3.0.19", "OpenSSL 1.0.2", false},
        {"OpenSSL/1.0.2u", "OpenSSL 1.0.2u  20 Dec 2019", false},
        {"LibreSSL/2.8.3", "LibreSSL 2.2.7", false},
        {"LibreSSL/2.8.3", "OpenSSL 1.0.2", true},
    };
    for (auto const& [curl, ours, mismatch] : cases)
        EXPECT_EQ(LmCurlSettings::tlsMismatch(curl, ours).has_value(), mismatch) << curl << " " << ours;
    EXPECT_EQ(LmCurlSettings::tlsMismatch("OpenSSL/1.0.2u", "OpenSSL 1.0.2k-fips"),
              "Mismatched versions of OpenSSL linked in libcurl vs. the version linked in mdxlib.\n"
              "libcurl is linked against OpenSSL/1.0.2u\nwhile mdxlib links against OpenSSL 1.0.2k-fips\n"
              "Mismatched versions are not supported.");
}

// ============================================================ handles and values

TEST(CurlHandleFactory, poolsReuseTheNewestEvictTheOldestAndNameAFailedOption)
{
    LmCurlHandleFactory factory(1);
    LmCurlEasyHandle first = factory.createHandle();
    LmCurlEasyHandle second = factory.createHandle();
    void* const kept = second.get();
    factory.cleanupHandle(std::move(first));
    factory.cleanupHandle(std::move(second)); // the first is destroyed
    EXPECT_EQ(factory.idleHandles(), 1u);
    EXPECT_EQ(factory.createHandle().get(), kept);
    LmCurlMultiHandle multi = factory.createMultiHandle();
    void* const keptMulti = multi.get();
    factory.cleanupMultiHandle(std::move(multi));
    EXPECT_EQ(factory.createMultiHandle().get(), keptMulti);

    LmCurlRawClient client(std::make_shared<LmCurlHandleFactory>(1), nullptr);
    try {
        client.setCurlOption(CURLOPT_SSLVERSION, 999L);
        FAIL() << "no CurlError";
    } catch (CurlError const& e) {
        EXPECT_NE(std::string(e.what()).find("CURLOPT_SSLVERSION"), std::string::npos) << e.what();
    }
}

TEST(CurlValues, headerLinesResponsesAndRequests)
{
    Pairs const lines = {{"Retry-After: 5\r\n", "Retry-After=5"},
                         {"HTTP/1.1 200 OK\r\n", "HTTP/1.1 200 OK="},
                         {"X-Empty:\r\n", "X-Empty="},
                         {"\r\n", "-"},
                         {"Name: x\n", "-"}};
    for (auto const& [line, expected] : lines) {
        std::string name, value;
        bool const ok = lmCurlParseHeaderLine(line.data(), line.size(), name, value);
        EXPECT_EQ(ok ? name + "=" + value : "-", expected) << line;
    }
    LmCurlResponse response(200, {{"ETag", "\"abc\""}, {"X-Multi", "1"}, {"x-multi", "2"}},
                            std::make_unique<std::string>("body"));
    EXPECT_EQ(response.getSingleHeader("ETAG"), "\"abc\"");
    EXPECT_FALSE(response.getSingleHeader("missing").has_value());
    EXPECT_EQ(response.getMultiHeader("X-MULTI").size(), 2u);
    EXPECT_EQ(LmCurlResponse(response).getPayload(), "body");
    LmCurlResponse moved(std::move(response));
    EXPECT_EQ(moved.getPayload(), "body");
    EXPECT_EQ(response.getPayload(), ""); // NOLINT: a moved-from response is still usable
    EXPECT_THROW(LmCurlResponse(200, {}, nullptr), std::runtime_error);
    LmCurlRequest request("http://127.0.0.1/x", "PUT");
    request.addRequestHeader("Content-Type", "text/plain");
    request.addAuthorizationHeader("Authorization: Bearer t");
    EXPECT_EQ(request.headers(), Strings({"Content-Type: text/plain", "Authorization: Bearer t"}));
}

TEST(HttpStatus, codesLengthsRangesAndTheirWarnings)
{
    LmHttpStatus status;
    std::set<int> const unrecoverable = {400, 401, 403, 404, 405, 409, 411, 412, 416};
    for (int code : {200, 400, 401, 402, 403, 404, 405, 406, 407, 408,
                     409, 410, 411, 412, 413, 414, 415, 416, 417, 500}) {
        status.responseCode = code;
        EXPECT_EQ(status.unrecoverable(), unrecoverable.count(code) == 1) << code;
    }
    struct Case
    {
        int code;
        Pairs headers;
        int64_t length, from, expected;
        Strings warnings;
    };
    // clang-format off
    Case const cases[] = {
        {206, {{"content-range", "bytes 0-99/1000"}}, 1000, 0, 100, {}},
        {206, {{"content-range", "bytes 100-199/*"}}, 0, 100, 100, {}},
        {206, {{"content-range", "bytes 100-199"}, {"transfer-encoding", "chunked"}}, 0, 100, 100,
         {"Could not parse Content-Range: bytes 100-199"}},
        {200, {{"transfer-encoding", "chunked"}}, 0, 0, -1, {}},
        {200, {{"transfer-encoding", "Chunked"}}, 0, 0, -1,
         {"Could not get content length. Received headers:", "transfer-encoding: Chunked"}},
    };
    // clang-format on
    for (Case const& c : cases) {
        LmHttpStatus s;
        s.responseCode = c.code;
        s.headers.insert(c.headers.begin(), c.headers.end());
        LogCapture log;
        EXPECT_EQ(s.contentLength(), c.length);
        EXPECT_EQ(s.from(), c.from);
        EXPECT_EQ(s.expectedBytes(), c.expected);
        EXPECT_EQ(log.count(McLogFile::LevelWarning), static_cast<int>(c.warnings.size()));
        for (std::string const& warning : c.warnings)
            EXPECT_EQ(log.count(McLogFile::LevelWarning, warning), 1) << warning;
    }
    // A long chain goes without recursion; a link held elsewhere survives.
    auto head = std::make_shared<LmHttpStatus>();
    LmHttpStatus* tail = head.get();
    for (int i = 0; i < 100000; ++i, tail = tail->next.get()) {
        tail->next = std::make_shared<LmHttpStatus>();
        tail->bytesReceived = 1;
    }
    EXPECT_EQ(head->totalBytesReceived(), 100000u);
    std::shared_ptr<LmHttpStatus> const held = head->next->next;
    head.reset();
    EXPECT_EQ(held->totalBytesReceived(), 99998u);
}

TEST(RetryPolicy, waitsGrowWithJitterAndTheTwoLoopFormsCountTries)
{
    using Outcome = LmCurlRetry::Outcome;
    auto const waitsOf = [](LmCurlExponentialBackoffRetryPolicy&& policy,
                            std::vector<long long> const& base) {
        for (long long expected : base) {
            long long const wait = policy.onFailure();
            EXPECT_TRUE(wait >= expected && wait <= expected + 1000) << wait;
        }
        EXPECT_EQ(policy.onFailure(), 0);
        EXPECT_TRUE(policy.isExhausted());
    };
    waitsOf(LmCurlExponentialBackoffRetryPolicy::forRequests(), {1000, 2000, 4000, 8000});
    waitsOf(LmCurlExponentialBackoffRetryPolicy::forCloudReader(), {1000, 2000, 4000, 8000, 8000});
    // Form A: at most five tries and four real waits; Form B: six tries, the last without a wait.
    int tries = 0;
    std::vector<long long> waits;
    auto const sleeper = [&waits](long long ms) { waits.push_back(ms); };
    auto const transient = [&] { return ++tries, Outcome::Transient; };
    auto a = LmCurlExponentialBackoffRetryPolicy::forRequests();
    EXPECT_THROW(LmCurlRetry::runFormA(a, transient, "upload", sleeper), RetryPolicyExhaustedError);
    EXPECT_EQ(tries, 5);
    EXPECT_EQ(waits.size(), 5u);
    EXPECT_EQ(waits.back(), 0);
    tries = 0;
    waits.clear();
    auto b = LmCurlExponentialBackoffRetryPolicy::forRequests();
    EXPECT_FALSE(LmCurlRetry::runFormB(
        b, transient, [](int, long long) {}, sleeper));
    EXPECT_EQ(tries, 6);
    EXPECT_EQ(waits.size(), 5u);
    for (bool formA : {true, false}) {
        tries = 0;
        auto policy = LmCurlExponentialBackoffRetryPolicy::forRequests();
        auto const unrecoverable = [&] { return ++tries, Outcome::Unrecoverable; };
        if (formA)
            EXPECT_THROW(LmCurlRetry::runFormA(policy, unrecoverable, "x", sleeper),
                         UnrecoverableResponseError);
        else
            EXPECT_FALSE(LmCurlRetry::runFormB(policy, unrecoverable));
        EXPECT_EQ(tries, 1);
    }
}

TEST(Redaction, secretsLeaveLogLinesAndTheRestStays)
{
    Pairs const cases = {
        {R"({"AccessKeyId" : "ASIA1", "SecretAccessKey" : "s/k+1", "Token" : "t=="})",
         R"({"AccessKeyId" : "ASIA1", "SecretAccessKey" : "<redacted>", "Token" : "<redacted>"})"},
        {R"({"access_token":"ya29.x","token_type":"Bearer"})",
         R"({"access_token":"<redacted>","token_type":"Bearer"})"},
        {"authorization: Bearer abc", "authorization: <redacted>"},
        {"X-Amz-Security-Token: tok\nHost: h", "X-Amz-Security-Token: <redacted>\nHost: h"},
        {"Credential=AKID/20261113/us-east-1/s3/aws4_request, Signature=0a1f",
         "Credential=AKID/20261113/us-east-1/s3/aws4_request, Signature=<redacted>"},
        {"client_secret=a%26b&client_id=c", "client_secret=<redacted>&client_id=c"},
        {"https://b/k?X-Amz-Signature=00ff&x-amz-security-token=t%2B&X-Amz-Expires=60",
         "https://b/k?X-Amz-Signature=<redacted>&x-amz-security-token=<redacted>&X-Amz-Expires=60"},
        {"http://h/x?a=1&s=S1&ids=2", "http://h/x?a=1&s=<redacted>&ids=2"},
        {"Could not get region (response code 500)", "Could not get region (response code 500)"},
    };
    for (auto const& [text, expected] : cases)
        EXPECT_EQ(lmRedactSecrets(text), expected);
}

// ============================================================ provider URLs

TEST(ProviderUrls, googleKeysAreOneSegmentAzureAccountsGetTheSuffix)
{
    ScopedEnv env;
    for (char const* name : {"MDX_CONFIG", "MDX_GCS_ENDPOINT", "MDX_GCS_DOWNLOAD_ENDPOINT",
                             "MDX_GCS_UPLOAD_ENDPOINT", "MDX_AZURE_BLOB_SUFFIX"})
        env.unset(name);
    auto const google = [](std::string const& url) {
        return LmCurlHelper::convertGoogleUrl(url, false, false);
    };
    // clang-format off
    Pairs const keys = {{"gs://b/x/y/z", "b/x%2Fy%2Fz"}, {"gs://b/x/", "b/x%2F"}, {"gs://b", "b"},
                        {"gs:////b/k", "b/k"}, {"gs://b/a b/c?d=e&f", "b/a b%2Fc?d=e&f"}};
    // clang-format on
    for (auto const& [url, expected] : keys)
        EXPECT_EQ(google(url), "https://storage.googleapis.com/" + expected);
    EXPECT_EQ(LmCurlHelper::convertGoogleUrl("gs://b/x/y", true, true),
              "https://storage.googleapis.com/upload/storage/v1/b/b/x%2Fy");
    env.set("MDX_GCS_ENDPOINT", "https://g/plain/").set("MDX_GCS_DOWNLOAD_ENDPOINT", "https://g/down/");
    env.set("MDX_GCS_UPLOAD_ENDPOINT", "https://g/up/");
    for (auto const& [transfer, writing, base] : std::vector<std::tuple<bool, bool, std::string>>{
             {false, false, "plain"}, {false, true, "plain"}, {true, false, "down"}, {true, true, "up"}})
        EXPECT_EQ(LmCurlHelper::convertGoogleUrl("gs://b/k", transfer, writing),
                  "https://g/" + base + "/b/k");

    auto const azure = &LmCurlHelper::convertAzureUrl;
    EXPECT_EQ(azure("az://acct/c/b?comp=block"), "https://acct.blob.core.windows.net/c/b?comp=block");
    for (std::string host : {"host.example:10000/c/b", "host:10000/c/b"}) // full host names stay
        EXPECT_EQ(azure("az://" + host), "https://" + host);
    for (char const* url : {"az:nothing", "az://acct", "az:/acct/c/b", ""}) // malformed: unchanged
        EXPECT_EQ(azure(url), url);
}

TEST(ProviderUrls, wadoUriAndRsFormsTheirTransferSyntaxAndMalformedUrls)
{
    LmCurlHelper helper(nullptr);
    std::string const accept = "Accept: multipart/related; type=\"application/dicom\"";
    std::string const uri = "?requestType=WADO&studyUID=1&seriesUID=2&objectUID=3";
    std::string const rs = "/studies/1/series/2/instances/3";
    std::tuple<std::string, std::string, std::string> const cases[] = {
        {"wa://pacs.example/wado/1/2/3", "http://pacs.example/wado" + uri, ""},
        {"was://h:8443/p/1/2/3_x124", "https://h:8443/p" + uri + "&transferSyntax=1.2.840.10008.1.2.4.90",
         ""},
        {"wr://h/dicomweb/1/2/3_x0", "http://h/dicomweb" + rs, accept},
        {"wrs://h:443/p/1/2/3_x126", "https://h:443/p" + rs,
         accept + "; transfer-syntax=1.2.840.10008.1.2.4.80"},
        {"wa://h/p/1/2/3_x999", "http://h/p" + uri, ""},
        // Fewer than three slashes before the first "_x" give nothing.
        {"wa://host", "", ""},
        {"wrs:/a/b_x2", "", ""},
        {"wa://h_x/1/2/3", "", ""},
    };
    for (auto const& [url, expected, header] : cases) {
        Strings headers{"X-Caller: kept"};
        EXPECT_EQ(helper.convertWadoUrl(url, headers), expected) << url;
        Strings const expectedHeaders =
            header.empty() ? Strings{"X-Caller: kept"} : Strings{"X-Caller: kept", header};
        EXPECT_EQ(headers, expectedHeaders) << url;
    }
    std::map<int, std::string> const known = {{2, "4.70"},   {8, "4.70"},    {104, "1.99"},  {105, "5"},
                                              {106, "4.50"}, {122, "4.66"},  {123, "4.70"},  {124, "4.90"},
                                              {127, "4.81"}, {128, "4.100"}, {133, "4.101"}, {138, "4.106"},
                                              {139, "4.94"}, {142, "4.108"}, {143, "7.1"},   {146, "1.98"}};
    int count = 0; // 41 numbers have a UID, those of the table among them
    for (int number = -300; number <= 1000; ++number) {
        std::string const uid = LmCurlHelper::getTransferSyntaxUID(number);
        count += !uid.empty();
        if (known.count(number)) {
            EXPECT_EQ(uid, "1.2.840.10008.1.2." + known.at(number)) << number;
        }
    }
    EXPECT_EQ(count, 41);
    EXPECT_EQ(LmCurlHelper::getTransferSyntaxUID(INT_MIN), "");
}

// ===================================================== building requests

// A request as createDownloadRequest builds it, never started.
struct Built
{
    std::string url;
    Strings headers;
    int64_t to;
    bool head;
};

Built build(std::string const& url, QByteArray const& post = QByteArray(), Strings headers = {},
            int flags = 0)
{
    std::unique_ptr<LmCurlDownloadRequest> request(
        LmCurlClient::instance()->createDownloadRequest(url, post, std::move(headers), flags));
    request->removeFromMulti();
    request->mDone = true;
    return {request->mUrl, request->mHeaders, request->mTo, request->mIsHead};
}

class ClientRequests : public ::testing::Test
{
protected:
    // Every host is a loopback name on port 9; s3 URLs find no credentials.
    void SetUp() override
    {
        env.set("MDX_EC2_METADATA_ADDRESS", "127.0.0.1:9").set("AWS_CONFIG_FILE", "/nonexistent");
        env.set("MDX_S3_DOMAIN", "localhost:9").set("MDX_AZURE_BLOB_SUFFIX", ".blob.localhost:9");
        env.set("MDX_GCS_DOWNLOAD_ENDPOINT", "https://gcs.localhost/down/")
            .set("MDX_GCS_HOST", "gcs.localhost");
        env.set("MDX_GCS_UPLOAD_ENDPOINT", "https://gcs.localhost/up/").unset("MDX_CONFIG");
        client->helper()->awsAuth()->setCredentials(nullptr);
    }
    void TearDown() override
    {
        client->setSessionID("", false);
        client->setNumConcurrentRequestsPerFile(4);
        client->setChunkSizeForPartialRequests(12582912);
        client->helper()->setGoogleAuthorizationProvider(nullptr);
        client->helper()->setAzureAuthorizationProvider(nullptr);
        LmAwsAuth::resetInstanceProbe();
    }

    LmCurlClient* client = LmCurlClient::instance();
    ScopedEnv env;
};

TEST_F(ClientRequests, sessionIdentifierOnlyOnPlainUrlsAndFileServerTokensOnlyWithout)
{
    std::string const plain = "http://h.localhost:9";
    EXPECT_EQ(build(plain + "/x?a=1", QByteArray(), {"X-Caller: 1"}).headers, Strings{"X-Caller: 1"});
    client->setSessionID("S1", false);
    for (auto const& [in, out] : Pairs{{"/x", "/x?s=S1"}, {"/x?a=1", "/x?a=1&s=S1"}})
        EXPECT_EQ(build(plain + in).url, plain + out);
    // Provider URLs, whose first two letters decide, never carry it; s3 goes unsigned here.
    EXPECT_EQ(build("gs://b/k/x").url, "https://gcs.localhost/down/b/k%2Fx");
    EXPECT_EQ(build("azure://acct/c/b").url, "https://acct.blob.localhost:9/c/b");
    Built const s3 = build("s3://bucket/key");
    EXPECT_EQ(s3.url, "https://bucket.s3.localhost:9/key");
    EXPECT_TRUE(s3.headers.empty());
    client->setSessionID("S2", true);
    EXPECT_EQ(build(plain + "/x").headers, Strings{"Authorization: Bearer S2"});
    EXPECT_TRUE(build("gs://b/k").headers.empty());

    env.set("MDX_STORAGE_SERVERS", "ffs.localhost").set("FFS2/Port", "9").set("FFS2/BearerToken", "tok-C");
    client->setFFS2Parameters("main");
    client->setSessionID("S4", false);
    Built const withSession = build("http://ffs.localhost:9/file");
    EXPECT_EQ(withSession.url, "http://ffs.localhost:9/file?s=S4");
    EXPECT_TRUE(withSession.headers.empty());
    client->setSessionID("", false);
    EXPECT_EQ(build("http://ffs.localhost:9/file").headers, Strings{"Authorization: Bearer tok-C"});
}

TEST_F(ClientRequests, providerAuthorizationLinesPostsAndTheFirstRange)
{
    client->helper()->setGoogleAuthorizationProvider([] { return std::string(); });
    EXPECT_TRUE(build("gs://b/k").headers.empty()); // no line, no Host and no Cache-Control either
    client->helper()->setGoogleAuthorizationProvider([] { return std::string("Authorization: Bearer g"); });
    EXPECT_EQ(build("gs://b/k").headers,
              (Strings{"Authorization: Bearer g", "Host: gcs.localhost", "Cache-Control: no-transform"}));
    client->helper()->setAzureAuthorizationProvider([] { return std::string("Authorization: Bearer a"); });
    EXPECT_EQ(build("az://acct/c/b").headers,
              (Strings{"Authorization: Bearer a", "Cache-Control: no-transform", "x-ms-version: 2020-04-08",
                       "Host: acct.blob.localhost:9"}));
    // A POST gets an empty Expect and Google's upload endpoint.
    EXPECT_EQ(build("http://h.localhost/x", "body").headers, Strings{"Expect: "});
    EXPECT_EQ(build("gs://b/k", "body").url, "https://gcs.localhost/up/b/k");

    int const partial = LmCurlClient::PartialRequests, head = LmCurlClient::Head | LmCurlClient::Tolerate404;
    std::tuple<int, int, char const*, int, int64_t> const cases[] = {
        {100, 4, nullptr, partial, 1024},  {12582912, 4, nullptr, partial, 12582911},
        {1026, 4, nullptr, partial, 1025}, {100, 1, nullptr, partial, -1},
        {100, 2, nullptr, partial, 1024},  {100, 2, "body", partial, -1},
        {100, 4, nullptr, 0, -1},          {100, 4, nullptr, head, -1},
    };
    for (auto const& [chunk, connections, post, flags, to] : cases) {
        client->setChunkSizeForPartialRequests(chunk);
        client->setNumConcurrentRequestsPerFile(connections);
        Built const built = build("http://h.localhost/x", post, {}, flags);
        EXPECT_EQ(built.to, to) << chunk << " " << connections << " " << flags;
        EXPECT_EQ(built.head, flags == head);
        bool const ranged = std::any_of(built.headers.begin(), built.headers.end(),
                                        [](std::string const& h) { return h.rfind("Range:", 0) == 0; });
        EXPECT_EQ(ranged, to >= 0);
    }
}

TEST(FileServers, portsAndTokensFromEveryConfigurationAddUp)
{
    ScopedEnv env;
    env.unset("MDX_CONFIG").set("MDX_STORAGE_SERVERS", "fs1, fs2").set("FFS2/Port", "9000");
    env.set("FFS2/BearerToken", "tok-A");
    LmCurlHelper helper(nullptr);
    helper.setFFS2Parameters(nullptr);
    // A second configuration adds, but never replaces; a token without port takes 8181.
    env.set("MDX_STORAGE_SERVERS", "fs1,fs3").set("FFS2/Port", "9100").set("FFS2/BearerToken", "tok-B");
    helper.setFFS2Parameters("other");
    env.set("MDX_STORAGE_SERVERS", "fs5").set("FFS2/Port", "").set("FFS2/BearerToken", "tok-C");
    helper.setFFS2Parameters("third");
    for (auto const& [server, port] :
         Pairs{{"fs1", "9000"}, {"fs2", "9000"}, {"fs3", "9100"}, {"fs5", "8181"}})
        EXPECT_EQ(helper.getFFS2Port(server), port) << server;
    // The key is everything in front of the first '/' behind a "//" found from the sixth character on.
    // clang-format off
    Pairs const tokens = {{"http://fs1:9000/data/x.dcm", "tok-A"}, {"http://fs1:9100/x", "tok-B"},
                          {"http://fs5:8181/x", "tok-C"}, {"http://fs1:8181/x", ""}, {"https://fs1:9000/x", ""},
                          {"http://fs1:9000", ""}, {"http:/fs1:9000/x", ""}, {"short", ""}};
    // clang-format on
    for (auto const& [url, token] : tokens)
        EXPECT_EQ(helper.getFFS2BearerToken(url), token) << url;
    Strings headers;
    helper.addRequestHeaders("http://fs3:9100/x", headers);
    helper.addRequestHeaders("http://elsewhere:9100/x", headers);
    EXPECT_EQ(headers, Strings{"Authorization: Bearer tok-B"});
    env.set("MDX_WEBSERVICE_HOST_EXTERNAL", "viewer.example:8443");
    EXPECT_EQ(LmCurlClient::url("studies?id=1"), "https://viewer.example:8443/sola/Browser.svc/studies?id=1");
}

} // namespace
