// The exposed part of a projection radiograph.
//
// CR and DX plates are often larger than the field that was actually
// exposed, and the unexposed border (or a manufacturer's corner mark) would
// otherwise dominate the first view of the image. The box of the exposed
// field is worked out once, when the image's preview is made, and kept in a
// private attribute of the image node so that a viewer can zoom to it
// without touching the pixels again.
#pragma once

#include <mdxlib/Export.h>

class DicomImage;

namespace Mdx {

class TagMap;

class MDX_EXPORT CropBox
{
public:
    // Private attribute that holds the box as "x\y\width\height\v1".
    static constexpr char const* PrivateCreator = "Lumora";

    // Finds the exposed field of a monochrome CR or DX image and stores it in
    // map. Leaves map untouched when the image is of another kind or its
    // pixels cannot be read.
    static void process(DicomImage* image, TagMap* map);
};

} // namespace Mdx
