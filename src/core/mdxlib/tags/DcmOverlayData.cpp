#include <mdxlib/tags/DcmOverlayData.h>

namespace Mdx {

DcmOverlayData::DcmOverlayData(DcmTag const& tag, Uint32 length)
    : DcmPolymorphOBOW(tag, length)
{
}

DcmOverlayData::DcmOverlayData(DcmOverlayData const& other) = default;

DcmOverlayData::~DcmOverlayData() = default;

DcmOverlayData& DcmOverlayData::operator=(DcmOverlayData const& other)
{
    DcmPolymorphOBOW::operator=(other);
    return *this;
}

DcmObject* DcmOverlayData::clone() const
{
    return new DcmOverlayData(*this);
}

OFCondition DcmOverlayData::copyFrom(DcmObject const& rhs)
{
    if (this == &rhs)
        return EC_Normal;
    if (rhs.ident() != ident())
        return EC_IllegalCall;
    // DCMTK's own overlay class reports the same ident, so rhs need not be one
    // of ours; both derive from DcmPolymorphOBOW, which does the assignment.
    DcmPolymorphOBOW::operator=(static_cast<DcmPolymorphOBOW const&>(rhs));
    return EC_Normal;
}

DcmEVR DcmOverlayData::ident() const
{
    return EVR_OverlayData;
}

} // namespace Mdx
