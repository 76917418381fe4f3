// The transport's value types, settings, pools and retry loops, without a
// network.
#include <mdxlib/curl/LmCurlErrors.h>
#include <mdxlib/curl/LmCurlHandleFactory.h>
#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/curl/LmCurlRequest.h>
#include <mdxlib/curl/LmCurlRetryPolicy.h>
#include <mdxlib/curl/LmCurlSettings.h>
#include <mdxlib/curl/LmHttpStatus.h>
#include <mdxlib/platform/McLogFile.h>

#include <gtest/gtest.h>

#include <map>

namespace {

using Lookup = LmCurlSettings::Lookup;

Lookup table(std::map<std::string, std::string> values)
{
    return [values](char const* name) -> std::optional<std::string> {
        auto const it = values.find(name);
        return it == values.end() ? std::nullopt : std::optional<std::string>(it->second);
    };
}

struct WarningCapture
{
    WarningCapture()
    {
        getTheLogInstance()->setWriteCallback([this](int level, std::string const& m) {
            if (level == McLogFile::LevelWarning)
                warnings.push_back(m);
        });
    }
    ~WarningCapture() { getTheLogInstance()->setWriteCallback(nullptr); }
    std::vector<std::string> warnings;
};

TEST(CurlSettings, environmentAndParameters)
{
    Lookup const none = table({});
    LmCurlSettings defaults = LmCurlSettings::parse(none, none);
    EXPECT_FALSE(defaults.debug);
    EXPECT_EQ(defaults.sslCipherList, "AES128-GCM-SHA256");
    EXPECT_EQ(defaults.maxConnects, 256);
    EXPECT_EQ(defaults.recBufSize, 0);

    EXPECT_EQ(LmCurlSettings::parse(table({{"CURL_MAX_CONNECTS", "3"}}), none).maxConnects, 5);
    EXPECT_EQ(LmCurlSettings::parse(table({{"CURL_MAX_CONNECTS", "6"}}), none).maxConnects, 6);
    EXPECT_EQ(LmCurlSettings::parse(table({{"CURL_MAX_CONNECTS", "abc"}}), none).maxConnects, 5);
    EXPECT_FALSE(LmCurlSettings::parse(table({{"CURL_DEBUG", "0"}}), none).debug);
    EXPECT_TRUE(LmCurlSettings::parse(table({{"CURL_DEBUG", ""}}), none).debug);
    EXPECT_EQ(LmCurlSettings::parse(table({{"SSL_CIPHER_LIST", ""}}), none).sslCipherList, "");

    LmCurlSettings const buffers =
        LmCurlSettings::parse(table({{"CURL_RECBUF_SIZE", "1000"}, {"CURL_SNDBUF_SIZE", "2000"}}),
                              table({{"CURL_RECBUF_SIZE", "4096"}}));
    EXPECT_EQ(buffers.recBufSize, 4096); // the parameter store wins
    EXPECT_EQ(buffers.sndBufSize, 2000);
}

TEST(CurlSettings, tlsLibraryCheck)
{
    EXPECT_FALSE(LmCurlSettings::tlsMismatch("OpenSSL/1.1.1w", "anything").has_value());
    EXPECT_FALSE(LmCurlSettings::tlsMismatch("OpenSSL/3.0.19", "OpenSSL 1.0.2").has_value());
    EXPECT_FALSE(LmCurlSettings::tlsMismatch("OpenSSL/1.0.2u", "OpenSSL 1.0.2u  20 Dec 2019").has_value());
    auto const message = LmCurlSettings::tlsMismatch("OpenSSL/1.0.2u", "OpenSSL 1.0.2k-fips  26 Jan 2017");
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(*message, "Mismatched versions of OpenSSL linked in libcurl vs. the version linked in mdxlib.\n"
                        "libcurl is linked against OpenSSL/1.0.2u\n"
                        "while mdxlib links against OpenSSL 1.0.2k-fips  26 Jan 2017\n"
                        "Mismatched versions are not supported.");
    EXPECT_FALSE(LmCurlSettings::tlsMismatch("LibreSSL/2.8.3", "LibreSSL 2.2.7").has_value());
    EXPECT_TRUE(LmCurlSettings::tlsMismatch("LibreSSL/2.8.3", "OpenSSL 1.0.2").has_value());
    EXPECT_EQ(lmCurlUserAgent().rfind("Lumora 0.", 0), 0u);
}

TEST(CurlHandleFactory, poolsReuseTheNewestAndEvictTheOldest)
{
    LmCurlHandleFactory factory(1);
    LmCurlEasyHandle first = factory.createHandle();
    LmCurlEasyHandle second = factory.createHandle();
    void* secondRaw = second.get();
    factory.cleanupHandle(std::move(first));
    factory.cleanupHandle(std::move(second)); // the first is destroyed
    EXPECT_EQ(factory.idleHandles(), 1u);
    EXPECT_EQ(factory.createHandle().get(), secondRaw);

    LmCurlMultiHandle multi = factory.createMultiHandle();
    void* multiRaw = multi.get();
    factory.cleanupMultiHandle(std::move(multi));
    EXPECT_EQ(factory.idleMultiHandles(), 1u);
    LmCurlMultiHandle again = factory.createMultiHandle();
    EXPECT_EQ(again.get(), multiRaw);
    factory.cleanupMultiHandle(std::move(again));
}

TEST(CurlHeaders, headerLinesSplitByTheTransportsRule)
{
    std::string name;
    std::string value;
    ASSERT_TRUE(lmCurlParseHeaderLine("Retry-After: 5\r\n", 16, name, value));
    EXPECT_EQ(name, "Retry-After");
    EXPECT_EQ(value, "5");
    ASSERT_TRUE(lmCurlParseHeaderLine("HTTP/1.1 200 OK\r\n", 17, name, value));
    EXPECT_EQ(name, "HTTP/1.1 200 OK");
    EXPECT_EQ(value, "");
    EXPECT_FALSE(lmCurlParseHeaderLine("\r\n", 2, name, value));
    EXPECT_FALSE(lmCurlParseHeaderLine("Name: x\n", 8, name, value));
    ASSERT_TRUE(lmCurlParseHeaderLine("X-Empty:\r\n", 10, name, value));
    EXPECT_EQ(name, "X-Empty");
    EXPECT_EQ(value, "");
}

TEST(CurlResponse, headerNamesLowerCasedAndPayloadNeverNull)
{
    LmCurlResponse::Headers const headers{{"ETag", "\"abc\""}, {"X-Multi", "1"}, {"x-multi", "2"}};
    LmCurlResponse response(200, headers, std::make_unique<std::string>("body"));
    EXPECT_EQ(response.getSingleHeader("ETAG"), "\"abc\"");
    EXPECT_EQ(response.getSingleHeader("etag"), "\"abc\"");
    EXPECT_FALSE(response.getSingleHeader("missing").has_value());
    EXPECT_EQ(response.getMultiHeader("X-MULTI").size(), 2u);

    LmCurlResponse copy(response);
    EXPECT_EQ(copy.getPayload(), "body");
    LmCurlResponse moved(std::move(response));
    EXPECT_EQ(moved.getPayload(), "body");
    EXPECT_EQ(response.getPayload(), ""); // NOLINT: a moved-from response is still usable
    EXPECT_THROW(LmCurlResponse(200, {}, nullptr), std::runtime_error);

    LmCurlRequest request("http://127.0.0.1/x", "PUT");
    request.addRequestHeader("Content-Type", "text/plain");
    request.addAuthorizationHeader("Authorization: Bearer t");
    EXPECT_EQ(request.headers(),
              std::vector<std::string>({"Content-Type: text/plain", "Authorization: Bearer t"}));
}

TEST(HttpStatus, codesLengthsAndRanges)
{
    LmHttpStatus status;
    for (int code : {400, 401, 403, 404, 405, 409, 411, 412, 416}) {
        status.responseCode = code;
        EXPECT_TRUE(status.unrecoverable()) << code;
    }
    for (int code : {402, 406, 407, 408, 410, 413, 414, 415, 417, 500, 503, 200, 0}) {
        status.responseCode = code;
        EXPECT_FALSE(status.unrecoverable()) << code;
    }

    WarningCapture capture;
    LmHttpStatus ranged;
    ranged.responseCode = 206;
    ranged.headers.emplace("content-range", "bytes 0-99/1000");
    EXPECT_EQ(ranged.contentLength(), 1000);
    EXPECT_EQ(ranged.from(), 0);
    EXPECT_EQ(ranged.expectedBytes(), 100);

    ranged.headers.clear();
    ranged.headers.emplace("content-range", "bytes 100-199/*");
    EXPECT_EQ(ranged.contentLength(), 0);
    EXPECT_EQ(ranged.from(), 100);
    EXPECT_EQ(ranged.expectedBytes(), 100);
    EXPECT_TRUE(capture.warnings.empty());

    ranged.headers.clear();
    ranged.headers.emplace("content-range", "bytes 100-199");
    ranged.headers.emplace("transfer-encoding", "chunked");
    EXPECT_EQ(ranged.contentLength(), 0);
    ASSERT_EQ(capture.warnings.size(), 1u);
    EXPECT_EQ(capture.warnings[0], "Could not parse Content-Range: bytes 100-199");

    capture.warnings.clear();
    LmHttpStatus chunked;
    chunked.responseCode = 200;
    chunked.headers.emplace("transfer-encoding", "chunked");
    EXPECT_EQ(chunked.contentLength(), 0);
    EXPECT_EQ(chunked.expectedBytes(), -1);
    EXPECT_TRUE(capture.warnings.empty());
    chunked.headers.clear();
    chunked.headers.emplace("transfer-encoding", "Chunked");
    EXPECT_EQ(chunked.contentLength(), 0);
    ASSERT_EQ(capture.warnings.size(), 2u);
    EXPECT_EQ(capture.warnings[0], "Could not get content length. Received headers:");
    EXPECT_EQ(capture.warnings[1], "transfer-encoding: Chunked");
}

TEST(HttpStatus, aLongChainIsDestroyedWithoutRecursion)
{
    auto head = std::make_shared<LmHttpStatus>();
    LmHttpStatus* tail = head.get();
    for (int i = 0; i < 100000; ++i) {
        tail->next = std::make_shared<LmHttpStatus>();
        tail->bytesReceived = 1;
        tail = tail->next.get();
    }
    EXPECT_EQ(head->totalBytesReceived(), 100000u);
    // A link still held elsewhere survives the chain's destruction.
    std::shared_ptr<LmHttpStatus> held = head->next->next;
    head.reset();
    EXPECT_EQ(held->totalBytesReceived(), 99998u);
}

TEST(RetryPolicy, waitsGrowWithJitterAndStopAtTheLimit)
{
    auto policy = LmCurlExponentialBackoffRetryPolicy::forRequests();
    long long const base[] = {1000, 2000, 4000, 8000};
    for (long long expected : base) {
        long long const wait = policy.onFailure();
        EXPECT_GE(wait, expected);
        EXPECT_LE(wait, expected + 1000);
        EXPECT_FALSE(policy.isExhausted());
    }
    EXPECT_EQ(policy.onFailure(), 0);
    EXPECT_TRUE(policy.isExhausted());

    auto reader = LmCurlExponentialBackoffRetryPolicy::forCloudReader();
    long long const capped[] = {1000, 2000, 4000, 8000, 8000};
    for (long long expected : capped) {
        long long const wait = reader.onFailure();
        EXPECT_GE(wait, expected);
        EXPECT_LE(wait, expected + 1000);
    }
    EXPECT_EQ(reader.onFailure(), 0);
}

TEST(RetryLoops, formAMakesFiveTriesAndFourRealWaits)
{
    auto policy = LmCurlExponentialBackoffRetryPolicy::forRequests();
    int tries = 0;
    std::vector<long long> waits;
    auto sleeper = [&waits](long long ms) { waits.push_back(ms); };
    EXPECT_THROW(LmCurlRetry::runFormA(
                     policy,
                     [&] {
                         ++tries;
                         return LmCurlRetry::Outcome::Transient;
                     },
                     "upload", sleeper),
                 RetryPolicyExhaustedError);
    EXPECT_EQ(tries, 5);
    ASSERT_EQ(waits.size(), 5u);
    EXPECT_EQ(waits.back(), 0);
    for (size_t i = 0; i < 4; ++i)
        EXPECT_GE(waits[i], 1000LL << i);

    auto second = LmCurlExponentialBackoffRetryPolicy::forRequests();
    tries = 0;
    EXPECT_THROW(LmCurlRetry::runFormA(
                     second,
                     [&] {
                         ++tries;
                         return LmCurlRetry::Outcome::Unrecoverable;
                     },
                     "upload", sleeper),
                 UnrecoverableResponseError);
    EXPECT_EQ(tries, 1);

    auto third = LmCurlExponentialBackoffRetryPolicy::forRequests();
    tries = 0;
    LmCurlRetry::runFormA(
        third, [&] { return ++tries < 3 ? LmCurlRetry::Outcome::Transient : LmCurlRetry::Outcome::Success; },
        "x", sleeper);
    EXPECT_EQ(tries, 3);
}

TEST(RetryLoops, formBMakesSixTriesTheLastWithoutWaiting)
{
    auto policy = LmCurlExponentialBackoffRetryPolicy::forRequests();
    int tries = 0;
    std::vector<long long> waits;
    std::vector<int> retries;
    bool const ok = LmCurlRetry::runFormB(
        policy,
        [&] {
            ++tries;
            return LmCurlRetry::Outcome::Transient;
        },
        [&](int failures, long long) { retries.push_back(failures); },
        [&](long long ms) { waits.push_back(ms); });
    EXPECT_FALSE(ok);
    EXPECT_EQ(tries, 6);
    EXPECT_EQ(waits.size(), 5u);
    EXPECT_EQ(waits.back(), 0);
    EXPECT_EQ(retries, std::vector<int>({1, 2, 3, 4, 5}));

    auto second = LmCurlExponentialBackoffRetryPolicy::forRequests();
    tries = 0;
    EXPECT_FALSE(LmCurlRetry::runFormB(second, [&] {
        ++tries;
        return LmCurlRetry::Outcome::Unrecoverable;
    }));
    EXPECT_EQ(tries, 1);
}

} // namespace
