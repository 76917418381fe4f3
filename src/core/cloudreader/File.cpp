#include <mdxlib/cloudreader/File.h>

#include <mdxlib/cloudreader/FileController.h>
#include <mdxlib/cloudreader/MemoryPage.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace Kz {

File::File(std::shared_ptr<FileController> const& controller, std::string const& url, long long start,
           long long length)
    : mController(controller)
    , mUrl(url)
    , mStart(start)
    , mLength(length)
    , mMultiPartReader([this](char* buffer, long long size) { return lowLevelRead(buffer, size); })
{
}

File::~File()
{
    close();
}

long long File::length() const
{
    return mController->multipart() ? -1 : mLength;
}

void File::wait(std::unique_lock<std::mutex>& lock)
{
    mCondition.wait_for(lock, std::chrono::milliseconds(500));
}

long long File::read(char* buffer, long long size)
{
    // Whether the body is multipart is known once the first data came: a
    // first read waits for it, so that a multipart body is never handed out
    // raw.
    if (mPosition == 0 && !mActivePage && mState == FILE_OPEN && peek() < 0 && mState == FILE_BAD)
        return -1;
    if (!mController->multipart())
        return lowLevelRead(buffer, size);
    // The parts end before the raw body does (its epilogue): the end of the
    // parts is the end of the file, or a caller reading until the state
    // changes would read 0 for ever.
    long long const n = mMultiPartReader.read(buffer, size);
    if (n == 0 && mState == FILE_OPEN)
        mState = FILE_CLOSED;
    else if (n < 0)
        mState = FILE_BAD;
    return n;
}

bool File::safeRead(char* buffer, long long size)
{
    long long done = 0;
    while (done < size) {
        long long const n = read(buffer + done, size - done);
        if (n <= 0)
            break;
        done += n;
    }
    return done == size;
}

bool File::activatePage()
{
    mActivePage = mController->getData(*this);
    if (!mActivePage) {
        mState = FILE_BAD;
        return false;
    }
    mPageOffset = mPosition == 0 ? static_cast<uint32_t>(mStart - mActivePage->offset) : 0;
    mPageLimit = mActivePage->used.load();
    return true;
}

long long File::lowLevelRead(char* buffer, long long size)
{
    if (mState == FILE_CLOSED)
        return 0;
    if (mState == FILE_BAD)
        return -1;
    if (!mActivePage && !activatePage())
        return -1;
    if (mPageOffset == mPageLimit) {
        if (!mController->waitForData(*this, *mActivePage)) {
            mState = FILE_BAD;
            return -1;
        }
        mPageLimit = mActivePage->used.load();
    }
    long long const n = std::min<long long>(mPageLimit - mPageOffset, size);
    return readFromActivePage(buffer, n);
}

long long File::readFromActivePage(char* buffer, long long n)
{
    long long length = mLength;
    if (length < 0) {
        length = mController->length();
        if (length > 0)
            mLength = length;
    }
    long long m = n;
    if (length > 0 && mPosition + n >= length) {
        mState = FILE_CLOSED;
        m = length - mPosition;
    }
    if (m > 0)
        std::memcpy(buffer, mActivePage->data + mPageOffset, static_cast<size_t>(m));
    // The page index moves by n: after the end of the file the page isn't read again.
    mPageOffset += static_cast<uint32_t>(n);
    mPosition += m;
    if (mPageOffset == mActivePage->size || mState == FILE_CLOSED) {
        mController->releaseData(*this, mActivePage);
        mActivePage.reset();
    }
    return m;
}

int File::peek()
{
    if (mState != FILE_OPEN)
        return -1;
    if (!mActivePage && !activatePage())
        return -1;
    if (mPageOffset == mPageLimit) {
        // The page is there, but not yet filled up to the position.
        if (!mController->waitForData(*this, *mActivePage)) {
            mState = FILE_BAD;
            return -1;
        }
        mPageLimit = mActivePage->used.load();
        if (mPageOffset == mPageLimit)
            return -1; // an object of unknown length that ended here
    }
    return static_cast<unsigned char>(mActivePage->data[mPageOffset]);
}

bool File::close()
{
    if (mState != FILE_BAD)
        mState = FILE_CLOSED;
    if (!mController->isContainerFile())
        mController->stop();
    return mState == FILE_CLOSED;
}

} // namespace Kz
