#include <mdxlib/curl/LmCurlDownload.h>

#include <mdxlib/curl/LmCurlRawClient.h>
#include <mdxlib/curl/LmCurlSettings.h>
#include <mdxlib/platform/McLogFile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>

namespace {

char const kCategory[] = "CURL";
// libcurl hands over up to kReceiveBufferSize bytes per callback; reading
// sockets in large blocks is what lets a single transfer keep up with the
// curl tool. The first request's spill buffer must hold one such block, or
// every full reader block would pause the transfer and make libcurl buffer
// it again.
constexpr long kReceiveBufferSize = 512 * 1024;
constexpr int kFirstSpillSize = 1024 * 1024;
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
    curl_easy_setopt(mHandle.get(), CURLOPT_SHARE, share);
}

LmCurlDownloadRequest::LmCurlDownloadRequest(std::shared_ptr<MultiMap>& multi)
    : mHandle(multi->factory->createHandle())
    , mMulti(multi)
    , mStatus(std::make_shared<LmHttpStatus>())
{
    curl_easy_setopt(mHandle.get(), CURLOPT_SHARE, multi->share);
}

LmCurlDownloadRequest::~LmCurlDownloadRequest()
{
    if (!mDone)
        close();
    // Whatever close achieved, the handle must leave the multi handle
    // before it goes back to the pool.
    if (mInMulti)
        removeFromMulti();
    CURL* handle = mHandle.get();
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, nullptr);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, nullptr);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, nullptr);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, nullptr);
    curl_easy_setopt(handle, CURLOPT_SOCKOPTDATA, nullptr);
    curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, nullptr);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
    mMulti->factory->cleanupHandle(std::move(mHandle));
    curl_slist_free_all(mHeaderList);
}

void LmCurlDownloadRequest::setOption(CURLoption option, long value)
{
    curl_easy_setopt(mHandle.get(), option, value);
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

    CURL* handle = mHandle.get();
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, mErrorBuffer);
    setOption(CURLOPT_SSL_VERIFYPEER, 0L);
    setOption(CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(handle, CURLOPT_URL, mUrl.c_str());
    setOption(CURLOPT_NOSIGNAL, 1L);
    if (!settings.sslCipherList.empty())
        curl_easy_setopt(handle, CURLOPT_SSL_CIPHER_LIST, settings.sslCipherList.c_str());

    curl_slist_free_all(mHeaderList);
    mHeaderList = nullptr;
    for (std::string const& line : mHeaders)
        mHeaderList = curl_slist_append(mHeaderList, line.c_str());
    if (mHeaderList)
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, mHeaderList);

    if (!mPostData.isEmpty()) {
        setOption(CURLOPT_POST, 1L);
        setOption(CURLOPT_POSTFIELDSIZE, static_cast<long>(mPostData.size()));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, mPostData.constData());
    } else if (head) {
        setOption(CURLOPT_NOBODY, 1L);
        mIsHead = true;
    }

    curl_easy_setopt(handle, CURLOPT_WRITEDATA, static_cast<void*>(this));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, writeCallback);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, static_cast<void*>(this));
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, headerCallback);
    curl_easy_setopt(handle, CURLOPT_SOCKOPTDATA, static_cast<void*>(this));
    curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, socketCallback);
    if (settings.debug) {
        setOption(CURLOPT_VERBOSE, 1L);
        curl_easy_setopt(handle, CURLOPT_STDERR, stdout);
    }
    setOption(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimit);
    setOption(CURLOPT_LOW_SPEED_TIME, kLowSpeedTime);
    setOption(CURLOPT_BUFFERSIZE, kReceiveBufferSize);
}

void LmCurlDownloadRequest::addToMulti()
{
    curl_multi_add_handle(mMulti->multi.get(), mHandle.get());
    mMulti->requests[mHandle.get()] = this;
    mInMulti = true;
}

void LmCurlDownloadRequest::removeFromMulti()
{
    curl_multi_remove_handle(mMulti->multi.get(), mHandle.get());
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
    if (!mInMulti)
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
    // network: unpausing now would only make the transfer pause again.
    if (mDestFilled >= mDestSize) {
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
        curl_easy_pause(mHandle.get(), CURLPAUSE_CONT);
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
                                    mUrl.c_str(), static_cast<long long>(mFrom), static_cast<long long>(mTo),
                                    code, static_cast<long long>(mStatus->from()));
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
        if (static_cast<size_t>(mSpillEnd) + rest <= static_cast<size_t>(mSpill.size())) {
            std::memcpy(mDest + mDestFilled, data, room);
            mDestFilled += room;
            std::memcpy(mSpill.data() + mSpillEnd, data + room, rest);
            mSpillEnd += static_cast<int>(rest);
            mStatus->bytesReceived += n;
            return n;
        }
    }
    // No reader waiting, or its block is full: keep what fits in the spill
    // buffer, and pause only when that is full.
    if (static_cast<size_t>(mSpillEnd) + n <= static_cast<size_t>(mSpill.size())) {
        std::memcpy(mSpill.data() + mSpillEnd, data, n);
        mSpillEnd += static_cast<int>(n);
        mStatus->bytesReceived += n;
        return n;
    }
    mPaused = true;
    return CURL_WRITEFUNC_PAUSE;
}

size_t LmCurlDownloadRequest::handleHeader(char const* line, size_t n)
{
    if (mStatus->responseCode == 0 && mHandle) {
        mStatus->timeToFirstHeader = static_cast<int32_t>(mWatch.elapsedMsec());
        long code = 0;
        curl_easy_getinfo(mHandle.get(), CURLINFO_RESPONSE_CODE, &code);
        mStatus->responseCode = static_cast<int32_t>(code);
    }
    std::string name;
    std::string value;
    if (lmCurlParseHeaderLine(line, n, name, value))
        mStatus->headers.emplace(lmCurlLowerCase(std::move(name)), std::move(value));
    return n;
}

LmCurlDownloadRequest* LmCurlDownloadRequest::duplicateForRange(unsigned long from, unsigned long to)
{
    return duplicateForRange(from, to, QByteArray());
}

LmCurlDownloadRequest* LmCurlDownloadRequest::duplicateForRange(unsigned long from, unsigned long to,
                                                                QByteArray spare)
{
    auto* sibling = new LmCurlDownloadRequest(mMulti);
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
        mRequests.push_back(first);
        mStatus = first->mStatus;
    }
    setEmptyRegion();
}

LmCurlDownloadStreambuf::~LmCurlDownloadStreambuf()
{
    for (LmCurlDownloadRequest* request : mRequests)
        delete request;
}

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
    for (LmCurlDownloadRequest* request : mRequests)
        request->close();
}

void LmCurlDownloadStreambuf::startMultiGet()
{
    mMultiGetStarted = true;
    LmCurlDownloadRequest* first = mRequests.front();
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
    LmCurlDownloadRequest* front = mRequests.front();
    if (front->mStatus->curlError)
        return front;
    if (!mMultiGetStarted && front->mStatus->responseCode == 206)
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
        LmCurlDownloadRequest* next =
            front->duplicateForRange(static_cast<unsigned long>(lastTo + 1),
                                     static_cast<unsigned long>(std::min<int64_t>(
                                         total - 1, lastTo + static_cast<int64_t>(mChunkSize))),
                                     std::move(front->mSpill));
        delete front;
        mRequests.pop_front();
        mRequests.push_back(next);
    } else if (mRequests.size() >= 2) {
        delete front;
        mRequests.pop_front();
    }
    return mRequests.front();
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
    LmCurlDownloadRequest* current = request();
    unsigned long const count = current ? current->read(mBuffer.data(), kGetAreaSize) : 0;
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
    while (done < n) {
        LmCurlDownloadRequest* current = request();
        if (!current)
            break;
        unsigned long const count = current->read(dest + done, static_cast<unsigned long>(n - done));
        if (count == 0)
            break;
        done += static_cast<std::streamsize>(count);
    }
    return done;
}

// ------------------------------------------------------------------ stream

LmCurlDownloadStream::LmCurlDownloadStream(LmCurlDownloadStreambuf* buffer)
    : std::istream(buffer)
    , mBuffer(buffer)
{
}

LmCurlDownloadStream::LmCurlDownloadStream(LmCurlDownloadStream&& other) noexcept
    : std::istream(std::move(other))
    , mBuffer(other.mBuffer)
{
    other.mBuffer = nullptr;
    other.set_rdbuf(nullptr);
    set_rdbuf(mBuffer);
}

LmCurlDownloadStream& LmCurlDownloadStream::operator=(LmCurlDownloadStream&& other) noexcept
{
    if (this != &other) {
        if (mBuffer) {
            mBuffer->close();
            delete mBuffer;
        }
        std::istream::operator=(std::move(other));
        mBuffer = other.mBuffer;
        other.mBuffer = nullptr;
        other.set_rdbuf(nullptr);
        set_rdbuf(mBuffer);
    }
    return *this;
}

LmCurlDownloadStream::~LmCurlDownloadStream()
{
    if (mBuffer) {
        mBuffer->close();
        delete mBuffer;
    }
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
