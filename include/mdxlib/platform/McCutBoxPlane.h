// Where a plane cuts an axis-aligned box.
//
// Tells whether an image plane passes through a volume, given as its
// bounding box in the volume's own frame, with the plane brought into that
// frame first (McPlane::transformInv).
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McBox3f.h>
#include <mdxlib/platform/McPlane.h>
#include <mdxlib/platform/McVec3f.h>

#include <vector>

class MDX_EXPORT McCutBoxPlane
{
public:
    // Replaces points with the points where plane meets the 12 edges of box,
    // each point once, in the order of the edges. An edge that lies in the
    // plane gives both its corners, and a plane that only touches a corner
    // or an edge counts as cutting. True when there is at least one point.
    // An empty box (min > max on an axis) and the zero plane give false.
    static bool cutPlane(McBox3f const& box, McPlane const& plane, std::vector<McVec3f>& points);
};
