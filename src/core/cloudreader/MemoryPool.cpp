#include <mdxlib/cloudreader/MemoryPool.h>

#include <mdxlib/cloudreader/Statistics.h>
#include <mdxlib/platform/McLogFile.h>

#include <sys/mman.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

char const kCategory[] = "Kzip";
constexpr auto kExhaustedLogInterval = std::chrono::milliseconds(100);

long long roundedMB(int64_t bytes)
{
    return std::llround(static_cast<double>(bytes) * (1.0 / (1 << 20)));
}

} // namespace

namespace Kz {

// Only a configured "mmap" maps pages; unset (no cloud-reader.xml) means
// malloc. One mapping per 16 KiB page reaches vm.max_map_count (65,530 on
// Linux by default) once frees leave holes: at the default limit of 2 GB
// that is 131,072 pages. bench_cloudreader's churn run measured it: the
// mappings reached the cap, munmap then failed with ENOMEM (the memory
// stays lost), and the run took 4.6 times as long as with malloc, which
// added one mapping in all.
bool MemoryPage::memAlloc(Config::MemoryAPI api, unsigned int bytes)
{
    size = bytes;
    if (api != Config::MEMORY_API_MMAP) {
        data = static_cast<char*>(std::malloc(bytes));
    } else {
        void* mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_ANON | MAP_PRIVATE, -1, 0);
        data = mapped == MAP_FAILED ? nullptr : static_cast<char*>(mapped);
        if (!data)
            getTheLogInstance()->tracef(3, kCategory, "mmap of %u bytes: %s", bytes, std::strerror(errno));
    }
    return data != nullptr;
}

void MemoryPage::memFree(Config::MemoryAPI api)
{
    if (!data)
        return;
    if (api != Config::MEMORY_API_MMAP) {
        std::free(data);
    } else if (munmap(data, size) != 0) {
        getTheLogInstance()->tracef(3, kCategory, "munmap of %u bytes: %s", size, std::strerror(errno));
    }
    data = nullptr;
}

void MemoryPageDeleter::operator()(MemoryPage* page) const
{
    pool->release(page);
}

MemoryPool::MemoryPool(Config* config, Statistics* statistics)
    : mConfig(config)
    , mStatistics(statistics)
{
}

MemoryPool::~MemoryPool()
{
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto& page : mFreePages)
        page->memFree(mConfig->memoryAPI);
}

void MemoryPool::setClock(std::function<Clock::time_point()> clock)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mClock = std::move(clock);
}

MemoryPool::Clock::time_point MemoryPool::now() const
{
    return mClock ? mClock() : Clock::now();
}

size_t MemoryPool::freePages() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mFreePages.size();
}

std::shared_ptr<MemoryPage> MemoryPool::acquire(bool force)
{
    std::unique_ptr<MemoryPage> page;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mAcquireCount;
        if (!mFreePages.empty()) {
            page = std::move(mFreePages.back());
            mFreePages.pop_back();
            mUsedBytes += page->size;
            mMinFreePages = std::min<int64_t>(mMinFreePages, static_cast<int64_t>(mFreePages.size()));
        } else {
            mMinFreePages = 0;
            unsigned int const size = mConfig->memoryPageSize;
            if (force || mAllocatedBytes.load() + static_cast<int64_t>(size) <= mConfig->maxMemory) {
                page = std::make_unique<MemoryPage>();
                if (page->memAlloc(mConfig->memoryAPI, size)) {
                    mAllocatedBytes += size;
                    mUsedBytes += size;
                } else {
                    page.reset();
                }
            }
            if (!page) {
                mStatistics->addNoMemoryEvent();
                Clock::time_point const t = now();
                if (t >= mNextExhaustedLog) {
                    mNextExhaustedLog = t + kExhaustedLogInterval;
                    getTheLogInstance()->tracef(2, kCategory, "Memory pool exhausted (%d MB allocated)",
                                                static_cast<int>(roundedMB(mAllocatedBytes.load())));
                }
                return nullptr;
            }
        }
    }
    // The deleter gives the page back even if the control block cannot be made.
    return std::shared_ptr<MemoryPage>(page.release(), MemoryPageDeleter{this});
}

void MemoryPool::release(MemoryPage* page)
{
    if (!page)
        return;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mUsedBytes -= page->size;
        if (static_cast<int64_t>(mFreePages.size()) >= mConfig->memoryPagesInPool ||
            page->size != mConfig->memoryPageSize || mAllocatedBytes.load() > mConfig->maxMemory) {
            page->memFree(mConfig->memoryAPI);
            mAllocatedBytes -= page->size;
            delete page;
        } else {
            page->offset = 0;
            page->used = 0;
            mFreePages.emplace_back(page);
        }
    }
    if (mReleaseListener)
        mReleaseListener();
}

void MemoryPool::purge()
{
    if (mConfig->memoryPurgeSec == 0)
        return;
    std::lock_guard<std::mutex> lock(mMutex);
    Clock::time_point const t = now();
    if (t < mNextPurge)
        return;
    int64_t count = mAcquireCount == 0 ? mMinFreePages : (mMinFreePages + 1) / 2;
    size_t const before = mFreePages.size();
    count = std::min<int64_t>(count, static_cast<int64_t>(before));
    for (int64_t i = 0; i < count; ++i) {
        std::unique_ptr<MemoryPage> page = std::move(mFreePages.back());
        mFreePages.pop_back();
        page->memFree(mConfig->memoryAPI);
        mAllocatedBytes -= page->size;
    }
    if (count > 0 && mConfig->verbosity >= 1)
        getTheLogInstance()->tracef(1, kCategory, "Purged %zu of %zu pages in memory pool",
                                    static_cast<size_t>(count), before);
    mAcquireCount = 0;
    mMinFreePages = static_cast<int64_t>(mFreePages.size());
    mNextPurge = t + std::chrono::seconds(mConfig->memoryPurgeSec);
}

} // namespace Kz
