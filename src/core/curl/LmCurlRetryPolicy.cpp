#include <mdxlib/curl/LmCurlRetryPolicy.h>

#include <mdxlib/curl/LmCurlErrors.h>

#include <algorithm>
#include <string>
#include <thread>

LmCurlExponentialBackoffRetryPolicy::LmCurlExponentialBackoffRetryPolicy(
    int maxFailures, std::chrono::milliseconds initialDelay, std::chrono::milliseconds maxDelay,
    double factor)
    : mMaxFailures(maxFailures)
    , mDelay(initialDelay)
    , mMaxDelay(maxDelay)
    , mFactor(factor)
{
}

LmCurlExponentialBackoffRetryPolicy LmCurlExponentialBackoffRetryPolicy::forRequests()
{
    return LmCurlExponentialBackoffRetryPolicy(5, std::chrono::milliseconds(1000),
                                               std::chrono::milliseconds(300000), 2.0);
}

LmCurlExponentialBackoffRetryPolicy LmCurlExponentialBackoffRetryPolicy::forCloudReader()
{
    return LmCurlExponentialBackoffRetryPolicy(6, std::chrono::milliseconds(1000),
                                               std::chrono::milliseconds(8000), 2.0);
}

long long LmCurlExponentialBackoffRetryPolicy::onFailure()
{
    ++mFailures;
    if (mFailures >= mMaxFailures)
        return 0;
    if (!mRng) {
        auto const seed = std::chrono::system_clock::now().time_since_epoch().count();
        mRng = std::make_unique<std::mt19937_64>(static_cast<std::mt19937_64::result_type>(seed));
    }
    long long const jitter = std::uniform_int_distribution<long long>(0, 1000)(*mRng);
    std::chrono::milliseconds const current = mDelay;
    auto const grown = static_cast<long long>(static_cast<double>(mDelay.count()) * mFactor);
    mDelay = std::min(mMaxDelay, std::chrono::milliseconds(grown));
    return jitter + current.count();
}

namespace LmCurlRetry {

void sleepFor(long long milliseconds)
{
    if (milliseconds > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void runFormA(LmCurlExponentialBackoffRetryPolicy& policy, std::function<Outcome()> const& attempt,
              char const* what, Sleeper const& sleeper)
{
    if (policy.isExhausted())
        throw RetryPolicyExhaustedError(std::string(what) + ": retry policy exhausted");
    for (;;) {
        Outcome const outcome = attempt();
        if (outcome == Outcome::Success)
            return;
        if (outcome == Outcome::Unrecoverable)
            throw UnrecoverableResponseError(std::string(what) + ": unrecoverable response");
        sleeper(policy.onFailure());
        if (policy.isExhausted())
            throw RetryPolicyExhaustedError(std::string(what) + ": retry policy exhausted after " +
                                            std::to_string(policy.failures()) + " failures");
    }
}

bool runFormB(LmCurlExponentialBackoffRetryPolicy& policy, std::function<Outcome()> const& attempt,
              std::function<void(int, long long)> const& onRetry, Sleeper const& sleeper)
{
    for (;;) {
        Outcome const outcome = attempt();
        if (outcome == Outcome::Success)
            return true;
        if (outcome == Outcome::Unrecoverable || policy.isExhausted())
            return false;
        long long const wait = policy.onFailure();
        sleeper(wait);
        if (onRetry)
            onRetry(policy.failures(), wait);
    }
}

} // namespace LmCurlRetry
