#include <mdxlib/platform/McCutBoxPlane.h>

#include <algorithm>
#include <cmath>

bool McCutBoxPlane::cutPlane(McBox3f const& box, McPlane const& plane, std::vector<McVec3f>& points)
{
    points.clear();
    if (box.isEmpty() || plane.isZero())
        return false;

    // Corner i takes max on axis a when bit a of i is set.
    McVec3f corners[8];
    float distances[8];
    float extent = 0.0f;
    for (int a = 0; a < 3; ++a)
        extent = std::max(extent, std::max(std::fabs(box.min[a]), std::fabs(box.max[a])));
    // Rounding in the plane's distance grows with the coordinates; a corner
    // this close to the plane counts as on it, so that a touching plane is
    // not lost and the corner is reported once, exactly.
    float const tolerance = 1e-6f * std::max(1.0f, extent);
    for (int i = 0; i < 8; ++i) {
        corners[i] = McVec3f(i & 1 ? box.max[0] : box.min[0], i & 2 ? box.max[1] : box.min[1],
                             i & 4 ? box.max[2] : box.min[2]);
        float const d = plane.signedDistance(corners[i]);
        distances[i] = std::fabs(d) <= tolerance ? 0.0f : d;
    }

    auto add = [&points](McVec3f const& p) {
        if (std::find(points.begin(), points.end(), p) == points.end())
            points.push_back(p);
    };
    // The 12 edges join corners that differ in one bit.
    for (int a = 0; a < 3; ++a) {
        int const bit = 1 << a;
        for (int i = 0; i < 8; ++i) {
            if (i & bit)
                continue;
            int const j = i | bit;
            float const di = distances[i];
            float const dj = distances[j];
            if (di == 0.0f)
                add(corners[i]);
            if (dj == 0.0f)
                add(corners[j]);
            if ((di < 0.0f && dj > 0.0f) || (di > 0.0f && dj < 0.0f)) {
                float const t = di / (di - dj);
                add(corners[i] + (corners[j] - corners[i]) * t);
            }
        }
    }
    return !points.empty();
}
