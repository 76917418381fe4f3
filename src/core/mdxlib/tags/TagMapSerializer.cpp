#include <mdxlib/tags/TagMapSerializer.h>

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/volumes/Volume.h>

#include <algorithm>
#include <vector>

namespace Mdx {

namespace {

constexpr int kTempBufferCapacity = 0x20000;
constexpr int kLongLength = 65535;
// Sequences nest items in items; real data nests a handful of levels. The
// bound keeps a hostile file from exhausting the stack.
constexpr int kMaxNesting = 64;
constexpr std::uint32_t kPreviewDataIndex = 0x00067106; // Tags::PreviewDataIndex, packed

void writeHeader(LmMsg& out, DcmTagKey const& key, VR vr)
{
    out << static_cast<unsigned short>(key.getGroup()) << static_cast<unsigned short>(key.getElement())
        << static_cast<unsigned char>(vr & 0xFF);
}

// A reading position in a body, with LmMsg's rules (a read past the end
// consumes the rest, yields zeros and marks the reader failed) but inline:
// a read makes a few calls per attribute, and through LmMsg those calls
// cost a third of reading a tag file.
class Cursor
{
public:
    Cursor(char const* data, size_t size)
        : mPos(reinterpret_cast<unsigned char const*>(data))
        , mEnd(mPos + size)
    {
    }

    size_t available() const { return static_cast<size_t>(mEnd - mPos); }
    bool failed() const { return mFailed; }
    void markFailed() { mFailed = true; }

    char const* bytes(size_t count)
    {
        if (count > available()) {
            mPos = mEnd;
            mFailed = true;
            return nullptr;
        }
        auto const* at = reinterpret_cast<char const*>(mPos);
        mPos += count;
        return at;
    }
    unsigned char byte()
    {
        auto const* at = reinterpret_cast<unsigned char const*>(bytes(1));
        return at ? at[0] : 0;
    }
    unsigned short word()
    {
        auto const* at = reinterpret_cast<unsigned char const*>(bytes(2));
        return at ? static_cast<unsigned short>(at[0] | at[1] << 8) : 0;
    }
    unsigned int longWord()
    {
        auto const* at = reinterpret_cast<unsigned char const*>(bytes(4));
        return at ? unsigned(at[0]) | unsigned(at[1]) << 8 | unsigned(at[2]) << 16 | unsigned(at[3]) << 24
                  : 0;
    }
    // TagMap::readLength's form: 16 bits, or 65535 and 32 bits.
    int length()
    {
        unsigned short const shortLength = word();
        if (shortLength < kLongLength)
            return shortLength;
        unsigned int const longLength = longWord();
        if (longLength > 0x7FFFFFFFu) {
            mFailed = true;
            return 0;
        }
        return static_cast<int>(longLength);
    }

private:
    unsigned char const* mPos;
    unsigned char const* mEnd;
    bool mFailed = false;
};

void deserializeBody(TagMap* node, Cursor& in, TagMap* parent, QList<QByteArray> const& previews, int depth);

// Entries gathered while a body is read, one array per nesting level, kept
// by each thread: a node's own array is then allocated once at its final
// size, without a first pass over the body to count its entries.
ElementMap::Storage& scratchEntries(int depth)
{
    // Made at their full number once: a level's array is in use while the
    // levels below it are filled, so the outer array must never move.
    thread_local std::vector<ElementMap::Storage> levels(kMaxNesting + 1);
    ElementMap::Storage& entries = levels[static_cast<size_t>(depth)];
    entries.clear();
    return entries;
}

// Sorts in an entry that does not go behind the last one: a later entry
// with the same key replaces the earlier. Only a damaged or hand-made body
// has such entries.
void storeOutOfOrder(ElementMap::Storage& entries, ElementMap::Entry entry)
{
    auto const pos =
        std::lower_bound(entries.begin(), entries.end(), entry.tag,
                         [](ElementMap::Entry const& held, std::uint32_t tag) { return held.tag < tag; });
    if (pos != entries.end() && pos->tag == entry.tag) {
        delete pos->value;
        pos->value = entry.value;
    } else {
        entries.insert(pos, entry);
    }
}

// Stores element at key. Bodies are written in key order, so an entry
// normally goes behind everything read so far.
void store(ElementMap::Storage& entries, std::uint32_t tag, TagElement* element)
{
    if (entries.empty() || entries.back().tag < tag)
        entries.push_back(ElementMap::Entry(tag, element));
    else
        storeOutOfOrder(entries, ElementMap::Entry(tag, element));
}

void readSequence(ElementMap::Storage& entries, std::uint32_t tag, Cursor& in, TagMap* parent,
                  QList<QByteArray> const& previews, int depth)
{
    auto* sequence = new TagSequence;
    int const count = in.length();
    TagSequence const* parentSequence =
        parent ? dynamic_cast<TagSequence const*>(parent->findElement(ElementMap::Entry(tag, nullptr).key()))
               : nullptr;
    for (int i = 0; i < count && !in.failed(); ++i) {
        int const length = in.length();
        char const* bytes = in.bytes(static_cast<size_t>(length));
        if (!bytes)
            break;
        Cursor itemBytes(bytes, static_cast<size_t>(length));
        auto* item = new TagMap;
        item->mIsItem = true;
        TagMap* parentItem =
            parentSequence && i < parentSequence->mItems.size() ? parentSequence->mItems[i] : nullptr;
        deserializeBody(item, itemBytes, parentItem, previews, depth + 1);
        sequence->addItem(item);
        if (itemBytes.failed())
            in.markFailed();
    }
    store(entries, tag, sequence);
}

TagElement* newElement(VR vr, QByteArray const& value)
{
    auto* element = new TagElement;
    element->mVR = vr;
    element->mValue = value;
    return element;
}

TagElement* newElement(VR vr, char const* bytes, int length)
{
    auto* element = new TagElement;
    element->mVR = vr;
    element->mValue.assign(bytes, length); // null without bytes, as a marker's
    return element;
}

void deserializeBody(TagMap* node, Cursor& in, TagMap* parent, QList<QByteArray> const& previews, int depth)
{
    if (depth > kMaxNesting) {
        in.markFailed();
    } else {
        ElementMap::Storage& entries = scratchEntries(depth);
        ElementMap::Storage& own = node->mElements.entries();
        entries.insert(entries.end(), own.begin(), own.end());
        while (in.available() > 0 && !in.failed()) {
            unsigned short const group = in.word();
            unsigned short const element = in.word();
            unsigned char const code = in.byte();
            if (in.failed())
                break;
            std::uint32_t const tag = std::uint32_t(group) << 16 | element;
            VR const vr = static_cast<VR>(code);
            if (vr == VR_SQ) {
                readSequence(entries, tag, in, parent, previews, depth);
            } else if (vr == VR_Omitted || vr == VR_Missing) {
                store(entries, tag, newElement(vr, nullptr, 0));
            } else {
                int const length = in.length();
                char const* bytes = in.bytes(static_cast<size_t>(length));
                if (!bytes)
                    break;
                if (tag == kPreviewDataIndex) {
                    bool ok = false;
                    int const index = QByteArray::fromRawData(bytes, length).toInt(&ok);
                    if (ok && index >= 0 && index < previews.size())
                        store(entries, ElementMap::packed(Tags::PreviewData),
                              newElement(VR_OB, previews[index]));
                } else {
                    store(entries, tag, newElement(vr, bytes, length));
                }
            }
        }
        own.assign(entries.begin(), entries.end());
        entries.clear();
    }
    if (parent)
        parent->mChildren.append(node);
    node->mParent = parent;
}

} // namespace

// ---------------------------------------------------------------- writing

TagMapSerializer::~TagMapSerializer()
{
    for (LmMsg* buffer : mFreeBuffers)
        delete buffer;
}

LmMsg* TagMapSerializer::getEmptyTempBuffer() const
{
    if (mFreeBuffers.empty()) {
        auto* buffer = new LmMsg;
        buffer->reset(0, kTempBufferCapacity);
        return buffer;
    }
    LmMsg* buffer = mFreeBuffers.back();
    mFreeBuffers.pop_back();
    return buffer;
}

void TagMapSerializer::recycleTempBuffer(LmMsg* buffer) const
{
    buffer->reset(0);
    mFreeBuffers.push_back(buffer);
}

void TagMapSerializer::writeLength(LmMsg& out, int length)
{
    if (length < kLongLength) {
        out << static_cast<unsigned short>(length);
    } else {
        out << static_cast<unsigned short>(kLongLength);
        out << static_cast<unsigned int>(length);
    }
}

void TagMapSerializer::serialize(TagMap const* map, LmMsg& out, QList<QByteArray>& previews) const
{
    LmMsg* buffer = getEmptyTempBuffer();
    for (auto it = map->mElements.cbegin(); it != map->mElements.cend(); ++it) {
        TagElement const* element = it.value();
        if (it.key() == Tags::PreviewData && !element->isMarker()) {
            previews.append(element->mValue);
            QByteArray const index = QByteArray::number(previews.size() - 1);
            writeHeader(*buffer, Tags::PreviewDataIndex, VR_IS);
            writeLength(*buffer, index.size());
            buffer->writeRawBytes(index.constData(), static_cast<size_t>(index.size()));
            continue;
        }
        writeHeader(*buffer, it.key(), element->mVR);
        if (element->isMarker())
            continue; // a marker's leftover bytes are never written
        if (auto const* sequence = dynamic_cast<TagSequence const*>(element)) {
            writeLength(*buffer, sequence->mItems.size());
            for (TagMap const* item : sequence->mItems) {
                if (item)
                    serialize(item, *buffer, previews);
                else
                    writeLength(*buffer, 0);
            }
            continue;
        }
        writeLength(*buffer, element->mValue.size());
        buffer->writeRawBytes(element->mValue.constData(), static_cast<size_t>(element->mValue.size()));
    }
    writeLength(out, static_cast<int>(buffer->size()));
    out.writeRawBytes(buffer->dataPtr(), buffer->size());
    recycleTempBuffer(buffer);
}

void TagMapSerializer::serializeVolumes(TagMap const* map, LmMsg& out, QList<QByteArray>& previews) const
{
    LmMsg* buffer = getEmptyTempBuffer();
    writeLength(*buffer, map->volumes().size());
    for (Volume const* volume : map->volumes())
        volume->serialize(*buffer, previews);
    writeLength(out, static_cast<int>(buffer->size()));
    out.writeRawBytes(buffer->dataPtr(), buffer->size());
    recycleTempBuffer(buffer);
}

// ---------------------------------------------------------------- reading

int TagMap::readLength(LmMsg& in)
{
    unsigned short shortLength = 0;
    in >> shortLength;
    if (shortLength < kLongLength)
        return shortLength;
    unsigned int length = 0;
    in >> length;
    // Lengths above 2 GB cannot describe anything in a message; reading
    // them as such keeps every later bounds check in one integer type.
    if (length > 0x7FFFFFFFu) {
        in.markFailed();
        return 0;
    }
    return static_cast<int>(length);
}

void TagMap::deserialize(LmMsg& in, TagMap* parent, QList<QByteArray> const& previews)
{
    Cursor body(in.dataPtr() + in.readPosition(), in.bytesAvailable());
    deserializeBody(this, body, parent, previews, 0);
    in.readRawBytes(in.bytesAvailable() - body.available());
    if (body.failed())
        in.markFailed();
}

} // namespace Mdx
