#include <mdxlib/curl/LmCurlHandleFactory.h>

#include <mdxlib/curl/LmCurlHelper.h>
#include <mdxlib/curl/LmCurlSettings.h>
#include <mdxlib/platform/McLogFile.h>

#include <curl/curl.h>

namespace {

void cleanupEasy(void* handle)
{
    curl_easy_cleanup(handle);
}

int cleanupMulti(void* handle)
{
    CURLMcode const code = curl_multi_cleanup(handle);
    if (code != CURLM_OK)
        getTheLogInstance()->errorf("curl_multi_cleanup: %s", curl_multi_strerror(code));
    return code;
}

// A multi handle without its options still works, with libcurl's defaults;
// the failure is logged. (A null handle from curl_multi_init is reported
// here and again by the first curl_multi_add_handle.)
void setMultiOption(CURLM* multi, CURLMoption option, long value, char const* name)
{
    CURLMcode const code = curl_multi_setopt(multi, option, value);
    if (code != CURLM_OK)
        getTheLogInstance()->errorf("curl_multi_setopt %s: %s", name, curl_multi_strerror(code));
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
        cleanupMulti(handle);
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
        setMultiOption(multi, CURLMOPT_MAXCONNECTS, static_cast<long>(LmCurlHelper::maxConnects()),
                       "CURLMOPT_MAXCONNECTS");
        setMultiOption(multi, CURLMOPT_PIPELINING, 0L, "CURLMOPT_PIPELINING");
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
