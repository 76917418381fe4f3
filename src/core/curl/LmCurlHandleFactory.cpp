#include <mdxlib/curl/LmCurlHandleFactory.h>

#include <mdxlib/curl/LmCurlSettings.h>

#include <curl/curl.h>

namespace {

void cleanupEasy(void* handle)
{
    curl_easy_cleanup(handle);
}

int cleanupMulti(void* handle)
{
    return curl_multi_cleanup(handle);
}

} // namespace

// Keeps handle for reuse; a full pool first gives up its oldest handle.
template <typename Handle, typename Cleanup>
void LmCurlHandleFactory::returnToPool(std::vector<void*>& pool, Handle& handle, Cleanup cleanup)
{
    if (!handle)
        return;
    std::lock_guard<std::mutex> lock(mMutex);
    if (mMaxHandles == 0) {
        handle.reset();
        return;
    }
    if (pool.size() >= mMaxHandles) {
        cleanup(pool.front());
        pool.erase(pool.begin());
    }
    pool.push_back(handle.release());
}

LmCurlHandleFactory::LmCurlHandleFactory(unsigned long maxHandles)
    : mMaxHandles(maxHandles)
{
    LmCurlSettings::get(); // the transport is initialised before its first handle
    mHandles.reserve(maxHandles);
    mMultiHandles.reserve(maxHandles);
}

LmCurlHandleFactory::~LmCurlHandleFactory()
{
    for (void* handle : mHandles)
        curl_easy_cleanup(handle);
    for (void* handle : mMultiHandles)
        curl_multi_cleanup(handle);
}

LmCurlEasyHandle LmCurlHandleFactory::createHandle()
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (mHandles.empty())
        return LmCurlEasyHandle(curl_easy_init(), cleanupEasy);
    void* handle = mHandles.back();
    mHandles.pop_back();
    curl_easy_reset(handle);
    return LmCurlEasyHandle(handle, cleanupEasy);
}

void LmCurlHandleFactory::cleanupHandle(LmCurlEasyHandle&& handle)
{
    returnToPool(mHandles, handle, cleanupEasy);
}

LmCurlMultiHandle LmCurlHandleFactory::createMultiHandle()
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (mMultiHandles.empty()) {
        CURLM* multi = curl_multi_init();
        if (multi) {
            curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS,
                              static_cast<long>(LmCurlSettings::get().maxConnects));
            curl_multi_setopt(multi, CURLMOPT_PIPELINING, 0L);
        }
        return LmCurlMultiHandle(multi, cleanupMulti);
    }
    void* handle = mMultiHandles.back();
    mMultiHandles.pop_back();
    return LmCurlMultiHandle(handle, cleanupMulti);
}

void LmCurlHandleFactory::cleanupMultiHandle(LmCurlMultiHandle&& handle)
{
    returnToPool(mMultiHandles, handle, cleanupMulti);
}

size_t LmCurlHandleFactory::idleHandles() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mHandles.size();
}

size_t LmCurlHandleFactory::idleMultiHandles() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mMultiHandles.size();
}
