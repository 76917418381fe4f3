// Pages of the cloud reader under a memory limit: a stock of free pages is
// kept for reuse and given back to the system slowly (purge). Every
// operation holds the pool's mutex, a leaf in the reader's lock order.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/cloudreader/MemoryPage.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace Kz {

class Config;
class MemoryPool;
class Statistics;

// Gives a page back to its pool when its last std::shared_ptr goes.
struct MDX_EXPORT MemoryPageDeleter
{
    MemoryPool* pool;
    void operator()(MemoryPage* page) const;
};

class MDX_EXPORT MemoryPool
{
public:
    using Clock = std::chrono::steady_clock;

    MemoryPool(Config* config, Statistics* statistics);
    ~MemoryPool();
    MemoryPool(MemoryPool const&) = delete;
    MemoryPool& operator=(MemoryPool const&) = delete;

    // A page; force allows going over the limit. Null when refused.
    std::shared_ptr<MemoryPage> acquire(bool force);
    void release(MemoryPage* page);
    // Gives back what stood unused for a whole period.
    void purge();

    int64_t allocatedBytes() const { return mAllocatedBytes.load(); }
    int64_t usedBytes() const { return mUsedBytes.load(); }
    size_t freePages() const;

    // Called after a page came back, outside the pool's mutex (the reader
    // wakes its paused transfers with it). Set before the pool is shared.
    void setReleaseListener(std::function<void()> listener) { mReleaseListener = std::move(listener); }

    // For tests: the clock of the purge period and of the exhaustion message.
    void setClock(std::function<Clock::time_point()> clock);

private:
    Clock::time_point now() const;

    Config* mConfig;
    Statistics* mStatistics;
    std::atomic<int64_t> mAllocatedBytes{0};
    std::atomic<int64_t> mUsedBytes{0};
    Clock::time_point mNextExhaustedLog{};
    Clock::time_point mNextPurge{};
    mutable std::mutex mMutex;
    std::vector<std::unique_ptr<MemoryPage>> mFreePages;
    int64_t mMinFreePages = 0;
    int64_t mAcquireCount = 0;
    std::function<Clock::time_point()> mClock;
    std::function<void()> mReleaseListener;
};

} // namespace Kz
