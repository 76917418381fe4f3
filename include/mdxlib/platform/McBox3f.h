// Axis-aligned boxes in world space (float) and in voxels (int).
//
// A box is empty when min > max on some axis. The default float box is the
// empty box with min 0 and max -1e10 on each axis; the default int box has
// min 0 and max -1.
#pragma once

#include <mdxlib/platform/McVec3f.h>
#include <mdxlib/platform/McVec3i.h>

#include <cstdint>

struct McBox3f
{
    float min[3] = {0.0f, 0.0f, 0.0f};
    float max[3] = {-1e10f, -1e10f, -1e10f};

    McBox3f() = default;
    McBox3f(float xmin, float xmax, float ymin, float ymax, float zmin, float zmax)
        : min{xmin, ymin, zmin}
        , max{xmax, ymax, zmax}
    {
    }

    bool isEmpty() const { return min[0] > max[0] || min[1] > max[1] || min[2] > max[2]; }
    bool operator==(McBox3f const& o) const
    {
        for (int i = 0; i < 3; ++i)
            if (min[i] != o.min[i] || max[i] != o.max[i])
                return false;
        return true;
    }
    bool operator!=(McBox3f const& o) const { return !(*this == o); }
};

struct McBox3i
{
    int32_t min[3] = {0, 0, 0};
    int32_t max[3] = {-1, -1, -1};

    McBox3i() = default;
    McBox3i(int32_t xmin, int32_t xmax, int32_t ymin, int32_t ymax, int32_t zmin, int32_t zmax)
        : min{xmin, ymin, zmin}
        , max{xmax, ymax, zmax}
    {
    }

    // Valid when min <= max on all three axes.
    bool isValid() const { return min[0] <= max[0] && min[1] <= max[1] && min[2] <= max[2]; }
    // Widens this box to hold box. An empty box adds nothing, and an empty
    // box widened by a valid one becomes that box: widening the empty box's
    // corners (0 and -1) would otherwise drag every union to index 0.
    void extendBy(McBox3i const& box)
    {
        if (!box.isValid())
            return;
        if (!isValid()) {
            *this = box;
            return;
        }
        for (int i = 0; i < 3; ++i) {
            min[i] = box.min[i] < min[i] ? box.min[i] : min[i];
            max[i] = box.max[i] > max[i] ? box.max[i] : max[i];
        }
    }
    bool operator==(McBox3i const& o) const
    {
        for (int i = 0; i < 3; ++i)
            if (min[i] != o.min[i] || max[i] != o.max[i])
                return false;
        return true;
    }
    bool operator!=(McBox3i const& o) const { return !(*this == o); }
};

// The size of one voxel of a grid of dims voxels whose centres span bbox:
// the extent over dims - 1 along each axis, or the extent itself for an
// axis of at most one voxel.
inline McVec3f getVoxelSize(McBox3f const& bbox, McVec3i const& dims)
{
    McVec3f size;
    for (int i = 0; i < 3; ++i) {
        float const extent = bbox.max[i] - bbox.min[i];
        size[i] = dims[i] > 1 ? extent / static_cast<float>(dims[i] - 1) : extent;
    }
    return size;
}
