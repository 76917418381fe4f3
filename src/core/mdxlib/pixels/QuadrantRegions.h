// The region tools under QuadrantNavigation: the 4-neighbour flood fill that
// labels regions of a byte mask, and the box and centre of a mask's set
// pixels. Internal to the library; the tests reach them.
#pragma once

#include <mdxlib/pixels/BorderRegions.h>
#include <mdxlib/platform/McBox2i.h>
#include <mdxlib/platform/McVec2f.h>
#include <mdxlib/platform/McVec3i.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Mdx::quadrant {

// A byte mask and one 32-bit label per pixel, row by row.
struct Data
{
    int width = 0;
    int height = 0;
    int xStride = 1;
    int yStride = 0;
    uint8_t const* mask = nullptr;
    std::vector<int32_t>* labels = nullptr;

    uint8_t maskAt(int x, int y) const
    {
        return mask[static_cast<long>(y) * yStride + static_cast<long>(x) * xStride];
    }
    int32_t& labelAt(int x, int y) const
    {
        return (*labels)[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
    }
};

// The mask value a fill spreads over.
struct Checker
{
    uint8_t value = 1;
};

// A byte picture, row by row, without padding.
struct Mask
{
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels;

    uint8_t at(int x, int y) const
    {
        return pixels[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
    }
};

// Labels the pixels 4-connected to (x, y) that hold the checker's value and
// not yet label, and (x, y) itself. Only equality with label stops the fill,
// so it runs over other labels too: that is how regions are joined. Gives
// (pixels labelled, min y, max y); zeros when (x, y) is outside or does not
// hold the value. Iterative, with an explicit stack.
McVec3i floodFill2D(Data const& data, Checker const& checker, int x, int y, int32_t label);

// The box and centre of the set pixels of mask; the box reaches the left
// (regions 1) or right (regions 2) border. Without set pixels, or for a
// picture one pixel thin, the whole picture and centre (0.5, 0.5).
void doBoundingBoxV1(Mask const& mask, McBox2i& box, McVec2f& center, int regions);

// Thresholded at 7 and grown by the 4 neighbours: the tissue mask the
// algorithms start from.
Mask tissueMask(uint8_t const* firstBytes, int width, int height, int xStride, int yStride);

// Labels every region of mask as V1 does (a new label at every unlabelled
// pixel); gives the label of the largest region, the first on ties, or 0.
int32_t labelRegionsV1(Mask const& mask, std::vector<int32_t>& labels, int32_t* bestCount = nullptr);

} // namespace Mdx::quadrant
