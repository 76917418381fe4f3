#include <mdxlib/platform/LmHistogram.h>

#include <numeric>

LmHistogram::LmHistogram(std::vector<uint64_t> bins, float minValue, float maxValue)
    : mBins(std::move(bins))
    , mMin(minValue)
    , mMax(maxValue)
{
}

uint64_t LmHistogram::numValues() const
{
    return std::accumulate(mBins.begin(), mBins.end(), uint64_t{0});
}
