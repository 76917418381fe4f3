// One fixed-size page of object data in the cloud reader's pool.
//
// used is written by the reader thread while a reading thread reads it, so
// it is an atomic; offset is set before the page is handed to readers.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/cloudreader/Config.h>

#include <atomic>
#include <cstdint>

namespace Kz {

class MDX_EXPORT MemoryPage
{
public:
    MemoryPage() = default;
    MemoryPage(MemoryPage const&) = delete;
    MemoryPage& operator=(MemoryPage const&) = delete;

    // An anonymous private mapping with api 2 ("mmap"), malloc with any
    // other, unset included (see MemoryPool.cpp for why); true if there is a
    // buffer.
    bool memAlloc(Config::MemoryAPI api, unsigned int size);
    void memFree(Config::MemoryAPI api);

    int64_t offset = 0;
    std::atomic<uint32_t> used{0};
    uint32_t size = 0;
    char* data = nullptr;
};

} // namespace Kz
