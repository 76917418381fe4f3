// The picture border at which a breast image's chest wall lies.
#pragma once

namespace Mdx {

// Bit 0: the left border (x = 0); bit 1: the right border (x = width - 1).
enum BorderRegions
{
    BorderLeft = 1,
    BorderRight = 2,
    BorderEither = 3 // either, or not known
};

} // namespace Mdx
