// LZMA packing of byte arrays, the third compression mode of tag files.
//
// The container is the standard .xz format (preset 6, CRC-64 check), so a
// stored payload can be inspected with the xz command-line tool. Unpacking
// refuses more than maxLzmaOutput bytes, so a hostile stream cannot exhaust
// memory.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McResult.h>

#include <vector>

template <typename T> using McDArray = std::vector<T>;

constexpr long long maxLzmaOutput = 0x7FFFFFFF;

MDX_EXPORT McResult lzmaCompress(McDArray<unsigned char>& out, unsigned char const* data, long long size);
MDX_EXPORT McResult lzmaUncompress(McDArray<unsigned char>& out, unsigned char const* data, long long size,
                                   long long maxOutput = maxLzmaOutput);
