// One HTTP GET of one chunk of one object, on the reader's curl multi handle.
//
// It fills pool pages as data arrives, pauses the transfer when the pool says
// no, and decides what a finished transfer means: success, a retry, or a dead
// chunk. A retry continues where the last attempt stopped, on a new easy
// handle with a fresh URL and authorisation. Runs on the reader thread, but
// for its creation on a reading thread; mPriority is changed by the
// controller at any time and so is an atomic.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/curl/LmCurlHandleFactory.h>
#include <mdxlib/curl/LmCurlRetryPolicy.h>
#include <mdxlib/platform/McWatch.h>

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <vector>

class LmHttpStatus;

namespace Kz {

class FileController;
class MemoryPage;

class MDX_EXPORT Request
{
public:
    Request(std::shared_ptr<FileController> const& controller, long long start, long long end, int chunk);
    virtual ~Request();
    Request(Request const&) = delete;
    Request& operator=(Request const&) = delete;

    // Takes both over and sets up the transfer; false if an option was refused
    // (the status then holds curlError).
    bool setOptions(std::string& url, std::vector<std::string>& headers);
    // True if the request is done, false if it is to be retried.
    bool setFinished(CURLcode code);
    // Ends an attempt that never ran (its set-up failed) as a dead chunk.
    void setFailed(char const* why);
    bool unpause();

    static size_t writeCallback(char* data, size_t size, size_t nmemb, void* request);
    static size_t handleHeaderCallback(char* data, size_t size, size_t nmemb, void* request);

    size_t write(char const* data, size_t size, size_t nmemb);
    size_t handleHeader(char const* buffer, size_t n);
    bool validate();
    bool acquireMemory(unsigned long n);
    void addRangeHeader();
    // The last byte, and "first-last", of the bytes still to come.
    long long rangeLast() const;
    std::string rangeText() const;
    // A file:// URL (a local container): the range goes as CURLOPT_RANGE,
    // and the answer, which has no status line, is described as the 206 a
    // server would give.
    bool isLocalFile() const { return mUrl.compare(0, 7, "file://") == 0; }
    void describeLocalAnswer();
    void curlError(char const* what, CURLcode code);
    void prepareForRetry();

    std::string mUrl;
    std::vector<std::string> mHeaders;
    curl_slist* mHeaderList = nullptr;
    long long mStart;
    long long mEnd;
    long long mReceived = 0;
    long long mSkip = 0;
    LmCurlEasyHandle mHandle;
    std::shared_ptr<FileController> mController;
    std::shared_ptr<LmHttpStatus> mStatus;
    McWatch mWatch;
    bool mInMulti = false;
    unsigned long long mPausedBytes = 0;
    char mErrorBuffer[CURL_ERROR_SIZE];
    int mChunk;
    int mReadAheadLevel = 0;
    std::atomic<int> mPriority{0};
    long long mNextPageOffset;
    std::list<std::shared_ptr<MemoryPage>> mPages;
    LmCurlExponentialBackoffRetryPolicy mRetryPolicy;
    std::chrono::steady_clock::time_point mRetryTime{};
    int mRetries = 0;
    bool mSucceeded = false;

private:
    template <typename T> bool setOption(CURLoption option, T value);
    void clearOption(CURLoption option);
};

} // namespace Kz
