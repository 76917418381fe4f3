// Where the storage of the deployment lies.
#pragma once

#include <mdxlib/Export.h>

#include <string>

namespace Lmg {

class MDX_EXPORT StorageManager
{
public:
    // The folder in which tag files lie: the parameter MDX_META_FOLDER, or
    // "./meta/" when none is configured. Always true.
    static bool getMetaFolder(std::string& folder);
};

} // namespace Lmg
