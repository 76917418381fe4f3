#include <mdxlib/cloudreader/CRC32.h>

#include <libdeflate.h>

namespace Kz {

// libdeflate computes the same CRC-32 (it takes and returns the finished
// value, not the running register) and uses carry-less multiplication where
// the processor has it: a table walk byte by byte made the sums cost more
// than the copying when a container is written.

void CRC32::reset()
{
    mCrc = 0;
}

void CRC32::addData(char const* data, int length)
{
    if (length > 0)
        mCrc = libdeflate_crc32(mCrc, data, static_cast<size_t>(length));
}

unsigned int CRC32::getCRC() const
{
    return mCrc;
}

} // namespace Kz
