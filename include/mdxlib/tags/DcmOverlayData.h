// A DCMTK element class for overlay data (60xx,3000).
//
// Rebuilding overlays from a tag map needs an element whose ident() is
// EVR_OverlayData and that copies like any other element. DCMTK's own class
// of that name accepts copyFrom() without copying anything, so the library
// has its own, in its namespace.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcvrpobw.h"

namespace Mdx {

class MDX_EXPORT DcmOverlayData : public DcmPolymorphOBOW
{
public:
    explicit DcmOverlayData(DcmTag const& tag, Uint32 length = 0);
    DcmOverlayData(DcmOverlayData const& other);
    ~DcmOverlayData() override;

    DcmOverlayData& operator=(DcmOverlayData const& other);

    DcmObject* clone() const override;
    OFCondition copyFrom(DcmObject const& rhs) override;
    DcmEVR ident() const override;
};

} // namespace Mdx
