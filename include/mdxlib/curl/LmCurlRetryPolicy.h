// The retry clock of every retrying loop, and the two loop forms.
//
// The policy counts failures and answers the wait before the next try:
// exponential from an initial delay up to a maximum, plus a fresh random
// jitter of 0 to 1000 ms. The two loop forms differ in their number of tries
// on purpose:
//   form A (wait, then test): at most maxFailures tries; used by uploads;
//   form B (test, then wait): at most maxFailures + 1 tries; used when a
//          download stream is opened.
// The sleep is a parameter, so that tests run the loops without waiting.
#pragma once

#include <mdxlib/Export.h>

#include <chrono>
#include <functional>
#include <memory>
#include <random>

class MDX_EXPORT LmCurlExponentialBackoffRetryPolicy
{
public:
    LmCurlExponentialBackoffRetryPolicy(int maxFailures, std::chrono::milliseconds initialDelay,
                                        std::chrono::milliseconds maxDelay, double factor);

    bool isExhausted() const { return mFailures >= mMaxFailures; }
    // Records a failure; the milliseconds to wait, 0 once exhausted.
    long long onFailure();

    int failures() const { return mFailures; }

    // The settings used by stream opening and upload sessions, and by the
    // cloud reader.
    static LmCurlExponentialBackoffRetryPolicy forRequests();
    static LmCurlExponentialBackoffRetryPolicy forCloudReader();

private:
    int mFailures = 0;
    int mMaxFailures;
    std::chrono::milliseconds mDelay;
    std::chrono::milliseconds mMaxDelay;
    double mFactor;
    std::unique_ptr<std::mt19937_64> mRng;
};

namespace LmCurlRetry {

enum class Outcome
{
    Success,
    Transient,    // worth another try
    Unrecoverable // stop at once
};

using Sleeper = std::function<void(long long milliseconds)>;
MDX_EXPORT void sleepFor(long long milliseconds);

// Form A: try; on a transient failure sleep onFailure(), then stop with
// RetryPolicyExhaustedError once the policy is exhausted. An unrecoverable
// outcome ends with UnrecoverableResponseError. what names the operation in
// the exception texts.
MDX_EXPORT void runFormA(LmCurlExponentialBackoffRetryPolicy& policy, std::function<Outcome()> const& attempt,
                         char const* what, Sleeper const& sleeper = sleepFor);

// Form B: try; on a transient failure stop (false) if the policy is
// exhausted, else sleep onFailure() and try again. onRetry is told of each
// retry. True on success, false when it gave up or the outcome was
// unrecoverable.
MDX_EXPORT bool runFormB(LmCurlExponentialBackoffRetryPolicy& policy, std::function<Outcome()> const& attempt,
                         std::function<void(int failures, long long waitMsec)> const& onRetry = nullptr,
                         Sleeper const& sleeper = sleepFor);

} // namespace LmCurlRetry
