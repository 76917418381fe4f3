// Knowledge about DICOM objects that the volume layer needs, and the DICOM
// edits that stock DCMTK lacks.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcvr.h"
#include "dcmtk/ofstd/ofcond.h"

#include <cstdint>

class DcmItem;
class HxParamBundle;

class MDX_EXPORT ExDicomUtilities
{
public:
    // True for modalities whose objects add to other series and are not
    // shown as series of their own: presentation states (PR), key object
    // selections (KO), structured reports (SR), registrations (REG),
    // fiducials (FID) and real world value maps (RWV). Null is false.
    static bool isSecondaryDataModality(char const* modality);

    // Puts value into element (element & 0xFF) of creator's private block in
    // group, with the VR vr, replacing an old value. DCMTK cannot reserve a
    // block: the creator's block is reused when (gggg,0010-00FF) names it,
    // else the first free slot from 0x10 gets the creator (VR LO). Fails on
    // an even group, a null argument, or when all 240 blocks are taken.
    static OFCondition setPrivateTag(DcmItem* dataset, uint16_t group, uint16_t element, char const* creator,
                                     char const* value, DcmEVR vr);

    // The attributes of item as text parameters of bundle, named by tag
    // text; each sequence becomes a sub-bundle of one sub-bundle per item.
    // Binary values (OB, OW and the like) and pixel data are left out.
    static void copyToParamBundle(DcmItem* item, HxParamBundle& bundle);
};
