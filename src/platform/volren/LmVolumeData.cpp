#include <mdxlib/platform/LmVolumeData.h>

#include <mdxlib/platform/McTypedData2D.h>

LmVolumeData::LmVolumeData(McVec3i dims, int primType, std::vector<unsigned char> bytes)
    : mDims(dims)
    , mPrimType(primType)
    , mBytes(std::move(bytes))
{
}

LmVolumeData::ReadLock::ReadLock(LmVolumeData const& data)
    : mData(data)
    , mLock(data.mMutex)
{
}

void const* LmVolumeData::ReadLock::block() const
{
    size_t const count = static_cast<size_t>(mData.mDims.x > 0 ? mData.mDims.x : 0) *
                         static_cast<size_t>(mData.mDims.y > 0 ? mData.mDims.y : 0) *
                         static_cast<size_t>(mData.mDims.z > 0 ? mData.mDims.z : 0);
    size_t const size = count * static_cast<size_t>(McTypedData2D::bytesOf(mData.mPrimType));
    return size > 0 && mData.mBytes.size() >= size ? mData.mBytes.data() : nullptr;
}
