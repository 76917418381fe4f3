// Small geometric value types: an integer rectangle given by its inclusive
// corners, x min, y min, x max, y max.
#pragma once

#include <cstdint>

struct McBox2i
{
    int32_t xMin = 0;
    int32_t yMin = 0;
    int32_t xMax = 0;
    int32_t yMax = 0;

    McBox2i() = default;
    McBox2i(int32_t x0, int32_t y0, int32_t x1, int32_t y1)
        : xMin(x0)
        , yMin(y0)
        , xMax(x1)
        , yMax(y1)
    {
    }

    bool operator==(McBox2i const& o) const
    {
        return xMin == o.xMin && yMin == o.yMin && xMax == o.xMax && yMax == o.yMax;
    }
    bool operator!=(McBox2i const& o) const { return !(*this == o); }
};
