// A vector of three floats, for the geometry of image planes and volumes.
//
// It orders lexically (x, then y, then z) so that it can serve as a map key:
// image normals are grouped by exact value in the analysis of a series.
#pragma once

#include <cmath>

struct McVec3f
{
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;

    McVec3f() = default;
    McVec3f(float ax, float ay, float az)
        : x(ax)
        , y(ay)
        , z(az)
    {
    }

    float& operator[](int i) { return i == 0 ? x : i == 1 ? y : z; }
    float operator[](int i) const { return i == 0 ? x : i == 1 ? y : z; }

    McVec3f operator+(McVec3f const& o) const { return {x + o.x, y + o.y, z + o.z}; }
    McVec3f operator-(McVec3f const& o) const { return {x - o.x, y - o.y, z - o.z}; }
    McVec3f operator-() const { return {-x, -y, -z}; }
    McVec3f operator*(float s) const { return {x * s, y * s, z * s}; }
    McVec3f& operator+=(McVec3f const& o) { return *this = *this + o; }
    McVec3f& operator-=(McVec3f const& o) { return *this = *this - o; }
    McVec3f& operator*=(float s) { return *this = *this * s; }

    float dot(McVec3f const& o) const { return x * o.x + y * o.y + z * o.z; }
    McVec3f cross(McVec3f const& o) const
    {
        return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x};
    }
    float length2() const { return dot(*this); }
    float length() const { return std::sqrt(length2()); }
    // Scales to unit length and returns the old length; a zero vector stays
    // as it is.
    float normalize()
    {
        float const len = length();
        if (len > 0.0f)
            *this *= 1.0f / len;
        return len;
    }

    bool operator==(McVec3f const& o) const { return x == o.x && y == o.y && z == o.z; }
    bool operator!=(McVec3f const& o) const { return !(*this == o); }
    bool operator<(McVec3f const& o) const
    {
        if (x != o.x)
            return x < o.x;
        if (y != o.y)
            return y < o.y;
        return z < o.z;
    }
};

inline McVec3f operator*(float s, McVec3f const& v)
{
    return v * s;
}
