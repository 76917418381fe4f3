// The CRC-32 of ZIP archives: reflected, polynomial 0x04C11DB7, initial
// value all ones, result inverted.
#pragma once

#include <mdxlib/Export.h>

namespace Kz {

class MDX_EXPORT CRC32
{
public:
    // Starts a new sum.
    void reset();
    void addData(char const* data, int length);
    unsigned int getCRC() const;

private:
    unsigned int mCrc = 0; // the CRC of the data so far
};

} // namespace Kz
