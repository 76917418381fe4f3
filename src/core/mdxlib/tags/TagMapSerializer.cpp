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

void deserializeBody(TagMap* node, LmMsg& in, TagMap* parent, QList<QByteArray> const& previews, int depth);
void store(TagMap* node, DcmTagKey const& key, TagElement* element);

void readSequence(TagMap* node, DcmTagKey const& key, LmMsg& in, TagMap* parent,
                  QList<QByteArray> const& previews, int depth)
{
    auto* sequence = new TagSequence;
    int const count = TagMap::readLength(in);
    TagSequence const* parentSequence =
        parent ? dynamic_cast<TagSequence const*>(parent->findElement(key)) : nullptr;
    for (int i = 0; i < count && !in.failed(); ++i) {
        int const length = TagMap::readLength(in);
        char const* bytes = in.readRawBytes(static_cast<size_t>(length));
        if (!bytes)
            break;
        LmMsg itemBytes;
        itemBytes.setRawData(bytes, static_cast<size_t>(length));
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

// How many entries the rest of a body holds, counted over their headers and
// lengths only, so that a node's array is allocated once at its final size.
int countEntries(LmMsg const& body)
{
    LmMsg in(body.dataPtr() + body.readPosition(), body.bytesAvailable());
    int count = 0;
    while (in.bytesAvailable() > 0) {
        unsigned short group = 0;
        unsigned short element = 0;
        unsigned char code = 0;
        in >> group >> element >> code;
        VR const vr = static_cast<VR>(code);
        if (vr == VR_SQ) {
            for (int items = TagMap::readLength(in); items > 0 && !in.failed(); --items)
                in.readRawBytes(static_cast<size_t>(TagMap::readLength(in)));
        } else if (vr != VR_Omitted && vr != VR_Missing) {
            in.readRawBytes(static_cast<size_t>(TagMap::readLength(in)));
        }
        if (in.failed())
            break;
        ++count;
    }
    return count;
}

void deserializeBody(TagMap* node, LmMsg& in, TagMap* parent, QList<QByteArray> const& previews, int depth)
{
    if (depth > kMaxNesting) {
        in.markFailed();
    } else {
        node->mElements.reserve(node->mElements.size() + countEntries(in));
        while (in.bytesAvailable() > 0 && !in.failed()) {
            unsigned short group = 0;
            unsigned short element = 0;
            unsigned char code = 0;
            in >> group >> element >> code;
            if (in.failed())
                break;
            DcmTagKey const key(group, element);
            VR const vr = static_cast<VR>(code);
            if (vr == VR_SQ) {
                readSequence(node, key, in, parent, previews, depth);
            } else if (vr == VR_Omitted || vr == VR_Missing) {
                store(node, key, newElement(vr, QByteArray()));
            } else {
                int const length = TagMap::readLength(in);
                char const* bytes = in.readRawBytes(static_cast<size_t>(length));
                if (!bytes)
                    break;
                if (key == Tags::PreviewDataIndex) {
                    bool ok = false;
                    int const index = QByteArray::fromRawData(bytes, length).toInt(&ok);
                    if (ok && index >= 0 && index < previews.size())
                        store(node, Tags::PreviewData, newElement(VR_OB, previews[index]));
                } else {
                    store(node, key, newElement(vr, QByteArray(bytes, length)));
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
    deserializeBody(this, in, parent, previews, 0);
}

} // namespace Mdx
