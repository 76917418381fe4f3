// Fixed-size blocks for tag elements, handed out from free lists.
//
// A study tree holds one element per stored attribute, hundreds of
// thousands for a large study, all of one size. From the general heap each
// costs a 48-byte chunk and a trip through malloc and free; from slabs of
// equal blocks it costs its own 32 bytes and a pointer swap. Each thread
// keeps a short free list of its own, so the common case takes no lock;
// blocks freed on another thread than the one that made them (images are
// parsed on worker threads and freed by the thread that merges) flow back
// through a shared list in batches, and a thread that ends hands its list
// over, so the pool never holds more than the peak number of elements.
//
// Slabs are kept for the life of the process: freed blocks are reused by
// the next tree rather than given back to the system.
#pragma once

#include <cstddef>

namespace Mdx {
namespace ElementPool {

// A block of `size` bytes; blocks of the pooled size come from the pool,
// any other size from the general heap.
void* allocate(std::size_t size);
// Gives back a block from allocate of the same size.
void release(void* block, std::size_t size) noexcept;
// Bytes of the pooled blocks now handed out.
std::size_t bytesInUse();
// Bytes of the slabs taken from the general heap.
std::size_t bytesReserved();

} // namespace ElementPool
} // namespace Mdx
