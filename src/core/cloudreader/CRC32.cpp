#include <mdxlib/cloudreader/CRC32.h>

#include <array>
#include <cstdint>

namespace Kz {

namespace {

using Table = std::array<std::uint32_t, 256>;

// Built once, on first use; the initialisation of a function's static is
// thread-safe.
Table const& crcTable()
{
    static Table const table = [] {
        Table values{};
        for (std::uint32_t n = 0; n < 256; ++n) {
            std::uint32_t c = n;
            for (int bit = 0; bit < 8; ++bit)
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1; // 0x04C11DB7 reflected
            values[n] = c;
        }
        return values;
    }();
    return table;
}

} // namespace

void CRC32::reset()
{
    crcTable();
    mCrc = 0xFFFFFFFFu;
}

void CRC32::addData(char const* data, int length)
{
    Table const& table = crcTable();
    std::uint32_t crc = mCrc;
    for (int i = 0; i < length; ++i)
        crc = table[(crc ^ static_cast<unsigned char>(data[i])) & 0xFF] ^ (crc >> 8);
    mCrc = crc;
}

unsigned int CRC32::getCRC() const
{
    return ~mCrc;
}

} // namespace Kz
