// Vectors, planes and where a plane cuts a box: the geometry behind the
// localizer marks of a series.
#include <mdxlib/platform/McCutBoxPlane.h>
#include <mdxlib/platform/McPlane.h>
#include <mdxlib/platform/McVec3f.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <vector>

namespace {

McVec3f apply(McMat4f const& m, McVec3f const& v)
{
    return {m.m[0][0] * v.x + m.m[0][1] * v.y + m.m[0][2] * v.z + m.m[0][3],
            m.m[1][0] * v.x + m.m[1][1] * v.y + m.m[1][2] * v.z + m.m[1][3],
            m.m[2][0] * v.x + m.m[2][1] * v.y + m.m[2][2] * v.z + m.m[2][3]};
}

// Volume to patient: 0.5 x 0.7 mm pixels, 3 mm slices; the volume's rows run
// along patient x, its columns down patient z and its slices along patient
// y (coronal slices), rotated 30 degrees about z, then moved.
McMat4f coronalVolumeMatrix()
{
    float const c = std::cos(0.5235988f);
    float const s = std::sin(0.5235988f);
    // Columns of the linear part before the rotation: (0.5,0,0), (0,0,-0.7),
    // (0,3,0).
    McMat4f m;
    float const a[3][3] = {{0.5f, 0.0f, 0.0f}, {0.0f, 0.0f, 3.0f}, {0.0f, -0.7f, 0.0f}};
    float const r[3][3] = {{c, -s, 0.0f}, {s, c, 0.0f}, {0.0f, 0.0f, 1.0f}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            m.m[i][j] = r[i][0] * a[0][j] + r[i][1] * a[1][j] + r[i][2] * a[2][j];
    m.m[0][3] = -120.0f;
    m.m[1][3] = 35.5f;
    m.m[2][3] = 80.0f;
    return m;
}

bool contains(std::vector<McVec3f> const& points, McVec3f const& p, float tolerance = 1e-4f)
{
    for (McVec3f const& q : points)
        if ((q - p).length() <= tolerance)
            return true;
    return false;
}

} // namespace

TEST(Vec3f, arithmeticAndProducts)
{
    McVec3f const a(1, 2, 3);
    McVec3f const b(-2, 0.5f, 4);
    EXPECT_EQ(a + b, McVec3f(-1, 2.5f, 7));
    EXPECT_EQ(a - b, McVec3f(3, 1.5f, -1));
    EXPECT_EQ(a * 2.0f, McVec3f(2, 4, 6));
    EXPECT_EQ(2.0f * a, a * 2.0f);
    EXPECT_EQ(-a, McVec3f(-1, -2, -3));
    EXPECT_FLOAT_EQ(a.dot(b), -2 + 1 + 12);
    EXPECT_EQ(McVec3f(1, 0, 0).cross(McVec3f(0, 1, 0)), McVec3f(0, 0, 1));
    EXPECT_EQ(McVec3f(0, 1, 0).cross(McVec3f(0, 0, 1)), McVec3f(1, 0, 0));
    EXPECT_FLOAT_EQ(a.cross(b).dot(a), 0.0f);
    EXPECT_FLOAT_EQ(a.cross(b).dot(b), 0.0f);
    EXPECT_FLOAT_EQ(McVec3f(3, 4, 12).length(), 13.0f);
    EXPECT_EQ(a[0], 1.0f);
    EXPECT_EQ(a[2], 3.0f);

    McVec3f v(3, 4, 12);
    EXPECT_FLOAT_EQ(v.normalize(), 13.0f);
    EXPECT_FLOAT_EQ(v.length(), 1.0f);
    McVec3f zero;
    EXPECT_EQ(zero.normalize(), 0.0f);
    EXPECT_EQ(zero, McVec3f(0, 0, 0)); // stays zero, no NaN
}

TEST(Vec3f, ordersLexicallyAsAMapKey)
{
    EXPECT_TRUE(McVec3f(0, 9, 9) < McVec3f(1, 0, 0));
    EXPECT_TRUE(McVec3f(1, 0, 9) < McVec3f(1, 1, 0));
    EXPECT_TRUE(McVec3f(1, 1, 0) < McVec3f(1, 1, 1));
    EXPECT_FALSE(McVec3f(1, 1, 1) < McVec3f(1, 1, 1));
    EXPECT_NE(McVec3f(1, 1, 1), McVec3f(1, 1, 2));

    std::map<McVec3f, int> counts;
    for (McVec3f const& n : {McVec3f(0, 0, 1), McVec3f(0, 1, 0), McVec3f(0, 0, 1), McVec3f(-1, 0, 0)})
        ++counts[n];
    ASSERT_EQ(counts.size(), 3u);
    EXPECT_EQ(counts.begin()->first, McVec3f(-1, 0, 0));
    EXPECT_EQ(counts[McVec3f(0, 0, 1)], 2);
    // Negative zero from "-0.0" in an orientation is the same key as zero.
    EXPECT_EQ(counts.count(McVec3f(-0.0f, -0.0f, 1)), 1u);
}

TEST(Plane, zeroPlaneAndDistances)
{
    McPlane const zero;
    EXPECT_TRUE(zero.isZero());
    EXPECT_EQ(zero.distance(), 0.0f);

    McPlane const plane(McVec3f(0, 0, 1), McVec3f(5, -3, 12.5f));
    EXPECT_FALSE(plane.isZero());
    EXPECT_EQ(plane.normal(), McVec3f(0, 0, 1));
    EXPECT_FLOAT_EQ(plane.distance(), 12.5f);
    EXPECT_FLOAT_EQ(plane.signedDistance(McVec3f(100, 100, 12.5f)), 0.0f);
    EXPECT_FLOAT_EQ(plane.signedDistance(McVec3f(0, 0, 20)), 7.5f);
    EXPECT_FLOAT_EQ(plane.signedDistance(McVec3f(0, 0, 0)), -12.5f);

    // The normal is kept as given, so that a caller can tell a broken one.
    McPlane const longNormal(McVec3f(0, 2, 0), McVec3f(0, 1, 0));
    EXPECT_EQ(longNormal.normal(), McVec3f(0, 2, 0));
    EXPECT_FLOAT_EQ(longNormal.distance(), 2.0f);
}

TEST(Plane, transformInvWithIdentityAndTranslation)
{
    McPlane plane(McVec3f(0, 0, 1), McVec3f(0, 0, 10));
    plane.transformInv(McMat4f());
    EXPECT_EQ(plane.normal(), McVec3f(0, 0, 1));
    EXPECT_FLOAT_EQ(plane.distance(), 10.0f);

    // The volume's origin lies at patient z = 4: the patient plane z = 10 is
    // the volume plane z = 6.
    McMat4f shift;
    shift.m[2][3] = 4.0f;
    plane.transformInv(shift);
    EXPECT_EQ(plane.normal(), McVec3f(0, 0, 1));
    EXPECT_FLOAT_EQ(plane.distance(), 6.0f);

    // Voxels of 2.5 mm along z: the plane lies at voxel coordinate 2.4.
    McMat4f scale;
    scale.m[2][2] = 2.5f;
    plane.transformInv(scale);
    EXPECT_EQ(plane.normal(), McVec3f(0, 0, 1));
    EXPECT_FLOAT_EQ(plane.distance(), 2.4f);
}

TEST(Plane, transformInvKeepsPointsAndSidesInTheVolumeFrame)
{
    McMat4f const m = coronalVolumeMatrix();
    McVec3f const onPlane(17, 9, 3); // volume coordinates
    McVec3f normal(0.3f, -0.8f, 0.52f);
    normal.normalize();
    McPlane const patientPlane(normal, apply(m, onPlane));
    McPlane local = patientPlane;
    local.transformInv(m);

    McVec3f const transposed(m.m[0][0] * normal.x + m.m[1][0] * normal.y + m.m[2][0] * normal.z,
                             m.m[0][1] * normal.x + m.m[1][1] * normal.y + m.m[2][1] * normal.z,
                             m.m[0][2] * normal.x + m.m[1][2] * normal.y + m.m[2][2] * normal.z);
    float const scale = 1.0f / transposed.length();
    EXPECT_NEAR((local.normal() - transposed * scale).length(), 0.0f, 1e-6f);
    EXPECT_NEAR(local.normal().length(), 1.0f, 1e-6f);
    EXPECT_NEAR(local.signedDistance(onPlane), 0.0f, 1e-3f);
    for (McVec3f const& v : {McVec3f(0, 0, 0), McVec3f(100, 0, 0), McVec3f(0, 100, 0), McVec3f(0, 0, 30),
                             McVec3f(-40, 80, -7), McVec3f(17, 9, 3.5f)}) {
        float const patientSide = patientPlane.signedDistance(apply(m, v));
        float const localSide = local.signedDistance(v);
        // Same side, and distances in one proportion: 1 / |A^T n|.
        EXPECT_EQ(patientSide > 0, localSide > 0);
        EXPECT_NEAR(localSide, patientSide * scale, 1e-3f);
    }
    // A plane at a right angle to the volume's slices has a local normal
    // without z; one parallel to them has only z.
    McPlane across(McVec3f(0, 0, 1), McVec3f(0, 0, 50)); // axial through coronal slices
    across.transformInv(m);
    EXPECT_NEAR(across.normal().z, 0.0f, 1e-6f);
    float const c = std::cos(0.5235988f);
    float const s = std::sin(0.5235988f);
    McPlane along(McVec3f(-s, c, 0), McVec3f(0, 0, 0)); // the rotated coronal direction
    along.transformInv(m);
    EXPECT_NEAR(std::fabs(along.normal().z), 1.0f, 1e-6f);
}

TEST(Plane, transformInvWithASingularMatrixGivesTheZeroPlane)
{
    McMat4f flat;
    flat.m[2][2] = 0.0f; // everything lands in patient z = 0
    McPlane plane(McVec3f(0, 0, 1), McVec3f(0, 0, 3));
    plane.transformInv(flat);
    EXPECT_TRUE(plane.isZero());
}

TEST(CutBoxPlane, planeThroughTheMiddleCutsFourEdges)
{
    McBox3f const box(0, 10, 0, 20, 0, 30);
    std::vector<McVec3f> points{McVec3f(9, 9, 9)};
    ASSERT_TRUE(McCutBoxPlane::cutPlane(box, McPlane(McVec3f(0, 0, 1), McVec3f(0, 0, 12)), points));
    ASSERT_EQ(points.size(), 4u);
    for (McVec3f const& p : {McVec3f(0, 0, 12), McVec3f(10, 0, 12), McVec3f(0, 20, 12), McVec3f(10, 20, 12)})
        EXPECT_TRUE(contains(points, p));
}

TEST(CutBoxPlane, obliquePlaneThroughTheCentreGivesAHexagon)
{
    McBox3f const box(-1, 1, -1, 1, -1, 1);
    McVec3f n(1, 1, 1);
    n.normalize();
    std::vector<McVec3f> points;
    ASSERT_TRUE(McCutBoxPlane::cutPlane(box, McPlane(n, McVec3f(0, 0, 0)), points));
    EXPECT_EQ(points.size(), 6u);
    for (McVec3f const& p : points)
        EXPECT_NEAR(p.dot(n), 0.0f, 1e-5f);
}

TEST(CutBoxPlane, touchingCountsAndCornersAreReportedOnce)
{
    McBox3f const box(0, 1, 0, 1, 0, 1);
    std::vector<McVec3f> points;

    // Only the corner (1,1,1) touches.
    McVec3f n(1, 1, 1);
    n.normalize();
    ASSERT_TRUE(McCutBoxPlane::cutPlane(box, McPlane(n, McVec3f(1, 1, 1)), points));
    ASSERT_EQ(points.size(), 1u);
    EXPECT_EQ(points[0], McVec3f(1, 1, 1));

    // A face: its four corners, each once although three edges meet there.
    ASSERT_TRUE(McCutBoxPlane::cutPlane(box, McPlane(McVec3f(1, 0, 0), McVec3f(0, 0, 0)), points));
    EXPECT_EQ(points.size(), 4u);

    // An edge: its two corners.
    McVec3f diagonal(1, 1, 0);
    diagonal.normalize();
    ASSERT_TRUE(McCutBoxPlane::cutPlane(box, McPlane(diagonal, McVec3f(1, 1, 0)), points));
    EXPECT_EQ(points.size(), 2u);
    EXPECT_TRUE(contains(points, McVec3f(1, 1, 0)));
    EXPECT_TRUE(contains(points, McVec3f(1, 1, 1)));

    // A plane through the corners (1,0,0), (0,1,0), (0,0,1): a triangle.
    ASSERT_TRUE(McCutBoxPlane::cutPlane(box, McPlane(n, McVec3f(1, 0, 0)), points));
    EXPECT_EQ(points.size(), 3u);
}

TEST(CutBoxPlane, missesEmptyBoxesAndZeroPlanes)
{
    std::vector<McVec3f> points{McVec3f(1, 2, 3)};
    McBox3f const box(0, 1, 0, 1, 0, 1);
    EXPECT_FALSE(McCutBoxPlane::cutPlane(box, McPlane(McVec3f(0, 0, 1), McVec3f(0, 0, 1.001f)), points));
    EXPECT_TRUE(points.empty());
    EXPECT_FALSE(McCutBoxPlane::cutPlane(box, McPlane(McVec3f(0, 0, 1), McVec3f(0, 0, -0.5f)), points));
    EXPECT_FALSE(McCutBoxPlane::cutPlane(McBox3f(), McPlane(McVec3f(0, 0, 1), McVec3f(0, 0, 0)), points));
    EXPECT_FALSE(
        McCutBoxPlane::cutPlane(McBox3f(0, 1, 0, 1, 2, 1), McPlane(McVec3f(0, 0, 1), McVec3f()), points));
    EXPECT_FALSE(McCutBoxPlane::cutPlane(box, McPlane(), points));
    float const nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_FALSE(McCutBoxPlane::cutPlane(box, McPlane(McVec3f(nan, 0, 1), McVec3f()), points));
    EXPECT_TRUE(points.empty());
}

TEST(CutBoxPlane, flatBoxAndLargeCoordinates)
{
    // A box of one slice (no thickness) is not empty; a plane across cuts it.
    McBox3f const flat(0, 100, 0, 100, 5, 5);
    std::vector<McVec3f> points;
    ASSERT_TRUE(McCutBoxPlane::cutPlane(flat, McPlane(McVec3f(1, 0, 0), McVec3f(40, 0, 0)), points));
    EXPECT_EQ(points.size(), 2u);

    // Far from the origin, a plane on a face still touches it.
    McBox3f const far(1000, 1300, -2000, -1700, 500, 800);
    ASSERT_TRUE(McCutBoxPlane::cutPlane(far, McPlane(McVec3f(0, 1, 0), McVec3f(0, -1700, 0)), points));
    EXPECT_EQ(points.size(), 4u);
}
