#include <mdxlib/cloudreader/OffsetTable.h>

#include <QtEndian>

#include <cstring>
#include <stdexcept>

namespace Kz {

namespace {

constexpr std::uint32_t kLocalHeaderSignature = 0x04034B50;
// Flag bit 3: sizes and CRC follow the data in a descriptor.
constexpr unsigned kSizesInDescriptor = 0x08;
char const kMagic[4] = {'K', 'Z', '0', '1'};

std::uint16_t le16(char const* bytes)
{
    return qFromLittleEndian<quint16>(bytes);
}

std::uint32_t le32(char const* bytes)
{
    return qFromLittleEndian<quint32>(bytes);
}

[[noreturn]] void refuse(char const* reason)
{
    throw std::runtime_error(reason);
}

} // namespace

std::uint32_t checkContainerHeader(char const* header, std::size_t length)
{
    if (length < kContainerHeaderSize)
        refuse("Unexpected length of header data");
    if (le32(header) != kLocalHeaderSignature)
        refuse("Wrong file entry header");
    if (static_cast<unsigned char>(header[6]) & kSizesInDescriptor)
        refuse("Sizes marked invalid");
    if (le16(header + 8) != 0)
        refuse("Excpecting umcompressed data");
    if (le16(header + 26) != 2)
        refuse("Unexpected filename length");
    if (le16(header + 28) != 0)
        refuse("Unexpected extra field length");
    // The table holds at least its magic and its count.
    std::uint32_t const size = le32(header + 18);
    if (size < 8 || size != le32(header + 22))
        refuse("Inconsistent size");
    if (std::memcmp(header + 32, kMagic, sizeof kMagic) != 0)
        refuse("Invalid magic number");
    // The magic was part of the header; the count and the entries follow.
    return size - 4;
}

std::vector<std::shared_ptr<ContainerEntry>> parseOffsetTableEntries(std::vector<char> const& table)
{
    // A header that passed checkContainerHeader always gives at least the
    // count; any other caller may not.
    if (table.size() < 4)
        refuse("Invalid offset table");
    std::uint32_t const count = le32(table.data());
    if (count >= kMaxContainerEntries)
        refuse("Illegal number of files");
    std::vector<std::shared_ptr<ContainerEntry>> entries;
    entries.reserve(count);
    std::size_t const end = table.size();
    std::size_t position = 4;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (position + 2 > end)
            refuse("Invalid offset table");
        std::size_t const nameLength = le16(table.data() + position);
        std::size_t const name = position + 2;
        // The name, 2 bytes of zero, the offset and the size.
        if (name + nameLength + 10 > end)
            refuse("Invalid offset table");
        entries.push_back(std::make_shared<ContainerEntry>(ContainerEntry{
            std::string(table.data() + name, nameLength), le32(table.data() + name + nameLength + 2),
            le32(table.data() + name + nameLength + 6)}));
        position = name + nameLength + 10;
    }
    return entries;
}

} // namespace Kz
