#include <mdxlib/cloudreader/Request.h>

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/FileController.h>
#include <mdxlib/cloudreader/MemoryPool.h>
#include <mdxlib/cloudreader/Statistics.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/curl/LmCurlSettings.h>
#include <mdxlib/curl/LmHttpStatus.h>
#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/platform/McLogFile.h>

#include <algorithm>
#include <cstring>

namespace {

char const kCategory[] = "Kzip";
constexpr long kLowSpeedLimit = 1;
constexpr long kLowSpeedTime = 120;

int socketCallback(void* clientp, curl_socket_t socket, curlsocktype purpose)
{
    return LmCurlSettings::setSocketOptionsCallback(clientp, socket, purpose);
}

bool isSuccess(int32_t code)
{
    return code >= 200 && code < 300;
}

void setText(char* buffer, char const* text)
{
    std::snprintf(buffer, CURL_ERROR_SIZE, "%s", text);
}

} // namespace

namespace Kz {

Request::Request(std::shared_ptr<FileController> const& controller, long long start, long long end, int chunk)
    : mStart(start)
    , mEnd(end)
    , mHandle(controller->reader().handleFactory()->createHandle())
    , mController(controller)
    , mStatus(std::make_shared<LmHttpStatus>())
    , mChunk(chunk)
    , mNextPageOffset(start)
    , mRetryPolicy(LmCurlExponentialBackoffRetryPolicy::forCloudReader())
{
    mErrorBuffer[0] = 0;
}

Request::~Request()
{
    if (mHandle) {
        clearOption(CURLOPT_WRITEDATA);
        clearOption(CURLOPT_WRITEFUNCTION);
        clearOption(CURLOPT_HEADERDATA);
        clearOption(CURLOPT_HEADERFUNCTION);
        clearOption(CURLOPT_SOCKOPTDATA);
        clearOption(CURLOPT_SOCKOPTFUNCTION);
        mController->reader().handleFactory()->cleanupHandle(std::move(mHandle));
    }
    curl_slist_free_all(mHeaderList);
}

template <typename T> bool Request::setOption(CURLoption option, T value)
{
    CURLcode const code = curl_easy_setopt(mHandle.get(), option, value);
    if (code == CURLE_OK)
        return true;
    curlError(("curl_easy_setopt " + lmCurlOptionName(option)).c_str(), code);
    return false;
}

void Request::clearOption(CURLoption option)
{
    CURLcode const code = curl_easy_setopt(mHandle.get(), option, nullptr);
    if (code != CURLE_OK)
        getTheLogInstance()->tracef(3, kCategory, "curl_easy_setopt %s: %s", lmCurlOptionName(option).c_str(),
                                    curl_easy_strerror(code));
}

size_t Request::writeCallback(char* data, size_t size, size_t nmemb, void* request)
{
    return static_cast<Request*>(request)->write(data, size, nmemb);
}

size_t Request::handleHeaderCallback(char* data, size_t size, size_t nmemb, void* request)
{
    return static_cast<Request*>(request)->handleHeader(data, size * nmemb);
}

long long Request::rangeLast() const
{
    if (mStart + mReceived <= mEnd)
        return mEnd;
    // The stored bytes overran the chunk (a server that sent more than
    // asked): stretch by whole chunk lengths, so the range is never empty.
    long long const n = mEnd - mStart + 1;
    return mStart + (mReceived / n + 1) * n - 1;
}

std::string Request::rangeText() const
{
    return std::to_string(mStart + mReceived) + "-" + std::to_string(rangeLast());
}

void Request::addRangeHeader()
{
    if (mEnd < 0)
        return;
    mHeaders.erase(std::remove_if(mHeaders.begin(), mHeaders.end(),
                                  [](std::string const& line) { return line.rfind("Range:", 0) == 0; }),
                   mHeaders.end());
    if (!isLocalFile())
        mHeaders.push_back("Range: bytes=" + rangeText());
}

void Request::describeLocalAnswer()
{
    // curl's file protocol gives the whole file's size as a Content-Length
    // header line and no status: the answer is the range asked for, cut at
    // the end of the file, as a server's 206 would say.
    std::string const* size = mStatus->header("content-length");
    long long const total = size ? std::atoll(size->c_str()) : mController->length();
    long long const first = mStart + mReceived;
    long long last = mEnd < 0 ? total - 1 : rangeLast();
    if (total >= 0)
        last = std::min(last, total - 1);
    mStatus->responseCode = 206;
    mStatus->headers.erase("content-range");
    mStatus->headers.emplace("content-range", "bytes " + std::to_string(first) + "-" + std::to_string(last) +
                                                  "/" + (total >= 0 ? std::to_string(total) : "*"));
}

bool Request::setOptions(std::string& url, std::vector<std::string>& headers)
{
    mUrl = std::move(url);
    mHeaders = std::move(headers);
    addRangeHeader();
    CloudReader& reader = mController->reader();
    std::string const cipherList = LmCurlHelper::sslCipherList();
    bool ok = setOption(CURLOPT_SHARE, reader.helper()->share()) &&
              setOption(CURLOPT_ERRORBUFFER, mErrorBuffer) && setOption(CURLOPT_SSL_VERIFYPEER, 0L) &&
              setOption(CURLOPT_SSL_VERIFYHOST, 0L) && setOption(CURLOPT_URL, mUrl.c_str()) &&
              setOption(CURLOPT_NOSIGNAL, 1L) &&
              setOption(CURLOPT_MAXAGE_CONN, static_cast<long>(reader.config().connectionMaxAgeSec)) &&
              (cipherList.empty() || setOption(CURLOPT_SSL_CIPHER_LIST, cipherList.c_str()));
    curl_slist_free_all(mHeaderList);
    mHeaderList = nullptr;
    for (std::string const& line : mHeaders) {
        curl_slist* list = curl_slist_append(mHeaderList, line.c_str());
        if (!list) {
            curlError("curl_slist_append", CURLE_OUT_OF_MEMORY);
            return false;
        }
        mHeaderList = list;
    }
    if (ok && isLocalFile() && mEnd >= 0)
        ok = setOption(CURLOPT_RANGE, rangeText().c_str()); // copied by curl
    ok = ok && (!mHeaderList || setOption(CURLOPT_HTTPHEADER, mHeaderList)) &&
         setOption(CURLOPT_WRITEDATA, static_cast<void*>(this)) &&
         setOption(CURLOPT_HEADERDATA, static_cast<void*>(this)) &&
         setOption(CURLOPT_SOCKOPTDATA, static_cast<void*>(this)) &&
         setOption(CURLOPT_WRITEFUNCTION, &Request::writeCallback) &&
         setOption(CURLOPT_HEADERFUNCTION, &Request::handleHeaderCallback) &&
         setOption(CURLOPT_SOCKOPTFUNCTION, socketCallback);
    if (ok && LmCurlSettings::get().debug)
        ok = setOption(CURLOPT_VERBOSE, 1L) && setOption(CURLOPT_STDERR, stdout);
    return ok && setOption(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimit) &&
           setOption(CURLOPT_LOW_SPEED_TIME, kLowSpeedTime);
}

size_t Request::handleHeader(char const* buffer, size_t n)
{
    if (mStatus->responseCode == 0 && mHandle) {
        mStatus->timeToFirstHeader = static_cast<int32_t>(mWatch.elapsedMsec());
        long code = 0;
        CURLcode const result = curl_easy_getinfo(mHandle.get(), CURLINFO_RESPONSE_CODE, &code);
        if (result == CURLE_OK)
            mStatus->responseCode = static_cast<int32_t>(code);
        else
            curlError("curl_easy_getinfo CURLINFO_RESPONSE_CODE", result);
    }
    if (n < 3 || buffer[n - 2] != '\r' || buffer[n - 1] != '\n')
        return n;
    std::string const line(buffer, n - 2);
    size_t const colon = line.find(':');
    std::string name = colon == std::string::npos ? line : line.substr(0, colon);
    std::string value =
        colon == std::string::npos || colon + 2 > line.size() ? std::string() : line.substr(colon + 2);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    mStatus->headers.emplace(std::move(name), std::move(value));
    return n;
}

bool Request::validate()
{
    mSkip = mStart - mStatus->from() + mReceived;
    if (mSkip < 0) {
        setText(mErrorBuffer, "unexpected content range");
        mStatus->curlError = true;
        return false;
    }
    // A 206 names the whole length in its Content-Range whatever its body's
    // encoding: taking it here keeps a chunked or multipart answer of a long
    // object from being cut to its first chunk, which is what the length
    // taken from the received bytes at the end of chunk 0 would do.
    if (mStatus->responseCode == 206 && mController->length() < 0) {
        std::string const* range = mStatus->header("content-range");
        size_t const slash = range ? range->find('/') : std::string::npos;
        if (slash != std::string::npos && slash + 1 < range->size() && (*range)[slash + 1] != '*')
            mController->setLength(mStatus->contentLength());
    }
    std::string const* type = mStatus->header("content-type");
    if (type && type->find("multipart/related") != std::string::npos) {
        mController->setMultipart();
        return true;
    }
    std::string const* encoding = mStatus->header("transfer-encoding");
    if (encoding && *encoding == "chunked")
        return true;
    // Without a Content-Length the length stays unknown rather than 0: a
    // body that ends with the connection is not an empty object.
    if (mController->length() < 0 && mStatus->header("content-length"))
        mController->setLength(mStatus->contentLength());
    return true;
}

bool Request::acquireMemory(unsigned long n)
{
    unsigned long room = 0;
    for (auto const& page : mPages)
        room += page->size - page->used;
    // A transfer the reader waits for is never refused for the limit. The
    // priority counts as well as the level of admission: a read-ahead
    // transfer that paused for memory and has since become the one the
    // reader needs would otherwise wait for memory that only the reader can
    // free, forever.
    bool const force = mReadAheadLevel == 0 || mPriority.load() == 0;
    MemoryPool& pool = mController->reader().memoryPool();
    while (room < n) {
        std::shared_ptr<MemoryPage> page = pool.acquire(force);
        if (!page)
            return false;
        page->offset = mNextPageOffset;
        mNextPageOffset += page->size;
        room += page->size;
        mPages.push_back(std::move(page));
    }
    return true;
}

size_t Request::write(char const* data, size_t size, size_t nmemb)
{
    size_t const total = size * nmemb;
    // Nobody reads a stopped object any more: ending the transfer gives its
    // memory and connection back now rather than after the whole chunk.
    if (mController->stopped())
        return 0;
    if (mStatus->bytesReceived == 0 && mStatus->responseCode == 0 && isLocalFile())
        describeLocalAnswer();
    if (!isSuccess(mStatus->responseCode) || mStatus->curlError)
        return total; // the body of an error answer is dropped
    if (mStatus->bytesReceived == 0 && !validate())
        return total;
    // Counted before a pause: curl delivers a paused block again, so it is
    // counted twice here. Only the at-least test of setFinished reads this.
    mStatus->bytesReceived += total;
    // The skip is taken only once the block is stored: a paused block comes
    // again whole, and its skipped bytes must be skipped again.
    size_t skipped = 0;
    if (mSkip > 0) {
        if (mSkip >= static_cast<long long>(total)) {
            mSkip -= static_cast<long long>(total);
            return total;
        }
        skipped = static_cast<size_t>(mSkip);
    }
    size_t const rest = total - skipped;
    if (!acquireMemory(rest)) {
        mPausedBytes = rest;
        return CURL_WRITEFUNC_PAUSE;
    }
    mSkip = 0;
    data += skipped;
    long long const position = mStart + mReceived;
    std::vector<std::shared_ptr<MemoryPage>> newPages;
    size_t left = rest;
    while (left > 0 && !mPages.empty()) {
        std::shared_ptr<MemoryPage> const& page = mPages.front();
        uint32_t const used = page->used.load();
        size_t const n = std::min<size_t>(left, page->size - used);
        if (used == 0)
            newPages.push_back(page);
        std::memcpy(page->data + used, data, n);
        page->used.store(used + static_cast<uint32_t>(n)); // publishes the bytes to readers
        data += n;
        left -= n;
        if (page->used.load() == page->size)
            mPages.pop_front();
    }
    mReceived += static_cast<long long>(rest);
    mController->addData(position, static_cast<long long>(rest), newPages);
    return total;
}

bool Request::unpause()
{
    // A transfer nobody reads any more goes on without memory, only to be
    // ended by its next write.
    if (!mController->stopped() && !acquireMemory(mPausedBytes))
        return false;
    // Cleared before the call: curl delivers the paused block from inside
    // curl_easy_pause, and the write may pause again there. Clearing it after
    // would take a paused transfer for a running one, never to be resumed.
    unsigned long long const paused = mPausedBytes;
    mPausedBytes = 0;
    CURLcode const result = curl_easy_pause(mHandle.get(), CURLPAUSE_CONT);
    if (result != CURLE_OK) {
        mPausedBytes = paused;
        curlError("curl_easy_pause", result);
        return false;
    }
    return true;
}

void Request::curlError(char const* what, CURLcode code)
{
    McLogFile* log = getTheLogInstance();
    if (mErrorBuffer[0])
        log->tracef(3, kCategory, "%s: %s", what, mErrorBuffer);
    else if (code != CURLE_OK)
        log->tracef(3, kCategory, "%s: %s", what, curl_easy_strerror(code));
    else
        log->tracef(3, kCategory, "%s", what);
    mStatus->curlError = true;
}

bool Request::setFinished(CURLcode code)
{
    mInMulti = false;
    bool ok = false;
    CloudReader& reader = mController->reader();
    McLogFile* log = getTheLogInstance();
    std::string const url = lmRedactSecrets(mUrl);
    if (code == CURLE_OK) {
        int64_t const expected = mStatus->expectedBytes();
        // A message already there (a wrong Content-Range) says more than these.
        if (mStatus->bytesReceived == 0) {
            if (!mErrorBuffer[0])
                setText(mErrorBuffer, "no content data received");
            code = CURLE_READ_ERROR;
        } else if (expected >= 0 && mStatus->bytesReceived < static_cast<uint64_t>(expected)) {
            if (!mErrorBuffer[0])
                setText(mErrorBuffer, "incomplete content received");
            code = CURLE_READ_ERROR;
        } else {
            ok = true;
            if (isSuccess(mStatus->responseCode) && !mStatus->curlError) {
                mSucceeded = true;
                if (reader.config().verbosity >= 2)
                    log->tracef(1, kCategory, "Finished %s %s, chunk %d", "GET", url.c_str(), mChunk);
                mController->requestFinished(*this, true);
                return true;
            }
        }
    }
    if (!mController->stopped()) {
        // A local file that can't be read won't be readable a moment later.
        bool const unrecoverable = mStatus->unrecoverable() || isLocalFile();
        if (unrecoverable)
            log->tracef(3, kCategory, "%s %s unrecoverable error %d", "GET", url.c_str(),
                        mStatus->responseCode);
        else if (mStatus->responseCode >= 300)
            log->tracef(3, kCategory, "%s %s transient error %d", "GET", url.c_str(), mStatus->responseCode);
        if (mErrorBuffer[0])
            log->trace(3, kCategory, mErrorBuffer);
        else if (!ok)
            log->trace(3, kCategory, curl_easy_strerror(code));
        mStatus->curlError = code != CURLE_OK;
        if (!unrecoverable) {
            if (!mRetryPolicy.isExhausted()) {
                long long const wait = reader.retryWait(mRetryPolicy.onFailure());
                mRetryTime = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait);
                log->tracef(2, kCategory, "Retrying %s %s in %d msec, chunk %d", "GET", url.c_str(),
                            static_cast<int>(wait), mChunk);
                prepareForRetry();
                return false;
            }
            log->tracef(3, kCategory, "%s %s retry policy exhausted, chunk %d", "GET", url.c_str(), mChunk);
        }
    }
    mController->requestFinished(*this, false);
    return true;
}

void Request::setFailed(char const* why)
{
    mInMulti = false;
    if (!mErrorBuffer[0])
        setText(mErrorBuffer, why);
    mStatus->curlError = true;
    if (!mController->stopped())
        getTheLogInstance()->tracef(3, kCategory, "%s %s: %s", "GET", lmRedactSecrets(mUrl).c_str(),
                                    mErrorBuffer);
    mController->requestFinished(*this, false);
}

void Request::prepareForRetry()
{
    mErrorBuffer[0] = 0;
    mStatus = std::make_shared<LmHttpStatus>();
    // A new handle, not a reset one: no option of the failed attempt stays.
    mHandle = mController->reader().handleFactory()->createHandle();
    curl_slist_free_all(mHeaderList);
    mHeaderList = nullptr;
    ++mRetries;
}

} // namespace Kz
