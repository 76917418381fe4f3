// What was built: the project version and the revision it was built from.
#pragma once

#include <mdxlib/Export.h>

#include <string>

class MDX_EXPORT McBuildInfo
{
public:
    // 0: the version ("0.1.0"); 1: the revision ("a1b2c3d", or "unknown"
    // outside a git checkout); any other form: "<version> (<revision>)",
    // the text that goes into user agents (form 4).
    static std::string getBuildString(int form);
};
