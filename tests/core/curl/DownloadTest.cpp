// Streaming downloads end to end against real servers on loopback: nginx for
// plain files and ranges over HTTP and HTTPS, and the fault peer for
// failures, retries, back-pressure and hostile answers. Run through
// run_with_peers.py, which provides the ports in the environment.
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlDownload.h>
#include <mdxlib/curl/LmCurlHandleFactory.h>
#include <mdxlib/platform/McLogFile.h>

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <atomic>
#include <cstdlib>
#include <thread>

namespace {

// The peers' deterministic body: byte i of every file and response.
uint64_t mix(uint64_t x)
{
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

uint8_t peerByte(uint64_t i)
{
    uint64_t const n = i >> 3;
    uint64_t const w = mix(n & 0x1FFF) ^ mix(0x2000 + (n >> 13));
    return static_cast<uint8_t>(w >> (8 * (i & 7)));
}

// Index of the first byte that differs from the peers' body, or -1.
int64_t firstMismatch(char const* data, size_t size, uint64_t offset = 0)
{
    for (size_t i = 0; i < size; ++i)
        if (static_cast<uint8_t>(data[i]) != peerByte(offset + i))
            return static_cast<int64_t>(i);
    return -1;
}

std::string env(char const* name)
{
    char const* value = std::getenv(name);
    return value ? value : "";
}

std::string nginx(char const* path, bool tls = false)
{
    return std::string(tls ? "https" : "http") +
           "://127.0.0.1:" + env(tls ? "MDX_NGINX_HTTPS_PORT" : "MDX_NGINX_HTTP_PORT") + "/" + path;
}

std::string fault(std::string const& query, std::string const& id, bool tls = false)
{
    return std::string(tls ? "https" : "http") +
           "://127.0.0.1:" + env(tls ? "MDX_FAULT_TLS_PORT" : "MDX_FAULT_PORT") + "/object?id=" + id + "&" +
           query;
}

// Requests the fault peer saw for a test id.
int peerRequests(std::string const& id)
{
    LmHttpStatus status;
    QByteArray const json = LmCurlClient::instance()->readBytes(
        "http://127.0.0.1:" + env("MDX_FAULT_PORT") + "/__stats?id=" + id, status);
    return QJsonDocument::fromJson(json).object().value("requests").toInt(-1);
}

std::string readAll(std::istream& stream, size_t block = 65536)
{
    std::string data;
    std::string buffer(block, '\0');
    while (stream) {
        stream.read(&buffer[0], static_cast<std::streamsize>(block));
        data.append(buffer.data(), static_cast<size_t>(stream.gcount()));
    }
    return data;
}

struct ErrorCapture
{
    ErrorCapture()
    {
        getTheLogInstance()->setWriteCallback([this](int level, std::string const& m) {
            if (level == McLogFile::LevelError)
                errors.push_back(m);
        });
    }
    ~ErrorCapture() { getTheLogInstance()->setWriteCallback(nullptr); }
    std::vector<std::string> errors;
};

class Download : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (env("MDX_NGINX_HTTP_PORT").empty())
            GTEST_SKIP() << "run through run_with_peers.py";
        client = LmCurlClient::instance();
        client->setRetrySleeper([this](long long ms) { waits.push_back(ms); });
        client->setNumConcurrentRequestsPerFile(4);
        client->setChunkSizeForPartialRequests(12582912);
        // Each test its own id at the fault peer, so counters never mix.
        id = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }
    void TearDown() override
    {
        if (client) {
            client->setRetrySleeper(nullptr);
            client->setNumConcurrentRequestsPerFile(4);
            client->setChunkSizeForPartialRequests(12582912);
        }
    }

    LmCurlClient* client = nullptr;
    std::vector<long long> waits;
    std::string id;
};

TEST_F(Download, wholeFilesOverHttpAndHttps)
{
    for (bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "https" : "http");
        LmCurlDownloadStream stream = client->read(nginx("medium.bin", tls), false);
        EXPECT_EQ(stream.httpStatus().responseCode, 200);
        EXPECT_EQ(stream.contentLength(), 5 * 1024 * 1024);
        std::string const data = readAll(stream);
        ASSERT_EQ(data.size(), 5u * 1024 * 1024);
        EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
        EXPECT_FALSE(stream.httpStatus().curlError);
        EXPECT_FALSE(stream.isOpen());
    }
}

TEST_F(Download, parallelRangesArriveInOrderByteForByte)
{
    client->setChunkSizeForPartialRequests(300000);
    for (bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "https" : "http");
        LmCurlDownloadStream stream = client->read(nginx("medium.bin", tls), true);
        EXPECT_EQ(stream.httpStatus().responseCode, 206);
        // Reads of odd sizes cross range boundaries in the middle of a call.
        std::string const data = readAll(stream, 100003);
        ASSERT_EQ(data.size(), 5u * 1024 * 1024);
        EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
        int ranges = 0;
        for (LmHttpStatus const* s = &stream.httpStatus(); s; s = s->next.get()) {
            ++ranges;
            EXPECT_EQ(s->responseCode, 206);
            EXPECT_FALSE(s->curlError);
        }
        EXPECT_GT(ranges, 4);
        EXPECT_EQ(stream.httpStatus().totalBytesReceived(), 5u * 1024 * 1024);
    }
}

TEST_F(Download, smallChunksStillStartWithAtLeast1025Bytes)
{
    client->setChunkSizeForPartialRequests(100);
    LmCurlDownloadStream stream = client->read(nginx("small.bin"), true);
    EXPECT_EQ(stream.httpStatus().responseCode, 206);
    EXPECT_EQ(stream.httpStatus().header("content-range") ? *stream.httpStatus().header("content-range") : "",
              "bytes 0-999/1000");
    std::string const data = readAll(stream);
    EXPECT_EQ(data.size(), 1000u);

    client->setNumConcurrentRequestsPerFile(1); // partial requests off
    LmCurlDownloadStream plain = client->read(nginx("small.bin"), true);
    EXPECT_EQ(plain.httpStatus().responseCode, 200);
}

TEST_F(Download, aSlowReaderPausesTheTransferWithoutLosingBytes)
{
    auto factory = std::make_shared<LmCurlHandleFactory>(4);
    auto* request = new LmCurlDownloadRequest(factory, nullptr);
    request->mUrl = nginx("medium.bin");
    request->resetOptions(QByteArray(), {}, false);
    request->addToMulti();
    LmCurlDownloadStreambuf buffer(request, 1);
    std::string data;
    char block[100];
    while (data.size() < 3000000) {
        unsigned long const n = request->read(block, sizeof block);
        ASSERT_GT(n, 0u);
        data.append(block, n);
        // Nothing runs while the reader is away: what arrived is what was
        // read plus at most the spill buffer.
        EXPECT_LE(request->mStatus->bytesReceived, data.size() + 1024 * 1024);
        if (data.size() % 100000 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
    EXPECT_EQ(request->read(block, 0), 0u);

    // Closing during a pause ends the transfer and records no error.
    buffer.close();
    EXPECT_TRUE(request->mDone);
    EXPECT_FALSE(request->mStatus->curlError);
}

TEST_F(Download, transientStatusesAreRetriedUntilSuccess)
{
    LmCurlDownloadStream stream = client->read(fault("status=503&times=2&size=5000", id), false);
    EXPECT_EQ(stream.httpStatus().responseCode, 200);
    std::string const data = readAll(stream);
    EXPECT_EQ(data.size(), 5000u);
    EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
    EXPECT_EQ(peerRequests(id), 3);
    ASSERT_EQ(waits.size(), 2u);
    EXPECT_GE(waits[0], 1000);
    EXPECT_LE(waits[0], 2000);
    EXPECT_GE(waits[1], 2000);
    EXPECT_LE(waits[1], 3000);
}

TEST_F(Download, exhaustedRetriesMakeSixTries)
{
    ErrorCapture errors;
    LmCurlDownloadStream stream = client->read(fault("status=500", id), false);
    EXPECT_EQ(stream.httpStatus().responseCode, 500);
    EXPECT_EQ(readAll(stream).size(), 0u + (stream.httpStatus().bytesReceived));
    EXPECT_EQ(peerRequests(id), 6);
    EXPECT_EQ(waits.size(), 5u);
    EXPECT_EQ(waits.back(), 0);
    ASSERT_FALSE(errors.errors.empty());
    EXPECT_NE(errors.errors.back().find("retry policy exhausted"), std::string::npos);
}

TEST_F(Download, unrecoverableCodesStopAtOnceAnd404CanBeQuiet)
{
    ErrorCapture errors;
    LmHttpStatus const missing = client->head(nginx("no-such-file"));
    EXPECT_EQ(missing.responseCode, 404);
    EXPECT_TRUE(errors.errors.empty());

    LmCurlDownloadStream forbidden = client->read(fault("status=403", id), false);
    EXPECT_EQ(forbidden.httpStatus().responseCode, 403);
    EXPECT_EQ(peerRequests(id), 1);
    EXPECT_TRUE(waits.empty());
    ASSERT_FALSE(errors.errors.empty());
    EXPECT_NE(errors.errors.front().find("unrecoverable error 403"), std::string::npos);

    LmHttpStatus const small = client->head(nginx("small.bin"));
    EXPECT_EQ(small.responseCode, 200);
    EXPECT_EQ(small.contentLength(), 1000);
}

TEST_F(Download, aConnectionDroppedMidBodyIsAFailureNotAnEnd)
{
    ErrorCapture errors;
    LmCurlDownloadStream stream = client->read(fault("close_after=3000&size=100000", id), false);
    EXPECT_EQ(stream.httpStatus().responseCode, 200);
    std::string const data = readAll(stream);
    EXPECT_LT(data.size(), 100000u);
    EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
    EXPECT_TRUE(stream.httpStatus().curlError);
    EXPECT_LT(static_cast<int64_t>(stream.httpStatus().bytesReceived), stream.httpStatus().expectedBytes());
    EXPECT_FALSE(errors.errors.empty());
}

TEST_F(Download, chunkedBodiesAndServersThatIgnoreRanges)
{
    LmCurlDownloadStream chunked = client->read(fault("chunked=1&size=70000", id), false);
    EXPECT_EQ(chunked.contentLength(), 0);
    std::string data = readAll(chunked);
    EXPECT_EQ(data.size(), 70000u);
    EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);

    // A ranged first request answered with 200: the whole body through the
    // one request, no sibling ranges.
    client->setChunkSizeForPartialRequests(10000);
    LmCurlDownloadStream whole = client->read(fault("ignore_range=1&size=200000", id + "-whole"), true);
    EXPECT_EQ(whole.httpStatus().responseCode, 200);
    data = readAll(whole);
    EXPECT_EQ(data.size(), 200000u);
    EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
    EXPECT_EQ(whole.httpStatus().next, nullptr);
}

TEST_F(Download, aWrongContentRangeIsRefusedNotDelivered)
{
    ErrorCapture errors;
    client->setChunkSizeForPartialRequests(10000);
    LmCurlDownloadStream stream = client->read(fault("bad_range=7&size=100000", id), true);
    std::string const data = readAll(stream);
    // Whatever arrived is the right bytes; the bad range is reported.
    EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
    EXPECT_LT(data.size(), 100000u);
    bool reported = false;
    for (LmHttpStatus const* s = &stream.httpStatus(); s; s = s->next.get())
        reported = reported || s->curlError;
    EXPECT_TRUE(reported);
}

TEST_F(Download, readBytesAndPosts)
{
    LmHttpStatus status;
    QByteArray const bytes = client->readBytes(nginx("medium.bin"), status);
    EXPECT_EQ(status.responseCode, 206);
    ASSERT_EQ(bytes.size(), 5 * 1024 * 1024);
    EXPECT_EQ(firstMismatch(bytes.constData(), static_cast<size_t>(bytes.size())), -1);

    QByteArray const chunked = client->readBytes(fault("chunked=1&size=300000", id), status);
    EXPECT_EQ(chunked.size(), 300000);

    QJsonDocument const reply =
        client->postJson(fault("", id + "-post"), QJsonObject{{"key", "value"}}, status);
    EXPECT_EQ(status.responseCode, 200);
    EXPECT_EQ(reply.object().value("length").toInt(),
              QJsonDocument(QJsonObject{{"key", "value"}}).toJson().size());
}

TEST_F(Download, destroyingAStreamWithRunningRangesReturnsEveryHandle)
{
    auto factory = std::make_shared<LmCurlHandleFactory>(16);
    auto* first = new LmCurlDownloadRequest(factory, nullptr);
    first->mUrl = nginx("large.bin");
    first->mTo = 1024 * 1024 - 1;
    first->mHeaders = {"Range: bytes=5-9"}; // dropped: the request has its own range
    first->resetOptions(QByteArray(), {"Range: bytes=5-9", "X-Other: 1"}, false);
    EXPECT_EQ(first->mHeaders, std::vector<std::string>({"X-Other: 1", "Range: bytes=0-1048575"}));
    first->addToMulti();
    {
        LmCurlDownloadStream stream(new LmCurlDownloadStreambuf(first, 4));
        stream.peek(); // the first answer's headers decide on parallel ranges
        char block[50000];
        stream.read(block, sizeof block);
        ASSERT_EQ(stream.gcount(), 50000);
        EXPECT_EQ(firstMismatch(block, sizeof block), -1);
        EXPECT_EQ(stream.streambuf()->numRequests(), 4u);
    }
    EXPECT_EQ(factory->idleHandles(), 4u);
    EXPECT_EQ(factory->idleMultiHandles(), 1u);
}

TEST_F(Download, oneRangeAtATimeWithMaxConcurrentOne)
{
    auto factory = std::make_shared<LmCurlHandleFactory>(4);
    auto* first = new LmCurlDownloadRequest(factory, nullptr);
    first->mUrl = nginx("medium.bin", true);
    first->mTo = 1000000 - 1;
    first->resetOptions(QByteArray(), {}, false);
    first->addToMulti();
    LmCurlDownloadStream stream(new LmCurlDownloadStreambuf(first, 1));
    std::string const data = readAll(stream);
    ASSERT_EQ(data.size(), 5u * 1024 * 1024);
    EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
    EXPECT_EQ(stream.streambuf()->numRequests(), 1u);
}

TEST_F(Download, independentStreamsOnManyThreads)
{
    client->setChunkSizeForPartialRequests(200000);
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            LmCurlDownloadStream stream = client->read(nginx("medium.bin", t % 2 == 1), t % 3 != 0);
            std::string const data = readAll(stream);
            if (data.size() == 5u * 1024 * 1024 && firstMismatch(data.data(), data.size()) == -1)
                ++good;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good.load(), 6);
}

} // namespace
