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

// Volume to patient: 0.5 x 0.7 mm pixels, 3 mm coronal slices, rotated 30 degrees about z, moved.
McMat4f coronalVolumeMatrix()
{
    float const c = std::cos(0.5235988f), s = std::sin(0.5235988f);
    float const a[3][3] = {{0.5f, 0.0f, 0.0f}, {0.0f, 0.0f, 3.0f}, {0.0f, -0.7f, 0.0f}};
    float const r[3][3] = {{c, -s, 0.0f}, {s, c, 0.0f}, {0.0f, 0.0f, 1.0f}};
    McMat4f m;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            m.m[i][j] = r[i][0] * a[0][j] + r[i][1] * a[1][j] + r[i][2] * a[2][j];
    m.m[0][3] = -120.0f;
    m.m[1][3] = 35.5f;
    m.m[2][3] = 80.0f;
    return m;
}

} // namespace

// Products are checked where they are used: the plane's distances below,
// the image planes of SeriesAnalysisTest.
TEST(Vec3f, normalisationAndMapOrder)
{
    McVec3f v(3, 4, 12), zero;
    EXPECT_FLOAT_EQ(v.normalize(), 13.0f);
    EXPECT_FLOAT_EQ(v.length(), 1.0f);
    EXPECT_EQ(zero.normalize(), 0.0f);
    EXPECT_EQ(zero, McVec3f(0, 0, 0)); // stays zero, no NaN
    // Lexical order as a map key; negative zero from "-0.0" is the same key as zero.
    std::map<McVec3f, int> counts;
    for (McVec3f const& n : {McVec3f(0, 0, 1), McVec3f(0, 1, 0), McVec3f(-0.0f, -0.0f, 1), McVec3f(-1, 0, 0)})
        ++counts[n];
    EXPECT_EQ(counts.size(), 3u);
    EXPECT_EQ(counts.begin()->first, McVec3f(-1, 0, 0));
    EXPECT_EQ(counts[McVec3f(0, 0, 1)], 2);
}

TEST(Plane, distancesAndTransformInvIntoTheVolumeFrame)
{
    McPlane const plane(McVec3f(0, 0, 1), McVec3f(5, -3, 12.5f));
    EXPECT_TRUE(McPlane().isZero());
    EXPECT_FLOAT_EQ(plane.distance(), 12.5f);
    EXPECT_FLOAT_EQ(plane.signedDistance(McVec3f(0, 0, 20)), 7.5f);
    EXPECT_FLOAT_EQ(plane.signedDistance(McVec3f(0, 0, 0)), -12.5f);

    // Points on the plane stay on it; every point keeps its side, at a distance in one proportion.
    McMat4f const m = coronalVolumeMatrix();
    McVec3f const onPlane(17, 9, 3);
    McVec3f normal(0.3f, -0.8f, 0.52f);
    normal.normalize();
    McPlane const patientPlane(normal, apply(m, onPlane));
    McPlane local = patientPlane;
    local.transformInv(m);
    EXPECT_NEAR(local.normal().length(), 1.0f, 1e-6f);
    EXPECT_NEAR(local.signedDistance(onPlane), 0.0f, 1e-3f);
    float const scale =
        local.signedDistance(McVec3f(0, 0, 0)) / patientPlane.signedDistance(apply(m, McVec3f()));
    for (McVec3f const& v :
         {McVec3f(100, 0, 0), McVec3f(0, 100, 0), McVec3f(-40, 80, -7), McVec3f(17, 9, 3.5f)})
        EXPECT_NEAR(local.signedDistance(v), patientPlane.signedDistance(apply(m, v)) * scale, 1e-3f);

    McMat4f flat;
    flat.m[2][2] = 0.0f; // everything lands in patient z = 0
    McPlane singular(McVec3f(0, 0, 1), McVec3f(0, 0, 3));
    singular.transformInv(flat);
    EXPECT_TRUE(singular.isZero());
}

TEST(CutBoxPlane, cornersEdgesFacesAndMisses)
{
    McBox3f const cube(0, 1, 0, 1, 0, 1);
    McVec3f diagonal(1, 1, 1), edge(1, 1, 0), oblique(1, 1, 1);
    diagonal.normalize();
    edge.normalize();
    oblique.normalize();
    float const nan = std::numeric_limits<float>::quiet_NaN();
    struct Case
    {
        McBox3f box;
        McPlane plane;
        size_t points; // 0: no cut
    };
    Case const cases[] = {
        {McBox3f(0, 10, 0, 20, 0, 30), McPlane(McVec3f(0, 0, 1), McVec3f(0, 0, 12)), 4},
        {McBox3f(-1, 1, -1, 1, -1, 1), McPlane(oblique, McVec3f(0, 0, 0)), 6}, // a hexagon
        {cube, McPlane(diagonal, McVec3f(1, 1, 1)), 1},                        // a corner touches
        {cube, McPlane(McVec3f(1, 0, 0), McVec3f(0, 0, 0)), 4},                // a face, corners once
        {cube, McPlane(edge, McVec3f(1, 1, 0)), 2},                            // an edge
        {cube, McPlane(diagonal, McVec3f(1, 0, 0)), 3},                        // a triangle
        {McBox3f(0, 100, 0, 100, 5, 5), McPlane(McVec3f(1, 0, 0), McVec3f(40, 0, 0)), 2}, // a flat box
        {McBox3f(1000, 1300, -2000, -1700, 500, 800), McPlane(McVec3f(0, 1, 0), McVec3f(0, -1700, 0)), 4},
        {cube, McPlane(McVec3f(0, 0, 1), McVec3f(0, 0, 1.001f)), 0},
        {McBox3f(), McPlane(McVec3f(0, 0, 1), McVec3f(0, 0, 0)), 0}, // empty box
        {cube, McPlane(), 0},
        {cube, McPlane(McVec3f(nan, 0, 1), McVec3f()), 0},
    };
    for (Case const& c : cases) {
        std::vector<McVec3f> points{McVec3f(9, 9, 9)};
        EXPECT_EQ(McCutBoxPlane::cutPlane(c.box, c.plane, points), c.points > 0);
        ASSERT_EQ(points.size(), c.points);
        for (McVec3f const& p : points)
            EXPECT_NEAR(c.plane.signedDistance(p), 0.0f, 1e-3f);
    }
}
