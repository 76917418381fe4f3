#include "Guarded.h"

#include <mdxlib/platform/McLogFile.h>

void reportUnexpected(char const* function, char const* what) noexcept
{
    try {
        getTheLogInstance()->errorf("%s failed: %s", function, what);
    } catch (...) {
    }
}
