// A progress line on standard error for long jobs: the phase (walk, read,
// optimise, write), items done of the total, and the rate.
//
// Only on a terminal, redrawn in place a few times a second, and cleared
// at the end; in a log or a pipe, and with --quiet, nothing is printed.
#pragma once

#include <mdxlib/platform/McWatch.h>

#include <cstdint>
#include <string>

namespace mdxtool {

class Progress
{
public:
    explicit Progress(bool wanted);
    ~Progress();

    // Starts a phase over total items of unit ("files"); total 0 means not
    // known yet.
    void phase(char const* name, int64_t total, char const* unit);
    // Reports that done items of the phase are finished; prints only when
    // it is time.
    void update(int64_t done);
    // Clears the line.
    void finish();

private:
    bool mEnabled;
    std::string mPhase;
    std::string mUnit;
    int64_t mTotal = 0;
    McWatch mPhaseWatch;
    int64_t mLastPrintMsec = -1000;
    bool mPrinted = false;
};

} // namespace mdxtool
