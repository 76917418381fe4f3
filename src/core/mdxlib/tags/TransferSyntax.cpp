#include <mdxlib/tags/TransferSyntax.h>

#include <array>

namespace Mdx {

namespace {

// Stored code -> DCMTK value as DCMTK numbered its enumeration when the
// codes were fixed: 0 to 22 coincide, the rest was reordered later.
constexpr std::array<int, TransferSyntaxCount> kToDcmtk{{
    0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20,
    21, 22, 24, 25, 23, 26, 27, 32, 33, 34, 35, 36, 37, 38, 28, 29, 30, 31, 39, 40, 41,
}};

} // namespace

E_TransferSyntax MdxToDcmtk(TransferSyntax code)
{
    if (code >= TransferSyntaxCount)
        return EXS_Unknown;
    return static_cast<E_TransferSyntax>(kToDcmtk[code]);
}

TransferSyntax DcmtkToMdx(E_TransferSyntax xfer)
{
    int const value = static_cast<int>(xfer);
    if (xfer == EXS_Unknown || value < 0 || value >= TransferSyntaxCount)
        return TransferSyntaxUnknown;
    for (int code = 0; code < TransferSyntaxCount; ++code) {
        if (kToDcmtk[code] == value)
            return static_cast<TransferSyntax>(code);
    }
    return TransferSyntaxUnknown;
}

} // namespace Mdx
