// What the cloud reader did, as counters that one log line reports.
//
// The reader thread and every reading thread update the counters at once, so
// each is an atomic: the figures are exact and the code is free of data
// races. Times are steady-clock points.
#pragma once

#include <mdxlib/Export.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace Kz {

class MDX_EXPORT Statistics
{
public:
    using Clock = std::chrono::steady_clock;

    Statistics();

    void setCurrentRequests(uint64_t n);
    void setCurrentMemUsage(uint64_t bytes);
    void addNoMemoryEvent() { ++noMemoryEventCount; }
    void addRequestLatency(int msec);
    void addBytesRead(int64_t n) { totalRead += n; }
    void addExmFile() { ++totalNumExmFiles; }
    void addDcmFile() { ++totalNumDcmFiles; }
    void addContainerFile() { ++totalNumContainerFiles; }
    void addFileInContainer() { ++totalNumFilesInContainer; }
    void addTimeWaited(int msec);
    void addRetries(int n);
    void addFailedFile() { ++failedRequests; }
    void startBandwidthLogging();
    void stopBandwidthLogging();
    void loadingStarted() { loadingStartedAt = now(); }
    void allLoadJobsFinished() { allLoadJobsFinishedAt = now(); }
    void allVolumeJobsFinished() { allVolumeJobsFinishedAt = now(); }

    // The line that logCurrentStatistics writes.
    std::string currentStatistics() const;
    // The line at level 1 under "Kzip".
    void logCurrentStatistics() const;
    // Everything to zero, the minimums to 0x7FFFFFFF; the start of bandwidth
    // logging and the three loading times stay.
    void reset();

    std::atomic<uint64_t> maxConcurrentRequests{0};
    std::atomic<uint64_t> maxMemoryUsage{0};
    std::atomic<int64_t> noMemoryEventCount{0};
    std::atomic<int> minLatency{0x7FFFFFFF};
    std::atomic<int> maxLatency{0};
    std::atomic<int64_t> sumLatency{0};
    std::atomic<int64_t> totalRead{0};
    std::atomic<int64_t> totalNumExmFiles{0};
    std::atomic<int64_t> totalNumDcmFiles{0};
    std::atomic<int64_t> totalNumContainerFiles{0};
    std::atomic<int64_t> totalNumFilesInContainer{0};
    std::atomic<int64_t> totalReadWaitTime{0};
    std::atomic<int> minReadWaitTime{0x7FFFFFFF};
    std::atomic<int> maxReadWaitTime{0};
    std::atomic<int64_t> totalRetries{0};
    std::atomic<int64_t> requestsWith1Retry{0};
    std::atomic<int64_t> requestsWith2Retries{0};
    std::atomic<int64_t> requestsWith3OrMoreRetries{0};
    std::atomic<int64_t> failedRequests{0};
    // Steady-clock times in nanoseconds since the clock's epoch; 0 for none.
    std::atomic<int64_t> bandwidthStart{0};
    std::atomic<int64_t> activeTime{0}; // msec
    std::atomic<int64_t> loadingStartedAt{0};
    std::atomic<int64_t> allLoadJobsFinishedAt{0};
    std::atomic<int64_t> allVolumeJobsFinishedAt{0};

private:
    static int64_t now();
};

} // namespace Kz
