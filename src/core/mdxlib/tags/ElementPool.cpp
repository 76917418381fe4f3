#include "ElementPool.h"

#include <mdxlib/tags/TagElement.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

namespace Mdx {
namespace ElementPool {

namespace {

constexpr std::size_t kBlockSize = sizeof(TagElement);
constexpr int kBatch = 256; // blocks per slab and per move between lists

// The pool hides use-after-free and leaks from AddressSanitizer, which
// checks each heap block on its own: there every element is a heap block.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif

struct FreeBlock
{
    FreeBlock* next;
};

// A chain of free blocks with its length.
struct Chain
{
    FreeBlock* head = nullptr;
    int count = 0;

    void push(FreeBlock* block)
    {
        block->next = head;
        head = block;
        ++count;
    }
    FreeBlock* pop()
    {
        FreeBlock* const block = head;
        head = block->next;
        --count;
        return block;
    }
    // Splits off up to n blocks from the front.
    Chain take(int n)
    {
        Chain taken;
        while (head && taken.count < n)
            taken.push(pop());
        return taken;
    }
    void append(Chain other)
    {
        while (other.head)
            push(other.pop());
    }
};

// The blocks no thread holds, and the slabs (kept to the end, so that the
// leak checker sees every block as reachable).
struct Shared
{
    std::mutex mutex;
    Chain free;
    std::vector<void*> slabs;
};

Shared& shared()
{
    static Shared* const instance = new Shared; // outlives every thread's list
    return *instance;
}

// One thread's free blocks. Plain data, so that it stays usable after the
// thread's objects with destructors are gone: elements freed then (by
// static objects at exit) go to the shared list.
struct Local
{
    Chain free;
    bool retired = false;
};
thread_local Local tLocal;

// Hands the thread's blocks over when the thread ends.
struct Retire
{
    ~Retire()
    {
        Shared& pool = shared();
        std::lock_guard<std::mutex> lock(pool.mutex);
        pool.free.append(tLocal.free);
        tLocal.free = Chain();
        tLocal.retired = true;
    }
};
thread_local Retire tRetire;

std::atomic<long> gInUse{0};

// Fills chain with up to n blocks from the shared list, or with a new slab.
void refill(Chain& chain, int n)
{
    Shared& pool = shared();
    std::lock_guard<std::mutex> lock(pool.mutex);
    chain = pool.free.take(n);
    if (chain.count > 0)
        return;
    auto* slab = static_cast<char*>(std::malloc(kBlockSize * kBatch));
    if (!slab)
        throw std::bad_alloc();
    pool.slabs.push_back(slab);
    for (int i = kBatch - 1; i >= 0; --i)
        chain.push(reinterpret_cast<FreeBlock*>(slab + static_cast<std::size_t>(i) * kBlockSize));
}

} // namespace

void* allocate(std::size_t size)
{
    if (!kPooled || size != kBlockSize)
        return ::operator new(size);
    gInUse.fetch_add(1, std::memory_order_relaxed);
    Chain& chain = tLocal.free;
    if (!chain.head) {
        if (tLocal.retired) {
            Chain one;
            refill(one, 1);
            return one.pop();
        }
        static_cast<void>(&tRetire); // registers the hand-over at thread end
        refill(chain, kBatch);
    }
    return chain.pop();
}

void release(void* block, std::size_t size) noexcept
{
    if (!block)
        return;
    if (!kPooled || size != kBlockSize) {
        ::operator delete(block);
        return;
    }
    gInUse.fetch_sub(1, std::memory_order_relaxed);
    Chain& chain = tLocal.free;
    chain.push(static_cast<FreeBlock*>(block));
    // A thread that frees what others made passes the surplus on; one that
    // has ended passes everything.
    if (chain.count > 2 * kBatch || tLocal.retired) {
        Chain surplus = chain.take(tLocal.retired ? chain.count : kBatch);
        Shared& pool = shared();
        std::lock_guard<std::mutex> lock(pool.mutex);
        pool.free.append(surplus);
    }
}

std::size_t bytesInUse()
{
    return static_cast<std::size_t>(gInUse.load(std::memory_order_relaxed)) * kBlockSize;
}

std::size_t bytesReserved()
{
    Shared& pool = shared();
    std::lock_guard<std::mutex> lock(pool.mutex);
    return pool.slabs.size() * kBlockSize * kBatch;
}

} // namespace ElementPool
} // namespace Mdx
