#include <mdxlib/pixels/Rescale.h>
#include <mdxlib/platform/McBox3f.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace Mdx {

RescaleSlopeCalculator::RescaleSlopeCalculator(int bytesPerVoxel)
    : mBytesPerVoxel(bytesPerVoxel)
{
}

void RescaleSlopeCalculator::setLimits(float lower, float upper)
{
    mLowerLimit = lower;
    mUpperLimit = upper;
}

int RescaleSlopeCalculator::add(float slope, float intercept, int bitsStored, bool isSigned)
{
    // Signed data is shifted into the unsigned range of the voxel type; the
    // intercept absorbs the shift so that physical values stay the same.
    int64_t const offset = mBytesPerVoxel < 2 ? 128 : 32768;
    // Keeps the shifts defined for nonsense Bits Stored values.
    int const bits = std::clamp(bitsStored, 1, 32);
    int64_t storedMax = 0;
    int64_t storedMin = 0;
    float adjusted = intercept;
    if (isSigned) {
        int64_t const half = int64_t(1) << (bits - 1);
        storedMax = half + offset - 1;
        storedMin = offset - half;
        adjusted = intercept - static_cast<float>(offset) * slope;
    } else {
        storedMax = (int64_t(1) << bits) - 1;
        storedMin = 0;
    }

    if (!mHasData) {
        mSlope = slope;
        mIntercept = adjusted;
        mMaxBits = bitsStored;
        mMinAbsSlope = slope != 0.0f ? std::fabs(slope) : 1.0f;
        mHasData = true;
    } else {
        if (slope != mSlope || adjusted != mIntercept)
            mUniform = false;
        if (slope != 0.0f)
            mMinAbsSlope = std::min(mMinAbsSlope, std::fabs(slope));
        mMaxBits = std::max(mMaxBits, bitsStored);
    }

    int const result = static_cast<int>(std::min<int64_t>(storedMax, INT32_MAX));
    // An image without a rescale of its own says nothing about the range.
    if (slope == 1.0f && intercept == 0.0f)
        return result;

    float lo = static_cast<float>(storedMin) * slope + adjusted;
    float hi = static_cast<float>(storedMax) * slope + adjusted;
    if (lo < mLowerLimit) {
        ++mNumClamped;
        lo = mLowerLimit;
    }
    if (hi > mUpperLimit) {
        ++mNumClamped;
        hi = mUpperLimit;
    }
    mMinValue = std::min(mMinValue, lo);
    mMaxValue = std::max(mMaxValue, hi);
    return result;
}

float RescaleSlopeCalculator::outputRange() const
{
    return mBytesPerVoxel < 2 ? 255.0f : 65535.0f;
}

float RescaleSlopeCalculator::rescaleSlope() const
{
    if (mUniform)
        return mSlope;
    return (mMaxValue - mMinValue) / outputRange();
}

float RescaleSlopeCalculator::rescaleIntercept() const
{
    return mUniform ? mIntercept : mMinValue;
}

float RescaleSlopeCalculator::precisionBitLoss() const
{
    if (mUniform || mMinAbsSlope == 0.0f)
        return 0.0f;
    float const s = (mMaxValue - mMinValue) / outputRange();
    if (mMinAbsSlope >= std::fabs(s))
        return 0.0f;
    return std::min(static_cast<float>(mMaxBits), std::log2(std::fabs(s / mMinAbsSlope)));
}

bool computeLowResSize(int const* dims, int* lowDims, int* steps)
{
    // A few slices more than 512 would otherwise halve the slice count to
    // 256 at once; from 513 slices on the limit is 509 instead.
    int const limits[3] = {256, 256, dims[2] < 513 ? 256 : 509};
    bool reduced = false;
    for (int axis = 0; axis < 3; ++axis) {
        // The smallest step with dims / step <= limit, i.e. dims < (limit + 1) * step.
        int const step = std::max(1, dims[axis] / (limits[axis] + 1) + 1);
        steps[axis] = step;
        lowDims[axis] = dims[axis] / step;
        if (step >= 2)
            reduced = true;
    }
    return reduced;
}

void computeLowResBox(int const* dims, int const* lowDims, int const* steps, McBox3f const& box,
                      McBox3f& lowBox)
{
    // Computed into a copy first so that box and lowBox may be the same.
    McBox3f result;
    for (int axis = 0; axis < 3; ++axis) {
        float const voxel = dims[axis] < 2 ? 0.0f : (box.max[axis] - box.min[axis]) / float(dims[axis] - 1);
        result.min[axis] = box.min[axis] + float(steps[axis] - 1) * voxel * 0.5f;
        result.max[axis] = result.min[axis] + float(steps[axis]) * float(lowDims[axis] - 1) * voxel;
    }
    lowBox = result;
}

} // namespace Mdx
