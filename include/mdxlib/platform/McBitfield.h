// One bit per element, for marking voxels of a volume as visited.
#pragma once

#include <mdxlib/Export.h>

#include <cstddef>
#include <cstdint>
#include <vector>

class MDX_EXPORT McBitfield
{
public:
    McBitfield() = default;
    explicit McBitfield(size_t size) { resize(size); }

    // size bits, all clear.
    void resize(size_t size);
    size_t size() const { return mSize; }
    bool operator[](size_t i) const { return i < mSize && (mWords[i >> 6] >> (i & 63)) & 1u; }
    void set(size_t i);
    // Sets the bits first to last, both inclusive; indices past the end are
    // left out.
    void setRange(size_t first, size_t last);
    // Bytes held by the bits.
    size_t memoryUsage() const { return mWords.size() * sizeof(uint64_t); }

private:
    std::vector<uint64_t> mWords;
    size_t mSize = 0;
};
