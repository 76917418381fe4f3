// A plane in 3D: the points x with normal . x == distance.
//
// Used to compare image planes with each other and with volumes (is this
// image a localizer, does it cut that volume). The normal is meant to be of
// unit length; the plane keeps it as given, so that a caller can tell a
// broken orientation (NaN, zero, not unit) from a good one. The zero plane
// (zero normal) stands for "no plane".
//
// Matrix convention of transformInv: an McMat4f maps volume coordinates
// (the volume's own, local frame) to patient coordinates. It is row-major,
// m[row][col], acts on points as column vectors, p' = M p, and holds the
// translation in column 3. Only affine matrices are meant (last row 0 0 0 1).
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McMat4f.h>
#include <mdxlib/platform/McVec3f.h>

class MDX_EXPORT McPlane
{
public:
    // The zero plane.
    McPlane() = default;
    // The plane through point with the given normal.
    McPlane(McVec3f const& normal, McVec3f const& point);

    McVec3f const& normal() const { return mNormal; }
    float distance() const { return mDistance; }
    bool isZero() const { return mNormal.x == 0.0f && mNormal.y == 0.0f && mNormal.z == 0.0f; }

    // Positive on the side the normal points to; in units of the normal's
    // length.
    float signedDistance(McVec3f const& point) const { return mNormal.dot(point) - mDistance; }

    // Given this plane in the matrix's target frame (patient), makes it the
    // same plane in the matrix's source frame (volume). A point p of the
    // plane goes to M^-1 p, and the normal n to M^T n, normalised: for any
    // volume point v, n . (M v) == (M^T n) . v, so the side of every point is
    // kept. The matrix itself is never inverted. When M^T n is zero (a
    // singular matrix) the result is the zero plane.
    void transformInv(McMat4f const& matrix);

private:
    McVec3f mNormal;
    float mDistance = 0.0f;
};
