#include <mdxlib/cloudreader/CloudReader.h>

#include "CloudReaderPrivate.h"

#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/cloudreader/CloudContainer.h>
#include <mdxlib/cloudreader/Container.h>
#include <mdxlib/cloudreader/DownloadStreambuf.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/cloudreader/FileController.h>
#include <mdxlib/cloudreader/Request.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmHttpStatus.h>
#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/platform/McLogFile.h>

#include <curl/curl.h>

#include <algorithm>
#include <cmath>
#include <system_error>

namespace {

char const kCategory[] = "Kzip";
constexpr auto kIdleWait = std::chrono::milliseconds(100);
constexpr int kPollMsec = 100;
constexpr long long kReadBlock = 0x10000;

// Where a container URL ends: behind the first ".kz/", which names a member.
size_t containerEnd(std::string const& url)
{
    size_t const at = url.find(".kz/");
    return at == std::string::npos ? std::string::npos : at + 3;
}

long long roundedMBDifference(int64_t before, int64_t after)
{
    return std::llround(static_cast<double>(before - after) * (1.0 / (1 << 20)));
}

} // namespace

namespace Kz {

Container::~Container() = default;

// ------------------------------------------------------------ the private part

CloudReaderPrivate::CloudReaderPrivate(CloudReader* owner, Config const& configuration)
    : parent(owner)
    , config(configuration)
    , pool(&config, &statistics)
    , handleFactory(std::make_shared<LmCurlHandleFactory>(64))
    , helper(LmCurlClient::instance()->helper())
    , multi(handleFactory->createMultiHandle())
    , spareHandle(handleFactory->createHandle())
{
    // A handle that lives as long as the reader, set up like every transfer's
    // (the share and the age of connections), that never transfers anything.
    // The reader thread logs (with secrets redacted) until it is joined, in
    // the destructor of the process-wide reader at exit. Function-local
    // statics made after the reader would be destroyed before it, under the
    // running thread: making them now puts their end after the reader's.
    getTheLogInstance();
    lmRedactSecrets(std::string());
    pool.setReleaseListener([this] { onPageReleased(); });
    containerFactory = &CloudContainer::make;
    McLogFile* log = getTheLogInstance();
    CURLcode code = curl_easy_setopt(spareHandle.get(), CURLOPT_SHARE, helper->share());
    if (code != CURLE_OK)
        log->tracef(3, kCategory, "curl_easy_setopt CURLOPT_SHARE: %s", curl_easy_strerror(code));
    code = curl_easy_setopt(spareHandle.get(), CURLOPT_MAXAGE_CONN,
                            static_cast<long>(config.connectionMaxAgeSec));
    if (code != CURLE_OK)
        log->tracef(3, kCategory, "curl_easy_setopt CURLOPT_MAXAGE_CONN: %s", curl_easy_strerror(code));
}

CloudReaderPrivate::~CloudReaderPrivate()
{
    if (thread.joinable()) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopRequested = true;
            CURLMcode const code = curl_multi_wakeup(multi.get());
            if (code != CURLM_OK)
                getTheLogInstance()->tracef(3, kCategory, "curl_multi_wakeup: %s", curl_multi_strerror(code));
        }
        condition.notify_all();
        thread.join();
    }
    // Transfers still running leave the multi handle before their handles go
    // back to the factory; every request left ends as a dead chunk of a
    // stopped controller (quietly), which also breaks the reference between
    // request and controller, and wakes any reader still waiting.
    for (auto& [handle, request] : active) {
        CURLMcode const code = curl_multi_remove_handle(multi.get(), handle);
        if (code != CURLM_OK)
            getTheLogInstance()->tracef(3, kCategory, "curl_multi_remove_handle: %s",
                                        curl_multi_strerror(code));
        request->mInMulti = false;
    }
    std::vector<std::shared_ptr<Request>> left = retries;
    left.insert(left.end(), pending.begin(), pending.end());
    for (auto const& entry : active)
        left.push_back(entry.second);
    for (auto const& request : left) {
        request->mController->stop();
        request->setFailed("the reader ended");
    }
    active.clear();
    pending.clear();
    retries.clear();
    containers.clear();
}

void CloudReaderPrivate::onPageReleased()
{
    if (pausedTransfers.load() == 0)
        return;
    wake();
}

void CloudReaderPrivate::wake()
{
    // Any thread, maybe with a controller's mutex held, which comes before
    // this one; never with the pool's.
    std::lock_guard<std::mutex> lock(mutex);
    if (!thread.joinable())
        return;
    memoryReleased = true;
    condition.notify_one();
    CURLMcode const code = curl_multi_wakeup(multi.get());
    if (code != CURLM_OK)
        getTheLogInstance()->tracef(3, kCategory, "curl_multi_wakeup: %s", curl_multi_strerror(code));
}

void CloudReaderPrivate::start()
{
    if (thread.joinable() || stopRequested)
        return;
    try {
        thread = std::thread(&CloudReaderPrivate::run, this);
    } catch (std::system_error const& e) {
        throw std::system_error(e.code(), "thread constructor failed");
    }
}

void CloudReaderPrivate::initRequest(std::shared_ptr<Request> const& request, std::string const& url,
                                     std::vector<std::string> const& headers)
{
    std::vector<std::string> lines = headers;
    std::string finalUrl;
    if (url.compare(0, 2, "gs") == 0) {
        finalUrl = LmCurlHelper::convertGoogleUrl(url, true, false);
        helper->addGoogleAuthorizationHeader(lines);
    } else if (url.compare(0, 2, "az") == 0) {
        finalUrl = LmCurlHelper::convertAzureUrl(url);
        helper->addAzureAuthorizationHeader(finalUrl, lines);
    } else if (url.compare(0, 2, "s3") == 0) {
        finalUrl = helper->awsAuth()->prepareRequest("GET", url, lines);
    } else if (url.compare(0, 7, "file://") == 0) {
        // A local container's object (CloudContainer): no session and no
        // credentials belong in a file name.
        finalUrl = url;
    } else if (url.compare(0, 1, "w") == 0) {
        // Only the first letter is looked at: plain URLs of the system begin
        // with a scheme, and every WADO form begins with "w".
        finalUrl = helper->convertWadoUrl(url, lines);
        if (finalUrl.empty())
            throw std::runtime_error("not a WADO URL with study, series and instance");
    } else {
        finalUrl = url;
        std::string const& session = helper->sessionID();
        if (!session.empty()) {
            if (helper->sessionIDIsBearerToken())
                lines.push_back("Authorization: Bearer " + session);
            else
                finalUrl += (finalUrl.find('?') == std::string::npos ? "?s=" : "&s=") + session;
        } else {
            helper->addRequestHeaders(url, lines);
        }
    }
    request->setOptions(finalUrl, lines);
}

void CloudReaderPrivate::prepare(std::shared_ptr<Request> const& request)
{
    // A credential fetch that throws must neither end the process (on this
    // thread) nor leave a chunk marked as requested that never runs (on a
    // reading thread, which holds its controller's mutex here): the request
    // goes on as one whose set-up failed, and the scheduler ends it.
    try {
        initRequest(request, request->mController->url(), {});
        return;
    } catch (std::exception const& e) {
        std::snprintf(request->mErrorBuffer, CURL_ERROR_SIZE, "preparing the request failed: %s", e.what());
    } catch (...) {
        std::snprintf(request->mErrorBuffer, CURL_ERROR_SIZE, "preparing the request failed");
    }
    request->mStatus->curlError = true;
}

void CloudReaderPrivate::checkPendingRetries()
{
    Clock::time_point const now = Clock::now();
    auto const due = std::stable_partition(retries.begin(), retries.end(),
                                           [now](auto const& request) { return request->mRetryTime > now; });
    pending.insert(pending.end(), due, retries.end());
    retries.erase(due, retries.end());
}

void CloudReaderPrivate::activatePendingRequests()
{
    McLogFile* log = getTheLogInstance();
    Clock::time_point const began = Clock::now();
    std::vector<std::shared_ptr<Request>> started;
    std::vector<std::shared_ptr<Request>> dead;
    size_t stillPending = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!retries.empty())
            checkPendingRetries();
        // Requests that can't run (their set-up failed, or their reader has
        // gone) take no place in the limits.
        auto const runnable = std::stable_partition(pending.begin(), pending.end(), [](auto const& request) {
            return request->mStatus->curlError || request->mController->stopped();
        });
        dead.assign(pending.begin(), runnable);
        pending.erase(pending.begin(), runnable);
        for (auto const& request : pending)
            request->mReadAheadLevel = request->mPriority.load();
        int64_t const used = pool.usedBytes();
        // Always sorted, lowest level last, so that it goes first: a round
        // ends at the first refused read-ahead request, and unsorted a
        // level-0 request behind one that the memory test refuses round
        // after round would never start, and its reader would wait for ever.
        // With fewer requests than the read-ahead cap that happens as well.
        if (pending.size() > 1)
            std::stable_sort(pending.begin(), pending.end(), [](auto const& a, auto const& b) {
                return a->mReadAheadLevel > b->mReadAheadLevel;
            });
        bool const verbose = config.verbosity > 1;
        while (!pending.empty()) {
            std::shared_ptr<Request> const& request = pending.back();
            if (activeCount >= static_cast<uint64_t>(config.maxRequestsTotal)) {
                if (verbose)
                    log->tracef(2, kCategory, "MaxRequestsTotal reached");
                break;
            }
            if (request->mReadAheadLevel > 0) {
                if (activeReadAheadCount >= static_cast<uint64_t>(config.maxReadAheadRequests)) {
                    if (verbose)
                        log->tracef(2, kCategory, "MaxReadAheadRequests reached");
                    break;
                }
                if (config.maxMemory <
                    static_cast<int64_t>(config.chunkSize) * static_cast<int64_t>(activeCount) + used) {
                    if (verbose)
                        log->tracef(2, kCategory, "%zu MB used, %zu active requests, skipping",
                                    static_cast<size_t>(used >> 20), static_cast<size_t>(activeCount));
                    break;
                }
            }
            if (verbose)
                log->tracef(1, kCategory, "Starting request for %s, chunk %d",
                            lmRedactSecrets(request->mUrl).c_str(), request->mChunk);
            ++activeCount;
            if (request->mReadAheadLevel > 0)
                ++activeReadAheadCount;
            started.push_back(request);
            pending.pop_back();
        }
        stillPending = pending.size();
    }
    for (auto const& request : dead) {
        if (!request->mController->stopped())
            statistics.addFailedFile();
        request->setFailed("the request could not be set up");
    }
    for (auto const& request : started) {
        CURLMcode const code = curl_multi_add_handle(multi.get(), request->mHandle.get());
        if (code != CURLM_OK) {
            std::snprintf(request->mErrorBuffer, CURL_ERROR_SIZE, "curl_multi_add_handle: %s",
                          curl_multi_strerror(code));
            --activeCount;
            if (request->mReadAheadLevel > 0)
                --activeReadAheadCount;
            statistics.addFailedFile();
            request->setFailed("curl_multi_add_handle failed");
            continue;
        }
        active[request->mHandle.get()] = request;
        request->mInMulti = true;
    }
    if (config.verbosity > 1 && (stillPending > 0 || !started.empty()))
        log->tracef(1, kCategory, "%zu active requests (%zu read-ahead), %zu still pending, took %lld msec",
                    static_cast<size_t>(activeCount), static_cast<size_t>(activeReadAheadCount), stillPending,
                    static_cast<long long>(
                        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began).count()));
}

void CloudReaderPrivate::releaseExpiredMemory()
{
    int64_t const before = pool.allocatedBytes();
    size_t const count = containers.size();
    Clock::time_point const now = Clock::now();
    for (auto it = containers.begin(); it != containers.end();) {
        auto const idle = std::chrono::duration_cast<std::chrono::seconds>(now - it->second->lastAccess());
        if (idle.count() > config.containerFileMaxAgeSec) {
            dropped.push_back(std::move(it->second));
            it = containers.erase(it);
        } else {
            ++it;
        }
    }
    long long const released = roundedMBDifference(before, pool.allocatedBytes());
    if (containers.size() < count && released > 0)
        getTheLogInstance()->tracef(1, kCategory, "Released %d MB of memory after idle period",
                                    static_cast<int>(released));
    pool.purge();
}

void CloudReaderPrivate::pruneConnectionCache()
{
    if (!active.empty() || lastActivity == Clock::time_point{})
        return;
    if (Clock::now() - lastActivity <= std::chrono::seconds(config.connectionMaxAgeSec))
        return;
    // The connections live in the curl share, not in the multi handle, so this
    // closes none of them: CURLOPT_MAXAGE_CONN on every transfer is what ages
    // them. A fresh multi handle still drops its own state.
    LmCurlMultiHandle fresh = handleFactory->createMultiHandle();
    if (fresh) {
        multi = std::move(fresh);
        ++multiReplacements;
    }
    lastActivity = Clock::time_point{};
}

void CloudReaderPrivate::finishTransfer(std::shared_ptr<Request> const& request, CURLcode result)
{
    CURLMcode const code = curl_multi_remove_handle(multi.get(), request->mHandle.get());
    if (code != CURLM_OK)
        getTheLogInstance()->tracef(3, kCategory, "curl_multi_remove_handle: %s", curl_multi_strerror(code));
    if (!request->setFinished(result)) {
        prepare(request);
        retries.push_back(request);
    }
    --activeCount;
    if (request->mReadAheadLevel > 0)
        --activeReadAheadCount;
    if (!request->mSucceeded)
        statistics.addFailedFile();
    else if (request->mRetries != 0)
        statistics.addRetries(request->mRetries);
    statistics.addRequestLatency(request->mStatus->timeToFirstHeader);
    statistics.addBytesRead(static_cast<int64_t>(request->mStatus->totalBytesReceived()));
    lastActivity = Clock::now();
}

void CloudReaderPrivate::run()
{
    McLogFile* log = getTheLogInstance();
    int previous = 0;
    for (;;) {
        if (stopRequested)
            return;
        activatePendingRequests();
        statistics.setCurrentMemUsage(static_cast<uint64_t>(pool.allocatedBytes()));
        statistics.setCurrentRequests(activeCount);
        int running = 0;
        memoryReleased = false;
        for (auto const& [handle, request] : active)
            if (request->mPausedBytes == 0 || request->unpause())
                ++running;
        pausedTransfers = static_cast<int>(active.size()) - running;
        if (previous == 0 && running > 0)
            statistics.startBandwidthLogging();
        if (previous > 0 && running == 0)
            statistics.stopBandwidthLogging();
        if (running == 0) {
            {
                std::unique_lock<std::mutex> lock(mutex);
                releaseExpiredMemory();
                pruneConnectionCache();
                // New work ends the wait at once; a paused transfer is tried
                // again after the wait.
                condition.wait_for(lock, kIdleWait,
                                   [this] { return stopRequested || !pending.empty() || memoryReleased; });
            }
            dropped.clear(); // outside the mutex: a container's end may take its own locks
            previous = 0;
            continue;
        }
        CURLMcode code = curl_multi_poll(multi.get(), nullptr, 0, kPollMsec, nullptr);
        if (code != CURLM_OK)
            log->tracef(3, kCategory, "curl_multi_poll: %s", curl_multi_strerror(code));
        previous = running;
        if (stopRequested)
            return;
        int stillRunning = 0;
        code = curl_multi_perform(multi.get(), &stillRunning);
        if (code != CURLM_OK)
            log->tracef(3, kCategory, "curl_multi_perform: %s", curl_multi_strerror(code));
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi.get(), &queued)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            auto const it = active.find(message->easy_handle);
            if (it == active.end())
                continue;
            std::shared_ptr<Request> const request = std::move(it->second);
            active.erase(it);
            finishTransfer(request, message->data.result);
        }
        // Transfers may have paused inside curl_multi_perform.
        pausedTransfers = static_cast<int>(std::count_if(
            active.begin(), active.end(), [](auto const& entry) { return entry.second->mPausedBytes > 0; }));
    }
}

std::shared_ptr<Container> CloudReaderPrivate::getContainerFile(std::string const& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    std::shared_ptr<Container>& entry = containers[name];
    if (!entry && containerFactory)
        entry = containerFactory(*parent, name); // its initialisation comes later, outside this mutex
    if (!entry) {
        containers.erase(name);
        getTheLogInstance()->tracef(3, kCategory, "No reader of container files for %s",
                                    lmRedactSecrets(name).c_str());
        return nullptr;
    }
    return entry;
}

// ------------------------------------------------------------- the reader

CloudReader& CloudReader::instance()
{
    static CloudReader reader{Config()};
    return reader;
}

CloudReader::CloudReader(Config const& config)
    : mPrivate(std::make_unique<CloudReaderPrivate>(this, config))
{
}

CloudReader::~CloudReader() = default;

std::shared_ptr<File> CloudReader::openFile(std::string const& url, LmSessionContextID context)
{
    Statistics& stats = mPrivate->statistics;
    if (!url.empty()) {
        size_t const end = containerEnd(url);
        if (end != std::string::npos) {
            std::shared_ptr<Container> container = mPrivate->getContainerFile(url.substr(0, end));
            return container ? container->open(url.c_str() + end + 1, context) : nullptr;
        }
        if (url.find(".exm") != std::string::npos)
            stats.addExmFile();
        else
            stats.addDcmFile();
    } else {
        stats.addDcmFile();
    }
    auto controller = std::make_shared<FileController>(*this, url, 0);
    auto file = std::make_shared<File>(controller, url, 0, -1);
    controller->start();
    file->peek(); // waits for the first data, or failure
    file->setLength(controller->length());
    return file;
}

std::shared_ptr<File> CloudReader::openFileRange(std::string const& url, long long first, long long last)
{
    if (last < first) {
        getTheLogInstance()->tracef(3, kCategory, "Invalid range %lld %lld, %s", first, last,
                                    lmRedactSecrets(url).c_str());
        return nullptr;
    }
    size_t const end = containerEnd(url);
    if (end != std::string::npos) {
        std::shared_ptr<Container> container = mPrivate->getContainerFile(url.substr(0, end));
        return container ? container->openRange(url.c_str() + end + 1, first, last) : nullptr;
    }
    if (url.find(".exm") != std::string::npos)
        mPrivate->statistics.addExmFile();
    else
        mPrivate->statistics.addDcmFile();
    auto controller = std::make_shared<FileController>(*this, url, first);
    return std::make_shared<File>(controller, url, first, last - first + 1);
}

long long CloudReader::fileLength(std::string const& url)
{
    size_t const end = containerEnd(url);
    if (end != std::string::npos) {
        std::shared_ptr<Container> container = mPrivate->getContainerFile(url.substr(0, end));
        return container ? container->fileLength(url.c_str() + end + 1) : -1;
    }
    LmHttpStatus const status = LmCurlClient::instance()->head(url);
    if (status.responseCode >= 200 && status.responseCode < 300 && !status.curlError)
        return status.contentLength();
    return -1;
}

DownloadStream CloudReader::openStream(std::string const& url)
{
    return DownloadStream(new DownloadStreambuf(openFile(url, kNoSessionContext)));
}

QByteArray CloudReader::readBytes(std::string const& url, LmSessionContextID context)
{
    std::shared_ptr<File> file = openFile(url, context);
    if (!file)
        return QByteArray();
    long long const length = file->length();
    QByteArray bytes;
    if (length >= 0) {
        if (length > std::numeric_limits<int>::max())
            return QByteArray(); // more than a QByteArray holds
        bytes.resize(static_cast<int>(length));
        if (!file->safeRead(bytes.data(), length))
            return QByteArray();
        return bytes;
    }
    QByteArray block(static_cast<int>(kReadBlock), Qt::Uninitialized);
    while (file->state() == File::FILE_OPEN) {
        long long const n = file->read(block.data(), kReadBlock);
        if (n < 0)
            return QByteArray();
        if (n == 0)
            break; // the end, whatever the state says: never a loop without progress
        bytes.append(block.constData(), static_cast<int>(n));
    }
    return bytes;
}

void CloudReader::releaseMemory(LmSessionContextID context)
{
    int64_t const before = mPrivate->pool.allocatedBytes();
    std::vector<std::pair<std::string, std::shared_ptr<Container>>> all;
    {
        std::lock_guard<std::mutex> lock(mPrivate->mutex);
        all.assign(mPrivate->containers.begin(), mPrivate->containers.end());
    }
    // A container's mutex comes before the reader's: contexts are removed
    // with the reader's mutex released.
    std::vector<std::pair<std::string, std::shared_ptr<Container>>> going;
    for (auto& entry : all)
        if (entry.second->removeContext(context) || context == kNoSessionContext)
            going.push_back(entry);
    {
        std::lock_guard<std::mutex> lock(mPrivate->mutex);
        for (auto const& [name, container] : going) {
            auto const it = mPrivate->containers.find(name);
            if (it != mPrivate->containers.end() && it->second == container)
                mPrivate->containers.erase(it);
        }
    }
    all.clear();
    going.clear();
    long long const released = roundedMBDifference(before, mPrivate->pool.allocatedBytes());
    if (released > 0)
        getTheLogInstance()->tracef(1, kCategory, "Released %d MB of memory", static_cast<int>(released));
}

void CloudReader::logStatistics()
{
    mPrivate->statistics.logCurrentStatistics();
}

void CloudReader::resetStatistics()
{
    mPrivate->statistics.reset();
}

std::shared_ptr<LmCurlHandleFactory> CloudReader::handleFactory() const
{
    return mPrivate->handleFactory;
}

std::shared_ptr<LmCurlHelper> CloudReader::helper() const
{
    return mPrivate->helper;
}

Statistics& CloudReader::statistics()
{
    return mPrivate->statistics;
}

Config& CloudReader::config()
{
    return mPrivate->config;
}

MemoryPool& CloudReader::memoryPool()
{
    return mPrivate->pool;
}

void CloudReader::addRequest(std::shared_ptr<Request> const& request)
{
    addRequests({request});
}

void CloudReader::addRequests(std::vector<std::shared_ptr<Request>> const& requests)
{
    for (auto const& request : requests)
        mPrivate->prepare(request); // outside the mutex: it may fetch tokens
    std::lock_guard<std::mutex> lock(mPrivate->mutex);
    mPrivate->pending.insert(mPrivate->pending.end(), requests.begin(), requests.end());
    if (!mPrivate->thread.joinable()) {
        mPrivate->start();
        return;
    }
    mPrivate->condition.notify_one();
    // A thread inside curl_multi_poll sees new work at once, not after its
    // 100 ms; the multi handle is replaced only under this mutex.
    CURLMcode const code = curl_multi_wakeup(mPrivate->multi.get());
    if (code != CURLM_OK)
        getTheLogInstance()->tracef(3, kCategory, "curl_multi_wakeup: %s", curl_multi_strerror(code));
}

void CloudReader::setContainerFactory(ContainerFactory factory)
{
    std::lock_guard<std::mutex> lock(mPrivate->mutex);
    mPrivate->containerFactory = std::move(factory);
}

void CloudReader::setRetryWait(std::function<long long(long long)> wait)
{
    std::lock_guard<std::mutex> lock(mPrivate->mutex);
    mPrivate->retryWait = std::move(wait);
}

long long CloudReader::retryWait(long long policyWait) const
{
    std::lock_guard<std::mutex> lock(mPrivate->mutex);
    return mPrivate->retryWait ? mPrivate->retryWait(policyWait) : policyWait;
}

} // namespace Kz
