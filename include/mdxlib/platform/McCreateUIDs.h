// Fresh DICOM UIDs.
#pragma once

#include <mdxlib/Export.h>

#include <string>

class MDX_EXPORT McCreateUIDs
{
public:
    // A new UID under the UUID-derived root "2.25.": the decimal form of a
    // random 128-bit UUID, at most 44 characters, valid as VR UI.
    static std::string createUID();
};
