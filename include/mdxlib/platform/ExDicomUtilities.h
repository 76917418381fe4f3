// Knowledge about DICOM objects that the volume layer needs, and the DICOM
// edits that stock DCMTK lacks.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcvr.h"
#include "dcmtk/ofstd/ofcond.h"

#include <cstdint>
#include <string>

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

    // Registers the decoders of the compressed transfer syntaxes DCMTK
    // brings (JPEG baseline, extended and lossless, JPEG-LS, RLE), once per
    // process. They are never taken back, since other threads may be
    // decoding.
    static void registerDecoders();

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

    // Item index of the sequence named tag ("G0054-0016") in bundle, or
    // null (also for a null bundle or tag).
    static HxParamBundle const* findSequenceItem(HxParamBundle const* bundle, char const* tag, int index);

    // A DICOM time (TM) in the form "HHMMSS" or "HHMMSS.FFFFFF": the short
    // forms "HH" and "HHMM" get zero minutes and seconds, the old form
    // "HH:MM:SS.FFFFFF" loses its colons, padding is cut. False, with out
    // untouched, when text is no time.
    static bool normalizeTMString(char const* text, std::string& out);
};
