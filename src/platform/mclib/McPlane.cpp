#include <mdxlib/platform/McPlane.h>

McPlane::McPlane(McVec3f const& normal, McVec3f const& point)
    : mNormal(normal)
    , mDistance(normal.dot(point))
{
}

void McPlane::transformInv(McMat4f const& matrix)
{
    // With M v = A v + t, a volume point v lies on the plane exactly when
    // n . (A v + t) == d, that is (A^T n) . v == d - n . t. Dividing both
    // sides by |A^T n| gives the unit normal and the distance in the volume's
    // frame; no inverse of M is needed, and the sides are kept.
    auto const& m = matrix.m;
    McVec3f const n = mNormal;
    McVec3f normal(m[0][0] * n.x + m[1][0] * n.y + m[2][0] * n.z, //
                   m[0][1] * n.x + m[1][1] * n.y + m[2][1] * n.z, //
                   m[0][2] * n.x + m[1][2] * n.y + m[2][2] * n.z);
    McVec3f const translation(m[0][3], m[1][3], m[2][3]);
    float const length = normal.length();
    if (!(length > 0.0f)) {
        *this = McPlane();
        return;
    }
    mNormal = normal * (1.0f / length);
    mDistance = (mDistance - n.dot(translation)) / length;
}
