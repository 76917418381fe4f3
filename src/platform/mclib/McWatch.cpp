#include <mdxlib/platform/McWatch.h>

McWatch::McWatch()
    : mStart(std::chrono::steady_clock::now())
{
}

void McWatch::start()
{
    mStart = std::chrono::steady_clock::now();
}

int64_t McWatch::elapsedMsec() const
{
    auto const elapsed = std::chrono::steady_clock::now() - mStart;
    return std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
}

double McWatch::elapsedSeconds() const
{
    std::chrono::duration<double> const elapsed = std::chrono::steady_clock::now() - mStart;
    return elapsed.count();
}
