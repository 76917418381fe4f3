// Streaming downloads end to end against real servers on loopback: nginx for plain files and
// ranges over HTTP and HTTPS, and the fault peer for failures, retries and hostile answers. Run
// through run_with_peers.py, which provides the ports in the environment.
#include "PeerBody.h"
#include "support/PeerRequests.h"
#include "support/TestSupport.h"

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlDownload.h>
#include <mdxlib/curl/LmCurlHandleFactory.h>
#include <mdxlib/platform/McLogFile.h>

#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>

#include <atomic>
#include <thread>
#include <tuple>

namespace {

using mdxpeer::firstMismatch;
using mdxtest::LogCapture;
using mdxtest::peerPort;

constexpr size_t kMedium = 5u * 1024 * 1024;
constexpr uint64_t kFirstSpill = 16384;

std::string nginx(char const* path, bool tls = false)
{
    return std::string(tls ? "https" : "http") +
           "://127.0.0.1:" + peerPort(tls ? "MDX_NGINX_HTTPS_PORT" : "MDX_NGINX_HTTP_PORT") + "/" + path;
}

std::string fault(std::string const& query, std::string const& id)
{
    return "http://127.0.0.1:" + peerPort("MDX_FAULT_PORT") + "/object?id=" + id + "&" + query;
}

// Requests the fault peer saw for a test id.
int peerRequests(std::string const& id)
{
    return mdxtest::peerJson("http://127.0.0.1:" + peerPort("MDX_FAULT_PORT") + "/__stats?id=" + id)
        .value("requests")
        .toInt(-1);
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

// A request made by hand on a factory of its own, so that its handles can be counted.
LmCurlDownloadRequest* startRequest(std::shared_ptr<LmCurlHandleFactory>& factory, std::string const& url,
                                    int64_t to, std::vector<std::string> headers = {})
{
    auto* request = new LmCurlDownloadRequest(factory, nullptr);
    request->mUrl = url;
    request->mTo = to;
    request->resetOptions(QByteArray(), std::move(headers), false);
    request->addToMulti();
    return request;
}

class Download : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (peerPort("MDX_NGINX_HTTP_PORT").empty())
            GTEST_SKIP() << "run through run_with_peers.py";
        client = LmCurlClient::instance();
        client->setRetrySleeper([this](long long ms) { waits.push_back(ms); });
        // Each test its own id at the fault peer, so counters never mix.
        id = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }
    void TearDown() override
    {
        if (!client)
            return;
        client->setRetrySleeper(nullptr);
        client->setNumConcurrentRequestsPerFile(4);
        client->setChunkSizeForPartialRequests(12582912);
    }

    LmCurlClient* client = nullptr;
    std::vector<long long> waits;
    std::string id;
};

TEST_F(Download, wholeFilesAndParallelRangesOverHttpAndHttpsByteForByte)
{
    client->setChunkSizeForPartialRequests(300000);
    for (bool tls : {false, true}) {
        for (bool partial : {false, true}) {
            SCOPED_TRACE(std::string(tls ? "https" : "http") + (partial ? " ranges" : ""));
            LmCurlDownloadStream stream = client->read(nginx("medium.bin", tls), partial);
            EXPECT_EQ(stream.contentLength(), static_cast<int64_t>(kMedium));
            // Reads of odd sizes cross range boundaries in the middle of a call.
            std::string const data = readAll(stream, 100003);
            ASSERT_EQ(data.size(), kMedium);
            EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
            EXPECT_FALSE(stream.isOpen());
            int ranges = 0;
            for (LmHttpStatus const* s = &stream.httpStatus(); s; s = s->next.get(), ++ranges) {
                EXPECT_EQ(s->responseCode, partial ? 206 : 200);
                EXPECT_FALSE(s->curlError);
            }
            EXPECT_EQ(ranges > 4, partial);
            EXPECT_EQ(stream.httpStatus().totalBytesReceived(), kMedium);
        }
    }
}

TEST_F(Download, aRangeThatEndsWithoutAByteForItsReaderIsNotTheEndOfTheStream)
{
    // A front of a whole number of get areas, read through the get area while its one sibling
    // finish: its last bytes come with one read, its end with the next, which gets no byte.
    // Whether the last bytes come that way depends on timing: a few tries.
    client->setChunkSizeForPartialRequests(4 * 1024 * 1024);
    for (bool tls : {false, true, false, true}) {
        LmCurlDownloadStream stream = client->read(nginx("medium.bin", tls), true);
        std::string const data{std::istreambuf_iterator<char>(stream), {}};
        EXPECT_EQ(data.size(), kMedium);
        EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
    }
}

TEST_F(Download, theFirstRequestHoldsNoMoreThanItsSpillBufferWhileTheReaderIsAway)
{
    // A ranged first request keeps the same small spill buffer: its range covers the whole file.
    for (bool partial : {false, true}) {
        SCOPED_TRACE(partial ? "ranged" : "plain");
        LmCurlDownloadStream stream = client->read(nginx("medium.bin"), partial);
        LmCurlDownloadRequest* request = stream.streambuf()->request();
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(request->spillCapacity(), static_cast<int>(kFirstSpill));
        // peek() filled the get area; the transfer is paused, not running on while nobody reads.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_LE(request->mStatus->bytesReceived, 2 * kFirstSpill);
        std::string data(static_cast<size_t>(stream.rdbuf()->in_avail()), '\0');
        stream.read(&data[0], static_cast<std::streamsize>(data.size()));
        // Small and odd blocks, with pauses: each read resumes the transfer where it stopped.
        for (size_t block : {1u, 100u, 16383u, 16384u, 16385u, 50000u, 1000000u}) {
            std::string buffer(block, '\0');
            unsigned long const n = request->read(&buffer[0], block);
            ASSERT_GT(n, 0u);
            data.append(buffer.data(), n);
            EXPECT_LE(request->mStatus->bytesReceived, data.size() + kFirstSpill) << block;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        EXPECT_EQ(request->read(&data[0], 0), 0u); // 0 bytes asked, nothing changes
        data += readAll(stream, 1000003);
        ASSERT_EQ(data.size(), kMedium);
        EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
        EXPECT_EQ(request->mStatus->bytesReceived, kMedium); // nothing taken twice
        EXPECT_EQ(stream.streambuf()->numRequests(), 1u);
    }
    // Closing during a pause ends the transfer and records no error.
    LmCurlDownloadStream paused = client->read(nginx("medium.bin"), false);
    LmCurlDownloadRequest* request = paused.streambuf()->request();
    char byte;
    for (int i = 0; i < 100000 && !request->mPaused; ++i)
        request->read(&byte, 1);
    ASSERT_TRUE(request->mPaused);
    paused.close();
    EXPECT_TRUE(request->mDone);
    EXPECT_FALSE(request->mStatus->curlError);
}

TEST_F(Download, retriesByStatusTransientUntilSuccessOrSixTriesUnrecoverableAtOnce)
{
    // The fault, the status seen, the requests, the retry waits, the error logged.
    std::tuple<std::string, int, int, size_t, char const*> const cases[] = {
        {"status=503&times=2&size=5000", 200, 3, 2, nullptr},
        {"status=500", 500, 6, 5, "retry policy exhausted"},
        {"status=403", 403, 1, 0, "unrecoverable error 403"},
    };
    for (auto const& [query, code, requests, waited, error] : cases) {
        SCOPED_TRACE(query);
        LogCapture log;
        waits.clear();
        std::string const test = id + query;
        LmCurlDownloadStream stream = client->read(fault(query, test), false);
        EXPECT_EQ(stream.httpStatus().responseCode, code);
        std::string const data = readAll(stream);
        EXPECT_EQ(data.size(), code == 200 ? 5000u : stream.httpStatus().bytesReceived);
        EXPECT_EQ(firstMismatch(data.data(), code == 200 ? data.size() : 0), -1);
        EXPECT_EQ(peerRequests(test), requests);
        EXPECT_EQ(waits.size(), waited);
        if (error) {
            EXPECT_EQ(log.count(McLogFile::LevelError, error), 1);
        }
    }
    // A 404 of a HEAD is an answer, and is not logged.
    LogCapture log;
    EXPECT_EQ(client->head(nginx("no-such-file")).responseCode, 404);
    EXPECT_EQ(client->head(nginx("small.bin")).contentLength(), 1000);
    EXPECT_EQ(log.count(McLogFile::LevelError), 0);
}

TEST_F(Download, aConnectionDroppedMidBodyIsAFailureNotAnEndAndNotRetried)
{
    LogCapture log;
    LmCurlDownloadStream stream = client->read(fault("close_after=50000&size=100000", id), false);
    EXPECT_EQ(stream.httpStatus().responseCode, 200);
    std::string const data = readAll(stream);
    EXPECT_LT(data.size(), 50000u);
    EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
    EXPECT_TRUE(stream.httpStatus().curlError);
    EXPECT_LT(static_cast<int64_t>(stream.httpStatus().bytesReceived), stream.httpStatus().expectedBytes());
    EXPECT_EQ(log.count(McLogFile::LevelError, "transfer"), 1);
    // The opening saw a good answer: the failure belongs to the reader, not to the retry loop.
    EXPECT_EQ(peerRequests(id), 1);
}

TEST_F(Download, chunkedBodiesServersThatIgnoreRangesAndWrongRanges)
{
    client->setChunkSizeForPartialRequests(10000);
    // The fault, ranged or not, the size read, whether a request failed. chunked: no length; ignore_range: a
    // 200 to the first range, the whole body through one request; bad_range: a sibling range answered from
    // the wrong offset is refused, not delivered.
    std::tuple<char const*, bool, size_t, bool> const cases[] = {
        {"chunked=1&size=70000", false, 70000, false},
        {"ignore_range=1&size=200000", true, 200000, false},
        {"bad_range=7&size=100000", true, 0, true}};
    for (auto const& [query, partial, size, failed] : cases) {
        SCOPED_TRACE(query);
        LogCapture log;
        LmCurlDownloadStream stream = client->read(fault(query, id + query), partial);
        std::string const data = readAll(stream);
        EXPECT_EQ(firstMismatch(data.data(), data.size()), -1);
        bool anyFailed = false;
        for (LmHttpStatus const* s = &stream.httpStatus(); s; s = s->next.get())
            anyFailed = anyFailed || s->curlError;
        EXPECT_EQ(anyFailed, failed);
        if (failed) {
            EXPECT_LT(data.size(), 100000u);
            EXPECT_GE(log.count(McLogFile::LevelError, "asked for bytes"), 1);
        } else {
            EXPECT_EQ(data.size(), size);
            EXPECT_EQ(stream.httpStatus().next, nullptr);
        }
    }
}

TEST_F(Download, readBytesAndPosts)
{
    LmHttpStatus status;
    QByteArray const bytes = client->readBytes(nginx("medium.bin"), status);
    EXPECT_EQ(status.responseCode, 206);
    ASSERT_EQ(static_cast<size_t>(bytes.size()), kMedium);
    EXPECT_EQ(firstMismatch(bytes.constData(), kMedium), -1);
    EXPECT_EQ(client->readBytes(fault("chunked=1&size=300000", id), status).size(), 300000);

    QJsonObject const body{{"key", "value"}};
    QJsonDocument const reply = client->postJson(fault("", id + "-post"), body, status);
    EXPECT_EQ(status.responseCode, 200);
    EXPECT_EQ(reply.object().value("length").toInt(), QJsonDocument(body).toJson().size());
}

TEST_F(Download, destroyingAStreamWithRunningRangesReturnsEveryHandle)
{
    auto factory = std::make_shared<LmCurlHandleFactory>(16);
    // The caller's Range line is dropped: the request has its own range.
    LmCurlDownloadRequest* first =
        startRequest(factory, nginx("large.bin"), 1024 * 1024 - 1, {"Range: bytes=5-9", "X-Other: 1"});
    EXPECT_EQ(first->mHeaders, std::vector<std::string>({"X-Other: 1", "Range: bytes=0-1048575"}));
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

TEST_F(Download, independentStreamsOnManyThreads)
{
    client->setChunkSizeForPartialRequests(200000);
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            LmCurlDownloadStream stream = client->read(nginx("medium.bin", t % 2 == 1), t % 3 != 0);
            std::string const data = readAll(stream);
            good += data.size() == kMedium && firstMismatch(data.data(), data.size()) == -1;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good.load(), 6);
}

} // namespace
