#include <mdxlib/cloudreader/FileController.h>

#include "CloudReaderPrivate.h"

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/cloudreader/MemoryPage.h>
#include <mdxlib/cloudreader/Request.h>
#include <mdxlib/cloudreader/Statistics.h>
#include <mdxlib/platform/McWatch.h>

#include <algorithm>

namespace Kz {

bool FileController::ByOffset::operator()(std::shared_ptr<MemoryPage> const& a,
                                          std::shared_ptr<MemoryPage> const& b) const
{
    return a->offset < b->offset;
}

bool FileController::ByOffset::operator()(std::shared_ptr<MemoryPage> const& a, long long b) const
{
    return a->offset < b;
}

bool FileController::ByOffset::operator()(long long a, std::shared_ptr<MemoryPage> const& b) const
{
    return a < b->offset;
}

FileController::FileController(CloudReader& reader, std::string const& url, long long startOffset)
    : mReader(reader)
    , mUrl(url)
    , mChunkSize(reader.config().chunkSize)
    , mFirstChunk(static_cast<int>(startOffset / mChunkSize))
{
    mChunks.resize(static_cast<size_t>(mFirstChunk) + 1);
}

bool FileController::isContainerFile() const
{
    return mUrl.size() >= 4 && mUrl.compare(mUrl.size() - 3, 3, ".kz") == 0;
}

void FileController::start()
{
    std::lock_guard<std::mutex> lock(mMutex);
    requestChunk(mFirstChunk, 0, false);
}

void FileController::stop()
{
    mStopped = true;
}

int FileController::chunkOf(long long p) const
{
    int const chunk = static_cast<int>(p / mChunkSize);
    if (mLength.load() > 0)
        return chunk;
    // While the length is unknown only the chunks up to the start are known.
    // A range that begins far into an object asks for its own first chunk:
    // chunk 0 (and read-ahead behind it) would be fetched for nobody, and its
    // pages would stay until the file is closed, beyond the memory limit.
    return std::min(chunk, static_cast<int>(mChunks.size()) - 1);
}

bool FileController::requestChunk(int chunk, int priority, bool force)
{
    int const n = static_cast<int>(mChunks.size());
    if (chunk < 0 || chunk >= n)
        return false;
    if (mChunks[chunk].state == CHUNK_FAILED)
        return false;
    if (force && mChunks[chunk].state == CHUNK_DONE)
        mChunks[chunk].state = CHUNK_NONE;
    int const last = std::min(chunk + mReader.config().numRequestsPerFile, n);
    std::vector<std::shared_ptr<Request>> collected;
    bool nowWanted = false;
    for (int i = chunk; i < last; ++i) {
        int const level = priority + (i - chunk);
        ChunkInfo& info = mChunks[i];
        if (info.state != CHUNK_NONE) {
            if (info.request)
                nowWanted |= info.request->mPriority.exchange(level) > 0 && level == 0;
            continue;
        }
        long long const first = static_cast<long long>(i) * mChunkSize;
        auto request = std::make_shared<Request>(shared_from_this(), first, first + mChunkSize - 1, i);
        request->mPriority = level;
        info.request = request;
        info.state = CHUNK_REQUESTED;
        collected.push_back(std::move(request));
    }
    if (!collected.empty())
        mReader.addRequests(collected);
    else if (nowWanted)
        mReader.d().wake(); // the scheduler looks again now, not at its next round
    return true;
}

void FileController::addData(long long offset, long long size,
                             std::vector<std::shared_ptr<MemoryPage>> const& newPages)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mPages.insert(newPages.begin(), newPages.end());
    for (File* file : mWaiters) {
        long long const p = file->mStart + file->mPosition;
        if (p >= offset && p < offset + size)
            file->mCondition.notify_all();
    }
}

void FileController::requestFinished(Request& request, bool ok)
{
    std::lock_guard<std::mutex> lock(mMutex);
    // No length came with the answer: the object ends where the data did
    // (for chunk 0, the received bytes; for the first chunk of a range, the
    // same counted from the chunk's start).
    if (mLength.load() < 0 && ok && request.mChunk == static_cast<int>(mChunks.size()) - 1) {
        long long const length = request.mStart + request.mReceived;
        mLength = length;
        mChunks.resize(static_cast<size_t>(length > 0 ? (length - 1) / mChunkSize + 1 : 1));
    }
    if (request.mChunk < static_cast<int>(mChunks.size())) {
        ChunkInfo& info = mChunks[request.mChunk];
        if (info.request.get() == &request || info.state == CHUNK_REQUESTED) {
            info.state = ok ? CHUNK_DONE : CHUNK_FAILED;
            info.request.reset();
        }
    }
    // Every waiter looks again: one whose position lies outside the chunk may
    // wait for this chunk's verdict too (an object of unknown length).
    for (File* file : mWaiters)
        file->mCondition.notify_all();
}

std::shared_ptr<MemoryPage> FileController::getData(File& file)
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (mStopped)
        return nullptr;
    long long const p = file.mStart + file.mPosition;
    std::shared_ptr<MemoryPage> page;
    for (;;) {
        auto it = mPages.upper_bound(p); // the first page that begins behind p
        if (it != mPages.begin()) {
            --it;
            if ((*it)->offset <= p && (*it)->offset + (*it)->used.load() > p) {
                page = *it;
                break;
            }
        }
        if (!requestChunk(chunkOf(p), 0, true))
            return nullptr;
        mWaiters.insert(&file);
        file.wait(lock);
        mWaiters.erase(&file);
        if (mStopped)
            return nullptr;
    }
    // Going on to a new page nudges read-ahead forward from where it ends, and
    // refreshes the levels of the requests in flight.
    if (mLength.load() > 0)
        requestChunk(static_cast<int>((page->offset + page->size) / mChunkSize), 0, false);
    return page;
}

bool FileController::waitForData(File& file, MemoryPage& page)
{
    std::unique_lock<std::mutex> lock(mMutex);
    long long const p = file.mStart + file.mPosition;
    McWatch watch;
    while (!mStopped) {
        if (page.offset <= p && page.offset + page.used.load() > p) {
            mReader.statistics().addTimeWaited(static_cast<int>(watch.elapsedMsec()));
            return true;
        }
        if (mChunks.size() == 1 && mChunks[0].state == CHUNK_DONE)
            return true; // an object of unknown length has ended
        // The length may become known only as the last byte arrives (a
        // chunked answer without Content-Length); a reader that has taken
        // every byte by then waits at the end, for data that never comes.
        long long const length = mLength.load();
        if (length >= 0 && p >= length)
            return true;
        int const c = chunkOf(p);
        // A finished chunk may still be waited for: a server that ignored a
        // range sends on beyond the chunk, into pages that belong to the
        // next one, which may have finished meanwhile.
        if (c < static_cast<int>(mChunks.size()) && mChunks[c].state == CHUNK_FAILED)
            return false;
        mWaiters.insert(&file);
        file.wait(lock);
        mWaiters.erase(&file);
    }
    return false;
}

void FileController::releaseData(File& file, std::shared_ptr<MemoryPage> const& page)
{
    std::lock_guard<std::mutex> lock(mMutex);
    // A page that begins before this file may still be wanted by the member
    // before it in a container.
    if (file.mStart > page->offset || file.mStart + file.mPosition < page->offset + page->used.load())
        return;
    auto const it = mPages.find(page->offset);
    if (it != mPages.end() && *it == page)
        mPages.erase(it);
}

void FileController::setLength(long long length)
{
    if (length < 0)
        return;
    std::lock_guard<std::mutex> lock(mMutex);
    if (mLength.load() >= 0)
        return;
    mLength = length;
    mChunks.resize(static_cast<size_t>(length > 0 ? (length - 1) / mChunkSize + 1 : 1));
}

int FileController::chunkState(int chunk) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return chunk >= 0 && chunk < static_cast<int>(mChunks.size()) ? mChunks[chunk].state : -1;
}

size_t FileController::pageCount() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mPages.size();
}

} // namespace Kz
