// Small geometric value types: a vector of two floats.
#pragma once

struct McVec2f
{
    float x = 0.0f;
    float y = 0.0f;

    McVec2f() = default;
    McVec2f(float ax, float ay)
        : x(ax)
        , y(ay)
    {
    }

    bool operator==(McVec2f const& o) const { return x == o.x && y == o.y; }
    bool operator!=(McVec2f const& o) const { return !(*this == o); }
};
