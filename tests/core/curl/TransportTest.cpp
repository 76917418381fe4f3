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
#include <QTemporaryDir>

#include <set>
#include <tuple>

namespace {

using Strings = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using mdxtest::LogCapture;
using mdxtest::ScopedEnv;

// ================================================================ settings

TEST(CurlSettings, environmentRulesTheParameterFileFirstForBufferSizesAndTheTlsLibraryCheck)
{
    ScopedEnv env;
    for (char const* name : {"MDX_CONFIG", "CURL_DEBUG", "SSL_CIPHER_LIST", "CURL_MAX_CONNECTS",
                             "CURL_RECBUF_SIZE", "CURL_SNDBUF_SIZE"})
        env.unset(name);
    auto const with = [&env](char const* name, std::optional<std::string> const& value) {
        env.set(name, value);
        return LmCurlSettings::read();
    };
    // CURL_MAX_CONNECTS under 6 or not a number gives 5; CURL_DEBUG is on unless "0"; an empty cipher
    // list sets none.
    EXPECT_EQ(with("CURL_MAX_CONNECTS", "3").maxConnects, 5);
    EXPECT_EQ(with("CURL_MAX_CONNECTS", "abc").maxConnects, 5);
    EXPECT_EQ(with("CURL_MAX_CONNECTS", "6").maxConnects, 6);
    EXPECT_FALSE(with("CURL_DEBUG", "0").debug);
    EXPECT_TRUE(with("CURL_DEBUG", "").debug);
    EXPECT_EQ(with("SSL_CIPHER_LIST", "").sslCipherList, "");

    QTemporaryDir dir;
    QString const ini = QDir(dir.path()).filePath("mdx.ini");
    ASSERT_TRUE(
        mdxtest::writeFile(ini, "CURL_RECBUF_SIZE=1000\nCURL_SNDBUF_SIZE=3000\nCURL_MAX_CONNECTS=7\n"));
    env.set("CURL_RECBUF_SIZE", "2000");
    LmCurlSettings const settings = with("MDX_CONFIG", ini.toStdString().c_str());
    EXPECT_EQ(std::tie(settings.recBufSize, settings.sndBufSize, settings.maxConnects),
              std::make_tuple(1000, 3000, 6)); // other settings keep the environment first
    EXPECT_EQ(with("MDX_CONFIG", std::nullopt).recBufSize, 2000);

    // Only OpenSSL 1.0 and LibreSSL 2 builds of libcurl are checked.
    for (auto const& [curl, ours] : Pairs{{"OpenSSL/1.1.1w", "anything"},
                                          {"OpenSSL/3.0.19", "OpenSSL 1.0.2"},
                                          {"OpenSSL/1.0.2u", "OpenSSL 1.0.2u  20 Dec 2019"},
                                          {"LibreSSL/2.8.3", "LibreSSL 2.2.7"}})
        EXPECT_FALSE(LmCurlSettings::tlsMismatch(curl, ours)) << curl << " " << ours;
    EXPECT_TRUE(LmCurlSettings::tlsMismatch("LibreSSL/2.8.3", "OpenSSL 1.0.2"));
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
        ADD_FAILURE() << "no CurlError";
    } catch (CurlError const& e) {
        EXPECT_NE(std::string(e.what()).find("CURLOPT_SSLVERSION"), std::string::npos) << e.what();
    }
}

TEST(CurlValues, headerLinesAndResponses)
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
    EXPECT_EQ(response.getMultiHeader("X-MULTI"), Strings({"1", "2"}));
    EXPECT_EQ(LmCurlResponse(std::move(response)).getPayload(), "body");
    EXPECT_EQ(response.getPayload(), ""); // NOLINT: a moved-from response is still usable
    EXPECT_THROW(LmCurlResponse(200, {}, nullptr), std::runtime_error);
}

TEST(HttpStatus, codesLengthsRangesAndTheirWarnings)
{
    std::set<int> const unrecoverable = {400, 401, 403, 404, 405, 409, 411, 412, 416};
    for (int code = 100; code < 600; ++code) {
        LmHttpStatus status;
        status.responseCode = code;
        EXPECT_EQ(status.unrecoverable(), unrecoverable.count(code) == 1) << code;
    }
    // Code, headers, then contentLength, from, expectedBytes and the warnings.
    // clang-format off
    std::tuple<int, Pairs, int64_t, int64_t, int64_t, Strings> const cases[] = {
        {206, {{"content-range", "bytes 0-99/1000"}}, 1000, 0, 100, {}},
        {206, {{"content-range", "bytes 100-199/*"}}, 0, 100, 100, {}},
        {206, {{"content-range", "bytes 100-199"}, {"transfer-encoding", "chunked"}}, 0, 100, 100,
         {"Could not parse Content-Range: bytes 100-199"}},
        {200, {{"transfer-encoding", "chunked"}}, 0, 0, -1, {}},
        {200, {{"transfer-encoding", "Chunked"}}, 0, 0, -1,
         {"Could not get content length. Received headers:", "transfer-encoding: Chunked"}},
    };
    // clang-format on
    for (auto const& [code, headers, length, from, expected, warnings] : cases) {
        LmHttpStatus s;
        s.responseCode = code;
        s.headers.insert(headers.begin(), headers.end());
        LogCapture log;
        EXPECT_EQ(std::make_tuple(s.contentLength(), s.from(), s.expectedBytes()),
                  std::make_tuple(length, from, expected));
        EXPECT_EQ(log.count(McLogFile::LevelWarning), static_cast<int>(warnings.size()));
        for (std::string const& warning : warnings)
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

TEST(RetryPolicy, waitsGrowWithJitterAndFormAGivesUpAfterFiveTries)
{
    using Policy = LmCurlExponentialBackoffRetryPolicy;
    for (auto const& [cloudReader, base] : std::vector<std::pair<bool, std::vector<long long>>>{
             {false, {1000, 2000, 4000, 8000}}, {true, {1000, 2000, 4000, 8000, 8000}}}) {
        auto policy = cloudReader ? Policy::forCloudReader() : Policy::forRequests();
        for (long long expected : base) // up to a second of jitter
            EXPECT_NEAR(static_cast<double>(policy.onFailure()), expected + 500.0, 500.0);
        EXPECT_EQ(policy.onFailure(), 0);
        EXPECT_TRUE(policy.isExhausted());
    }
    // Form A: at most five tries and four real waits, the fifth failure's 0 before it gives up; an
    // unrecoverable answer ends it at once. (The six tries of the stream opening's loop are counted
    // live, in DownloadTest.)
    using LmCurlRetry::Outcome;
    int tries = 0;
    std::vector<long long> waits;
    auto const sleeper = [&waits](long long ms) { waits.push_back(ms); };
    auto const answer = [&tries](Outcome outcome) { return [&tries, outcome] { return ++tries, outcome; }; };
    auto a = Policy::forRequests(), b = Policy::forRequests();
    EXPECT_THROW(LmCurlRetry::runFormA(a, answer(Outcome::Transient), "x", sleeper),
                 RetryPolicyExhaustedError);
    EXPECT_EQ(std::make_tuple(tries, waits.size(), waits.back()), std::make_tuple(5, size_t(5), 0LL));
    EXPECT_THROW(LmCurlRetry::runFormA(b, answer(Outcome::Unrecoverable), "x", sleeper),
                 UnrecoverableResponseError);
    EXPECT_EQ(tries, 6);
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

TEST(ProviderUrls, googleKeysAreOneSegmentAzureAccountsGetTheSuffixWadoNeedsThreeSlashes)
{
    ScopedEnv env; // the transfer endpoints are chosen in ClientRequests
    env.unset("MDX_CONFIG").unset("MDX_AZURE_BLOB_SUFFIX").set("MDX_GCS_ENDPOINT", "https://g/plain/");
    for (auto const& [url, expected] : Pairs{{"gs://b/x/y/z", "b/x%2Fy%2Fz"},
                                             {"gs://b/x/", "b/x%2F"},
                                             {"gs://b", "b"},
                                             {"gs:////b/k", "b/k"},
                                             {"gs://b/a b/c?d=e&f", "b/a b%2Fc?d=e&f"}})
        EXPECT_EQ(LmCurlHelper::convertGoogleUrl(url, false, false), "https://g/plain/" + expected);

    auto const azure = &LmCurlHelper::convertAzureUrl;
    EXPECT_EQ(azure("az://acct/c/b?comp=block"), "https://acct.blob.core.windows.net/c/b?comp=block");
    for (std::string host : {"host.example:10000/c/b", "host:10000/c/b"}) // full host names stay
        EXPECT_EQ(azure("az://" + host), "https://" + host);
    for (char const* url : {"az:nothing", "az://acct", "az:/acct/c/b", ""}) // malformed: unchanged
        EXPECT_EQ(azure(url), url);

    // WADO-URI and WADO-RS forms with their transfer syntax.
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
        EXPECT_EQ(headers.size(), header.empty() ? 1u : 2u) << url;
        EXPECT_EQ(headers.back(), header.empty() ? "X-Caller: kept" : header) << url;
    }
}

// ===================================================== building requests

class ClientRequests : public ::testing::Test
{
protected:
    // Every host is a loopback name on port 9; s3 URLs find no credentials.
    void SetUp() override
    {
        env.set("MDX_EC2_METADATA_ADDRESS", "127.0.0.1:9").set("AWS_CONFIG_FILE", "/nonexistent");
        env.set("MDX_S3_DOMAIN", "localhost:9").set("MDX_AZURE_BLOB_SUFFIX", ".blob.localhost:9");
        env.set("MDX_GCS_DOWNLOAD_ENDPOINT", "https://gcs.localhost/down/").unset("MDX_CONFIG");
        env.set("MDX_GCS_UPLOAD_ENDPOINT", "https://gcs.localhost/up/").set("MDX_GCS_HOST", "gcs.localhost");
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
    // A request as createDownloadRequest builds it, never started.
    std::shared_ptr<LmCurlDownloadRequest>
    build(std::string const& url, QByteArray const& post = QByteArray(), Strings headers = {}, int flags = 0)
    {
        std::shared_ptr<LmCurlDownloadRequest> request(
            client->createDownloadRequest(url, post, std::move(headers), flags));
        request->removeFromMulti();
        request->mDone = true;
        return request;
    }

    LmCurlClient* client = LmCurlClient::instance();
    ScopedEnv env;
};

TEST_F(ClientRequests, sessionIdentifierOnlyOnPlainUrlsAndFileServerTokensOnlyWithout)
{
    std::string const plain = "http://h.localhost:9";
    client->setSessionID("S1", false);
    for (auto const& [in, out] : Pairs{{"/x", "/x?s=S1"}, {"/x?a=1", "/x?a=1&s=S1"}})
        EXPECT_EQ(build(plain + in)->mUrl, plain + out);
    // Provider URLs, whose first two letters decide, never carry it; without an authorization line
    // (s3: without credentials) they get no header at all.
    for (auto const& [url, expected] : Pairs{{"gs://b/k/x", "https://gcs.localhost/down/b/k%2Fx"},
                                             {"azure://acct/c/b", "https://acct.blob.localhost:9/c/b"},
                                             {"s3:///bucket/key", "https://bucket.s3.localhost:9/key"}}) {
        auto const built = build(url, QByteArray(), {"X-Caller: 1"});
        EXPECT_EQ(built->mUrl, expected);
        EXPECT_EQ(built->mHeaders, Strings{"X-Caller: 1"}) << url;
    }
    client->setSessionID("S2", true);
    EXPECT_EQ(build(plain + "/x")->mHeaders, Strings{"Authorization: Bearer S2"});
    EXPECT_TRUE(build("gs://b/k")->mHeaders.empty());

    env.set("MDX_STORAGE_SERVERS", "ffs.localhost").set("FFS2/Port", "9").set("FFS2/BearerToken", "tok-C");
    client->setFFS2Parameters("main");
    client->setSessionID("S4", false);
    auto const withSession = build("http://ffs.localhost:9/file");
    EXPECT_EQ(withSession->mUrl, "http://ffs.localhost:9/file?s=S4");
    EXPECT_TRUE(withSession->mHeaders.empty());
    client->setSessionID("", false);
    EXPECT_EQ(build("http://ffs.localhost:9/file")->mHeaders, Strings{"Authorization: Bearer tok-C"});
}

TEST_F(ClientRequests, providerAuthorizationLinesPostsAndTheFirstRange)
{
    client->helper()->setGoogleAuthorizationProvider([] { return std::string("Authorization: Bearer g"); });
    EXPECT_EQ(build("gs://b/k")->mHeaders,
              (Strings{"Authorization: Bearer g", "Host: gcs.localhost", "Cache-Control: no-transform"}));
    client->helper()->setAzureAuthorizationProvider([] { return std::string("Authorization: Bearer a"); });
    EXPECT_EQ(build("az://acct/c/b")->mHeaders,
              (Strings{"Authorization: Bearer a", "Cache-Control: no-transform", "x-ms-version: 2020-04-08",
                       "Host: acct.blob.localhost:9"}));
    // A POST gets an empty Expect and Google's upload endpoint.
    EXPECT_EQ(build("http://h.localhost/x", "body")->mHeaders, Strings{"Expect: "});
    EXPECT_EQ(build("gs://b/k", "body")->mUrl, "https://gcs.localhost/up/b/k");

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
        auto const built = build("http://h.localhost/x", post, {}, flags);
        EXPECT_EQ(std::make_pair(built->mTo, built->mIsHead), std::make_pair(to, flags == head))
            << chunk << " " << connections << " " << flags;
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
    env.set("MDX_WEBSERVICE_HOST_EXTERNAL", "viewer.example:8443");
    EXPECT_EQ(LmCurlClient::url("studies?id=1"), "https://viewer.example:8443/sola/Browser.svc/studies?id=1");
}

} // namespace
