// A progress line on standard error for long jobs.
//
// On a terminal the line is redrawn in place a few times a second; in a log
// (CI, a pipe) a full line is written every few seconds instead, so logs
// stay short.
#pragma once

#include <mdxlib/platform/McWatch.h>

#include <cstdint>

namespace mdxtool {

class Progress
{
public:
    explicit Progress(bool enabled);

    // Reports that done items are finished; prints only when it is time.
    void update(int64_t done);
    // Clears the line on a terminal.
    void finish();

private:
    void print(int64_t done);

    bool mEnabled;
    bool mTerminal;
    McWatch mTotal;
    int64_t mLastPrintMsec = 0;
    bool mPrinted = false;
};

} // namespace mdxtool
