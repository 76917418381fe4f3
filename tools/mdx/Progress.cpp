#include "Progress.h"

#include <cstdio>
#include <unistd.h>

namespace mdxtool {

namespace {
constexpr int64_t kTerminalIntervalMsec = 200;
constexpr int64_t kLogIntervalMsec = 5000;
} // namespace

Progress::Progress(bool enabled)
    : mEnabled(enabled)
    , mTerminal(isatty(STDERR_FILENO) != 0)
{
}

void Progress::update(int64_t done)
{
    if (!mEnabled)
        return;
    int64_t const now = mTotal.elapsedMsec();
    if (now - mLastPrintMsec < (mTerminal ? kTerminalIntervalMsec : kLogIntervalMsec))
        return;
    mLastPrintMsec = now;
    print(done);
}

void Progress::print(int64_t done)
{
    double const seconds = mTotal.elapsedSeconds();
    double const rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    std::fprintf(stderr, "%sfiles done: %lld (%.0f files/s)%s", mTerminal ? "\r" : "",
                 static_cast<long long>(done), rate, mTerminal ? "\033[K" : "\n");
    std::fflush(stderr);
    mPrinted = true;
}

void Progress::finish()
{
    if (mEnabled && mTerminal && mPrinted) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
    }
}

} // namespace mdxtool
