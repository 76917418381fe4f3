// The stored numbering of transfer syntaxes.
//
// Tag files record each image's transfer syntax as one byte. The numbering is
// our own, independent of DCMTK's E_TransferSyntax, so that stored files keep
// their meaning when DCMTK changes its enumeration. 0xFF means unknown.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcxfer.h"

#include <cstdint>

namespace Mdx {

using TransferSyntax = uint8_t;

constexpr TransferSyntax TransferSyntaxUnknown = 0xFF;
constexpr int TransferSyntaxCount = 42;

// 0xFF and codes above 41 give EXS_Unknown.
MDX_EXPORT E_TransferSyntax MdxToDcmtk(TransferSyntax code);
// EXS_Unknown and syntaxes outside the table give 0xFF.
MDX_EXPORT TransferSyntax DcmtkToMdx(E_TransferSyntax xfer);

} // namespace Mdx
