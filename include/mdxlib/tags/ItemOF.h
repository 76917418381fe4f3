// The item view over a DCMTK item or dataset.
#pragma once

#include <mdxlib/tags/Item.h>

#include <vector>

class DcmItem;

namespace Mdx {

class SequenceOfItemsOF;

class MDX_EXPORT ItemOF : public Item
{
public:
    // Keeps the dataset alive; a null dataset is viewed as an empty item.
    explicit ItemOF(std::shared_ptr<DcmDataset> dataset);
    // Views item without owning it.
    explicit ItemOF(DcmItem& item);
    ~ItemOF() override;
    ItemOF(ItemOF const&) = delete;
    ItemOF& operator=(ItemOF const&) = delete;

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

    DcmItem* item() const { return mItem; }

private:
    DcmItem* mItem;
    std::shared_ptr<DcmDataset> mDataset;
    std::vector<SequenceOfItemsOF*> mSequences;
};

} // namespace Mdx
