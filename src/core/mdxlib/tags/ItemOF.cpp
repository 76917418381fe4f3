// The item and sequence views over DCMTK objects.
#include <mdxlib/tags/ItemOF.h>
#include <mdxlib/tags/SequenceOfItemsOF.h>

#include "dcmtk/dcmdata/dcdatset.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcitem.h"
#include "dcmtk/dcmdata/dcpixel.h"
#include "dcmtk/dcmdata/dcpixseq.h"
#include "dcmtk/dcmdata/dcsequen.h"

#include <algorithm>

namespace Mdx {

OFConditionConst const EC_IndexOutOfRange = {1000, 1, OF_error, "index out of range"};

namespace {

// The item a view of no dataset looks at: every lookup finds nothing. Built
// at first use rather than at load time: a DcmItem's constructor consults
// DCMTK's data dictionary, itself a global whose construction order against
// ours is unspecified; C++ makes the first use safe between threads.
DcmItem& emptyItem()
{
    static DcmItem item;
    return item;
}

} // namespace

Item::~Item() = default;
SequenceOfItems::~SequenceOfItems() = default;

ItemOF::ItemOF(std::shared_ptr<DcmDataset> dataset)
    : mItem(dataset ? static_cast<DcmItem*>(dataset.get()) : &emptyItem())
    , mDataset(std::move(dataset))
{
}

ItemOF::ItemOF(DcmItem& item)
    : mItem(&item)
{
}

ItemOF::~ItemOF()
{
    for (SequenceOfItemsOF* sequence : mSequences)
        delete sequence;
}

std::shared_ptr<DcmDataset> ItemOF::obtainDcmDataset()
{
    return mDataset;
}

bool ItemOF::isEncapsulated()
{
    DcmElement* element = nullptr;
    if (mItem->findAndGetElement(DCM_PixelData, element, false).bad())
        return false;
    auto* pixels = dynamic_cast<DcmPixelData*>(element);
    if (!pixels)
        return false;
    E_TransferSyntax xfer = EXS_Unknown;
    DcmRepresentationParameter const* parameter = nullptr;
    pixels->getOriginalRepresentationKey(xfer, parameter);
    DcmPixelSequence* sequence = nullptr;
    return pixels->getEncapsulatedRepresentation(xfer, parameter, sequence).good() && sequence;
}

E_TransferSyntax ItemOF::transferSyntax()
{
    DcmElement* element = nullptr;
    if (mItem->findAndGetElement(DCM_PixelData, element, false).bad())
        return EXS_Unknown;
    auto* pixels = dynamic_cast<DcmPixelData*>(element);
    if (!pixels)
        return EXS_Unknown;
    E_TransferSyntax xfer = EXS_Unknown;
    DcmRepresentationParameter const* parameter = nullptr;
    pixels->getOriginalRepresentationKey(xfer, parameter);
    return xfer;
}

bool ItemOF::tagOmitted(DcmTagKey const&) const
{
    return false;
}

bool ItemOF::tagExists(DcmTagKey const& key)
{
    return mItem->tagExists(key, false);
}

bool ItemOF::tagExists(DcmTagKey const& key, DcmEVR& vr)
{
    DcmElement* element = nullptr;
    if (mItem->findAndGetElement(key, element, false).bad() || !element)
        return false;
    vr = element->getTag().getEVR();
    return true;
}

OFCondition ItemOF::findAndGetOFString(DcmTagKey const& key, std::string& value)
{
    OFString text;
    OFCondition const status = mItem->findAndGetOFString(key, text, 0, false);
    value.assign(text.c_str(), text.length());
    return status;
}

OFCondition ItemOF::findAndGetOFStringArray(DcmTagKey const& key, std::string& value)
{
    OFString text;
    OFCondition const status = mItem->findAndGetOFStringArray(key, text, false);
    value.assign(text.c_str(), text.length());
    return status;
}

OFCondition ItemOF::findAndGetLongInt(DcmTagKey const& key, long& value)
{
    long int v = 0;
    OFCondition const status = mItem->findAndGetLongInt(key, v, 0, false);
    value = v;
    return status;
}

OFCondition ItemOF::findAndGetUint16(DcmTagKey const& key, unsigned short& value)
{
    DcmElement* element = nullptr;
    OFCondition const status = mItem->findAndGetElement(key, element, false);
    if (status.bad() || !element)
        return status.bad() ? status : OFCondition(EC_TagNotFound);
    // The element's own conversions decide the value; what they report is
    // deliberately not passed on, so that a signed short reads as its bits.
    if (element->getTag().getEVR() == EVR_SS) {
        Sint16 v = 0;
        element->getSint16(v, 0);
        value = static_cast<unsigned short>(v);
    } else {
        Uint16 v = 0;
        element->getUint16(v, 0);
        value = v;
    }
    return EC_Normal;
}

OFCondition ItemOF::findAndGetSint16Array(DcmTagKey const& key, short const*& values, unsigned long* count)
{
    Sint16 const* v = nullptr;
    OFCondition const status = mItem->findAndGetSint16Array(key, v, count, false);
    values = v;
    return status;
}

OFCondition ItemOF::findAndGetUint16Array(DcmTagKey const& key, unsigned short const*& values,
                                          unsigned long* count)
{
    Uint16 const* v = nullptr;
    OFCondition const status = mItem->findAndGetUint16Array(key, v, count, false);
    values = v;
    return status;
}

OFCondition ItemOF::findAndGetUint8Array(DcmTagKey const& key, unsigned char const*& values,
                                         unsigned long* count)
{
    Uint8 const* v = nullptr;
    OFCondition const status = mItem->findAndGetUint8Array(key, v, count, false);
    values = v;
    return status;
}

OFCondition ItemOF::findAndGetFloat32Array(DcmTagKey const& key, float const*& values, unsigned long* count)
{
    Float32 const* v = nullptr;
    OFCondition const status = mItem->findAndGetFloat32Array(key, v, count, false);
    values = v;
    return status;
}

OFCondition ItemOF::findAndGetSequence(DcmTagKey const& key, SequenceOfItems*& sequence)
{
    sequence = nullptr;
    DcmSequenceOfItems* found = nullptr;
    OFCondition const status = mItem->findAndGetSequence(key, found, false);
    if (status.bad() || !found)
        return status.bad() ? status : OFCondition(EC_TagNotFound);
    for (SequenceOfItemsOF* wrapper : mSequences)
        if (wrapper->sequence() == found) {
            sequence = wrapper;
            return status;
        }
    mSequences.push_back(new SequenceOfItemsOF(found));
    sequence = mSequences.back();
    return status;
}

OFCondition ItemOF::findAndGetSequenceItem(DcmTagKey const& key, Item*& item, int index)
{
    item = nullptr;
    SequenceOfItems* sequence = nullptr;
    OFCondition const status = findAndGetSequence(key, sequence);
    if (status.bad())
        return status;
    if (index < 0 || static_cast<unsigned long>(index) >= sequence->card())
        return EC_IllegalCall;
    item = sequence->getItem(static_cast<unsigned int>(index));
    return item ? EC_Normal : OFCondition(EC_IllegalCall);
}

OFCondition ItemOF::putAndInsertStringArray(DcmTagKey const& key, char const* value)
{
    // The view of no dataset shares one empty item between all such views;
    // writing into it would show in all of them.
    if (mItem == &emptyItem())
        return EC_IllegalCall;
    return mItem->putAndInsertOFStringArray(DcmTag(key), OFString(value ? value : ""), true);
}

SequenceOfItemsOF::SequenceOfItemsOF(DcmSequenceOfItems* sequence)
    : mSequence(sequence)
{
}

SequenceOfItemsOF::~SequenceOfItemsOF()
{
    for (ItemOF* item : mItems)
        delete item;
}

unsigned long SequenceOfItemsOF::card()
{
    return mSequence ? mSequence->card() : 0;
}

Item* SequenceOfItemsOF::getItem(unsigned int index)
{
    if (!mSequence)
        return nullptr;
    if (index >= mItems.size())
        mItems.resize(size_t(index) + 1, nullptr);
    if (mItems[index])
        return mItems[index];
    // DCMTK's getItem walks its list from the start, which is quadratic over
    // a loop of items: walk on from the item made last.
    DcmItem* found = nullptr;
    if (index > 0 && mItems[index - 1]) {
        DcmObject* next = mSequence->nextInContainer(mItems[index - 1]->item());
        found = dynamic_cast<DcmItem*>(next);
    }
    if (!found)
        found = mSequence->getItem(index);
    if (!found)
        return nullptr;
    mItems[index] = new ItemOF(*found);
    return mItems[index];
}

DcmSequenceOfItems* SequenceOfItemsOF::createDcmSequenceOfItems()
{
    return mSequence ? static_cast<DcmSequenceOfItems*>(mSequence->clone()) : nullptr;
}

} // namespace Mdx
