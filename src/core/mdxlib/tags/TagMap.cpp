#include <mdxlib/tags/TagMap.h>

#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <algorithm>
#include <cstdio>
#include <typeinfo>
#include <utility>
#include <vector>

namespace Mdx {

namespace {

constexpr Uint32 kLargeValueLimit = 0x1000000;

// Attributes that are large by nature and that viewers need all the same:
// they are kept up to 16 MB whatever the caller's size limit is.
bool isLargeByNature(DcmTagKey const& key)
{
    Uint16 const group = key.getGroup();
    Uint16 const element = key.getElement();
    Uint16 const low = element & 0xFF;
    return key == DcmTagKey(0x0018, 0x1065) || key == DcmTagKey(0x0070, 0x0022) ||
           (group == 0x0029 && low == 0x00) ||
           (group == 0x0071 && (low == 0x21 || low == 0x62 || low == 0x64)) ||
           (element == 0x3000 && group >= 0x5000 && group <= 0x501E);
}

// dynamic_cast through DCMTK's deep class tree costs a few hundred
// instructions, and a build asks it several times for every attribute of
// every file. A dataset holds objects of a few dozen classes only, so the
// answer is kept per class, by each thread; the cast stays exact.
template <typename Target> Target* castByClass(DcmObject* object)
{
    thread_local std::vector<std::pair<std::type_info const*, bool>> known;
    std::type_info const* const type = &typeid(*object);
    for (auto const& [seen, derives] : known) {
        if (seen == type)
            return derives ? static_cast<Target*>(object) : nullptr;
    }
    auto* const target = dynamic_cast<Target*>(object);
    known.emplace_back(type, target != nullptr);
    return target;
}

Uint32 storedLength(DcmObject* object)
{
    return object->getLength(EXS_LittleEndianImplicit, EET_UndefinedLength);
}

// VR names in compare messages are DCMTK's, as in TagElement::compare.
char const* dcmVRName(VR vr)
{
    return DcmVR(toDcmEVR(vr)).getVRName();
}

} // namespace

TagMap::TagMap() = default;

TagMap::~TagMap()
{
    if (!mIsItem) {
        if (mParent)
            mParent->mChildren.removeOne(this);
        QList<TagMap*> const children = mChildren;
        mChildren.clear();
        for (TagMap* child : children) {
            child->mParent = nullptr;
            delete child;
        }
    }
    qDeleteAll(mVolumes);
    qDeleteAll(mElements);
}

bool TagMap::isPrivateGroup(Uint16 group)
{
    return (group & 1) && group != 0x0001 && group != 0x0003 && group != 0x0005 && group != 0x0007 &&
           group != 0xFFFF;
}

DcmTagKey TagMap::uidKey(Level level)
{
    switch (level) {
    case LevelImage:
        return DCM_SOPInstanceUID;
    case LevelSeries:
        return DCM_SeriesInstanceUID;
    case LevelStudy:
        return DCM_StudyInstanceUID;
    default:
        return DcmTagKey();
    }
}

TagElement*& TagMap::slot(DcmTagKey const& key)
{
    return mElements[key];
}

// ------------------------------------------------------------ construction

TagMap* TagMap::createTagMap(DcmItem* item, unsigned int maxSize)
{
    auto* map = new TagMap;
    if (!item)
        return map;
    map->mElements.reserve(static_cast<int>(item->card()));
    for (DcmObject* object = item->nextInContainer(nullptr); object; object = item->nextInContainer(object)) {
        DcmTagKey const key = object->getTag().getXTag();
        if (key.getGroup() == 0 || key.getElement() == 0)
            continue;
        if (auto* sequence = castByClass<DcmSequenceOfItems>(object)) {
            if ((key.getGroup() & 1) && storedLength(sequence) > maxSize) {
                map->markAsOmitted(key);
                continue;
            }
            bool const large = key == DcmTagKey(0x2050, 0x0010) || key == DcmTagKey(0x0028, 0x3010);
            map->setSequence(sequence, large ? kLargeValueLimit : maxSize);
        } else if (auto* element = castByClass<DcmElement>(object)) {
            Uint32 const limit = isLargeByNature(key) ? kLargeValueLimit : maxSize;
            if (storedLength(element) <= limit)
                map->setElement(element);
            else
                map->markAsOmitted(key);
        }
    }
    if (auto* dataset = dynamic_cast<DcmDataset*>(item)) {
        map->putAndInsertValue(Tags::TransferSyntax, VR_OB,
                               QByteArray(1, static_cast<char>(DcmtkToMdx(dataset->getOriginalXfer()))));
    }
    return map;
}

TagSequence* TagMap::setSequence(DcmSequenceOfItems* sequence, unsigned int maxSize)
{
    DcmTagKey const key = sequence->getTag().getXTag();
    TagElement*& element = slot(key);
    auto* tagSequence = dynamic_cast<TagSequence*>(element);
    if (!tagSequence) {
        delete element;
        tagSequence = new TagSequence;
        element = tagSequence;
    }
    tagSequence->clear();
    unsigned long const count = sequence->card();
    for (unsigned long i = 0; i < count; ++i) {
        TagMap* item = createTagMap(sequence->getItem(i), maxSize);
        item->mIsItem = true;
        tagSequence->addItem(item);
    }
    return tagSequence;
}

void TagMap::setElement(DcmElement* element)
{
    DcmTagKey const key = element->getTag().getXTag();
    TagElement*& target = slot(key);
    if (!target || dynamic_cast<TagSequence*>(target)) {
        delete target;
        target = new TagElement;
    }
    target->mVR = fromDcmEVR(element->getTag().getEVR());
    if (auto* text = castByClass<DcmByteString>(element)) {
        char* value = nullptr;
        Uint32 length = 0;
        if (text->getString(value, length).good())
            target->mValue.assign(value, static_cast<int>(length)); // null without a value
        return;
    }
    Uint32 const length = element->getLength();
    if (length <= TagValue::kInlineCapacity) {
        // Read straight into the element: no heap block for a short value.
        char bytes[TagValue::kInlineCapacity];
        bool const read =
            length == 0 || element->getPartialValue(bytes, 0, length, nullptr, gLocalByteOrder).good();
        target->mValue.assign(read ? bytes : nullptr, static_cast<int>(length));
        return;
    }
    QByteArray bytes(static_cast<int>(length), Qt::Uninitialized);
    if (length > 0 && element->getPartialValue(bytes.data(), 0, length, nullptr, gLocalByteOrder).bad())
        bytes.clear();
    target->mValue = bytes;
}

void TagMap::addChildMap(TagMap* child, Level level)
{
    TagElement* uid = child->removeUID(level);

    if (mChildren.isEmpty() && !mIsItem) {
        qDeleteAll(mElements);
        mElements.clear();
        mElements.swap(child->mElements);
    } else {
        // One merge pass over what the child holds and what it would inherit
        // builds its new array: a value equal to the inherited one goes, a
        // different one stays, and an inherited key the child lacks gets a
        // missing marker.
        // The merge goes through an array kept by the thread; the child's
        // own array is then made anew at its final, usually far smaller,
        // size instead of keeping the capacity of a whole flat image. The
        // kept array is taken out while in use: merging sequence items
        // below calls this again.
        thread_local ElementMap::Storage spare;
        ElementMap::Storage merged;
        merged.swap(spare);
        merged.clear();
        ElementMap::Storage& own = child->mElements.entries();
        iterator parentIt = begin();
        auto childIt = own.begin();
        while (!parentIt.atEnd() || childIt != own.end()) {
            if (childIt == own.end() || (!parentIt.atEnd() && parentIt.tag() < childIt->tag)) {
                mMergeCounts[parentIt.tag()].missing++;
                auto* marker = new TagElement;
                marker->mVR = VR_Missing;
                merged.push_back(ElementMap::Entry(parentIt.tag(), marker));
                ++parentIt;
            } else if (parentIt.atEnd() || childIt->tag < parentIt.tag()) {
                merged.push_back(*childIt);
                ++childIt;
            } else {
                TagElement* parentElement = parentIt.element();
                TagElement* childElement = childIt->value;
                if (parentElement->compare(*childElement, true, nullptr)) {
                    delete childElement;
                } else {
                    auto* parentSequence = dynamic_cast<TagSequence*>(parentElement);
                    auto* childSequence = dynamic_cast<TagSequence*>(childElement);
                    if (parentSequence && childSequence) {
                        int const n = qMin(parentSequence->mItems.size(), childSequence->mItems.size());
                        for (int i = 0; i < n; ++i)
                            parentSequence->mItems[i]->addChildMap(childSequence->mItems[i], LevelItem);
                    }
                    mMergeCounts[parentIt.tag()].different++;
                    merged.push_back(*childIt);
                }
                ++childIt;
                ++parentIt;
            }
        }
        ElementMap::Storage fresh;
        fresh.reserve(merged.size() + 1); // with room for the UID, put back below
        fresh.assign(merged.begin(), merged.end());
        fresh.swap(own);
        merged.clear();
        spare.swap(merged);
    }

    child->insertUID(level, uid);
    mChildren.append(child);
    child->mParent = this;
}

TagMap::MergeCounts TagMap::mergeCounts(DcmTagKey const& key) const
{
    return mMergeCounts.value(ElementMap::packed(key));
}

void TagMap::removeChildMap(TagMap* child)
{
    mChildren.removeOne(child);
}

TagElement* TagMap::removeUID(Level level)
{
    if (level == LevelItem)
        return nullptr;
    return mElements.take(uidKey(level));
}

void TagMap::insertUID(Level level, TagElement* element)
{
    if (!element || level == LevelItem)
        return;
    TagElement*& target = slot(uidKey(level));
    if (target != element)
        delete target;
    target = element;
}

TagMap* TagMap::clone() const
{
    auto* copy = new TagMap;
    copy->mIsItem = mIsItem;
    for (iterator it = begin(), last = end(); it != last; ++it)
        copy->mElements.insert(it.key(), it.element()->clone());
    return copy;
}

void TagMap::copyFromParent()
{
    if (!mParent)
        return;
    for (auto it = mParent->mElements.cbegin(); it != mParent->mElements.cend(); ++it) {
        if (!mElements.contains(it.key()))
            mElements.insert(it.key(), it.value()->clone());
    }
}

// ----------------------------------------------------------------- reading

TagElement* TagMap::findElement(DcmTagKey const& key) const
{
    for (TagMap const* node = this; node; node = node->mParent) {
        auto const it = node->mElements.constFind(key);
        if (it != node->mElements.cend())
            return it.value()->isMissingMarker() ? nullptr : it.value();
    }
    return nullptr;
}

TagElement* TagMap::findElement(DcmTag const& tag) const
{
    if (tag.getPrivateCreator())
        return findElementPrivate(tag.getXTag(), tag.getPrivateCreator());
    return findElement(tag.getBaseTag());
}

char const* TagMap::privateCreator(DcmTagKey const& key) const
{
    if (!(key.getGroup() & 1))
        return nullptr;
    TagElement const* creator = findElement(DcmTagKey(key.getGroup(), key.getElement() >> 8));
    return creator ? creator->mValue.constData() : nullptr;
}

TagElement* TagMap::findElementPrivate(DcmTagKey const& key, char const* privateCreator) const
{
    if (!privateCreator)
        return findElement(key);
    Uint16 const group = key.getGroup();
    if (!isPrivateGroup(group))
        return nullptr;
    for (iterator it = lowerBound(DcmTagKey(group, 0x0010)), last = end(); it != last; ++it) {
        if (it.key().getGroup() != group || it.key().getElement() > 0x00FF)
            break;
        if (qstrcmp(it.element()->mValue.constData(), privateCreator) == 0) {
            Uint16 const block = it.key().getElement();
            return findElement(DcmTagKey(group, static_cast<Uint16>(block << 8 | (key.getElement() & 0xFF))));
        }
    }
    return nullptr;
}

bool TagMap::findAndGetString(DcmTagKey const& key, QByteArray& out) const
{
    TagElement const* element = findElement(key);
    if (!element) {
        out.clear();
        return false;
    }
    if (element->mVR == VR_UN && isPrivateGroup(key.getGroup()))
        element->getValueAsString(out, key, privateCreator(key));
    else
        element->getValueAsString(out);
    return true;
}

bool TagMap::findAndGetString(DcmTagKey const& key, char const* creator, QByteArray& out) const
{
    TagElement const* element = findElementPrivate(key, creator);
    if (!element) {
        out.clear();
        return false;
    }
    if (element->mVR == VR_UN)
        element->getValueAsString(out, key, creator);
    else
        element->getValueAsString(out);
    return true;
}

bool TagMap::findAndGetInt(DcmTagKey const& key, int& out) const
{
    TagElement const* element = findElement(key);
    if (!element) {
        out = 0;
        return false;
    }
    bool ok = false;
    out = element->valueAsInt(&ok, 0);
    return ok;
}

bool TagMap::compare(TagMap const& other, bool compareAll, std::string* difference) const
{
    auto skipped = [compareAll](DcmTagKey const& key) {
        return !compareAll && (key.getGroup() == 0x0071 || key.getGroup() == 0x0006);
    };
    auto skip = [&](iterator& it, iterator const& last) {
        while (it != last && skipped(it.key()))
            ++it;
    };
    char line[96];
    iterator mine = begin();
    iterator theirs = other.begin();
    iterator const myEnd = end();
    iterator const theirEnd = other.end();
    for (;;) {
        skip(mine, myEnd);
        skip(theirs, theirEnd);
        bool const mineDone = mine == myEnd;
        bool const theirsDone = theirs == theirEnd;
        if (mineDone && theirsDone)
            return true;
        if (mineDone || theirsDone) {
            if (difference) {
                iterator const& rest = mineDone ? theirs : mine;
                std::snprintf(line, sizeof line, "(%04x,%04x) %s Missing tag\n", rest.key().getGroup(),
                              rest.key().getElement(), dcmVRName(rest.element()->mVR));
                *difference = line;
            }
            return false;
        }
        if (mine.key() != theirs.key()) {
            if (difference) {
                std::snprintf(line, sizeof line, "(%04x,%04x) %s <> (%04x,%04x) %s\n", mine.key().getGroup(),
                              mine.key().getElement(), dcmVRName(mine.element()->mVR),
                              theirs.key().getGroup(), theirs.key().getElement(),
                              dcmVRName(theirs.element()->mVR));
                *difference = line;
            }
            return false;
        }
        if (compareAll || !isPrivateGroup(mine.key().getGroup())) {
            std::string elementDifference;
            if (!mine.element()->compare(*theirs.element(), compareAll,
                                         difference ? &elementDifference : nullptr)) {
                if (difference) {
                    std::snprintf(line, sizeof line, "(%04x,%04x) ", mine.key().getGroup(),
                                  mine.key().getElement());
                    *difference = line + elementDifference;
                }
                return false;
            }
        }
        ++mine;
        ++theirs;
    }
}

// ----------------------------------------------------------------- writing

bool TagMap::deleteElement(DcmTagKey const& key)
{
    TagElement* element = mElements.take(key);
    delete element;
    return element != nullptr;
}

bool TagMap::putAndInsertValue(DcmTagKey const& key, VR vr, QByteArray const& value)
{
    TagElement*& element = slot(key);
    if (!element || dynamic_cast<TagSequence*>(element)) {
        delete element;
        element = new TagElement;
    }
    element->mValue = value;
    element->mVR = vr;
    return true;
}

bool TagMap::putAndInsertValue(DcmTagKey const& key, char const* creator, VR vr, QByteArray const& value)
{
    if (!creator)
        return putAndInsertValue(key, vr, value);
    Uint16 const group = key.getGroup();
    if (!(group & 1))
        return false;
    Uint16 const low = key.getElement() & 0xFF;
    int candidate = 0x10;
    for (iterator it = lowerBound(DcmTagKey(group, 0x0010)), last = end(); it != last; ++it) {
        if (it.key().getGroup() != group || it.key().getElement() > 0x00FF)
            break;
        int const block = it.key().getElement();
        if (qstrcmp(it.element()->mValue.constData(), creator) == 0)
            return putAndInsertValue(DcmTagKey(group, static_cast<Uint16>(block << 8 | low)), vr, value);
        if (candidate == block)
            ++candidate;
    }
    if (candidate > 0xFF)
        return false;
    putAndInsertValue(DcmTagKey(group, static_cast<Uint16>(candidate)), VR_LO, QByteArray(creator));
    return putAndInsertValue(DcmTagKey(group, static_cast<Uint16>(candidate << 8 | low)), vr, value);
}

bool TagMap::putAndInsertString(DcmTagKey const& key, QByteArray const& value)
{
    return putAndInsertString(key, nullptr, value);
}

bool TagMap::putAndInsertString(DcmTagKey const& key, char const* creator, QByteArray const& value)
{
    TagElement*& element = slot(key);
    if (!element) {
        element = new TagElement;
        element->mVR = dictionaryVR(key, creator);
    } else if (element->isMarker()) {
        element->mVR = dictionaryVR(key, creator);
    }
    element->putValueAsString(value);
    return true;
}

bool TagMap::putAndInsertInt(DcmTagKey const& key, int value)
{
    TagElement*& element = slot(key);
    if (!element || dynamic_cast<TagSequence*>(element)) {
        delete element;
        element = new TagElement;
    }
    element->putValue(value);
    return true;
}

TagElement* TagMap::putMarker(DcmTagKey const& key, VR marker)
{
    TagElement*& element = slot(key);
    delete element;
    element = new TagElement;
    element->mVR = marker;
    return element;
}

TagElement* TagMap::markAsMissing(DcmTagKey const& key)
{
    return putMarker(key, VR_Missing);
}

TagElement* TagMap::markAsOmitted(DcmTagKey const& key)
{
    return putMarker(key, VR_Omitted);
}

// ----------------------------------------------------------------- clients

void TagMap::removeTagsNotNeededByClient()
{
    for (auto it = mElements.begin(); it != mElements.end();) {
        DcmTagKey const& key = it.key();
        Uint16 const group = key.getGroup();
        bool const overlay = key.getElement() == 0x3000 && group >= 0x6000 && group <= 0x601E;
        if (it.value()->mVR == VR_UN || key == DcmTagKey(0x2050, 0x0010) ||
            key == DcmTagKey(0x0028, 0x3000) || key == DcmTagKey(0x0028, 0x3010) || overlay) {
            delete it.value();
            it = mElements.erase(it);
        } else {
            ++it;
        }
    }
    if (auto* sequence = dynamic_cast<TagSequence*>(mElements.value(DcmTagKey(0x0400, 0x0561), nullptr))) {
        if (sequence->mItems.size() >= 5) {
            while (sequence->mItems.size() > 4)
                delete sequence->mItems.takeLast();
        }
    }
    for (Volume* volume : mVolumes)
        volume->mFileNameSuffix.clear();
    for (TagMap* child : mChildren)
        child->removeTagsNotNeededByClient();
}

QByteArray TagMap::previewOfLargestVolume(QList<TagMap*> const& nodes, TagMap** imageOut) const
{
    Volume const* best = nullptr;
    for (TagMap const* node : nodes) {
        for (Volume const* volume : node->mVolumes) {
            if (volume->hasPreview() && (!best || volume->numSlices() > best->numSlices()))
                best = volume;
        }
    }
    if (!best)
        return QByteArray();
    if (imageOut) {
        int frame = 0;
        *imageOut = best->imageForSlice(best->numSlices() / 2, frame);
    }
    return best->previewData();
}

QByteArray TagMap::findPreviewData(TagMap** imageOut) const
{
    if (TagElement const* preview = findElement(Tags::PreviewData)) {
        if (imageOut)
            *imageOut = const_cast<TagMap*>(this);
        return preview->mValue;
    }
    if (!mParent) {
        QByteArray const data = previewOfLargestVolume(mChildren, imageOut);
        if (!data.isEmpty())
            return data;
        QList<TagMap*> series = mChildren;
        auto seriesNumber = [](TagMap const* node) {
            int number = 0;
            node->findAndGetInt(DCM_SeriesNumber, number);
            return number;
        };
        std::stable_sort(series.begin(), series.end(),
                         [&](TagMap const* a, TagMap const* b) { return seriesNumber(a) < seriesNumber(b); });
        for (TagMap const* child : series) {
            QByteArray const childData = child->findPreviewData(imageOut);
            if (!childData.isEmpty())
                return childData;
        }
    }
    if (mChildren.isEmpty())
        return QByteArray();
    QByteArray const data = previewOfLargestVolume(QList<TagMap*>{const_cast<TagMap*>(this)}, imageOut);
    if (!data.isEmpty())
        return data;
    for (TagMap* child : mChildren) {
        if (TagElement const* preview = child->findElement(Tags::PreviewData)) {
            if (imageOut)
                *imageOut = child;
            return preview->mValue;
        }
    }
    return QByteArray();
}

} // namespace Mdx
