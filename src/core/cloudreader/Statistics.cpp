#include <mdxlib/cloudreader/Statistics.h>

#include <mdxlib/platform/McLogFile.h>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>

namespace {

template <typename T> void keepMax(std::atomic<T>& field, T value)
{
    T seen = field.load();
    while (value > seen && !field.compare_exchange_weak(seen, value)) {
    }
}

template <typename T> void keepMin(std::atomic<T>& field, T value)
{
    T seen = field.load();
    while (value < seen && !field.compare_exchange_weak(seen, value)) {
    }
}

long long roundedMB(double bytes)
{
    return std::llround(bytes * (1.0 / (1 << 20)));
}

} // namespace

namespace Kz {

Statistics::Statistics() = default;

int64_t Statistics::now()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

void Statistics::setCurrentRequests(uint64_t n)
{
    keepMax(maxConcurrentRequests, n);
}

void Statistics::setCurrentMemUsage(uint64_t bytes)
{
    keepMax(maxMemoryUsage, bytes);
}

void Statistics::addRequestLatency(int msec)
{
    keepMin(minLatency, msec);
    keepMax(maxLatency, msec);
    sumLatency += msec;
}

void Statistics::addTimeWaited(int msec)
{
    totalReadWaitTime += msec;
    keepMin(minReadWaitTime, msec);
    keepMax(maxReadWaitTime, msec);
}

void Statistics::addRetries(int n)
{
    if (n <= 0)
        return;
    totalRetries += n;
    if (n == 1)
        ++requestsWith1Retry;
    else if (n == 2)
        ++requestsWith2Retries;
    else
        ++requestsWith3OrMoreRetries;
}

void Statistics::startBandwidthLogging()
{
    bandwidthStart = now();
}

void Statistics::stopBandwidthLogging()
{
    int64_t const start = bandwidthStart.load();
    if (start != 0)
        activeTime += (now() - start) / 1000000;
}

std::string Statistics::currentStatistics() const
{
    int64_t const read = totalRead.load();
    int64_t const active = activeTime.load();
    int64_t const finished = std::max(allLoadJobsFinishedAt.load(), allVolumeJobsFinishedAt.load());
    // An active time of 0 gives inf or nan: no transfer ran, there is no rate.
    double const bandwidth = (static_cast<double>(read) / 1000.0) / static_cast<double>(active) * 8.0;
    std::ostringstream line;
    line << "Stats: "
         << "MaxConcurrentRequests=" << maxConcurrentRequests.load()
         << " TotalRead=" << roundedMB(double(read)) << "MB"
         << " MaxMemoryUsage=" << roundedMB(double(maxMemoryUsage.load())) << "MB"
         << " NoMemoryEventCount=" << noMemoryEventCount.load() << " MinLatency=" << minLatency.load()
         << "msec"
         << " MaxLatency=" << maxLatency.load() << "msec"
         << " SumLatency=" << sumLatency.load() << "msec"
         << " TotalNumExmFiles=" << totalNumExmFiles.load() << " TotalNumDcmFiles=" << totalNumDcmFiles.load()
         << " TotalNumContainerFiles=" << totalNumContainerFiles.load()
         << " TotalNumFilesInContainer=" << totalNumFilesInContainer.load()
         << " TotalReadWaitTime=" << totalReadWaitTime.load() << " MinReadWaitTime=" << minReadWaitTime.load()
         << " MaxReadWaitTime=" << maxReadWaitTime.load() << " TotalRetries=" << totalRetries.load()
         << " RequestsWith1Retry=" << requestsWith1Retry.load()
         << " RequestsWith2Retries=" << requestsWith2Retries.load()
         << " RequestsWith3OrMoreRetries=" << requestsWith3OrMoreRetries.load()
         << " FailedRequests=" << failedRequests.load() << " CloudReaderActiveTime=" << active << "msec"
         << " Bandwidth=" << std::fixed << std::setprecision(1) << bandwidth << "Mbit/s"
         << " LoadingTime=" << (finished - loadingStartedAt.load()) / 1000000 << "msec";
    return line.str();
}

void Statistics::logCurrentStatistics() const
{
    getTheLogInstance()->trace(1, "Kzip", currentStatistics().c_str());
}

void Statistics::reset()
{
    maxConcurrentRequests = 0;
    maxMemoryUsage = 0;
    noMemoryEventCount = 0;
    minLatency = 0x7FFFFFFF;
    maxLatency = 0;
    sumLatency = 0;
    totalRead = 0;
    totalNumExmFiles = 0;
    totalNumDcmFiles = 0;
    totalNumContainerFiles = 0;
    totalNumFilesInContainer = 0;
    totalReadWaitTime = 0;
    minReadWaitTime = 0x7FFFFFFF;
    maxReadWaitTime = 0;
    totalRetries = 0;
    requestsWith1Retry = 0;
    requestsWith2Retries = 0;
    requestsWith3OrMoreRetries = 0;
    failedRequests = 0;
    activeTime = 0;
}

} // namespace Kz
