// The state of all chunks of one remote object and the pages that arrived.
//
// It asks the scheduler for chunks ahead of the reader (read-ahead levels 0
// and up), and wakes readers when data comes in. Several Kz::Files may share
// one controller: the members of a container are read out of one object so.
// Lock order: this mutex, then the reader's mutex (addRequests), then the
// pool's. Files sleep on their own condition with this mutex.
#pragma once

#include <mdxlib/Export.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace Kz {

class CloudReader;
class File;
class MemoryPage;
class Request;

class MDX_EXPORT FileController : public std::enable_shared_from_this<FileController>
{
public:
    enum ChunkState
    {
        CHUNK_NONE = 0,
        CHUNK_REQUESTED = 1,
        CHUNK_DONE = 2,
        CHUNK_FAILED = 3
    };

    struct ChunkInfo
    {
        int state = CHUNK_NONE;
        std::shared_ptr<Request> request;
    };

    FileController(CloudReader& reader, std::string const& url, long long startOffset);

    bool isContainerFile() const;
    void start();
    void stop();
    // With the mutex held.
    bool requestChunk(int chunk, int priority, bool force);
    void addData(long long offset, long long size, std::vector<std::shared_ptr<MemoryPage>> const& newPages);
    void requestFinished(Request& request, bool ok);
    std::shared_ptr<MemoryPage> getData(File& file);
    bool waitForData(File& file, MemoryPage& page);
    void releaseData(File& file, std::shared_ptr<MemoryPage> const& page);
    void setLength(long long length);

    CloudReader& reader() const { return mReader; }
    std::string const& url() const { return mUrl; }
    long long length() const { return mLength.load(); }
    long long chunkSize() const { return mChunkSize; }
    bool stopped() const { return mStopped.load(); }
    bool multipart() const { return mMultipart.load(); }
    void setMultipart() { mMultipart = true; }

    // For tests and statistics: a chunk's state (-1 outside), pages present.
    int chunkState(int chunk) const;
    size_t pageCount() const;

private:
    struct ByOffset
    {
        using is_transparent = void;
        bool operator()(std::shared_ptr<MemoryPage> const& a, std::shared_ptr<MemoryPage> const& b) const;
        bool operator()(std::shared_ptr<MemoryPage> const& a, long long b) const;
        bool operator()(long long a, std::shared_ptr<MemoryPage> const& b) const;
    };

    // The chunk of position p for the current length.
    int chunkOf(long long p) const;

    CloudReader& mReader;
    std::string mUrl;
    std::atomic<long long> mLength{-1};
    long long mChunkSize;
    std::atomic<bool> mStopped{false};
    std::atomic<bool> mMultipart{false};
    mutable std::mutex mMutex;
    std::set<File*> mWaiters;
    std::set<std::shared_ptr<MemoryPage>, ByOffset> mPages;
    std::vector<ChunkInfo> mChunks;
    int mFirstChunk;
};

} // namespace Kz
