// Streaming downloads as std::istream, driven by the reading thread.
//
// There is no background thread: whenever the reader needs bytes, the
// reading thread itself drives libcurl's multi interface. Body bytes go from
// libcurl's callback straight into the reader's buffer; only the overflow of
// the block in hand goes to a spill buffer, and a transfer whose reader is not
// waiting is paused (back-pressure) until the reader comes back. The spill
// buffer is what bounds the memory of a request: 16384 bytes for the first
// request of a stream, whatever its range, so that a viewer with many open
// streams stays flat; a later range may absorb its whole range.
//
// On top of one transfer, a stream whose first ranged request is answered
// with 206 runs further ranges of the same object side by side on the same
// multi handle, so that a large object arrives over several connections
// while it is read front to back. Failures never throw here: they are
// logged, recorded in the request's LmHttpStatus and read as end of data.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/curl/LmCurlHandleFactory.h>
#include <mdxlib/curl/LmHttpStatus.h>
#include <mdxlib/platform/McWatch.h>

#include <QByteArray>

#include <curl/curl.h>

#include <functional>
#include <istream>
#include <list>
#include <map>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

// Frees a header list built with curl_slist_append.
struct LmCurlSlistDeleter
{
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using LmCurlHeaderList = std::unique_ptr<curl_slist, LmCurlSlistDeleter>;

class MDX_EXPORT LmCurlDownloadRequest
{
public:
    // The multi handle that a family of ranged requests shares, with the
    // table from easy handle to request.
    struct MultiMap
    {
        MultiMap(std::shared_ptr<LmCurlHandleFactory> factory, void* share);
        ~MultiMap();

        std::shared_ptr<LmCurlHandleFactory> factory;
        LmCurlMultiHandle multi;
        std::map<void*, LmCurlDownloadRequest*> requests;
        void* share;
    };

    LmCurlDownloadRequest(std::shared_ptr<LmCurlHandleFactory>& factory, void* share);
    explicit LmCurlDownloadRequest(std::shared_ptr<MultiMap>& multi);
    ~LmCurlDownloadRequest();

    LmCurlDownloadRequest(LmCurlDownloadRequest const&) = delete;
    LmCurlDownloadRequest& operator=(LmCurlDownloadRequest const&) = delete;

    // Sets the handle up for the transfer: url, from and to must be set
    // first. Non-empty postData makes a POST, head a HEAD. An option that
    // cannot be set is logged and recorded in the status; such a request is
    // never started and reads as a failure.
    void resetOptions(QByteArray const& postData, std::vector<std::string> headers, bool head);
    void addToMulti();
    void removeFromMulti();

    // Blocks until size bytes arrived, the transfer ended or paused; 0 at
    // the end or on failure.
    unsigned long read(char* buf, unsigned long size);
    // Stops the transfer; no error is recorded for the abort.
    void close();
    // A sibling request for another range of the same object, on the same
    // multi handle, already running.
    std::unique_ptr<LmCurlDownloadRequest> duplicateForRange(unsigned long from, unsigned long to);
    // The same, with spare as the sibling's spill buffer (its memory is kept).
    std::unique_ptr<LmCurlDownloadRequest> duplicateForRange(unsigned long from, unsigned long to,
                                                             QByteArray spare);

    bool hasSpilledBytes() const { return mSpillEnd > mSpillPos; }
    // Bytes the spill buffer can hold: the memory this request keeps.
    int spillCapacity() const { return mSpill.size(); }

    // Called by libcurl.
    size_t write(char const* data, size_t n);
    size_t handleHeader(char const* line, size_t n);

    std::vector<std::string> mHeaders;
    LmCurlHeaderList mHeaderList;
    int64_t mFrom = 0;
    int64_t mTo = -1; // -1: no range
    std::string mUrl;
    QByteArray mPostData;
    bool mIsHead = false;
    LmCurlEasyHandle mHandle;
    std::shared_ptr<MultiMap> mMulti;
    bool mInMulti = false;
    char* mDest = nullptr;
    size_t mDestSize = 0;
    size_t mDestFilled = 0;
    QByteArray mSpill;
    int mSpillPos = 0;
    int mSpillEnd = 0;
    bool mDone = false;
    bool mClosing = false;
    bool mPaused = false;
    std::shared_ptr<LmHttpStatus> mStatus;
    char mErrorBuffer[CURL_ERROR_SIZE] = {};
    McWatch mWatch;

private:
    void addRangeHeader();
    void drainSpillBuffer();
    bool wait(std::function<bool()> const& ready);
    int performWork();
    bool waitForHandles(int& idleRounds);
    void curlError(char const* what, CURLcode easyCode, CURLMcode multiCode);
    template <typename T> bool setOption(CURLoption option, T value);
    void clearOption(CURLoption option) noexcept;
    bool rangeAnswered();

    bool mRangeChecked = false;
};

class MDX_EXPORT LmCurlDownloadStreambuf : public std::streambuf
{
public:
    // Takes ownership of first; maxConcurrent ranges at most run at once.
    LmCurlDownloadStreambuf(LmCurlDownloadRequest* first, int maxConcurrent);
    ~LmCurlDownloadStreambuf() override;

    int64_t contentLength();
    virtual bool isOpen();
    virtual void close();
    // The request being read; decides when the next range starts.
    virtual LmCurlDownloadRequest* request();

    std::shared_ptr<LmHttpStatus> const& status() const { return mStatus; }
    size_t numRequests() const { return mRequests.size(); }

protected:
    std::streamsize xsgetn(char* dest, std::streamsize n) override;
    int_type underflow() override;

private:
    void setEmptyRegion();
    void startMultiGet();
    // read() of the request in hand, going on to the next range when the
    // one in hand ends without a byte.
    unsigned long readSome(char* dest, unsigned long n);

    int mMaxConcurrent;
    uint64_t mChunkSize = 1048576;
    QByteArray mBuffer;
    bool mMultiGetStarted = false;
    std::list<std::unique_ptr<LmCurlDownloadRequest>> mRequests;
    int64_t mContentLength = -1;
    std::shared_ptr<LmHttpStatus> mStatus;
};

class MDX_EXPORT LmCurlDownloadStream : public std::istream
{
public:
    explicit LmCurlDownloadStream(LmCurlDownloadStreambuf* buffer);
    LmCurlDownloadStream(LmCurlDownloadStream&& other) noexcept;
    LmCurlDownloadStream& operator=(LmCurlDownloadStream&& other) noexcept;
    ~LmCurlDownloadStream() override;

    void close();
    bool isOpen() const;
    // The head of the status chain; LmHttpStatus::empty() without a request.
    LmHttpStatus const& httpStatus() const;
    std::shared_ptr<LmHttpStatus> httpStatusPtr() const;
    int64_t contentLength() const;
    LmCurlDownloadStreambuf* streambuf() const { return mBuffer.get(); }

private:
    std::unique_ptr<LmCurlDownloadStreambuf> mBuffer;
};
