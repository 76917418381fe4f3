// A monotonic stopwatch with millisecond resolution, for timing statistics.
#pragma once

#include <mdxlib/Export.h>

#include <chrono>
#include <cstdint>

class MDX_EXPORT McWatch
{
public:
    // Starts running.
    McWatch();

    void start();
    // Milliseconds since the last start.
    int64_t elapsedMsec() const;
    double elapsedSeconds() const;

private:
    std::chrono::steady_clock::time_point mStart;
};
