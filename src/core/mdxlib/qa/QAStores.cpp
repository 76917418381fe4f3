#include "QAStores.h"

#include <mdxlib/platform/ExDicomUtilities.h>
#include <mdxlib/platform/HxParamBundle.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/tags/VR.h>

#include "dcmtk/dcmdata/dcdatset.h"
#include "dcmtk/dcmdata/dcelem.h"

#include <QByteArray>

#include <string>

namespace Mdx {

namespace {

class DcmDatasetGetSet : public QACache::TagGetSet
{
public:
    explicit DcmDatasetGetSet(DcmDataset* dataset)
        : mDataset(dataset)
    {
    }

    char const* get(DcmTagKey key) override
    {
        char const* value = nullptr;
        if (mDataset->findAndGetString(key, value).bad())
            return nullptr;
        return value ? value : "";
    }

    char const* getPrivate(DcmTag const& tag) override
    {
        // The creator's block decides the element, wherever it lies.
        DcmTagKey const key = tag.getXTag();
        for (Uint16 block = 0x10; block <= 0xFF; ++block) {
            char const* owner = nullptr;
            if (mDataset->findAndGetString(DcmTagKey(key.getGroup(), block), owner).good() && owner &&
                tag.getPrivateCreator() && qstrcmp(owner, tag.getPrivateCreator()) == 0)
                return get(
                    DcmTagKey(key.getGroup(), static_cast<Uint16>(block << 8 | (key.getElement() & 0xFF))));
        }
        return nullptr;
    }

    void set(DcmTagKey key, char const* value) override
    {
        // An existing sequence or binary value is not replaced by text.
        DcmElement* existing = nullptr;
        if (mDataset->findAndGetElement(key, existing).good() && existing && !existing->isLeaf())
            return;
        mDataset->putAndInsertString(key, value, true);
    }

    void setPrivate(DcmTag const& tag, char const* value) override
    {
        ExDicomUtilities::setPrivateTag(mDataset, tag.getGroup(), tag.getElement(), tag.getPrivateCreator(),
                                        value, tag.getEVR());
    }

private:
    DcmDataset* mDataset;
};

class TagMapGetSet : public QACache::TagGetSet
{
public:
    explicit TagMapGetSet(TagMap* map)
        : mMap(map)
    {
    }

    char const* get(DcmTagKey key) override
    {
        TagElement const* element = mMap->findElement(key);
        if (!element || element->mVR == VR_SQ || dynamic_cast<TagSequence const*>(element))
            return nullptr;
        if (!mMap->findAndGetString(key, mValue))
            return nullptr;
        return mValue.constData();
    }

    char const* getPrivate(DcmTag const& tag) override
    {
        if (!mMap->findAndGetString(tag.getXTag(), tag.getPrivateCreator(), mValue))
            return nullptr;
        return mValue.constData();
    }

    void set(DcmTagKey key, char const* value) override
    {
        TagElement const* element = mMap->findElement(key);
        if (element && dynamic_cast<TagSequence const*>(element))
            return;
        mMap->putAndInsertString(key, QByteArray(value));
    }

    void setPrivate(DcmTag const& tag, char const* value) override
    {
        mMap->putAndInsertValue(tag.getXTag(), tag.getPrivateCreator(), fromDcmEVR(tag.getEVR()),
                                QByteArray(value));
    }

private:
    TagMap* mMap;
    // Keeps the last value alive for the caller.
    QByteArray mValue;
};

class ParamBundleGetSet : public QACache::TagGetSet
{
public:
    explicit ParamBundleGetSet(HxParamBundle* bundle)
        : mBundle(bundle)
    {
    }

    char const* get(DcmTagKey key) override
    {
        return keep(mBundle->findTagInAll(key.getGroup(), key.getElement()));
    }

    char const* getPrivate(DcmTag const& tag) override
    {
        return keep(mBundle->findPrivateTagInAll(tag.getPrivateCreator(), tag.getGroup(), tag.getElement()));
    }

    void set(DcmTagKey key, char const* value) override
    {
        mBundle->setTagInAll(key.getGroup(), key.getElement(), value);
    }

    void setPrivate(DcmTag const& tag, char const* value) override
    {
        mBundle->setPrivateTagInAll(tag.getPrivateCreator(), tag.getGroup(), tag.getElement(), value);
    }

private:
    char const* keep(char const* value)
    {
        if (!value)
            return nullptr;
        mValue = value;
        return mValue.c_str();
    }

    HxParamBundle* mBundle;
    std::string mValue;
};

} // namespace

std::unique_ptr<QACache::TagGetSet> makeDatasetStore(DcmDataset& dataset)
{
    return std::make_unique<DcmDatasetGetSet>(&dataset);
}

std::unique_ptr<QACache::TagGetSet> makeTagMapStore(TagMap& map)
{
    return std::make_unique<TagMapGetSet>(&map);
}

std::unique_ptr<QACache::TagGetSet> makeParamBundleStore(HxParamBundle& bundle)
{
    return std::make_unique<ParamBundleGetSet>(&bundle);
}

} // namespace Mdx
