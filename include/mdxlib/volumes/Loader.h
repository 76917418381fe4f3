// Serving clients from tag files.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>

namespace Mdx {

class MDX_EXPORT Loader
{
public:
    // The suffix of a stored object's file name: "<sop>_<suffix>.dcm" gives
    // "<suffix>", a name without "_" its whole stem, anything not ending in
    // ".dcm" nothing. A query "?QA=<n>" behind the name is cut off, and n
    // goes to qaNumber when that is given.
    static QByteArray extractSuffix(char const* path, int* qaNumber);
};

} // namespace Mdx
