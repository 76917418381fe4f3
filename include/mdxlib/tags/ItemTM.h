// The item view over a tag map. Values the tag file left out (omitted
// markers) are read from the image's DICOM file, which obtainDcmDataset
// loads once on demand.
#pragma once

#include <mdxlib/tags/Item.h>

#include <vector>

namespace Mdx {

class SequenceOfItemsTM;
class TagMap;

class MDX_EXPORT ItemTM : public Item
{
public:
    // Shares the study so that the tree outlives the tag file it came from.
    ItemTM(TagMap& item, std::shared_ptr<TagMap>& study);
    // A view that depends on its tree staying alive (sequence items).
    explicit ItemTM(TagMap& item);
    ~ItemTM() override;
    ItemTM(ItemTM const&) = delete;
    ItemTM& operator=(ItemTM const&) = delete;

    std::shared_ptr<DcmDataset> obtainDcmDataset() override;
    bool isEncapsulated() override;
    E_TransferSyntax transferSyntax() override;
    bool tagOmitted(DcmTagKey const& key) const override;
    bool tagExists(DcmTagKey const& key) override;
    bool tagExists(DcmTagKey const& key, DcmEVR& vr) override;
    OFCondition findAndGetOFString(DcmTagKey const& key, std::string& value) override;
    OFCondition findAndGetOFStringArray(DcmTagKey const& key, std::string& value) override;
    OFCondition findAndGetLongInt(DcmTagKey const& key, long& value) override;
    OFCondition findAndGetUint16(DcmTagKey const& key, unsigned short& value) override;
    OFCondition findAndGetSint16Array(DcmTagKey const& key, short const*& values,
                                      unsigned long* count) override;
    OFCondition findAndGetUint16Array(DcmTagKey const& key, unsigned short const*& values,
                                      unsigned long* count) override;
    OFCondition findAndGetUint8Array(DcmTagKey const& key, unsigned char const*& values,
                                     unsigned long* count) override;
    OFCondition findAndGetFloat32Array(DcmTagKey const& key, float const*& values,
                                       unsigned long* count) override;
    OFCondition findAndGetSequence(DcmTagKey const& key, SequenceOfItems*& sequence) override;
    OFCondition findAndGetSequenceItem(DcmTagKey const& key, Item*& item, int index) override;
    OFCondition putAndInsertStringArray(DcmTagKey const& key, char const* value) override;

    TagMap& tagMap() const { return mItem; }

private:
    template <typename T> OFCondition findArray(DcmTagKey const& key, T const*& values, unsigned long* count);

    TagMap& mItem;
    std::shared_ptr<TagMap> mStudy;
    std::vector<SequenceOfItemsTM*> mSequences;
    std::shared_ptr<DcmDataset> mDataset;
};

} // namespace Mdx
