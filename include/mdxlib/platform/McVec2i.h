// Small geometric value types: a vector of two ints.
#pragma once

#include <cstdint>

struct McVec2i
{
    int32_t x = 0;
    int32_t y = 0;

    McVec2i() = default;
    McVec2i(int32_t ax, int32_t ay)
        : x(ax)
        , y(ay)
    {
    }

    bool operator==(McVec2i const& o) const { return x == o.x && y == o.y; }
    bool operator!=(McVec2i const& o) const { return !(*this == o); }
};
