// Pixel-derived numbers for volumes: one common rescale for a stack of
// images, and the low-resolution level of a volume.
//
// A volume keeps its voxels in one integer type with one linear map to
// physical values, but the images of a series may each carry their own
// Rescale Slope and Intercept. RescaleSlopeCalculator collects the value
// range of all images and yields a map that covers them all, and tells how
// many bits of precision the common map costs. The low-resolution level is
// what a viewer shows while the full volume is still loading; its size and
// the box its voxel centres span are fixed here so that every part of the
// system derives them the same way.
#pragma once

#include <mdxlib/Export.h>

#include <cfloat>

struct McBox3f;

namespace Mdx {

class MDX_EXPORT RescaleSlopeCalculator
{
public:
    explicit RescaleSlopeCalculator(int bytesPerVoxel);

    // Values outside [lower, upper] are clamped when the range is collected;
    // without a call, nothing is clamped.
    void setLimits(float lower, float upper);

    // Adds one image. Signed data is stored shifted into the unsigned range
    // of the voxel type, so its intercept is adjusted by that offset. Returns
    // the highest stored value the image can have after the shift.
    int add(float slope, float intercept, int bitsStored, bool isSigned);

    float rescaleSlope() const;
    float rescaleIntercept() const;
    // Bits of precision lost by mapping the finest image onto the common
    // slope; 0 when the images share their map.
    float precisionBitLoss() const;

    float lowerLimit() const { return mLowerLimit; }
    float upperLimit() const { return mUpperLimit; }
    float minValue() const { return mMinValue; }
    float maxValue() const { return mMaxValue; }
    float minAbsSlope() const { return mMinAbsSlope; }
    int bytesPerVoxel() const { return mBytesPerVoxel; }
    int maxBits() const { return mMaxBits; }
    int numClamped() const { return mNumClamped; }
    bool isUniform() const { return mUniform; }
    bool hasData() const { return mHasData; }

private:
    // Highest stored value of the voxel type the common map spreads over.
    float outputRange() const;

    float mLowerLimit = -FLT_MAX;
    float mUpperLimit = FLT_MAX;
    float mMinValue = FLT_MAX;
    float mMaxValue = -FLT_MAX;
    float mSlope = 1.0f;
    float mIntercept = 0.0f;
    float mMinAbsSlope = 0.0f;
    int mBytesPerVoxel = 1;
    int mMaxBits = 0;
    int mNumClamped = 0;
    bool mUniform = true;
    bool mHasData = false;
};

// Size of the low-resolution level of a volume of dims voxels: per axis the
// smallest integer step that brings dims / step to at most 256 (509 for z
// when there are more than 512 slices). dims, lowDims and steps hold three
// integers each. True when some axis is reduced.
MDX_EXPORT bool computeLowResSize(int const* dims, int* lowDims, int* steps);

// The box spanned by the voxel centres of the low-resolution level, given
// the box of the full volume: each low voxel sits in the middle of the
// steps full voxels it stands for.
MDX_EXPORT void computeLowResBox(int const* dims, int const* lowDims, int const* steps, McBox3f const& box,
                                 McBox3f& lowBox);

} // namespace Mdx
