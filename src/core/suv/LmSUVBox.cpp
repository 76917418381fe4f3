// The SUV box: the part of a PET volume that holds the patient, found by a
// scan-line region fill from the middle slice at a low SUV threshold.
#include <mdxlib/suv/LmSUVStatistics.h>

#include <mdxlib/platform/McBitfield.h>

#include <cmath>
#include <cstdint>
#include <vector>

namespace {

constexpr float kThresholdSuv = 0.1f;
// Least volume of a region in cubic units of the bounding box: 120 ml in mm.
constexpr double kLeastRegionVolume = 120000.0;
// Least width and height of the result, in units of the bounding box.
constexpr float kLeastExtent = 100.0f;
// Segments hold 16-bit coordinates.
constexpr int kMaxAxis = 32767;

class RegionFill
{
public:
    RegionFill(McVec3i const& grid, unsigned short const* data, float threshold)
        : mGrid(grid)
        , mData(data)
        , mLeast(leastInside(threshold))
        , mVisited(static_cast<size_t>(grid.x) * static_cast<size_t>(grid.y) * static_cast<size_t>(grid.z))
    {
    }

    size_t index(int x, int y, int z) const
    {
        return (static_cast<size_t>(z) * static_cast<size_t>(mGrid.y) + static_cast<size_t>(y)) *
                   static_cast<size_t>(mGrid.x) +
               static_cast<size_t>(x);
    }
    // threshold <= value, for whole values: value >= ceil(threshold).
    static uint32_t leastInside(float threshold)
    {
        if (threshold <= 0.0f)
            return 0;
        if (!(threshold <= 65535.0f)) // also NaN: nothing is inside
            return 65536;
        return static_cast<uint32_t>(std::ceil(threshold));
    }
    bool inside(size_t i) const { return mData[i] >= mLeast; }
    bool fresh(size_t i) const { return inside(i) && !mVisited[i]; }

    // Fills the region of (x, y, z); returns its voxel count and box.
    size_t fill(int x, int y, int z, McBox3i& box)
    {
        box = McBox3i(x, x, y, y, z, z);
        mStack.clear();
        if (z >= 0 && z < mGrid.z && inside(index(x, y, z))) {
            push(z - 1, y, x, x, box);
            push(z + 1, y, x, x, box);
            push(z, y - 1, x, x, box);
            push(z, y + 1, x, x, box);
            push(z, y, x, x, box);
        }
        size_t count = 0;
        while (!mStack.empty()) {
            SF3D_Segment const segment = mStack.back();
            mStack.pop_back();
            size_t const row = index(0, segment.y, segment.z);
            int cursor = segment.xLeft;
            while (cursor <= segment.xRight) {
                if (!fresh(row + static_cast<size_t>(cursor))) {
                    ++cursor;
                    continue;
                }
                int left = cursor;
                while (left > 0 && inside(row + static_cast<size_t>(left - 1)))
                    --left;
                int right = cursor;
                while (right < mGrid.x - 1 && inside(row + static_cast<size_t>(right + 1)))
                    ++right;
                mVisited.setRange(row + static_cast<size_t>(left), row + static_cast<size_t>(right));
                push(segment.z - 1, segment.y, left, right, box);
                push(segment.z + 1, segment.y, left, right, box);
                push(segment.z, segment.y - 1, left, right, box);
                push(segment.z, segment.y + 1, left, right, box);
                count += static_cast<size_t>(right - left + 1);
                cursor = right + 1;
            }
        }
        return count;
    }

    size_t stackCapacity() const { return mStack.capacity(); }

private:
    void push(int z, int y, int left, int right, McBox3i& box)
    {
        if (z < 0 || z >= mGrid.z || y < 0 || y >= mGrid.y)
            return;
        box.extendBy(McBox3i(left, right, y, y, z, z));
        // A segment with nothing left to fill would be popped and scanned in
        // vain; leaving it out keeps the stack to the work still to do, and
        // the result is the same, as the box was widened all the same.
        size_t const row = index(0, y, z);
        for (int x = left; x <= right; ++x) {
            if (fresh(row + static_cast<size_t>(x))) {
                mStack.push_back(SF3D_Segment{static_cast<int16_t>(z), static_cast<int16_t>(y),
                                              static_cast<int16_t>(x), static_cast<int16_t>(right)});
                return;
            }
        }
    }

    McVec3i mGrid;
    unsigned short const* mData;
    uint32_t mLeast;
    McBitfield mVisited;
    std::vector<SF3D_Segment> mStack;
};

bool axesFit(McVec3i const& v)
{
    for (int i = 0; i < 3; ++i)
        if (v[i] <= 0 || v[i] > kMaxAxis)
            return false;
    return true;
}

// An index range of the coarse grid g in the grid of dims: each coarse voxel
// covers f = dims / g fine ones, and the last coarse voxel reaches the end.
void scaleUp(McBox3i& box, McVec3i const& g, McVec3i const& dims)
{
    for (int i = 0; i < 3; ++i) {
        if (g[i] <= 0)
            continue;
        int const f = dims[i] / g[i];
        if (f <= 1)
            continue;
        box.max[i] = box.max[i] == g[i] - 1 ? dims[i] - 1 : box.max[i] * f + f - 1;
        box.min[i] *= f;
    }
}

} // namespace

McBox3i LmSUVStatistics::computeSUVBox(HxParamBundle& params, McVec3i const& dims, McVec3i lowResDims,
                                       McBox3f const& bbox, unsigned short* data)
{
    McBox3i const empty;
    if (!data)
        return empty;
    McVec3i const g = lowResDims.x == 0 || lowResDims.y == 0 || lowResDims.z == 0 ? dims : lowResDims;
    if (!axesFit(g) || !axesFit(dims))
        return empty;
    if (!supportsSUV(params) || !suvModeSupported(params, SUV_MODE_BODY_WEIGHT))
        return empty;
    if (!setSUVMode(params, SUV_MODE_BODY_WEIGHT))
        return empty;
    float const threshold = suvToRaw(params, kThresholdSuv, nullptr);
    McVec3f const v = getVoxelSize(bbox, dims);
    // The voxel of the full grid, also when data is coarser.
    double const voxelVolume = static_cast<double>(v.x) * v.y * v.z;

    RegionFill fill(g, data, threshold);
    McBox3i total;
    int const zMid = g.z / 2;
    for (int y = 0; y < g.y; ++y) {
        for (int x = 0; x < g.x; ++x) {
            if (!fill.fresh(fill.index(x, y, zMid)))
                continue;
            McBox3i region;
            size_t const count = fill.fill(x, y, zMid, region);
            if (count > 0 &&
                (voxelVolume <= 0.0 || static_cast<double>(count) * voxelVolume >= kLeastRegionVolume))
                total.extendBy(region);
        }
    }
    if (!total.isValid())
        return empty;
    if (g != dims)
        scaleUp(total, g, dims);
    for (int i = 0; i < 3; ++i)
        if (total.min[i] < 0 || total.max[i] >= dims[i])
            return empty;
    if (static_cast<float>(total.max[0] - total.min[0] + 1) * v.x < kLeastExtent ||
        static_cast<float>(total.max[1] - total.min[1] + 1) * v.y < kLeastExtent)
        return empty;
    return total;
}
