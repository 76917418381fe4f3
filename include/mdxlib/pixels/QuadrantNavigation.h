// Where the breast lies in a mammogram.
//
// A mammography viewer jumps between the quadrants of a breast and needs to
// know the tissue's box and its vertical centre. They are derived once,
// from the small preview picture when it is made, and stored as floats
// relative to the picture (x over width - 1, y over height - 1) in the
// private attribute (0071,0070):
//
//   0..3   the overall box of the tissue: x min, y min, x max, y max
//   then, for each algorithm that ran (V1, then V2), six floats:
//   +0     the algorithm's number, 1 or 2
//   +1     the vertical centre of the tissue
//   +2..5  the algorithm's box
//
// V1 keeps the largest region, joined with the regions touching the chest
// wall. V2 also removes bright bands at the top and bottom edges and
// follows the extent of each row to find where the breast begins and ends
// along the chest wall. The selection of algorithms is process-wide and set
// at start-up; everything else is local to a call.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/pixels/BorderRegions.h>

#include <QImage>

#include <vector>

class HxParamBundle;

namespace Mdx {

class TagMap;

class MDX_EXPORT QuadrantNavigation
{
public:
    static constexpr char const* PrivateCreator = "Lumora";

    // For a supported image, computes the numbers from its preview and
    // stores them in map; otherwise leaves map alone.
    static void process(QImage const& image, TagMap* map);
    // A breast image (MG, or CR of a breast study) that is not of an
    // unknown side and not of a view that shows a specimen or a part.
    static bool isSupported(TagMap* map);
    // The chest wall's border, from Patient Orientation, else from the
    // row direction of Image Orientation (Patient), also inside the shared
    // functional groups.
    static BorderRegions checkOrientation(TagMap* map);
    // The same from a parameter bundle's "G0020-0020" and "G0020-0037",
    // without the functional groups.
    static BorderRegions checkOrientation(HxParamBundle const& bundle);
    // Appends the numbers for image to out. False, with out untouched, for
    // a pixel format other than Indexed8, RGB32, ARGB32, RGB888, RGBX8888
    // and RGBA8888.
    static bool computeImageBoxAndCenter(QImage const& image, std::vector<float>& out, BorderRegions regions);
    // A comma-separated list of algorithm numbers: 1 selects V1, 2 selects
    // V2, others are ignored; a list that selects nothing selects V1.
    static void setAlgorithm(char const* list);
};

} // namespace Mdx
