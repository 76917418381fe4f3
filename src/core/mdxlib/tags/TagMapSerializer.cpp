#include <mdxlib/tags/TagMapSerializer.h>

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/volumes/Volume.h>

namespace Mdx {

namespace {

constexpr int kTempBufferCapacity = 0x20000;
constexpr int kLongLength = 65535;
// Sequences nest items in items; real data nests a handful of levels. The
// bound keeps a hostile file from exhausting the stack.
constexpr int kMaxNesting = 64;

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
void store(TagMap* node, DcmTagKey const& key, TagElement* element);

void readSequence(TagMap* node, DcmTagKey const& key, Cursor& in, TagMap* parent,
                  QList<QByteArray> const& previews, int depth)
{
    auto* sequence = new TagSequence;
    int const count = in.length();
    TagSequence const* parentSequence =
        parent ? dynamic_cast<TagSequence const*>(parent->findElement(key)) : nullptr;
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
    store(node, key, sequence);
}

// Stores element at key. Bodies are written in key order, so an entry
// normally goes behind everything read so far and is appended with a hint,
// without searching the map; a later entry with the same key (only a damaged
// or hand-made body has one) replaces the earlier.
void store(TagMap* node, DcmTagKey const& key, TagElement* element)
{
    TagMap::ElementMap& elements = node->mElements;
    if (elements.isEmpty() || elements.lastKey() < key) {
        elements.append(key, element);
        return;
    }
    TagElement*& slot = elements[key];
    delete slot;
    slot = element;
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
    element->mValue = QByteArray(bytes, length); // null without bytes, as a marker's
    return element;
}

// How many entries the rest of a body holds, counted over their headers and
// lengths only, so that a node's array is allocated once at its final size.
int countEntries(Cursor in)
{
    int count = 0;
    while (in.available() > 0) {
        in.bytes(4);
        VR const vr = static_cast<VR>(in.byte());
        if (vr == VR_SQ) {
            for (int items = in.length(); items > 0 && !in.failed(); --items)
                in.bytes(static_cast<size_t>(in.length()));
        } else if (vr != VR_Omitted && vr != VR_Missing) {
            in.bytes(static_cast<size_t>(in.length()));
        }
        if (in.failed())
            break;
        ++count;
    }
    return count;
}

void deserializeBody(TagMap* node, Cursor& in, TagMap* parent, QList<QByteArray> const& previews, int depth)
{
    if (depth > kMaxNesting) {
        in.markFailed();
    } else {
        node->mElements.reserve(node->mElements.size() + countEntries(in));
        while (in.available() > 0 && !in.failed()) {
            unsigned short const group = in.word();
            unsigned short const element = in.word();
            unsigned char const code = in.byte();
            if (in.failed())
                break;
            DcmTagKey const key(group, element);
            VR const vr = static_cast<VR>(code);
            if (vr == VR_SQ) {
                readSequence(node, key, in, parent, previews, depth);
            } else if (vr == VR_Omitted || vr == VR_Missing) {
                store(node, key, newElement(vr, nullptr, 0));
            } else {
                int const length = in.length();
                char const* bytes = in.bytes(static_cast<size_t>(length));
                if (!bytes)
                    break;
                if (key == Tags::PreviewDataIndex) {
                    bool ok = false;
                    int const index = QByteArray::fromRawData(bytes, length).toInt(&ok);
                    if (ok && index >= 0 && index < previews.size())
                        store(node, Tags::PreviewData, newElement(VR_OB, previews[index]));
                } else {
                    store(node, key, newElement(vr, bytes, length));
                }
            }
        }
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
