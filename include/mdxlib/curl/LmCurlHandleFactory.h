// Pools of curl easy and multi handles.
//
// Connections are expensive (TLS to cloud endpoints), so handles are reset
// and reused instead of cleaned up: a reset keeps the handle's live
// connections, DNS and TLS session state. The most recently returned handle
// is handed out first; when a pool is full, the oldest idle handle goes.
// Safe for any thread.
#pragma once

#include <mdxlib/Export.h>

#include <memory>
#include <mutex>
#include <vector>

using LmCurlEasyHandle = std::unique_ptr<void, void (*)(void*)>;
using LmCurlMultiHandle = std::unique_ptr<void, int (*)(void*)>;

class MDX_EXPORT LmCurlHandleFactory
{
public:
    explicit LmCurlHandleFactory(unsigned long maxHandles);
    ~LmCurlHandleFactory();

    LmCurlHandleFactory(LmCurlHandleFactory const&) = delete;
    LmCurlHandleFactory& operator=(LmCurlHandleFactory const&) = delete;

    LmCurlEasyHandle createHandle();
    void cleanupHandle(LmCurlEasyHandle&& handle);
    LmCurlMultiHandle createMultiHandle();
    void cleanupMultiHandle(LmCurlMultiHandle&& handle);

    size_t idleHandles() const;
    size_t idleMultiHandles() const;

private:
    template <typename Handle, typename Cleanup>
    void returnToPool(std::vector<void*>& pool, Handle& handle, Cleanup cleanup);

    unsigned long mMaxHandles;
    mutable std::mutex mMutex;
    std::vector<void*> mHandles;
    std::vector<void*> mMultiHandles;
};
