// The binary form of tag maps inside a tag file's payload.
//
// A node is written as its body length (length form) and its own attributes
// in key order, markers included, inherited attributes never; so the reader
// gets the tree exactly as it was. Sequence items nest their own length and
// body. Preview images (0006,7105) never travel in line: they go to a list
// beside the message and the node keeps their index as (0006,7106).
//
// Length form: a value below 65535 as unsigned 16 bits, otherwise 65535 and
// the value as unsigned 32 bits.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>
#include <QList>

#include <vector>

class LmMsg;

namespace Mdx {

class TagMap;

class MDX_EXPORT TagMapSerializer
{
public:
    TagMapSerializer() = default;
    ~TagMapSerializer();

    TagMapSerializer(TagMapSerializer const&) = delete;
    TagMapSerializer& operator=(TagMapSerializer const&) = delete;

    // Appends the body length and the body of map to out.
    void serialize(TagMap const* map, LmMsg& out, QList<QByteArray>& previews) const;
    // Appends the length and the volume list of map to out.
    void serializeVolumes(TagMap const* map, LmMsg& out, QList<QByteArray>& previews) const;

    static void writeLength(LmMsg& out, int length);

    // Bodies are built in temporary buffers because each length stands in
    // front of its body; the buffers are pooled.
    LmMsg* getEmptyTempBuffer() const;
    void recycleTempBuffer(LmMsg* buffer) const;

private:
    mutable std::vector<LmMsg*> mFreeBuffers;
};

} // namespace Mdx
