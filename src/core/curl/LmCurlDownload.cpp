#include <mdxlib/curl/LmCurlDownload.h>

#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/curl/LmCurlSettings.h>
#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/platform/McLogFile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>

namespace {

char const kCategory[] = "CURL";
// Reading the socket in large blocks saves system calls; libcurl still hands
// the body over in pieces of at most CURL_MAX_WRITE_SIZE.
constexpr long kReceiveBufferSize = 512 * 1024;
// The first request of a stream, ranged or not, keeps no more than this:
// the bound on the memory of every open stream.
constexpr int kFirstSpillSize = 16384;
constexpr int kGetAreaSize = 16384;
constexpr long kLowSpeedLimit = 1;
constexpr long kLowSpeedTime = 120;

size_t writeCallback(char* data, size_t size, size_t count, void* request)
{
    return static_cast<LmCurlDownloadRequest*>(request)->write(data, size * count);
}

size_t headerCallback(char* data, size_t size, size_t count, void* request)
{
    return static_cast<LmCurlDownloadRequest*>(request)->handleHeader(data, size * count);
}

int socketCallback(void* clientp, curl_socket_t socket, curlsocktype purpose)
{
    return LmCurlSettings::setSocketOptionsCallback(clientp, socket, purpose);
}

} // namespace

// ----------------------------------------------------------------- MultiMap

LmCurlDownloadRequest::MultiMap::MultiMap(std::shared_ptr<LmCurlHandleFactory> factoryIn, void* shareIn)
    : factory(std::move(factoryIn))
    , multi(factory->createMultiHandle())
    , share(shareIn)
{
}

LmCurlDownloadRequest::MultiMap::~MultiMap()
{
    factory->cleanupMultiHandle(std::move(multi));
}

// ------------------------------------------------------------------ request

LmCurlDownloadRequest::LmCurlDownloadRequest(std::shared_ptr<LmCurlHandleFactory>& factory, void* share)
    : mHandle(factory->createHandle())
    , mMulti(std::make_shared<MultiMap>(factory, share))
    , mStatus(std::make_shared<LmHttpStatus>())
{
    setOption(CURLOPT_SHARE, share);
}

LmCurlDownloadRequest::LmCurlDownloadRequest(std::shared_ptr<MultiMap>& multi)
    : mHandle(multi->factory->createHandle())
    , mMulti(multi)
    , mStatus(std::make_shared<LmHttpStatus>())
{
    setOption(CURLOPT_SHARE, multi->share);
}

LmCurlDownloadRequest::~LmCurlDownloadRequest()
{
    if (!mDone)
        close();
    // Whatever close achieved, the handle must leave the multi handle
    // before it goes back to the pool.
    if (mInMulti)
        removeFromMulti();
    // The pooled handle must keep no pointer into this object.
    for (CURLoption option :
         {CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, CURLOPT_HEADERDATA, CURLOPT_HEADERFUNCTION,
          CURLOPT_SOCKOPTDATA, CURLOPT_SOCKOPTFUNCTION, CURLOPT_ERRORBUFFER, CURLOPT_HTTPHEADER})
        clearOption(option);
    mMulti->factory->cleanupHandle(std::move(mHandle));
}

// Sets one option of the handle. A failure is this request's failure:
// logged with the option's name and recorded in its status.
template <typename T> bool LmCurlDownloadRequest::setOption(CURLoption option, T value)
{
    CURLcode const code = curl_easy_setopt(mHandle.get(), option, value);
    if (code == CURLE_OK)
        return true;
    curlError(("curl_easy_setopt " + lmCurlOptionName(option)).c_str(), code, CURLM_OK);
    return false;
}

void LmCurlDownloadRequest::clearOption(CURLoption option) noexcept
{
    CURLcode const code = curl_easy_setopt(mHandle.get(), option, nullptr);
    if (code != CURLE_OK)
        getTheLogInstance()->errorf(
            "Got error code while setting curl option. Curl option: %d. Return value: %d",
            static_cast<int>(option), static_cast<int>(code));
}

void LmCurlDownloadRequest::addRangeHeader()
{
    if (mTo < 0)
        return;
    mHeaders.erase(std::remove_if(mHeaders.begin(), mHeaders.end(),
                                  [](std::string const& line) { return line.rfind("Range:", 0) == 0; }),
                   mHeaders.end());
    mHeaders.push_back("Range: bytes=" + std::to_string(mFrom) + "-" + std::to_string(mTo));
}

void LmCurlDownloadRequest::resetOptions(QByteArray const& postData, std::vector<std::string> headers,
                                         bool head)
{
    LmCurlSettings const& settings = LmCurlSettings::get();
    // A later range may absorb its whole range without pausing, so that it
    // runs at full speed while the front is read. (A buffer handed over by
    // the previous range keeps its memory: resize stays within capacity.)
    mSpill.resize(mFrom > 0 ? static_cast<int>(mTo - mFrom + 1) : kFirstSpillSize);
    mSpillPos = mSpillEnd = 0;
    mHeaders = std::move(headers);
    addRangeHeader();
    mPostData = postData;

    bool ok = setOption(CURLOPT_ERRORBUFFER, mErrorBuffer) && setOption(CURLOPT_SSL_VERIFYPEER, 0L) &&
              setOption(CURLOPT_SSL_VERIFYHOST, 0L) && setOption(CURLOPT_URL, mUrl.c_str()) &&
              setOption(CURLOPT_NOSIGNAL, 1L) &&
              (settings.sslCipherList.empty() ||
               setOption(CURLOPT_SSL_CIPHER_LIST, settings.sslCipherList.c_str()));

    mHeaderList.reset();
    for (std::string const& line : mHeaders) {
        curl_slist* list = curl_slist_append(mHeaderList.get(), line.c_str());
        if (!list) {
            curlError("Failed to add curl request header", CURLE_OUT_OF_MEMORY, CURLM_OK);
            return;
        }
        mHeaderList.release();
        mHeaderList.reset(list);
    }
    ok = ok && (!mHeaderList || setOption(CURLOPT_HTTPHEADER, mHeaderList.get()));

    if (!mPostData.isEmpty()) {
        ok = ok && setOption(CURLOPT_POST, 1L) &&
             setOption(CURLOPT_POSTFIELDSIZE, static_cast<long>(mPostData.size())) &&
             setOption(CURLOPT_POSTFIELDS, mPostData.constData());
    } else if (head) {
        ok = ok && setOption(CURLOPT_NOBODY, 1L);
        mIsHead = true;
    }

    ok = ok && setOption(CURLOPT_WRITEDATA, static_cast<void*>(this)) &&
         setOption(CURLOPT_WRITEFUNCTION, writeCallback) &&
         setOption(CURLOPT_HEADERDATA, static_cast<void*>(this)) &&
         setOption(CURLOPT_HEADERFUNCTION, headerCallback) &&
         setOption(CURLOPT_SOCKOPTDATA, static_cast<void*>(this)) &&
         setOption(CURLOPT_SOCKOPTFUNCTION, socketCallback);
    if (settings.debug)
        ok = ok && setOption(CURLOPT_VERBOSE, 1L) && setOption(CURLOPT_STDERR, stdout);
    // The first failure ends the set-up: addToMulti will not start the request.
    if (ok)
        setOption(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimit) &&
            setOption(CURLOPT_LOW_SPEED_TIME, kLowSpeedTime) &&
            setOption(CURLOPT_BUFFERSIZE, kReceiveBufferSize);
}

void LmCurlDownloadRequest::addToMulti()
{
    // A request whose set-up failed never starts: it reads as a failure.
    if (mStatus->curlError) {
        mDone = true;
        return;
    }
    CURLMcode const code = curl_multi_add_handle(mMulti->multi.get(), mHandle.get());
    if (code != CURLM_OK) {
        curlError("curl_multi_add_handle", CURLE_OK, code);
        mDone = true;
        return;
    }
    mMulti->requests[mHandle.get()] = this;
    mInMulti = true;
}

void LmCurlDownloadRequest::removeFromMulti()
{
    CURLMcode const code = curl_multi_remove_handle(mMulti->multi.get(), mHandle.get());
    if (code != CURLM_OK)
        curlError("curl_multi_remove_handle", CURLE_OK, code);
    mMulti->requests.erase(mHandle.get());
    mInMulti = false;
}

void LmCurlDownloadRequest::curlError(char const* what, CURLcode easyCode, CURLMcode multiCode)
{
    McLogFile* log = getTheLogInstance();
    if (multiCode != CURLM_OK)
        log->tracef(McLogFile::LevelError, kCategory, "%s: %s", what, curl_multi_strerror(multiCode));
    else if (mErrorBuffer[0] != '\0')
        log->tracef(McLogFile::LevelError, kCategory, "%s: %s", what, mErrorBuffer);
    else if (easyCode != CURLE_OK)
        log->tracef(McLogFile::LevelError, kCategory, "%s: %s", what, curl_easy_strerror(easyCode));
    else
        log->tracef(McLogFile::LevelError, kCategory, "%s", what);
    mStatus->curlError = true;
}

int LmCurlDownloadRequest::performWork()
{
    // The multi handle is the family's: a request that has ended still
    // drives its siblings while its reader drains it.
    if (mMulti->requests.empty())
        return 0;
    CURLM* multi = mMulti->multi.get();
    int running = 0;
    CURLMcode result;
    do {
        result = curl_multi_perform(multi, &running);
    } while (result == CURLM_CALL_MULTI_PERFORM);
    if (result != CURLM_OK) {
        curlError("curl_multi_perform failed", CURLE_OK, result);
        return -1;
    }
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        auto const found = mMulti->requests.find(message->easy_handle);
        if (found == mMulti->requests.end())
            continue;
        LmCurlDownloadRequest* request = found->second;
        CURLcode const code = message->data.result;
        request->mDone = true;
        request->removeFromMulti(); // invalidates message
        if (!request->mClosing && code != CURLE_OK &&
            !(code == CURLE_WRITE_ERROR && request->mStatus->curlError)) {
            request->curlError("transfer", code, CURLM_OK);
            return -1;
        }
    }
    return running;
}

bool LmCurlDownloadRequest::waitForHandles(int& idleRounds)
{
    int ready = 0;
    CURLMcode const result = curl_multi_wait(mMulti->multi.get(), nullptr, 0, 1, &ready);
    if (result != CURLM_OK) {
        curlError("curl_multi_wait", CURLE_OK, result);
        return false;
    }
    if (ready > 0) {
        idleRounds = 0;
    } else if (idleRounds++ > 0) {
        // curl_multi_wait returns at once when there is nothing to wait for;
        // the first idle pass spins, later ones sleep.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool LmCurlDownloadRequest::wait(std::function<bool()> const& ready)
{
    int idleRounds = 0;
    for (;;) {
        if (ready())
            return true;
        int const running = performWork();
        if (running < 0)
            return false;
        if (running == 0 || ready())
            return true;
        if (!waitForHandles(idleRounds))
            return false;
    }
}

void LmCurlDownloadRequest::drainSpillBuffer()
{
    int const available = mSpillEnd - mSpillPos;
    size_t const count = std::min(static_cast<size_t>(available), mDestSize - mDestFilled);
    if (count == 0)
        return;
    std::memcpy(mDest + mDestFilled, mSpill.constData() + mSpillPos, count);
    mDestFilled += count;
    mSpillPos += static_cast<int>(count);
    if (mSpillPos == mSpillEnd)
        mSpillPos = mSpillEnd = 0;
}

unsigned long LmCurlDownloadRequest::read(char* buf, unsigned long size)
{
    mDest = buf;
    mDestSize = size;
    mDestFilled = 0;
    if (size == 0) {
        mDest = nullptr;
        mDestSize = 0;
        return 0;
    }
    drainSpillBuffer();
    // A block served whole from the spill buffer needs no more from the
    // network: unpausing now would only make the transfer pause again. The
    // other transfers get their turn all the same, or their sockets would
    // fill and stall while spilled ranges are read. (A failure found there
    // belongs to its own request and is seen when it comes to the front.)
    if (mDestFilled >= mDestSize) {
        performWork();
        unsigned long const filled = mDestFilled;
        mDest = nullptr;
        mDestSize = mDestFilled = 0;
        return filled;
    }
    if (!mDone && mPaused) {
        // Clear the flag first: unpausing may deliver data (and pause again)
        // before curl_easy_pause returns.
        mPaused = false;
        CURLcode const code = curl_easy_pause(mHandle.get(), CURLPAUSE_CONT);
        if (code != CURLE_OK) {
            curlError("curl_easy_pause", code, CURLM_OK);
            mDest = nullptr;
            mDestSize = mDestFilled = 0;
            return 0;
        }
    }
    bool const ok = wait([this] { return mDone || mPaused || mDestFilled >= mDestSize; });
    unsigned long const filled = ok ? mDestFilled : 0;
    mDest = nullptr;
    mDestSize = mDestFilled = 0;
    return filled;
}

void LmCurlDownloadRequest::close()
{
    mClosing = true;
    if (mPaused) {
        mPaused = false;
        // The held bytes meet the write callback's 0 at once, which is the
        // intended end of the transfer: only another failure is one.
        CURLcode const code = curl_easy_pause(mHandle.get(), CURLPAUSE_CONT);
        if (code != CURLE_OK && code != CURLE_WRITE_ERROR)
            curlError("curl_easy_pause", code, CURLM_OK);
    }
    if (wait([this] { return mDone; }) && mInMulti)
        removeFromMulti();
}

bool LmCurlDownloadRequest::rangeAnswered()
{
    // A server that answers a later range with the whole object, or with
    // another range than asked for, would hand the reader wrong bytes
    // without anybody noticing: refuse the body instead.
    int const code = mStatus->responseCode;
    bool const wrong = (mFrom > 0 && code == 200) || (mTo >= 0 && code == 206 && mStatus->from() != mFrom);
    if (wrong) {
        getTheLogInstance()->tracef(McLogFile::LevelError, kCategory,
                                    "%s: asked for bytes %lld-%lld, the answer was %d from byte %lld",
                                    lmRedactSecrets(mUrl).c_str(), static_cast<long long>(mFrom),
                                    static_cast<long long>(mTo), code,
                                    static_cast<long long>(mStatus->from()));
        mStatus->curlError = true;
    }
    mRangeChecked = true;
    return !wrong;
}

size_t LmCurlDownloadRequest::write(char const* data, size_t n)
{
    if (mClosing)
        return 0; // ends the transfer; performWork does not report it
    if (!mRangeChecked && !rangeAnswered())
        return 0;
    auto const spillFree = [this] { return static_cast<size_t>(mSpill.size() - mSpillEnd); };
    if (mDestFilled < mDestSize) {
        drainSpillBuffer();
        size_t const room = mDestSize - mDestFilled;
        if (n < room) {
            std::memcpy(mDest + mDestFilled, data, n);
            mDestFilled += n;
            mStatus->bytesReceived += n;
            return n;
        }
        size_t const rest = n - room;
        if (rest <= spillFree()) {
            std::memcpy(mDest + mDestFilled, data, room);
            mDestFilled += room;
            std::memcpy(mSpill.data() + mSpillEnd, data + room, rest);
            mSpillEnd += static_cast<int>(rest);
            mStatus->bytesReceived += n;
            return n;
        }
    } else if (mDestSize == 0 && n <= spillFree()) {
        // No reader is waiting (a sibling's read drives this transfer): keep
        // the bytes. A reader whose block is full gets nothing more here.
        std::memcpy(mSpill.data() + mSpillEnd, data, n);
        mSpillEnd += static_cast<int>(n);
        mStatus->bytesReceived += n;
        return n;
    }
    // Nothing is taken; libcurl offers the same bytes again after the pause.
    mPaused = true;
    return CURL_WRITEFUNC_PAUSE;
}

size_t LmCurlDownloadRequest::handleHeader(char const* line, size_t n)
{
    if (mStatus->responseCode == 0 && mHandle) {
        mStatus->timeToFirstHeader = static_cast<int32_t>(mWatch.elapsedMsec());
        long code = 0;
        CURLcode const result = curl_easy_getinfo(mHandle.get(), CURLINFO_RESPONSE_CODE, &code);
        if (result != CURLE_OK) {
            curlError("curl_easy_getinfo CURLINFO_RESPONSE_CODE", result, CURLM_OK);
            return 0; // ends the transfer: an answer without a code is no answer
        }
        mStatus->responseCode = static_cast<int32_t>(code);
    }
    std::string name;
    std::string value;
    if (lmCurlParseHeaderLine(line, n, name, value))
        mStatus->headers.emplace(lmCurlLowerCase(std::move(name)), std::move(value));
    return n;
}

std::unique_ptr<LmCurlDownloadRequest> LmCurlDownloadRequest::duplicateForRange(unsigned long from,
                                                                                unsigned long to)
{
    return duplicateForRange(from, to, QByteArray());
}

std::unique_ptr<LmCurlDownloadRequest>
LmCurlDownloadRequest::duplicateForRange(unsigned long from, unsigned long to, QByteArray spare)
{
    auto sibling = std::make_unique<LmCurlDownloadRequest>(mMulti);
    sibling->mSpill = std::move(spare);
    sibling->mStatus->next = std::move(mStatus->next);
    mStatus->next = sibling->mStatus;
    sibling->mUrl = mUrl;
    sibling->mFrom = static_cast<int64_t>(from);
    sibling->mTo = static_cast<int64_t>(to);
    sibling->resetOptions(QByteArray(), mHeaders, false);
    sibling->addToMulti();
    return sibling;
}

// -------------------------------------------------------------- stream buffer

LmCurlDownloadStreambuf::LmCurlDownloadStreambuf(LmCurlDownloadRequest* first, int maxConcurrent)
    : mMaxConcurrent(maxConcurrent < 2 ? 1 : maxConcurrent)
{
    if (first) {
        mRequests.emplace_back(first);
        mStatus = first->mStatus;
    }
    setEmptyRegion();
}

LmCurlDownloadStreambuf::~LmCurlDownloadStreambuf() = default;

void LmCurlDownloadStreambuf::setEmptyRegion()
{
    mBuffer = QByteArray(1, '\0');
    char* end = mBuffer.data() + 1;
    setg(end, end, end);
}

int64_t LmCurlDownloadStreambuf::contentLength()
{
    if (mContentLength >= 0)
        return mContentLength;
    if (mRequests.empty()) {
        getTheLogInstance()->warnf("Could not get content length. No request object.");
        mContentLength = 0;
        return 0;
    }
    mContentLength = mRequests.front()->mStatus->contentLength();
    return mContentLength;
}

bool LmCurlDownloadStreambuf::isOpen()
{
    LmCurlDownloadRequest* front = request();
    if (!front)
        return false;
    return !front->mDone || front->hasSpilledBytes();
}

void LmCurlDownloadStreambuf::close()
{
    for (auto const& request : mRequests)
        request->close();
}

void LmCurlDownloadStreambuf::startMultiGet()
{
    mMultiGetStarted = true;
    LmCurlDownloadRequest* first = mRequests.front().get();
    int64_t const size = first->mTo - first->mFrom + 1;
    int64_t total = contentLength();
    if (total == 0)
        total = 4294967295LL;
    if (total <= size)
        return;
    int64_t const rest = total - size;
    auto count = static_cast<int64_t>(std::rintf(static_cast<float>(rest) / static_cast<float>(size)));
    count = std::max<int64_t>(count, 1);
    int64_t chunk = rest / count;
    if (chunk * count < rest)
        ++chunk;
    mChunkSize = static_cast<uint64_t>(chunk);
    for (int64_t offset = size; offset < total && static_cast<int>(mRequests.size()) < mMaxConcurrent;) {
        int64_t const to = std::min(total - 1, offset + chunk - 1);
        mRequests.push_back(mRequests.back()->duplicateForRange(static_cast<unsigned long>(offset),
                                                                static_cast<unsigned long>(to)));
        offset = to + 1;
    }
}

LmCurlDownloadRequest* LmCurlDownloadStreambuf::request()
{
    if (mRequests.empty())
        return nullptr;
    LmCurlDownloadRequest* front = mRequests.front().get();
    if (front->mStatus->curlError)
        return front;
    // Parallel ranges follow only a first range of our own: a 206 to a
    // caller's Range header is the whole answer, not a first chunk.
    if (!mMultiGetStarted && front->mStatus->responseCode == 206 && front->mTo >= 0)
        startMultiGet();
    if (!front->mDone || front->hasSpilledBytes() || front->mIsHead)
        return front;
    // A short or non-range transfer ends the stream here.
    if (front->mStatus->bytesReceived != static_cast<uint64_t>(front->mTo - front->mFrom + 1))
        return front;
    int64_t const lastTo = mRequests.back()->mTo;
    int64_t const total = contentLength();
    if (lastTo + 1 < total) {
        // The drained front's spill buffer serves the next range: fresh
        // buffers of many megabytes would be zeroed pages from the kernel.
        std::unique_ptr<LmCurlDownloadRequest> next =
            front->duplicateForRange(static_cast<unsigned long>(lastTo + 1),
                                     static_cast<unsigned long>(std::min<int64_t>(
                                         total - 1, lastTo + static_cast<int64_t>(mChunkSize))),
                                     std::move(front->mSpill));
        mRequests.pop_front();
        mRequests.push_back(std::move(next));
    } else if (mRequests.size() >= 2) {
        mRequests.pop_front();
    }
    return mRequests.front().get();
}

LmCurlDownloadStreambuf::int_type LmCurlDownloadStreambuf::underflow()
{
    if (gptr() < egptr())
        return traits_type::to_int_type(*gptr());
    if (!isOpen()) {
        setEmptyRegion();
        return traits_type::eof();
    }
    mBuffer.resize(kGetAreaSize);
    unsigned long const count = readSome(mBuffer.data(), kGetAreaSize);
    if (count == 0) {
        setEmptyRegion();
        return traits_type::eof();
    }
    mBuffer.resize(static_cast<int>(count));
    setg(mBuffer.data(), mBuffer.data(), mBuffer.data() + count);
    return traits_type::to_int_type(*gptr());
}

std::streamsize LmCurlDownloadStreambuf::xsgetn(char* dest, std::streamsize n)
{
    std::streamsize done = std::min<std::streamsize>(n, egptr() - gptr());
    if (done > 0) {
        std::memcpy(dest, gptr(), static_cast<size_t>(done));
        gbump(static_cast<int>(done));
    }
    // Large reads go straight to the request: curl writes into dest.
    while (done < n) {
        unsigned long const count = readSome(dest + done, static_cast<unsigned long>(n - done));
        if (count == 0)
            break;
        done += static_cast<std::streamsize>(count);
    }
    return done;
}

unsigned long LmCurlDownloadStreambuf::readSome(char* dest, unsigned long n)
{
    for (;;) {
        LmCurlDownloadRequest* current = request();
        if (!current)
            return 0;
        unsigned long const count = current->read(dest, n);
        // A read can see its request end without a byte (its last bytes came
        // with the read before): the end of one range, not of the stream,
        // when request() now has the next one.
        if (count > 0 || request() == current)
            return count;
    }
}

// ------------------------------------------------------------------ stream

LmCurlDownloadStream::LmCurlDownloadStream(LmCurlDownloadStreambuf* buffer)
    : std::istream(buffer)
    , mBuffer(buffer)
{
}

LmCurlDownloadStream::LmCurlDownloadStream(LmCurlDownloadStream&& other) noexcept
    : std::istream(std::move(other))
    , mBuffer(std::move(other.mBuffer))
{
    other.set_rdbuf(nullptr);
    set_rdbuf(mBuffer.get());
}

LmCurlDownloadStream& LmCurlDownloadStream::operator=(LmCurlDownloadStream&& other) noexcept
{
    if (this != &other) {
        if (mBuffer)
            mBuffer->close();
        std::istream::operator=(std::move(other));
        mBuffer = std::move(other.mBuffer);
        other.set_rdbuf(nullptr);
        set_rdbuf(mBuffer.get());
    }
    return *this;
}

LmCurlDownloadStream::~LmCurlDownloadStream()
{
    if (mBuffer)
        mBuffer->close();
}

void LmCurlDownloadStream::close()
{
    if (mBuffer)
        mBuffer->close();
}

bool LmCurlDownloadStream::isOpen() const
{
    return mBuffer && mBuffer->isOpen();
}

LmHttpStatus const& LmCurlDownloadStream::httpStatus() const
{
    if (!mBuffer || !mBuffer->status())
        return LmHttpStatus::empty();
    return *mBuffer->status();
}

std::shared_ptr<LmHttpStatus> LmCurlDownloadStream::httpStatusPtr() const
{
    if (!mBuffer || !mBuffer->status())
        return std::make_shared<LmHttpStatus>();
    return mBuffer->status();
}

int64_t LmCurlDownloadStream::contentLength() const
{
    return mBuffer ? mBuffer->contentLength() : 0;
}
