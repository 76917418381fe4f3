// Knowledge about DICOM objects that the volume layer needs.
#pragma once

#include <mdxlib/Export.h>

class MDX_EXPORT ExDicomUtilities
{
public:
    // True for modalities whose objects add to other series and are not
    // shown as series of their own: presentation states (PR), key object
    // selections (KO), structured reports (SR), registrations (REG),
    // fiducials (FID) and real world value maps (RWV). Null is false.
    static bool isSecondaryDataModality(char const* modality);
};
