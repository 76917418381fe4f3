// Value representation codes as tag maps store them.
//
// The numeric code of a VR is written into tag files and wire messages, so it
// must never change with a DCMTK release (DCMTK renumbered its own DcmEVR
// when newer VRs such as UC and OD were added). Codes 0 to 42 keep the
// classic numbering; the VRs that DICOM added later get codes of their own
// from 43 up. Two codes mean something only inside tag maps:
//   VR_na (29)       the missing marker: the attribute is absent at this node
//                    although an ancestor holds it;
//   VR_Omitted (255) the omitted marker: the attribute exists in the object
//                    but was too large to keep, its value is empty.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctagkey.h"
#include "dcmtk/dcmdata/dcvr.h"

#include <cstdint>

namespace Mdx {

enum VR : int32_t
{
    VR_AE = 0,
    VR_AS = 1,
    VR_AT = 2,
    VR_CS = 3,
    VR_DA = 4,
    VR_DS = 5,
    VR_DT = 6,
    VR_FL = 7,
    VR_FD = 8,
    VR_IS = 9,
    VR_LO = 10,
    VR_LT = 11,
    VR_OB = 12,
    VR_OF = 13,
    VR_OW = 14,
    VR_PN = 15,
    VR_SH = 16,
    VR_SL = 17,
    VR_SQ = 18,
    VR_SS = 19,
    VR_ST = 20,
    VR_TM = 21,
    VR_UI = 22,
    VR_UL = 23,
    VR_US = 24,
    VR_UT = 25,
    VR_ox = 26,
    VR_xs = 27,
    VR_lt = 28,
    VR_na = 29,
    VR_up = 30,
    VR_UNKNOWN = 39,
    VR_UN = 40,
    VR_OverlayData = 42,
    // VRs added to DICOM after the classic set.
    VR_UC = 43,
    VR_UR = 44,
    VR_OD = 45,
    VR_OL = 46,
    VR_OV = 47,
    VR_SV = 48,
    VR_UV = 49,
    VR_px = 50,
    VR_Omitted = 255,

    VR_Missing = VR_na
};

// DCMTK's VR for a stored code; VR_Omitted and unknown codes give EVR_UNKNOWN.
MDX_EXPORT DcmEVR toDcmEVR(VR vr);
// The stored code of a DCMTK VR; VRs without a code give VR_UNKNOWN.
MDX_EXPORT VR fromDcmEVR(DcmEVR evr);
// The VR the data dictionary gives key (with its private creator, or
// null), read under the dictionary's read lock; VR_UN without an entry.
MDX_EXPORT VR dictionaryVR(DcmTagKey const& key, char const* privateCreator);
// "AE", "SQ", ...; "na" for the missing marker, "omitted" for VR_Omitted.
MDX_EXPORT char const* vrName(VR vr);
// True for the VRs whose value is text (AE AS CS DA DS DT IS LO LT PN SH ST
// TM UI UT, and UC UR).
MDX_EXPORT bool isStringVR(VR vr);

} // namespace Mdx
