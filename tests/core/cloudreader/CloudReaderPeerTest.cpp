// The cloud reader against real servers on loopback (run_with_peers.py): nginx for plain objects
// and ranges over HTTP and HTTPS, the fault peer for refusals, retries, cut bodies, wrong ranges,
// chunked and multipart answers and the URL forms of each provider, and the botocore-checking S3
// peer for signed reads. Each test has its own reader, with small chunks so that objects span
// many of them, and short retry waits; one test waits for real and is labelled slow.
#include "PeerBody.h"
#include "support/PeerRequests.h"
#include "support/TestSupport.h"

#include "core/cloudreader/CloudReaderPrivate.h"

#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/Config.h>
#include <mdxlib/cloudreader/Container.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/cloudreader/FileController.h>
#include <mdxlib/cloudreader/Statistics.h>
#include <mdxlib/cloudreader/Writer.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlHelper.h>
#include <mdxlib/curl/LmCurlRequest.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>

#include <curl/curl.h>

#include <atomic>
#include <future>
#include <thread>

namespace {

using mdxpeer::firstMismatch;
using mdxtest::LogCapture;
using mdxtest::peerPort;
using mdxtest::ScopedEnv;
using Clock = std::chrono::steady_clock;

constexpr long long kKiB = 1024;
constexpr long long kMedium = 5 * 1024 * kKiB;

std::string nginx(char const* path, bool tls = false)
{
    return std::string(tls ? "https" : "http") +
           "://127.0.0.1:" + peerPort(tls ? "MDX_NGINX_HTTPS_PORT" : "MDX_NGINX_HTTP_PORT") + "/" + path;
}

std::string faultBase(bool tls = false)
{
    return std::string(tls ? "https" : "http") +
           "://127.0.0.1:" + peerPort(tls ? "MDX_FAULT_TLS_PORT" : "MDX_FAULT_PORT");
}

// What the fault peer saw for a test id, read outside the code under test.
QJsonObject peerStats(std::string const& id, bool tls = false)
{
    return mdxtest::peerJson(faultBase(tls) + "/__stats?id=" + id);
}

int peerRequests(std::string const& id)
{
    return peerStats(id).value("requests").toInt(-1);
}

QStringList peerList(std::string const& id, char const* field, bool tls = false)
{
    QStringList list;
    for (auto const& value : peerStats(id, tls).value(field).toArray())
        list << (value.isDouble() ? QString::number(value.toInt()) : value.toString());
    return list;
}

bool sameAsStream(QByteArray const& data, long long size, long long offset = 0)
{
    return data.size() == size &&
           firstMismatch(data.constData(), static_cast<size_t>(data.size()), offset) == -1;
}

// Everything of a file, in reads of an odd size.
QByteArray readAll(Kz::File& file, long long block = 100003)
{
    QByteArray data;
    QByteArray buffer(static_cast<int>(block), '\0');
    for (;;) {
        long long const n = file.read(buffer.data(), block);
        if (n <= 0)
            break;
        data.append(buffer.constData(), static_cast<int>(n));
    }
    return data;
}

class CloudReaderPeers : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (peerPort("MDX_NGINX_HTTP_PORT").empty())
            GTEST_SKIP() << "run through run_with_peers.py";
        id = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        config.memoryAPI = Kz::Config::MEMORY_API_MALLOC;
        config.chunkSize = 256 * kKiB;
        config.memoryPageSize = 16 * kKiB;
        config.numRequestsPerFile = 4;
    }
    void TearDown() override { reader.reset(); }

    Kz::CloudReader& make()
    {
        reader = std::make_unique<Kz::CloudReader>(config);
        reader->setRetryWait([this](long long wait) {
            std::lock_guard<std::mutex> lock(waitsMutex);
            waits.push_back(wait);
            return 5LL;
        });
        return *reader;
    }
    std::string fault(std::string const& query, bool tls = false)
    {
        return faultBase(tls) + "/object?id=" + id + "&" + query;
    }
    std::vector<long long> recordedWaits()
    {
        std::lock_guard<std::mutex> lock(waitsMutex);
        return waits;
    }

    Kz::Config config{Kz::Config::DefaultsOnly{}};
    std::unique_ptr<Kz::CloudReader> reader;
    std::string id;
    std::mutex waitsMutex;
    std::vector<long long> waits;
};

TEST_F(CloudReaderPeers, objectsOverHttpAndHttpsAreByteExactThroughFilesStreamsAndReadBytes)
{
    Kz::CloudReader& r = make();
    for (bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "https" : "http");
        std::string const url = nginx("medium.bin", tls);
        EXPECT_TRUE(sameAsStream(r.readBytes(url, -1), kMedium));
        std::shared_ptr<Kz::File> file = r.openFile(url, -1);
        ASSERT_EQ(file->state(), Kz::File::FILE_OPEN);
        EXPECT_EQ(file->length(), kMedium);
        EXPECT_EQ(file->peek(), mdxpeer::byteAt(0));
        EXPECT_TRUE(sameAsStream(readAll(*file), kMedium));
        EXPECT_EQ(file->state(), Kz::File::FILE_CLOSED); // with the last byte
        EXPECT_EQ(file->read(nullptr, 10), 0);
        Kz::DownloadStream stream = r.openStream(nginx("small.bin", tls));
        std::string const small(std::istreambuf_iterator<char>(stream), {});
        EXPECT_TRUE(sameAsStream(QByteArray::fromStdString(small), 1000));
        EXPECT_FALSE(stream.isOpen());
        EXPECT_FALSE(stream.isBad());
    }
    EXPECT_EQ(r.statistics().totalNumDcmFiles, 6);
    EXPECT_EQ(r.statistics().failedRequests, 0);
    EXPECT_GE(r.statistics().totalRead, 4 * kMedium);
    EXPECT_TRUE(recordedWaits().empty());
}

TEST_F(CloudReaderPeers, rangesLengthsAndAnObjectOfExactlyOneChunk)
{
    LogCapture log;
    Kz::CloudReader& r = make();
    std::string const url = nginx("medium.bin");
    EXPECT_EQ(r.openFileRange(url, 10, 9), nullptr);
    EXPECT_EQ(log.count(3, "[Kzip] Invalid range 10 9, " + url), 1);
    std::shared_ptr<Kz::File> one = r.openFileRange(url, 10, 10);
    char byte = 0;
    EXPECT_EQ(one->read(&byte, 5), 1);
    EXPECT_EQ(static_cast<uint8_t>(byte), mdxpeer::byteAt(10));
    EXPECT_EQ(one->state(), Kz::File::FILE_CLOSED);
    // A range far into the object, while the length is unknown: its own first chunk, not chunk 0.
    id = "farRange";
    auto range = r.openFileRange(fault("size=2000000"), 3 * 256 * kKiB + 5, 4 * 256 * kKiB + 77);
    EXPECT_TRUE(sameAsStream(readAll(*range, 4097), 256 * kKiB + 73, 3 * 256 * kKiB + 5));
    EXPECT_EQ(peerList(id, "ranges").value(0), "bytes=786432-1048575");
    EXPECT_EQ(r.fileLength(url), kMedium);
    EXPECT_EQ(r.fileLength(nginx("missing.bin")), -1);
    one.reset(); // files go before their reader
    range.reset();

    config.chunkSize = 1000; // small.bin is exactly one chunk
    config.memoryPageSize = 1000;
    Kz::CloudReader& exact = make();
    auto file = exact.openFile(nginx("small.bin"), -1);
    EXPECT_EQ(file->length(), 1000);
    EXPECT_TRUE(sameAsStream(readAll(*file), 1000));
    EXPECT_EQ(file->controller()->chunkState(1), -1);
}

TEST_F(CloudReaderPeers, refusalsMakeTheFileBadAtOnce)
{
    Kz::CloudReader& r = make();
    for (int code : {403, 404}) {
        SCOPED_TRACE(code);
        id = "refusal" + std::to_string(code);
        LogCapture log;
        auto file = r.openFile(fault("status=" + std::to_string(code)), -1);
        EXPECT_EQ(file->state(), Kz::File::FILE_BAD);
        char buffer[4];
        EXPECT_EQ(file->read(buffer, 4), -1);
        EXPECT_EQ(peerRequests(id), 1);
        EXPECT_EQ(log.count(3, "unrecoverable error " + std::to_string(code)), 1);
        EXPECT_TRUE(r.readBytes(fault("status=" + std::to_string(code)), -1).isEmpty());
    }
    EXPECT_TRUE(recordedWaits().empty());
}

TEST_F(CloudReaderPeers, transientFailuresAreRetriedWithGrowingWaitsAndTheDataIsByteExact)
{
    Kz::CloudReader& r = make();
    QByteArray const data = r.readBytes(fault("status=503&times=2&size=600000"), -1);
    EXPECT_TRUE(sameAsStream(data, 600000));
    std::vector<long long> const w = recordedWaits();
    ASSERT_EQ(w.size(), 2u);
    EXPECT_GE(w[0], 1000); // the policy's wait, with up to a second of jitter
    EXPECT_LE(w[0], 2000);
    EXPECT_GE(w[1], 2000);
    EXPECT_LE(w[1], 3000);
    EXPECT_EQ(peerList(id, "ranges").mid(0, 3),
              QStringList({"bytes=0-262143", "bytes=0-262143", "bytes=0-262143"}));
    EXPECT_EQ(r.statistics().requestsWith2Retries, 1);
}

TEST_F(CloudReaderPeers, aCutBodyResumesFromWhereItStopped)
{
    config.chunkSize = 1024 * kKiB;
    Kz::CloudReader& r = make();
    QByteArray const data = r.readBytes(fault("size=300000&close_after=100000&times=1"), -1);
    EXPECT_TRUE(sameAsStream(data, 300000));
    EXPECT_EQ(peerList(id, "ranges"), QStringList({"bytes=0-1048575", "bytes=100000-1048575"}));
    EXPECT_EQ(r.statistics().requestsWith1Retry, 1);
}

TEST_F(CloudReaderPeers, aWrongContentRangeFailsTheAttempt)
{
    LogCapture log;
    Kz::CloudReader& r = make();
    auto file = r.openFileRange(fault("size=100000&bad_range=10&times=1"), 20000, 29999);
    EXPECT_TRUE(sameAsStream(readAll(*file), 10000, 20000));
    EXPECT_EQ(peerRequests(id), 2);
    EXPECT_EQ(log.count(3, "[Kzip] unexpected content range"), 1);
    // A server that answers with the whole object: the bytes before the chunk are dropped.
    id = "ignored";
    EXPECT_TRUE(sameAsStream(r.readBytes(fault("size=700000&ignore_range=1"), -1), 700000));
}

TEST_F(CloudReaderPeers, anEmptyObjectFailsAfterItsTries)
{
    LogCapture log;
    Kz::CloudReader& r = make();
    auto file = r.openFile(fault("size=0&ignore_range=1"), -1);
    EXPECT_EQ(file->state(), Kz::File::FILE_BAD);
    EXPECT_EQ(file->peek(), -1);
    EXPECT_EQ(peerRequests(id), 7); // six retries
    EXPECT_EQ(recordedWaits().size(), 6u);
    EXPECT_EQ(log.count(3, "[Kzip] no content data received"), 7);
    EXPECT_EQ(log.count(3, "retry policy exhausted, chunk 0"), 1);
    EXPECT_EQ(r.statistics().failedRequests, 7);
}

TEST_F(CloudReaderPeers, chunkedAnswersOfUnknownAndOfKnownLength)
{
    Kz::CloudReader& r = make();
    // A 200 without a length: one chunk, and the end is where the data ends.
    auto file = r.openFile(fault("size=300000&chunked=1&ignore_range=1"), -1);
    EXPECT_TRUE(sameAsStream(readAll(*file), 300000));
    EXPECT_EQ(file->controller()->length(), 300000);
    // A chunked 206 carries the whole length in its Content-Range: nothing is cut at chunk 0.
    id = "chunked206";
    EXPECT_TRUE(sameAsStream(r.readBytes(fault("size=1000000&chunked=1"), -1), 1000000));
    EXPECT_EQ(peerRequests(id), 4);
}

TEST_F(CloudReaderPeers, wadoRsMultipartBodiesAreDecodedAcrossChunks)
{
    config.chunkSize = 512;
    config.memoryPageSize = 256;
    Kz::CloudReader& r = make();
    std::string const url = "wr://127.0.0.1:" + peerPort("MDX_FAULT_PORT") + "/wado/1.2.3/4.5.6/7.8.9";
    auto file = r.openFile(url, -1);
    EXPECT_EQ(file->length(), -1); // only the raw length is known
    EXPECT_TRUE(sameAsStream(readAll(*file, 100), 1000));
    EXPECT_EQ(file->state(), Kz::File::FILE_CLOSED);
    EXPECT_TRUE(sameAsStream(r.readBytes(url, -1), 1000));
    QStringList const paths = peerList("", "paths");
    ASSERT_FALSE(paths.isEmpty());
    EXPECT_EQ(paths.last(), "/wado/studies/1.2.3/series/4.5.6/instances/7.8.9");
}

TEST_F(CloudReaderPeers, googleAndAzureUrlsReachTheirEndpointsAndAFailingCredentialFailsOnlyTheFile)
{
    ScopedEnv vars;
    vars.set("MDX_GCS_DOWNLOAD_ENDPOINT", faultBase() + "/");
    auto const helper = LmCurlClient::instance()->helper();
    Kz::CloudReader& r = make();
    EXPECT_TRUE(sameAsStream(r.readBytes("gs://bucket/dir/obj?id=gs&size=5000", -1), 5000));
    EXPECT_EQ(peerList("gs", "paths").value(0), "/bucket/dir%2Fobj?id=gs&size=5000");
    EXPECT_EQ(peerList("gs", "authorizations").value(0), ""); // no Google credentials yet

    std::string const az = "az://127.0.0.1:" + peerPort("MDX_FAULT_TLS_PORT") + "/cont/blob?id=az&size=5000";
    EXPECT_TRUE(sameAsStream(r.readBytes(az, -1), 5000));
    EXPECT_EQ(peerList("az", "paths", true).value(0), "/cont/blob?id=az&size=5000");

    helper->setGoogleAuthorizationProvider([] { return std::string("Authorization: Bearer gs-token"); });
    EXPECT_TRUE(sameAsStream(r.readBytes("gs://bucket/o?id=gsauth&size=10", -1), 10));
    EXPECT_EQ(peerList("gsauth", "authorizations").value(0), "Bearer gs-token");

    // A credential fetch that throws, on the reading thread and then on the reader thread (the
    // retry after a 503): the file fails, the process and the reader go on.
    LogCapture log;
    std::atomic<int> calls{0};
    helper->setGoogleAuthorizationProvider([&calls]() -> std::string {
        if (++calls > 1)
            throw std::runtime_error("token endpoint down");
        return "Authorization: Bearer gs-token";
    });
    auto file = r.openFile("gs://bucket/o?id=gsthrow&status=503&times=1", -1);
    EXPECT_EQ(file->state(), Kz::File::FILE_BAD);
    EXPECT_EQ(peerRequests("gsthrow"), 1);
    EXPECT_EQ(r.openFile("gs://bucket/o?id=gsthrow2", -1)->state(), Kz::File::FILE_BAD);
    EXPECT_EQ(peerRequests("gsthrow2"), 0);
    EXPECT_GE(log.count(3, "preparing the request failed: token endpoint down"), 2);
    helper->setGoogleAuthorizationProvider(nullptr);
    EXPECT_TRUE(sameAsStream(r.readBytes(nginx("small.bin"), -1), 1000));
}

TEST_F(CloudReaderPeers, theSessionIdentifierGoesInTheQueryOrAsBearerToken)
{
    auto const helper = LmCurlClient::instance()->helper();
    Kz::CloudReader& r = make();
    helper->setSessionID("sess-42", false);
    EXPECT_TRUE(sameAsStream(r.readBytes(fault("size=10"), -1), 10));
    helper->setSessionID("sess-43", true);
    EXPECT_TRUE(sameAsStream(r.readBytes(fault("size=10"), -1), 10));
    helper->setSessionID("", false);
    EXPECT_EQ(peerList(id, "paths"),
              QStringList({QString::fromStdString("/object?id=" + id + "&size=10&s=sess-42"),
                           QString::fromStdString("/object?id=" + id + "&size=10")}));
    EXPECT_EQ(peerList(id, "authorizations"), QStringList({"", "Bearer sess-43"}));
}

TEST_F(CloudReaderPeers, s3ObjectsAreReadWithSignedRangesAndARetryIsSignedAnew)
{
    std::string const port = peerPort("MDX_SIGV4_PORT");
    if (port.empty())
        GTEST_SKIP() << "sigv4_peer.py did not start (python3-botocore missing?)";
    ScopedEnv vars;
    vars.set("MDX_S3_DOMAIN", "localhost:" + port);
    LmCurlClient* client = LmCurlClient::instance();
    auto const auth = client->helper()->awsAuth();
    auto credentials = std::make_shared<LmAwsAuth::Credentials>(LmAwsAuth::Credentials{
        "AKIDSIGV4PLAIN", "sigv4/plain/SECRETKEY", "eu-central-1", "", QDateTime(), QDate(), {}, {}});
    LmAwsAuth::computeSecreteSigV4(credentials, QDateTime::currentDateTimeUtc().date());
    auth->setCredentials(credentials);
    QByteArray body(700000, '\0');
    for (int i = 0; i < body.size(); ++i)
        body[i] = static_cast<char>(mdxpeer::byteAt(static_cast<uint64_t>(i)));
    std::string const object = "s3://mdx-bucket/reader/object.bin";
    std::vector<std::string> headers;
    auto const control = [&](std::string const& path) {
        std::string const answer =
            mdxtest::peerRequest("POST", "https://127.0.0.1:" + port + path).getPayload();
        return QJsonDocument::fromJson(QByteArray::fromStdString(answer)).object();
    };
    control("/__reset");
    ASSERT_EQ(client->put(auth->prepareRequest("PUT", object, headers), headers, body).getResponseCode(),
              200);
    control("/__fail?count=1&status=503");
    Kz::CloudReader& r = make();
    EXPECT_TRUE(sameAsStream(r.readBytes(object, -1), 700000));
    QJsonArray const requests = control("/__stats").value("requests").toArray();
    ASSERT_EQ(requests.size(), 5); // the upload, the refused try, then three ranges
    EXPECT_EQ(requests[1].toObject().value("status").toInt(), 503);
    for (int i = 2; i < 5; ++i)
        EXPECT_EQ(requests[i].toObject().value("status").toInt(), 206) << i; // every signature good
    auth->setCredentials(nullptr);
}

TEST_F(CloudReaderPeers, admissionKeepsTheCapsAndEveryReaderStillGetsItsData)
{
    config.maxRequestsTotal = 2;
    config.maxReadAheadRequests = 1;
    Kz::CloudReader& r = make();
    std::vector<std::future<bool>> readers;
    for (int t = 0; t < 3; ++t)
        readers.push_back(std::async(std::launch::async, [&r] {
            return sameAsStream(r.readBytes(nginx("medium.bin"), -1), kMedium);
        }));
    for (auto& result : readers) {
        ASSERT_EQ(result.wait_for(std::chrono::seconds(60)), std::future_status::ready);
        EXPECT_TRUE(result.get());
    }
    EXPECT_LE(r.statistics().maxConcurrentRequests, 2u);
}

TEST_F(CloudReaderPeers, fourReadersStayWithinTheMemoryLimitPlusOneChunkEach)
{
    config.maxMemory = 1024 * kKiB;
    config.memoryPagesInPool = 16;
    Kz::CloudReader& r = make();
    long long const part = 16 * 1024 * kKiB; // large.bin is 64 MiB
    std::vector<std::future<bool>> readers;
    for (int t = 0; t < 4; ++t)
        readers.push_back(std::async(std::launch::async, [&r, t, part] {
            auto file = r.openFileRange(nginx("large.bin"), t * part, (t + 1) * part - 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(20 * t)); // readers at different speeds
            return sameAsStream(readAll(*file, 65536), part, t * part);
        }));
    for (auto& result : readers) {
        ASSERT_EQ(result.wait_for(std::chrono::seconds(120)), std::future_status::ready);
        EXPECT_TRUE(result.get());
    }
    uint64_t const peak = r.statistics().maxMemoryUsage;
    EXPECT_LE(peak, static_cast<uint64_t>(config.maxMemory + 4 * config.chunkSize)) << peak;
    EXPECT_GT(r.statistics().noMemoryEventCount, 0) << "read-ahead met the limit";
}

TEST_F(CloudReaderPeers, idleConnectionsAgeOutWhileReplacingTheMultiHandleClosesNone)
{
    // What libcurl does: connections live in the share, so a transfer on a second multi
    // handle reuses the connection of the first, destroyed one.
    id = "share";
    void* share = LmCurlClient::instance()->helper()->share();
    for (int i = 0; i < 2; ++i) {
        CURLM* multi = curl_multi_init();
        CURL* easy = curl_easy_init();
        std::string const url = fault("size=10");
        ASSERT_EQ(curl_easy_setopt(easy, CURLOPT_SHARE, share), CURLE_OK);
        ASSERT_EQ(curl_easy_setopt(easy, CURLOPT_URL, url.c_str()), CURLE_OK);
        ASSERT_EQ(curl_easy_setopt(
                      easy, CURLOPT_WRITEFUNCTION, +[](char*, size_t s, size_t n, void*) { return s * n; }),
                  CURLE_OK);
        ASSERT_EQ(curl_multi_add_handle(multi, easy), CURLM_OK);
        for (int running = 1; running > 0;) {
            ASSERT_EQ(curl_multi_perform(multi, &running), CURLM_OK);
            ASSERT_EQ(curl_multi_poll(multi, nullptr, 0, 100, nullptr), CURLM_OK);
        }
        ASSERT_EQ(curl_multi_remove_handle(multi, easy), CURLM_OK);
        curl_easy_cleanup(easy);
        ASSERT_EQ(curl_multi_cleanup(multi), CURLM_OK);
    }
    QStringList const ports = peerList("share", "ports");
    ASSERT_EQ(ports.size(), 2);
    EXPECT_EQ(ports[0], ports[1]);

    // The reader: within ConnectionMaxAgeSec the connection is reused; after it, a new one.
    config.connectionMaxAgeSec = 1;
    Kz::CloudReader& r = make();
    id = "age";
    for (int pause : {0, 2200}) {
        std::this_thread::sleep_for(std::chrono::milliseconds(pause));
        EXPECT_TRUE(sameAsStream(r.readBytes(fault("size=10"), -1), 10));
        EXPECT_TRUE(sameAsStream(r.readBytes(fault("size=10"), -1), 10));
    }
    QStringList const aged = peerList("age", "ports");
    ASSERT_EQ(aged.size(), 4);
    EXPECT_EQ(aged[0], aged[1]);
    EXPECT_NE(aged[1], aged[2]);
    EXPECT_EQ(aged[2], aged[3]);
    EXPECT_GE(r.d().multiReplacements.load(), 1);
}

// A container that records what the reader asks of it.
class FakeContainer : public Kz::Container
{
public:
    FakeContainer(Kz::CloudReader& reader, Clock::time_point access)
        : mReader(reader)
        , mAccess(access)
    {
    }
    std::shared_ptr<Kz::File> open(char const* member, LmSessionContextID context) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mContexts.push_back(context);
        members.push_back(member);
        // With its own mutex held, as a container's first opening does, it reaches the reader's.
        return mReader.openFileRange(nginx("small.bin"), 0, 9);
    }
    std::shared_ptr<Kz::File> openRange(char const*, long long, long long) override { return nullptr; }
    long long fileLength(char const*) override { return 42; }
    bool removeContext(LmSessionContextID context) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mContexts.erase(std::remove(mContexts.begin(), mContexts.end(), context), mContexts.end());
        return mContexts.empty();
    }
    Clock::time_point lastAccess() const override { return mAccess.load(); }

    std::vector<std::string> members;

private:
    Kz::CloudReader& mReader;
    std::atomic<Clock::time_point> mAccess;
    std::mutex mMutex;
    std::vector<LmSessionContextID> mContexts;
};

TEST_F(CloudReaderPeers, containersGoBySessionOrAgeWithoutDeadlockingTheReader)
{
    config.containerFileMaxAgeSec = 1;
    Kz::CloudReader& r = make();
    std::atomic<int> made{0};
    std::atomic<bool> old{false};
    r.setContainerFactory(
        [&](Kz::CloudReader& owner, std::string const& name) -> std::shared_ptr<Kz::Container> {
            EXPECT_EQ(name.substr(name.size() - 3), ".kz");
            ++made;
            return std::make_shared<FakeContainer>(owner, old ? Clock::now() - std::chrono::seconds(5)
                                                              : Clock::now());
        });
    EXPECT_EQ(r.fileLength("http://h/a.kz/m1"), 42);
    EXPECT_NE(r.openFile("http://h/a.kz/dir/m2", 7), nullptr);
    EXPECT_EQ(made, 1);
    r.releaseMemory(8); // another session: a.kz is still held by session 7
    EXPECT_EQ(r.fileLength("http://h/a.kz/m1"), 42);
    EXPECT_EQ(made, 1);
    r.releaseMemory(7);
    EXPECT_EQ(r.fileLength("http://h/a.kz/m1"), 42);
    EXPECT_EQ(made, 2);

    // Many openers hold their container's mutex while they reach the reader's; releaseMemory
    // and the reader thread's expiry run at the same time. Nothing may hang.
    old = true;
    auto const work = std::async(std::launch::async, [&r] {
        for (int i = 0; i < 50; ++i) {
            auto file = r.openFile("http://h/c" + std::to_string(i % 5) + ".kz/m", i);
            if (file)
                readAll(*file);
            r.releaseMemory(i % 3 == 0 ? -1 : i);
        }
    });
    ASSERT_EQ(work.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    // The idle reader thread drops containers older than ContainerFileMaxAgeSec.
    int const before = made;
    EXPECT_EQ(r.fileLength("http://h/old.kz/m"), 42);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(r.fileLength("http://h/old.kz/m"), 42);
    EXPECT_EQ(made, before + 2) << "expired while the reader was idle";
    EXPECT_EQ(r.openFile("http://h/none.kz", -1)->state(), Kz::File::FILE_BAD) << "no member: a plain object";
}

// A container our writer made, in nginx's folder: member names and bytes. Sizes cross the
// 16 KiB pages and the 256 KiB chunks, and one member is empty.
struct Container
{
    std::string path; // on disk; nginx serves it as kz/<name>
    std::vector<std::pair<std::string, QByteArray>> members;
};

Container writeContainer(char const* name)
{
    Container made;
    QString const folder = QString::fromStdString(peerPort("MDX_PEER_DATA")) + "/kz";
    QDir().mkpath(folder + "/in");
    QRandomGenerator random(7);
    std::vector<std::pair<QString, QByteArray>> files;
    for (int size : {1000, 0, 300000, 16384, 1, 70000, 5000, 600000, 17, 40000}) {
        QByteArray bytes(size, '\0');
        for (char& c : bytes)
            c = static_cast<char>(random.bounded(256));
        files.emplace_back(QString("m%1.dcm").arg(files.size()), bytes);
        made.members.emplace_back(files.back().first.toStdString(), bytes);
    }
    made.path = (folder + "/" + name).toStdString();
    std::vector<QString> const inputs = mdxtest::writeFiles(folder + "/in", files);
    EXPECT_TRUE(!inputs.empty() && Kz::Writer().write(QString::fromStdString(made.path), inputs));
    return made;
}

TEST_F(CloudReaderPeers, containerMembersOverHttpAndOnDiskAreByteExactAndAMissingMemberIsNone)
{
    Container const c = writeContainer("members.kz");
    Kz::CloudReader& r = make();
    for (std::string const& container : {nginx("kz/members.kz"), nginx("kz/members.kz", true), c.path}) {
        for (auto const& [name, bytes] : c.members) {
            std::shared_ptr<Kz::File> file = r.openFile(container + "/" + name, 5);
            ASSERT_NE(file, nullptr) << container << "/" << name;
            EXPECT_EQ(file->length(), bytes.size());
            EXPECT_EQ(readAll(*file, 7001), bytes) << container << "/" << name;
        }
        EXPECT_EQ(r.fileLength(container + "/m7.dcm"), 600000);
        auto range = r.openFileRange(container + "/m7.dcm", 299990, 300009);
        ASSERT_NE(range, nullptr);
        EXPECT_EQ(readAll(*range), c.members[7].second.mid(299990, 20));
        EXPECT_EQ(r.openFile(container + "/none.dcm", 5), nullptr);
        EXPECT_EQ(r.fileLength(container + "/none.dcm"), -1);
    }
    EXPECT_EQ(r.statistics().totalNumContainerFiles.load(), 3);
    EXPECT_EQ(r.statistics().totalNumFilesInContainer.load(), 33);
    EXPECT_EQ(r.statistics().failedRequests.load(), 0);
    r.releaseMemory(5); // the session's containers go; opening again makes a new one
    EXPECT_NE(r.openFile(c.path + "/m0.dcm", -1), nullptr);
    EXPECT_EQ(r.statistics().totalNumContainerFiles.load(), 4);
}

TEST_F(CloudReaderPeers, aBadOrTruncatedRemoteTableGivesNoMemberAndItsReason)
{
    Container const c = writeContainer("good.kz");
    QFile good(QString::fromStdString(c.path));
    ASSERT_TRUE(good.open(QIODevice::ReadOnly));
    QByteArray const bytes = good.readAll();
    struct Case
    {
        char const* name;
        QByteArray bytes;
        char const* reason;
    } const cases[] = {
        {"truncated.kz", bytes.left(80), "Invalid offset table"},
        {"missing.kz", QByteArray(), "unrecoverable error 404"},
    };
    Kz::CloudReader& r = make();
    for (Case const& bad : cases) {
        if (!bad.bytes.isEmpty()) {
            QFile file(QString::fromStdString(peerPort("MDX_PEER_DATA")) + "/kz/" + bad.name);
            ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bad.bytes) == bad.bytes.size());
        }
        LogCapture log;
        std::string const url = nginx("kz/") + bad.name;
        EXPECT_EQ(r.openFile(url + "/m0.dcm", -1), nullptr) << bad.name;
        EXPECT_EQ(r.openFile(url + "/m1.dcm", -1), nullptr) << bad.name;
        EXPECT_EQ(log.count(3, bad.reason), 1) << bad.name << ": once, at the first access";
    }
}

// Readers on several threads open members of one container at once: one table read, one
// controller, every member byte-exact. (Also run under ThreadSanitizer.)
TEST_F(CloudReaderPeers, concurrentOpensOfOneContainerShareItsTableAndController)
{
    Container const c = writeContainer("shared.kz");
    Kz::CloudReader& r = make();
    std::string const url = nginx("kz/shared.kz");
    std::vector<std::shared_ptr<Kz::FileController>> controllers(6);
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (size_t t = 0; t < controllers.size(); ++t)
        threads.emplace_back([&, t] {
            for (size_t i = 0; i < c.members.size(); ++i) {
                auto const& [name, bytes] = c.members[(i + t) % c.members.size()];
                std::shared_ptr<Kz::File> file = r.openFile(url + "/" + name, static_cast<int>(t));
                if (!file || readAll(*file, 4096 + static_cast<long long>(t)) != bytes)
                    ++wrong;
                else
                    controllers[t] = file->controller();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(r.statistics().totalNumContainerFiles.load(), 1);
    for (auto const& controller : controllers)
        EXPECT_EQ(controller, controllers[0]);
}

TEST_F(CloudReaderPeers, theReaderThreadIsJoinedPromptlyWithTransfersInFlight)
{
    Kz::CloudReader& r = make();
    auto file = r.openFileRange(fault("size=2000000&stall_after=100000&stall=20"), 0, 1999999);
    char buffer[1000];
    EXPECT_EQ(file->read(buffer, sizeof buffer), 1000);
    file.reset();
    Clock::time_point const began = Clock::now();
    reader.reset();
    EXPECT_LT(Clock::now() - began, std::chrono::seconds(2));
}

// Labelled slow: the policy's own waits, once.
TEST_F(CloudReaderPeers, RealTimeRetryWaitsForThePolicysBackoff)
{
    reader = std::make_unique<Kz::CloudReader>(config);
    Clock::time_point const began = Clock::now();
    EXPECT_TRUE(sameAsStream(reader->readBytes(fault("status=503&times=1&size=1000"), -1), 1000));
    EXPECT_GE(Clock::now() - began, std::chrono::milliseconds(1000));
    EXPECT_LT(Clock::now() - began, std::chrono::milliseconds(3500));
}

} // namespace
