// A 4x4 float matrix, row-major: m[row][column]. Default: identity.
#pragma once

struct McMat4f
{
    float m[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};

    bool operator==(McMat4f const& o) const
    {
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c)
                if (m[r][c] != o.m[r][c])
                    return false;
        return true;
    }
    bool operator!=(McMat4f const& o) const { return !(*this == o); }
};
