// The item and sequence views over tag maps.
#include <mdxlib/tags/ItemTM.h>
#include <mdxlib/tags/SequenceOfItemsTM.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/tags/TransferSyntax.h>

#include "DicomFileLoad.h"

#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/platform/McLogFile.h>

#include "dcmtk/dcmdata/dcdatset.h"
#include "dcmtk/dcmdata/dcdicent.h"
#include "dcmtk/dcmdata/dcdict.h"
#include "dcmtk/dcmdata/dcfilefo.h"
#include "dcmtk/dcmdata/dcsequen.h"

#include <cstring>

namespace Mdx {

OFCondition loadDicomDataset(char const* path, std::shared_ptr<DcmDataset>& dataset)
{
    // Through the file loader, so that a path may name a URL, a file-server
    // path or a container member as well as a local file. Values above 4 KB
    // stay on disk where the road allows: a view asks for one omitted
    // value, not for the pixel data.
    LmDcmFileLoader loader(LmDcmFileLoader::leaveLargeValuesMode());
    OFCondition const status =
        loader.loadFile(OFFilename(path), EXS_Unknown, EGL_noChange, 4096, ERM_autoDetect);
    if (status.bad())
        return status;
    dataset.reset(loader.fileFormat().getAndRemoveDataset());
    return dataset ? status : OFCondition(EC_IllegalCall);
}

ItemTM::ItemTM(TagMap& item, std::shared_ptr<TagMap>& study)
    : mItem(item)
    , mStudy(study)
{
}

ItemTM::ItemTM(TagMap& item)
    : mItem(item)
{
}

ItemTM::~ItemTM()
{
    for (SequenceOfItemsTM* sequence : mSequences)
        delete sequence;
}

std::shared_ptr<DcmDataset> ItemTM::obtainDcmDataset()
{
    if (mDataset)
        return mDataset;
    QByteArray path;
    if (!mItem.findAndGetString(Tags::DicomFilePath, path)) {
        getTheLogInstance()->errorf("MDX_DicomFilePath undefined, cannot load DICOM file");
        return nullptr;
    }
    // An empty path is the mark of an earlier failure, already logged.
    if (path.isEmpty())
        return nullptr;
    std::shared_ptr<DcmDataset> dataset;
    OFCondition const status = loadDicomDataset(path.constData(), dataset);
    if (status.bad()) {
        getTheLogInstance()->errorf("Could not load %s: %s", path.constData(), status.text());
        mItem.putAndInsertValue(Tags::DicomFilePath, VR_LO, QByteArray());
        return nullptr;
    }
    mDataset = dataset;
    return mDataset;
}

bool ItemTM::isEncapsulated()
{
    return transferSyntax() >= 4;
}

E_TransferSyntax ItemTM::transferSyntax()
{
    TagElement const* element = mItem.findElement(Tags::TransferSyntax);
    if (!element || element->mVR != VR_OB || element->mValue.size() != 1)
        return EXS_Unknown;
    return MdxToDcmtk(static_cast<TransferSyntax>(element->mValue.at(0)));
}

bool ItemTM::tagOmitted(DcmTagKey const& key) const
{
    TagElement const* element = mItem.findElement(key);
    return element && element->isOmittedMarker();
}

bool ItemTM::tagExists(DcmTagKey const& key)
{
    return mItem.findElement(key) != nullptr;
}

bool ItemTM::tagExists(DcmTagKey const& key, DcmEVR& vr)
{
    TagElement const* element = mItem.findElement(key);
    if (!element)
        return false;
    // An omitted value has no VR of its own: its marker code stands in.
    vr = element->isOmittedMarker() ? static_cast<DcmEVR>(VR_Omitted) : toDcmEVR(element->mVR);
    return true;
}

OFCondition ItemTM::findAndGetOFString(DcmTagKey const& key, std::string& value)
{
    OFCondition const status = findAndGetOFStringArray(key, value);
    if (status.good()) {
        size_t const cut = value.find('\\');
        if (cut != std::string::npos)
            value.resize(cut);
    }
    return status;
}

OFCondition ItemTM::findAndGetOFStringArray(DcmTagKey const& key, std::string& value)
{
    value.clear();
    TagElement const* element = mItem.findElement(key);
    if (!element)
        return EC_TagNotFound;
    QByteArray text;
    element->getValueAsString(text);
    value.assign(text.constData(), strnlen(text.constData(), static_cast<size_t>(text.size())));
    return EC_Normal;
}

OFCondition ItemTM::findAndGetLongInt(DcmTagKey const& key, long& value)
{
    TagElement const* element = mItem.findElement(key);
    if (!element)
        return EC_TagNotFound;
    bool ok = false;
    int const v = element->valueAsInt(&ok, 0);
    value = ok ? v : 0;
    return ok ? EC_Normal : EC_ValueRepresentationViolated;
}

OFCondition ItemTM::findAndGetUint16(DcmTagKey const& key, unsigned short& value)
{
    TagElement const* element = mItem.findElement(key);
    if (!element)
        return EC_TagNotFound;
    if (element->mValue.size() < 2)
        return EC_ValueRepresentationViolated;
    std::memcpy(&value, element->mValue.constData(), sizeof value);
    return EC_Normal;
}

template <typename T>
OFCondition ItemTM::findArray(DcmTagKey const& key, T const*& values, unsigned long* count)
{
    values = nullptr;
    TagElement const* element = mItem.findElement(key);
    if (!element)
        return EC_TagNotFound;
    values = reinterpret_cast<T const*>(element->mValue.constData());
    if (count)
        *count = static_cast<unsigned long>(element->mValue.size()) / sizeof(T);
    return EC_Normal;
}

OFCondition ItemTM::findAndGetSint16Array(DcmTagKey const& key, short const*& values, unsigned long* count)
{
    return findArray(key, values, count);
}

OFCondition ItemTM::findAndGetUint16Array(DcmTagKey const& key, unsigned short const*& values,
                                          unsigned long* count)
{
    return findArray(key, values, count);
}

OFCondition ItemTM::findAndGetUint8Array(DcmTagKey const& key, unsigned char const*& values,
                                         unsigned long* count)
{
    return findArray(key, values, count);
}

OFCondition ItemTM::findAndGetFloat32Array(DcmTagKey const& key, float const*& values, unsigned long* count)
{
    return findArray(key, values, count);
}

OFCondition ItemTM::findAndGetSequence(DcmTagKey const& key, SequenceOfItems*& sequence)
{
    sequence = nullptr;
    TagElement* element = mItem.findElement(key);
    if (!element)
        return EC_TagNotFound;
    auto* found = dynamic_cast<TagSequence*>(element);
    if (!found)
        return EC_InvalidVR;
    for (SequenceOfItemsTM* wrapper : mSequences)
        if (wrapper->sequence() == found) {
            sequence = wrapper;
            return EC_Normal;
        }
    mSequences.push_back(new SequenceOfItemsTM(key, found));
    sequence = mSequences.back();
    return EC_Normal;
}

OFCondition ItemTM::findAndGetSequenceItem(DcmTagKey const& key, Item*& item, int index)
{
    item = nullptr;
    SequenceOfItems* sequence = nullptr;
    OFCondition const status = findAndGetSequence(key, sequence);
    if (status.bad())
        return status;
    if (index < 0 || static_cast<unsigned long>(index) >= sequence->card())
        return EC_IndexOutOfRange;
    item = sequence->getItem(static_cast<unsigned int>(index));
    return item ? EC_Normal : OFCondition(EC_IndexOutOfRange);
}

OFCondition ItemTM::putAndInsertStringArray(DcmTagKey const& key, char const* value)
{
    QByteArray const text(value ? value : "");
    if (TagElement* element = mItem.findElement(key)) {
        // In place, also when inherited: the change then shows in the
        // sibling images that share the value, which is what callers want
        // of a correction to a series attribute.
        element->putValueAsString(text);
        return EC_Normal;
    }
    DcmEVR evr = EVR_LO;
    {
        DcmDataDictionary const& dictionary = dcmDataDict.rdlock();
        DcmDictEntry const* entry = dictionary.findEntry(key, nullptr);
        if (entry)
            evr = entry->getEVR();
        dcmDataDict.rdunlock();
    }
    mItem.putAndInsertValue(key, fromDcmEVR(evr), text);
    return EC_Normal;
}

SequenceOfItemsTM::SequenceOfItemsTM(DcmTagKey const& key, TagSequence* sequence)
    : mSequence(sequence)
    , mKey(key)
{
}

SequenceOfItemsTM::~SequenceOfItemsTM()
{
    for (ItemTM* item : mItems)
        delete item;
}

unsigned long SequenceOfItemsTM::card()
{
    return mSequence ? static_cast<unsigned long>(mSequence->mItems.size()) : 0;
}

Item* SequenceOfItemsTM::getItem(unsigned int index)
{
    // The caller is to stay below card(); an index beyond it gives null
    // rather than reading outside the list.
    if (!mSequence || index >= static_cast<unsigned int>(mSequence->mItems.size()) ||
        !mSequence->mItems[int(index)])
        return nullptr;
    if (index >= mItems.size())
        mItems.resize(size_t(index) + 1, nullptr);
    if (!mItems[index])
        mItems[index] = new ItemTM(*mSequence->mItems[int(index)]);
    return mItems[index];
}

DcmSequenceOfItems* SequenceOfItemsTM::createDcmSequenceOfItems()
{
    if (!mSequence)
        return nullptr;
    return static_cast<DcmSequenceOfItems*>(mSequence->createDcmElement(mKey));
}

} // namespace Mdx
