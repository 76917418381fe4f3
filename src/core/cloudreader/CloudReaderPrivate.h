// The scheduler behind Kz::CloudReader: its configuration, pool, statistics,
// the curl multi handle that only its thread touches, and the queues of
// requests between the reading threads and that thread.
#pragma once

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/Config.h>
#include <mdxlib/cloudreader/MemoryPool.h>
#include <mdxlib/cloudreader/Statistics.h>
#include <mdxlib/curl/LmCurlHandleFactory.h>

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace Kz {

class CloudReaderPrivate
{
public:
    using Clock = std::chrono::steady_clock;

    CloudReaderPrivate(CloudReader* parent, Config const& config);
    ~CloudReaderPrivate();

    void start();
    void run();
    // Final URL, authorisation and transfer options of a request. Never
    // throws: a failure is recorded in the request's status, and the
    // scheduler ends such a request as failed instead of starting it.
    void prepare(std::shared_ptr<Request> const& request);
    void initRequest(std::shared_ptr<Request> const& request, std::string const& url,
                     std::vector<std::string> const& headers);
    void checkPendingRetries();
    void activatePendingRequests();
    // With the mutex held; the containers that go are moved to mDropped, to
    // be destroyed after the mutex is released.
    void releaseExpiredMemory();
    void pruneConnectionCache();
    std::shared_ptr<Container> getContainerFile(std::string const& name);
    // The finish of a transfer taken off the multi handle.
    void finishTransfer(std::shared_ptr<Request> const& request, CURLcode result);

    CloudReader* parent;
    Config config;
    MemoryPool pool;
    std::shared_ptr<LmCurlHandleFactory> handleFactory;
    std::shared_ptr<LmCurlHelper> helper;
    LmCurlMultiHandle multi;
    LmCurlEasyHandle spareHandle;
    Statistics statistics;
    std::atomic<bool> stopRequested{false};
    std::mutex mutex;
    std::thread thread;
    std::vector<std::shared_ptr<Request>> retries;
    std::vector<std::shared_ptr<Request>> pending;
    std::map<void*, std::shared_ptr<Request>> active;
    std::condition_variable condition;
    std::map<std::string, std::shared_ptr<Container>> containers;
    uint64_t activeCount = 0;
    uint64_t activeReadAheadCount = 0;
    Clock::time_point lastActivity{};

    CloudReader::ContainerFactory containerFactory;
    std::function<long long(long long)> retryWait;
    std::vector<std::shared_ptr<Container>> dropped;
    // Transfers paused for memory, and whether memory came back since the
    // reader thread looked: a page given back wakes the thread at once
    // instead of after its 100 ms.
    std::atomic<int> pausedTransfers{0};
    std::atomic<bool> memoryReleased{false};
    void onPageReleased();
    // Wakes the reader thread for a request whose level became 0 while it
    // waited for admission (FileController::requestChunk, with a
    // controller's mutex held, which comes before this one).
    void wake();
    // Multi handles replaced by pruning, for tests.
    std::atomic<int> multiReplacements{0};
};

} // namespace Kz
