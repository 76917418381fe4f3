// zlib packing of tag file payloads through libdeflate.
//
// The format is that of Qt's qCompress: the unpacked length as 4 bytes
// big-endian, then one zlib stream (level 6). Either side can read what the
// other wrote.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>

#include <vector>

MDX_EXPORT QByteArray qxCompress(unsigned char const* data, int size);
// Empty on any error, and for input of 4 bytes or fewer. A stream must
// unpack to exactly the length in front of it.
MDX_EXPORT QByteArray qxUncompress(QByteArray const& data);
// The same into out, whose memory is reused from call to call; false (and
// out empty) on any error.
MDX_EXPORT bool qxUncompress(char const* data, qint64 size, std::vector<char>& out);
