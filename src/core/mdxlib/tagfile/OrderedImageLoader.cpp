#include <mdxlib/tagfile/OrderedImageLoader.h>

#include <mdxlib/tags/TagMap.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace Mdx {

namespace {

// Images parsed ahead of the consumer, per worker: enough to keep the
// workers busy while consume is slow for a moment, few enough that a
// 100,000-file input never holds more than a few hundred nodes.
constexpr int kWindowPerJob = 32;

struct Loaded
{
    std::unique_ptr<TagMap> image;
    TagFile::AddResult result = TagFile::AddResult::Unreadable;
};

// loadImage opens regular files only, so a FIFO among the paths cannot
// block a worker.
Loaded loadOne(QByteArray const& path)
{
    Loaded loaded;
    loaded.image.reset(TagFile::loadImage(path.constData(), &loaded.result));
    return loaded;
}

// The shared state of one load: workers claim indexes below the window's
// end and fill their slots; the consumer waits for the next slot in order.
class Pipeline
{
public:
    Pipeline(std::vector<QByteArray> const& paths, int window)
        : mPaths(paths)
        , mWindow(window)
        , mSlots(static_cast<size_t>(window))
    {
    }

    void work()
    {
        for (;;) {
            int index = 0;
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mRoom.wait(lock, [&] { return mStopped || mNextClaim < mConsumed + mWindow; });
                if (mStopped || mNextClaim >= static_cast<int>(mPaths.size()))
                    return;
                index = mNextClaim++;
            }
            Loaded loaded = loadOne(mPaths[static_cast<size_t>(index)]);
            {
                std::lock_guard<std::mutex> lock(mMutex);
                Slot& slot = mSlots[static_cast<size_t>(index % mWindow)];
                slot.loaded = std::move(loaded);
                slot.ready = true;
            }
            mDone.notify_all();
        }
    }

    // The result for index, which must be the next in order.
    Loaded take(int index)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        Slot& slot = mSlots[static_cast<size_t>(index % mWindow)];
        mDone.wait(lock, [&] { return slot.ready; });
        Loaded loaded = std::move(slot.loaded);
        slot.ready = false;
        ++mConsumed;
        lock.unlock();
        mRoom.notify_all();
        return loaded;
    }

    void stop()
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStopped = true;
        }
        mRoom.notify_all();
    }

private:
    struct Slot
    {
        Loaded loaded;
        bool ready = false;
    };

    std::vector<QByteArray> const& mPaths;
    int const mWindow;
    std::mutex mMutex;
    std::condition_variable mRoom; // a worker may claim another index
    std::condition_variable mDone; // a slot was filled
    std::vector<Slot> mSlots;
    int mNextClaim = 0;
    int mConsumed = 0;
    bool mStopped = false;
};

} // namespace

int defaultLoadJobs()
{
    unsigned const cores = std::thread::hardware_concurrency();
    return cores == 0 ? 1 : static_cast<int>(std::min(cores, 64u));
}

void loadImagesInOrder(
    std::vector<QByteArray> const& paths, int jobs,
    std::function<bool(int index, std::unique_ptr<TagMap> image, TagFile::AddResult result)> const& consume)
{
    int const count = static_cast<int>(paths.size());
    jobs = std::min(jobs, count);
    if (jobs <= 1) {
        for (int i = 0; i < count; ++i) {
            Loaded loaded = loadOne(paths[static_cast<size_t>(i)]);
            if (!consume(i, std::move(loaded.image), loaded.result))
                return;
        }
        return;
    }

    Pipeline pipeline(paths, jobs * kWindowPerJob);
    std::vector<std::thread> workers;
    workers.reserve(static_cast<size_t>(jobs));
    for (int i = 0; i < jobs; ++i)
        workers.emplace_back([&pipeline] { pipeline.work(); });
    // The workers are joined on every way out, consume throwing included;
    // images left in the slots are freed with the pipeline.
    struct Join
    {
        Pipeline& pipeline;
        std::vector<std::thread>& workers;
        ~Join()
        {
            pipeline.stop();
            for (std::thread& worker : workers)
                worker.join();
        }
    } const join{pipeline, workers};
    for (int i = 0; i < count; ++i) {
        Loaded loaded = pipeline.take(i);
        if (!consume(i, std::move(loaded.image), loaded.result))
            return;
    }
}

} // namespace Mdx
