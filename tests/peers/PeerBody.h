// The byte stream every test peer serves (peerlib.py holds the same formula in
// Python): byte i can be recomputed from its offset, so a body, a range or a
// file is checked byte for byte without a copy. Used by the transport tests
// and by bench/download.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mdxpeer {

inline uint64_t mix(uint64_t x)
{
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

inline uint8_t byteAt(uint64_t i)
{
    uint64_t const n = i >> 3;
    uint64_t const w = mix(n & 0x1FFF) ^ mix(0x2000 + (n >> 13));
    return static_cast<uint8_t>(w >> (8 * (i & 7)));
}

// Index of the first byte of data that differs from the stream at offset, or -1.
inline int64_t firstMismatch(char const* data, size_t size, uint64_t offset = 0)
{
    for (size_t i = 0; i < size; ++i)
        if (static_cast<uint8_t>(data[i]) != byteAt(offset + i))
            return static_cast<int64_t>(i);
    return -1;
}

} // namespace mdxpeer
