// The entry functions of the cloud reader's fuzz targets, shared by the
// libFuzzer programs and the replay test of the normal build. Each aborts
// when an input breaks what the code promises.
#pragma once

#include <cstddef>
#include <cstdint>

namespace MdxFuzz {

// cloud-reader.xml text: whatever it says, the configuration stays usable
// (positive page and chunk sizes, a chunk a whole number of pages, at least
// one request per file and in total).
int cloudReaderConfig(std::uint8_t const* data, std::size_t size);
// A multipart/related stream, handed over in pieces of varying size: the
// decoder ends (0 or -1) within a bound of reads and never hands out more
// bytes than it was given.
int multipart(std::uint8_t const* data, std::size_t size);

} // namespace MdxFuzz
