#include "Progress.h"

#include <cstdio>
#include <unistd.h>

namespace mdxtool {

namespace {
constexpr int64_t kIntervalMsec = 200;
} // namespace

Progress::Progress(bool wanted)
    : mEnabled(wanted && isatty(STDERR_FILENO) != 0)
{
}

Progress::~Progress()
{
    finish();
}

void Progress::phase(char const* name, int64_t total, char const* unit)
{
    mPhase = name;
    mUnit = unit;
    mTotal = total;
    mPhaseWatch = McWatch();
    mLastPrintMsec = -1000;
    update(0);
}

void Progress::update(int64_t done)
{
    if (!mEnabled)
        return;
    int64_t const now = mPhaseWatch.elapsedMsec();
    if (now - mLastPrintMsec < kIntervalMsec && done != mTotal)
        return;
    mLastPrintMsec = now;
    double const seconds = mPhaseWatch.elapsedSeconds();
    double const rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    if (mTotal > 0)
        std::fprintf(stderr, "\r%s: %lld/%lld %s (%.0f/s)\033[K", mPhase.c_str(),
                     static_cast<long long>(done), static_cast<long long>(mTotal), mUnit.c_str(), rate);
    else
        std::fprintf(stderr, "\r%s: %lld %s (%.0f/s)\033[K", mPhase.c_str(), static_cast<long long>(done),
                     mUnit.c_str(), rate);
    std::fflush(stderr);
    mPrinted = true;
}

void Progress::finish()
{
    if (mPrinted) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        mPrinted = false;
    }
}

} // namespace mdxtool
