#include <mdxlib/tags/VR.h>

#include "dcmtk/dcmdata/dcdicent.h"
#include "dcmtk/dcmdata/dcdict.h"

#include <array>

namespace Mdx {

namespace {

struct VRPair
{
    VR code;
    DcmEVR evr;
    char const* name;
};

// The one table that ties stored codes to DCMTK's enumeration.
constexpr std::array<VRPair, 41> kVRs{{
    {VR_AE, EVR_AE, "AE"}, {VR_AS, EVR_AS, "AS"},
    {VR_AT, EVR_AT, "AT"}, {VR_CS, EVR_CS, "CS"},
    {VR_DA, EVR_DA, "DA"}, {VR_DS, EVR_DS, "DS"},
    {VR_DT, EVR_DT, "DT"}, {VR_FL, EVR_FL, "FL"},
    {VR_FD, EVR_FD, "FD"}, {VR_IS, EVR_IS, "IS"},
    {VR_LO, EVR_LO, "LO"}, {VR_LT, EVR_LT, "LT"},
    {VR_OB, EVR_OB, "OB"}, {VR_OF, EVR_OF, "OF"},
    {VR_OW, EVR_OW, "OW"}, {VR_PN, EVR_PN, "PN"},
    {VR_SH, EVR_SH, "SH"}, {VR_SL, EVR_SL, "SL"},
    {VR_SQ, EVR_SQ, "SQ"}, {VR_SS, EVR_SS, "SS"},
    {VR_ST, EVR_ST, "ST"}, {VR_TM, EVR_TM, "TM"},
    {VR_UI, EVR_UI, "UI"}, {VR_UL, EVR_UL, "UL"},
    {VR_US, EVR_US, "US"}, {VR_UT, EVR_UT, "UT"},
    {VR_ox, EVR_ox, "ox"}, {VR_xs, EVR_xs, "xs"},
    {VR_lt, EVR_lt, "lt"}, {VR_na, EVR_na, "na"},
    {VR_up, EVR_up, "up"}, {VR_UNKNOWN, EVR_UNKNOWN, "??"},
    {VR_UN, EVR_UN, "UN"}, {VR_OverlayData, EVR_OverlayData, "OverlayData"},
    {VR_UC, EVR_UC, "UC"}, {VR_UR, EVR_UR, "UR"},
    {VR_OD, EVR_OD, "OD"}, {VR_OL, EVR_OL, "OL"},
    {VR_OV, EVR_OV, "OV"}, {VR_SV, EVR_SV, "SV"},
    {VR_UV, EVR_UV, "UV"},
}};

} // namespace

DcmEVR toDcmEVR(VR vr)
{
    if (vr == VR_px)
        return EVR_px;
    for (VRPair const& p : kVRs)
        if (p.code == vr)
            return p.evr;
    return EVR_UNKNOWN;
}

VR fromDcmEVR(DcmEVR evr)
{
    // Asked once for every attribute of every file a build reads: a table
    // by DCMTK's VR, made once, instead of a search of the pairs.
    constexpr int kCount = EVR_UNKNOWN2B + 1;
    static std::array<VR, kCount> const table = [] {
        std::array<VR, kCount> made;
        made.fill(VR_UNKNOWN);
        for (auto it = kVRs.rbegin(); it != kVRs.rend(); ++it) // the first pair of a VR wins
            if (it->evr >= 0 && it->evr < kCount)
                made[static_cast<size_t>(it->evr)] = it->code;
        made[EVR_px] = VR_px;
        // DCMTK reads a pixel-data element with the VR of the file; the
        // internal EVR_PixelData only appears as an element's ident, store
        // it as ox.
        made[EVR_PixelData] = VR_ox;
        return made;
    }();
    return evr >= 0 && evr < kCount ? table[static_cast<size_t>(evr)] : VR_UNKNOWN;
}

char const* vrName(VR vr)
{
    if (vr == VR_Omitted)
        return "omitted";
    if (vr == VR_px)
        return "px";
    for (VRPair const& p : kVRs)
        if (p.code == vr)
            return p.name;
    return "??";
}

VR dictionaryVR(DcmTagKey const& key, char const* privateCreator)
{
    DcmDataDictionary const& dict = dcmDataDict.rdlock();
    DcmDictEntry const* entry = dict.findEntry(key, privateCreator);
    VR const vr = entry ? fromDcmEVR(entry->getEVR()) : VR_UN;
    dcmDataDict.rdunlock();
    return vr;
}

bool isStringVR(VR vr)
{
    switch (vr) {
    case VR_AE:
    case VR_AS:
    case VR_CS:
    case VR_DA:
    case VR_DS:
    case VR_DT:
    case VR_IS:
    case VR_LO:
    case VR_LT:
    case VR_PN:
    case VR_SH:
    case VR_ST:
    case VR_TM:
    case VR_UI:
    case VR_UT:
    case VR_UC:
    case VR_UR:
        return true;
    default:
        return false;
    }
}

} // namespace Mdx
