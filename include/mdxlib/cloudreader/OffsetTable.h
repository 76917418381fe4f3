// The offset table of a .kz container, read from bytes alone.
//
// A container is a ZIP archive of stored members whose first entry, named
// ".0", holds a table of every member's name, data offset and size, so that
// a reader learns where each member lies from the first bytes of the object.
// These functions take the bytes and nothing else (no file, no network, no
// log), so every check of the table can be tested and fuzzed on its own; the
// container that reads the bytes reports what they throw.
#pragma once

#include <mdxlib/Export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Kz {

// One member of a container, as the offset table gives it.
struct ContainerEntry
{
    std::string name;     // as stored: UTF-8, not terminated, may hold any byte
    std::uint32_t offset; // file offset of the member's data
    std::uint32_t size;   // member's size in bytes
};

// Bytes at the start of a container that tell whether it is one: the local
// header of the table entry (30), its name ".0" (2) and the magic (4).
constexpr std::size_t kContainerHeaderSize = 36;
// Members a table can hold: its count must stay below this.
constexpr std::uint32_t kMaxContainerEntries = 65536;

// Checks the first length bytes of an object (fewer than
// kContainerHeaderSize when the object is that short) and returns how many
// bytes of table follow them: the member count and the entries. Throws
// std::runtime_error with the reason when the bytes do not start a container.
MDX_EXPORT std::uint32_t checkContainerHeader(char const* header, std::size_t length);

// The entries of a table that starts at the member count (the bytes after
// the header). Throws std::runtime_error when the count is out of range or
// the entries do not fit. Bytes behind the last entry are ignored.
MDX_EXPORT std::vector<std::shared_ptr<ContainerEntry>>
parseOffsetTableEntries(std::vector<char> const& table);

} // namespace Kz
