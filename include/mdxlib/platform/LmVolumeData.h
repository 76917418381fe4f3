// The voxels of one resolution level of a volume: a grid of values of one
// element type (the codes of McTypedData2D: 7 is unsigned 16-bit), x
// fastest. Readers hold a read lock while they use the block, so that a
// level being replaced is never read half-way.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McVec3i.h>

#include <mutex>
#include <shared_mutex>
#include <vector>

class MDX_EXPORT LmVolumeData
{
public:
    // bytes must hold dims.x * dims.y * dims.z values of primType.
    LmVolumeData(McVec3i dims, int primType, std::vector<unsigned char> bytes);

    McVec3i const& dims() const { return mDims; }
    int primType() const { return mPrimType; }

    // Read access for as long as it lives. block() is the values as one
    // contiguous block, or null when they are not held as one.
    class ReadLock
    {
    public:
        explicit ReadLock(LmVolumeData const& data);
        void const* block() const;

    private:
        LmVolumeData const& mData;
        std::shared_lock<std::shared_mutex> mLock;
    };
    ReadLock lockRead() const { return ReadLock(*this); }

private:
    McVec3i mDims;
    int mPrimType;
    std::vector<unsigned char> mBytes;
    mutable std::shared_mutex mMutex;
};
