// The cloud reader's parts that need no server: configuration from real
// files, the statistics line, the page pool with its limit and purge on an
// injected clock, the range and header rules of a request, the multipart
// decoder, and the fuzz entry functions over mutations of valid inputs.
#include "support/TestSupport.h"

#include "CloudReaderFuzz.h"

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/Config.h>
#include <mdxlib/cloudreader/FileController.h>
#include <mdxlib/cloudreader/MemoryPool.h>
#include <mdxlib/cloudreader/Request.h>
#include <mdxlib/cloudreader/Statistics.h>
#include <mdxlib/curl/LmHttpStatus.h>
#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McMultiPartReader.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cstring>
#include <thread>

namespace {

using mdxtest::LogCapture;
using mdxtest::ScopedEnv;

constexpr int64_t kMB = 1024 * 1024;

// A cloud-reader.xml of the entries, at the place DICOMWEB_PATH names.
struct ConfigFolder
{
    QTemporaryDir dir;
    ScopedEnv vars;
    QString file;
    explicit ConfigFolder(QByteArray const& entries, bool asDicomwebPath = true)
    {
        file = dir.path() + "/exconverter.x64/cloud-reader.xml";
        EXPECT_TRUE(mdxtest::writeFile(file, "<CloudReader>" + entries + "</CloudReader>"));
        vars.unset("MDX_CLOUD_READER_FOLDER");
        if (asDicomwebPath)
            vars.set("DICOMWEB_PATH", QDir::toNativeSeparators(dir.path()).toStdString());
    }
};

QByteArray entry(char const* key, char const* value)
{
    return QByteArray("<Entry key=\"") + key + "\" value=\"" + value + "\"/>";
}

TEST(CloudReaderConfig, withoutDicomwebPathNoFileIsReadAndNoMemoryApiIsChosen)
{
    ScopedEnv vars;
    vars.unset("DICOMWEB_PATH");
    Kz::Config const config;
    EXPECT_EQ(config.memoryAPI, Kz::Config::MEMORY_API_UNSET);
    EXPECT_TRUE(config.configFile.isEmpty());
    EXPECT_EQ(Kz::Config::filePath("C:\\dicomweb"), "C:/dicomweb/exconverter.x64/cloud-reader.xml");
}

TEST(CloudReaderConfig, fileEntriesAreReadAdjustedAndTraced)
{
    LogCapture log;
    ConfigFolder folder(entry("MemoryAPI", "MMAP") + entry("ChunkSizeMB", "3") +
                        entry("MemoryPageSize", "1000000") + entry("MaxMemoryMB", "64") +
                        entry("MemoryPagesInPool", "7") + entry("NumRequestsPerFile", "3") +
                        entry("MaxRequestsTotal", "9") + entry("MaxReadAheadRequests", "4") +
                        entry("ContainerFileMaxAgeSec", "5") + entry("ConnectionMaxAgeSec", "2") +
                        entry("MemoryPurgeSec", "0") + entry("Verbosity", "2") + entry("Bogus", "1") +
                        "<Other key=\"Verbosity\" value=\"9\"/>");
    Kz::Config const config;
    EXPECT_EQ(config.configFile, folder.file);
    EXPECT_EQ(config.memoryAPI, Kz::Config::MEMORY_API_MMAP); // lower-cased first
    EXPECT_EQ(config.chunkSize, 4000000);                     // raised to whole pages
    EXPECT_EQ(config.memoryPageSize, 1000000u);
    EXPECT_EQ(config.maxMemory, 64 * kMB);
    EXPECT_EQ(config.memoryPagesInPool, 7);
    EXPECT_EQ(config.numRequestsPerFile, 3);
    EXPECT_EQ(config.maxRequestsTotal, 9);
    EXPECT_EQ(config.maxReadAheadRequests, 4);
    EXPECT_EQ(config.containerFileMaxAgeSec, 5);
    EXPECT_EQ(config.connectionMaxAgeSec, 2);
    EXPECT_EQ(config.memoryPurgeSec, 0);
    EXPECT_EQ(config.verbosity, 2); // elements other than Entry are skipped
    EXPECT_EQ(log.count(2, "[Kzip] Unknown config parameter 'Bogus' in " + folder.file.toStdString()), 1);
    EXPECT_EQ(log.count(1, "[Kzip] Read config file " + folder.file.toStdString()), 1);
}

TEST(CloudReaderConfig, valuesThatWouldDivideByZeroOverflowOrHangAreTracedAndKept)
{
    // Each: the entry, and the field that must keep its default.
    struct Case
    {
        char const* key;
        char const* value;
    };
    for (Case const& c : {Case{"MemoryPageSize", "0"}, Case{"MemoryPageSize", "garbage"},
                          Case{"MemoryPageSize", "-5"}, Case{"MemoryPageSize", "2147483647"},
                          Case{"ChunkSizeMB", "0"}, Case{"ChunkSizeMB", "x"}, Case{"ChunkSizeMB", "4096"},
                          Case{"NumRequestsPerFile", "0"}, Case{"NumRequestsPerFile", "2147483647"},
                          Case{"MaxRequestsTotal", "0"}, Case{"ConnectionMaxAgeSec", "-1"},
                          Case{"ContainerFileMaxAgeSec", "-1"}, Case{"MemoryPurgeSec", "-3"}}) {
        SCOPED_TRACE(std::string(c.key) + "=" + c.value);
        LogCapture log;
        ConfigFolder folder(entry(c.key, c.value));
        Kz::Config const config;
        Kz::Config const defaults{Kz::Config::DefaultsOnly{}};
        EXPECT_EQ(config.memoryPageSize, defaults.memoryPageSize);
        EXPECT_EQ(config.chunkSize, defaults.chunkSize);
        EXPECT_EQ(config.numRequestsPerFile, defaults.numRequestsPerFile);
        EXPECT_EQ(config.maxRequestsTotal, defaults.maxRequestsTotal);
        EXPECT_EQ(config.connectionMaxAgeSec, defaults.connectionMaxAgeSec);
        EXPECT_EQ(config.containerFileMaxAgeSec, defaults.containerFileMaxAgeSec);
        EXPECT_EQ(config.memoryPurgeSec, defaults.memoryPurgeSec);
        EXPECT_EQ(log.count(2, std::string("of config parameter '") + c.key + "'"), 1);
    }
}

TEST(CloudReaderConfig, memoryApiChangesNeedARestartAndWatchingIsTheFilesChoice)
{
    LogCapture log;
    ConfigFolder folder(entry("MemoryAPI", "mmap") + entry("WatchConfigFile", "1"));
    Kz::Config config;
    EXPECT_EQ(config.memoryAPI, Kz::Config::MEMORY_API_MMAP);
    EXPECT_TRUE(config.watchConfigFile);
    EXPECT_FALSE(config.updateFromFile()); // unchanged file
    ASSERT_TRUE(mdxtest::writeFile(folder.file, "<c>" + entry("MemoryAPI", "malloc") +
                                                    entry("MemoryAPI", "sbrk") +
                                                    entry("WatchConfigFile", "0") + "</c>"));
    QFile touched(folder.file);
    ASSERT_TRUE(touched.open(QIODevice::ReadWrite));
    ASSERT_TRUE(
        touched.setFileTime(QDateTime::currentDateTime().addSecs(5), QFileDevice::FileModificationTime));
    touched.close();
    EXPECT_TRUE(config.updateFromFile());
    EXPECT_EQ(config.memoryAPI, Kz::Config::MEMORY_API_MMAP);
    EXPECT_EQ(log.count(2, "Memory API changed, please restart client"), 1);
    EXPECT_EQ(log.count(2, "Unknown memory API 'sbrk'"), 1);
    EXPECT_FALSE(config.watchConfigFile);
    EXPECT_FALSE(config.updateFromFile());
}

TEST(CloudReaderConfig, enabledTurnsTheLoadersSwitchAtOnceAndBrokenXmlKeepsWhatWasRead)
{
    LogCapture log;
    bool const before = LmDcmFileLoader::cloudReaderEnabled();
    {
        ConfigFolder folder(entry("Verbosity", "3") + entry("Enabled", "false") + "<Entry key=");
        Kz::Config const config;
        EXPECT_FALSE(LmDcmFileLoader::cloudReaderEnabled());
        EXPECT_EQ(config.verbosity, 3);
        EXPECT_EQ(config.memoryAPI, Kz::Config::MEMORY_API_MALLOC);
        EXPECT_EQ(log.count(2, "[Kzip] Error reading config file"), 1);
    }
    ConfigFolder folder(entry("Enabled", "1"));
    Kz::Config const config;
    EXPECT_TRUE(LmDcmFileLoader::cloudReaderEnabled());
    LmDcmFileLoader::setCloudReaderEnabled(before);
}

TEST(CloudReaderStatistics, retriesAreClassedLatenciesKeepTheirExtremesAndTheLineHasItsForm)
{
    Kz::Statistics stats;
    struct Retry
    {
        int n;
        int64_t total, one, two, more;
    };
    for (Retry const& r : {Retry{0, 0, 0, 0, 0}, Retry{1, 1, 1, 0, 0}, Retry{2, 3, 1, 1, 0},
                           Retry{5, 8, 1, 1, 1}, Retry{3, 11, 1, 1, 2}}) {
        stats.addRetries(r.n);
        EXPECT_EQ(stats.totalRetries, r.total) << r.n;
        EXPECT_EQ(stats.requestsWith1Retry, r.one) << r.n;
        EXPECT_EQ(stats.requestsWith2Retries, r.two) << r.n;
        EXPECT_EQ(stats.requestsWith3OrMoreRetries, r.more) << r.n;
    }
    stats.reset();
    // Many threads at once lose nothing.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&stats, t] {
            for (int i = 0; i < 1000; ++i) {
                stats.addBytesRead(1);
                stats.addRequestLatency(t * 1000 + i);
                stats.setCurrentRequests(static_cast<uint64_t>(i));
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(stats.totalRead, 4000);
    EXPECT_EQ(stats.minLatency, 0);
    EXPECT_EQ(stats.maxLatency, 3999);
    EXPECT_EQ(stats.maxConcurrentRequests, 999u);

    stats.reset();
    stats.addBytesRead(3 * kMB + kMB / 2);
    stats.setCurrentMemUsage(5 * kMB - 1);
    stats.addNoMemoryEvent();
    stats.addRequestLatency(7);
    stats.addRequestLatency(9);
    stats.addExmFile();
    stats.addDcmFile();
    stats.addDcmFile();
    stats.addContainerFile();
    stats.addFileInContainer();
    stats.addTimeWaited(4);
    stats.addRetries(2);
    stats.addFailedFile();
    stats.activeTime = 1000;
    EXPECT_EQ(stats.currentStatistics(),
              "Stats: MaxConcurrentRequests=0 TotalRead=4MB MaxMemoryUsage=5MB NoMemoryEventCount=1 "
              "MinLatency=7msec MaxLatency=9msec SumLatency=16msec TotalNumExmFiles=1 TotalNumDcmFiles=2 "
              "TotalNumContainerFiles=1 TotalNumFilesInContainer=1 TotalReadWaitTime=4 MinReadWaitTime=4 "
              "MaxReadWaitTime=4 TotalRetries=2 RequestsWith1Retry=0 RequestsWith2Retries=1 "
              "RequestsWith3OrMoreRetries=0 FailedRequests=1 CloudReaderActiveTime=1000msec "
              "Bandwidth=29.4Mbit/s LoadingTime=0msec");
    LogCapture log;
    stats.logCurrentStatistics();
    EXPECT_EQ(log.count(1, "[Kzip] Stats: MaxConcurrentRequests=0"), 1);
}

// ------------------------------------------------------------ the pool

struct PoolFixture
{
    Kz::Config config{Kz::Config::DefaultsOnly{}};
    Kz::Statistics stats;
    Kz::MemoryPool::Clock::time_point now{std::chrono::hours(1)};
    std::unique_ptr<Kz::MemoryPool> pool;
    PoolFixture(Kz::Config::MemoryAPI api, int pages, int64_t stock = 100)
    {
        config.memoryAPI = api;
        config.memoryPageSize = 4096;
        config.maxMemory = pages * 4096;
        config.memoryPagesInPool = stock;
        config.memoryPurgeSec = 6;
        pool = std::make_unique<Kz::MemoryPool>(&config, &stats);
        pool->setClock([this] { return now; });
    }
};

TEST(CloudReaderPool, theLimitHoldsForReadAheadForcedPagesGoBackAndExhaustionIsTracedAtMostEvery100ms)
{
    for (auto api : {Kz::Config::MEMORY_API_MALLOC, Kz::Config::MEMORY_API_MMAP}) {
        SCOPED_TRACE(api);
        LogCapture log;
        PoolFixture f(api, 2);
        auto a = f.pool->acquire(false);
        auto b = f.pool->acquire(false);
        ASSERT_TRUE(a && b);
        std::memset(a->data, 1, a->size); // real, writable memory
        EXPECT_EQ(f.pool->acquire(false), nullptr);
        EXPECT_EQ(f.pool->acquire(false), nullptr);
        EXPECT_EQ(f.stats.noMemoryEventCount, 2);
        EXPECT_EQ(log.count(2, "[Kzip] Memory pool exhausted (0 MB allocated)"), 1);
        f.now += std::chrono::milliseconds(101);
        EXPECT_EQ(f.pool->acquire(false), nullptr);
        EXPECT_EQ(log.count(2, "Memory pool exhausted"), 2);
        auto forced = f.pool->acquire(true); // a reader waits: over the limit
        ASSERT_TRUE(forced);
        EXPECT_EQ(f.pool->allocatedBytes(), 3 * 4096);
        EXPECT_EQ(f.pool->usedBytes(), 3 * 4096);
        forced.reset(); // above the limit: freed, not kept
        EXPECT_EQ(f.pool->allocatedBytes(), 2 * 4096);
        EXPECT_EQ(f.pool->freePages(), 0u);
        a->used = 5;
        a->offset = 77;
        Kz::MemoryPage* const kept = a.get();
        a.reset(); // kept in the stock, cleared
        EXPECT_EQ(f.pool->freePages(), 1u);
        EXPECT_EQ(f.pool->usedBytes(), 4096);
        auto again = f.pool->acquire(false);
        EXPECT_EQ(again.get(), kept);
        EXPECT_EQ(again->used, 0u);
        EXPECT_EQ(again->offset, 0);
    }
}

int mappings()
{
    QFile maps("/proc/self/maps");
    return maps.open(QIODevice::ReadOnly) ? maps.readAll().count('\n') : -1;
}

TEST(CloudReaderPool, withoutConfigurationPagesComeFromMallocNotOneMappingEach)
{
    PoolFixture f(Kz::Config::MEMORY_API_UNSET, 4000, 0);
    int const before = mappings();
    std::vector<std::shared_ptr<Kz::MemoryPage>> pages;
    for (int i = 0; i < 4000; ++i)
        pages.push_back(f.pool->acquire(false));
    for (size_t i = 0; i < pages.size(); i += 2)
        pages[i].reset(); // holes: with a mapping per page, 2,000 mappings
    EXPECT_LT(mappings() - before, 100);
    PoolFixture mapped(Kz::Config::MEMORY_API_MMAP, 4000, 0);
    std::vector<std::shared_ptr<Kz::MemoryPage>> mappedPages;
    for (int i = 0; i < 1000; ++i)
        mappedPages.push_back(mapped.pool->acquire(false));
    for (size_t i = 0; i < mappedPages.size(); i += 2)
        mappedPages[i].reset();
    EXPECT_GT(mappings() - before, 400) << "the configured mmap maps each page";
}

TEST(CloudReaderPool, purgeFreesAllIdlePagesOrHalfTheLowestStockAfterUse)
{
    PoolFixture f(Kz::Config::MEMORY_API_MALLOC, 100);
    std::vector<std::shared_ptr<Kz::MemoryPage>> pages;
    for (int i = 0; i < 10; ++i)
        pages.push_back(f.pool->acquire(false));
    pages.clear();
    f.pool->purge(); // the first purge sets the period: the stock was 0 at its lowest
    EXPECT_EQ(f.pool->freePages(), 10u);
    f.now += std::chrono::seconds(5);
    f.pool->purge(); // too early
    EXPECT_EQ(f.pool->freePages(), 10u);
    // Used in the period: the stock went down to 7, so ceil(7 / 2) = 4 go.
    for (int i = 0; i < 3; ++i)
        pages.push_back(f.pool->acquire(false));
    pages.clear();
    f.now += std::chrono::seconds(2);
    f.pool->purge();
    EXPECT_EQ(f.pool->freePages(), 6u);
    EXPECT_EQ(f.pool->allocatedBytes(), 6 * 4096);
    // A period without use gives back everything that stayed free.
    f.now += std::chrono::seconds(7);
    f.pool->purge();
    EXPECT_EQ(f.pool->freePages(), 0u);
    EXPECT_EQ(f.pool->allocatedBytes(), 0);
    // A full stock frees what comes back beyond it.
    PoolFixture small(Kz::Config::MEMORY_API_MMAP, 100, 1);
    auto x = small.pool->acquire(false);
    auto y = small.pool->acquire(false);
    x.reset();
    y.reset();
    EXPECT_EQ(small.pool->freePages(), 1u);
    EXPECT_EQ(small.pool->allocatedBytes(), 4096);
}

// ------------------------------------------------------------ a request

struct RequestFixture
{
    Kz::Config config{Kz::Config::DefaultsOnly{}};
    std::unique_ptr<Kz::CloudReader> reader;
    std::shared_ptr<Kz::FileController> controller;
    RequestFixture()
    {
        config.chunkSize = 100;
        config.memoryPageSize = 50;
        reader = std::make_unique<Kz::CloudReader>(config);
        controller = std::make_shared<Kz::FileController>(*reader, "http://127.0.0.1:9/x", 0);
    }
};

TEST(CloudReaderRequest, theRangeGoesOnFromWhatWasReceivedAndIsNeverEmpty)
{
    RequestFixture f;
    struct Case
    {
        long long start, end, received;
        char const* range; // null: none
    };
    for (Case const& c : {Case{0, 99, 0, "Range: bytes=0-99"}, Case{100, 199, 40, "Range: bytes=140-199"},
                          Case{100, 199, 100, "Range: bytes=200-299"},
                          Case{100, 199, 250, "Range: bytes=350-399"}, Case{0, -1, 0, nullptr}}) {
        Kz::Request request(f.controller, c.start, c.end, 0);
        request.mReceived = c.received;
        std::string url = "http://127.0.0.1:9/x";
        std::vector<std::string> headers{"Range: bytes=1-2", "X-Other: 1"};
        EXPECT_TRUE(request.setOptions(url, headers));
        std::vector<std::string> ranges;
        for (auto const& line : request.mHeaders)
            if (line.rfind("Range:", 0) == 0)
                ranges.push_back(line);
        if (c.range) {
            EXPECT_EQ(ranges, std::vector<std::string>{c.range});
        } else {
            EXPECT_EQ(ranges, std::vector<std::string>{"Range: bytes=1-2"}) << "no range of its own";
        }
    }
}

TEST(CloudReaderRequest, headerLinesAreSplitAtTheFirstColonAndLowerCased)
{
    RequestFixture f;
    Kz::Request request(f.controller, 0, 99, 0);
    for (char const* line : {"HTTP/1.1 206 Partial Content\r\n", "Content-Range: bytes 0-9/10\r\n",
                             "X-Odd:value\r\n", "NoColon\r\n", "Bad: no crlf", "\r\n", "Ab\n"})
        EXPECT_EQ(request.handleHeader(line, std::strlen(line)), std::strlen(line));
    auto const& h = request.mStatus->headers;
    EXPECT_EQ(*request.mStatus->header("content-range"), "bytes 0-9/10");
    EXPECT_EQ(*request.mStatus->header("x-odd"), "alue"); // the value starts two bytes behind the colon
    EXPECT_EQ(*request.mStatus->header("nocolon"), "");
    EXPECT_EQ(*request.mStatus->header("http/1.1 206 partial content"), "");
    EXPECT_EQ(h.size(), 4u);
}

// ------------------------------------------------------- multipart bodies

struct MultipartCase
{
    char const* name;
    std::string stream;
    std::string bodies; // what read hands out
    bool ok;            // ends with 0 (else -1)
};

std::string decode(std::string const& stream, size_t piece, long long& last)
{
    size_t at = 0;
    McMultiPartReader reader([&](char* buffer, long long want) -> long long {
        size_t const n = std::min({static_cast<size_t>(want), piece, stream.size() - at});
        std::memcpy(buffer, stream.data() + at, n);
        at += n;
        return static_cast<long long>(n);
    });
    std::string out;
    char buffer[7];
    while ((last = reader.read(buffer, sizeof buffer)) > 0)
        out.append(buffer, static_cast<size_t>(last));
    return out;
}

TEST(CloudReaderMultipart, bodiesOfEveryPartComeOutWhateverTheSplitOfTheStream)
{
    std::string const body(5000, 'x');
    std::vector<MultipartCase> const cases{
        {"one part", "--b1\r\nContent-Type: application/dicom\r\n\r\nDICM\r\n--b1--\r\n", "DICM", true},
        {"preamble and padding", "junk\r\n--b1  \r\nA: 1\r\n\r\nxy\r\n--b1 \r\n\r\nzz\r\n--b1--", "xyzz",
         true},
        {"CR LF in a body", "--b\r\n\r\n\r\n--c\r\n-\r\n--b--\r\n", "\r\n--c\r\n-", true},
        {"a long body", "--bound\r\n\r\n" + body + "\r\n--bound--\r\n", body, true},
        {"cut in a body", "--b\r\n\r\nabcdef", "abcd", false},
        {"cut in the headers", "--b\r\nContent-Type: a", "", false},
        {"no delimiter", "just bytes", "", false},
        {"empty", "", "", false},
    };
    for (auto const& c : cases) {
        for (size_t piece : {size_t(1), size_t(3), size_t(1 << 20)}) {
            SCOPED_TRACE(std::string(c.name) + ", pieces of " + std::to_string(piece));
            long long last = 0;
            std::string const out = decode(c.stream, piece, last);
            if (c.ok) {
                EXPECT_EQ(out, c.bodies);
                EXPECT_EQ(last, 0);
            } else {
                EXPECT_EQ(c.bodies.compare(0, out.size(), out), 0) << "only bytes of the body";
                EXPECT_EQ(last, -1);
            }
        }
    }
}

TEST(CloudReaderFuzzReplay, theParsersHoldOverMutationsOfValidInputs)
{
    std::vector<QByteArray> const seeds{"<c>" + entry("ChunkSizeMB", "3") +
                                            entry("MemoryPageSize", "1000000") + entry("MemoryAPI", "mmap") +
                                            entry("NumRequestsPerFile", "1") + "</c>",
                                        "--b\r\nA: b\r\n\r\nbody\r\n--b\r\n\r\nmore\r\n--b--\r\n"};
    QRandomGenerator random(16);
    for (QByteArray const& seed : seeds) {
        for (int i = 0; i < 3000; ++i) {
            QByteArray input = seed;
            for (int k = random.bounded(1, 6); k > 0; --k) {
                int const at = random.bounded(input.size());
                switch (random.bounded(3)) {
                case 0:
                    input[at] = static_cast<char>(random.bounded(256));
                    break;
                case 1:
                    input.remove(at, random.bounded(1, 8));
                    break;
                default:
                    input.insert(at, QByteArray::number(random.bounded(-3, 100000)));
                }
            }
            auto const* data = reinterpret_cast<std::uint8_t const*>(input.constData());
            MdxFuzz::cloudReaderConfig(data, static_cast<size_t>(input.size()));
            MdxFuzz::multipart(data, static_cast<size_t>(input.size()));
        }
    }
    getTheLogInstance()->setLogLevel(McLogFile::LevelInfo);
}

} // namespace
