// One reader's view of a remote object: a position, a range of the object
// and the page in use. Used by one thread at a time; reading inside a page
// takes no lock, only crossing a page or reaching the filled end does.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McMultiPartReader.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace Kz {

class FileController;
class MemoryPage;

class MDX_EXPORT File
{
public:
    enum State
    {
        FILE_OPEN = 0,
        FILE_CLOSED = 1,
        FILE_BAD = 2
    };

    File(std::shared_ptr<FileController> const& controller, std::string const& url, long long start,
         long long length);
    virtual ~File();
    File(File const&) = delete;
    File& operator=(File const&) = delete;

    // Bytes read: 0 at the end, negative on failure.
    long long read(char* buffer, long long size);
    // True if all bytes came.
    bool safeRead(char* buffer, long long size);
    // The next byte without moving, or -1.
    int peek();
    bool close();

    int state() const { return mState; }
    // Bytes of this file, -1 while unknown. Of a multipart body only the
    // raw length is ever known, never that of the parts: -1.
    long long length() const;
    void setLength(long long length) { mLength = length; }
    long long position() const { return mPosition; }
    long long start() const { return mStart; }
    std::string const& url() const { return mUrl; }
    std::shared_ptr<FileController> const& controller() const { return mController; }

private:
    friend class FileController;

    long long lowLevelRead(char* buffer, long long size);
    long long readFromActivePage(char* buffer, long long n);
    // Sleeps on the condition for at most 500 ms: callers test again.
    void wait(std::unique_lock<std::mutex>& lock);
    // Gets the page at the position into activePage; false makes the file bad.
    bool activatePage();

    std::shared_ptr<FileController> mController;
    std::string mUrl;
    int mState = FILE_OPEN;
    long long mStart;
    long long mLength;
    long long mPosition = 0;
    std::condition_variable mCondition;
    McMultiPartReader mMultiPartReader;
    std::shared_ptr<MemoryPage> mActivePage;
    uint32_t mPageOffset = 0;
    uint32_t mPageLimit = 0;
};

} // namespace Kz
