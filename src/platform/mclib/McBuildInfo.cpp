#include <mdxlib/platform/McBuildInfo.h>

#include "BuildVersion.h"

std::string McBuildInfo::getBuildString(int form)
{
    switch (form) {
    case 0:
        return MDX_BUILD_VERSION;
    case 1:
        return MDX_BUILD_REVISION;
    default:
        return std::string(MDX_BUILD_VERSION) + " (" + MDX_BUILD_REVISION + ")";
    }
}
