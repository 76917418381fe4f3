// Small geometric value types: a vector of three ints.
#pragma once

#include <cstdint>

struct McVec3i
{
    int32_t x = 0;
    int32_t y = 0;
    int32_t z = 0;

    McVec3i() = default;
    McVec3i(int32_t ax, int32_t ay, int32_t az)
        : x(ax)
        , y(ay)
        , z(az)
    {
    }

    int32_t& operator[](int i) { return i == 0 ? x : i == 1 ? y : z; }
    int32_t operator[](int i) const { return i == 0 ? x : i == 1 ? y : z; }
    bool operator==(McVec3i const& o) const { return x == o.x && y == o.y && z == o.z; }
    bool operator!=(McVec3i const& o) const { return !(*this == o); }
};
