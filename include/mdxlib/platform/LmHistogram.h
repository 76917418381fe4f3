// A histogram of voxel values: counts per bin over [minValue, maxValue].
#pragma once

#include <mdxlib/Export.h>

#include <cstddef>
#include <cstdint>
#include <vector>

class MDX_EXPORT LmHistogram
{
public:
    LmHistogram() = default;
    LmHistogram(std::vector<uint64_t> bins, float minValue, float maxValue);

    int numBins() const { return static_cast<int>(mBins.size()); }
    // Sum of all bins.
    uint64_t numValues() const;
    float minValue() const { return mMin; }
    float maxValue() const { return mMax; }
    std::vector<uint64_t> const& bins() const { return mBins; }
    uint64_t bin(int i) const { return mBins[static_cast<size_t>(i)]; }

    bool operator==(LmHistogram const& o) const
    {
        return mBins == o.mBins && mMin == o.mMin && mMax == o.mMax;
    }

private:
    std::vector<uint64_t> mBins;
    float mMin = 0.0f;
    float mMax = 0.0f;
};
