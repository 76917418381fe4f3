// The sequence view over a DCMTK sequence.
#pragma once

#include <mdxlib/tags/SequenceOfItems.h>

#include <vector>

namespace Mdx {

class ItemOF;

class MDX_EXPORT SequenceOfItemsOF : public SequenceOfItems
{
public:
    explicit SequenceOfItemsOF(DcmSequenceOfItems* sequence);
    ~SequenceOfItemsOF() override;
    SequenceOfItemsOF(SequenceOfItemsOF const&) = delete;
    SequenceOfItemsOF& operator=(SequenceOfItemsOF const&) = delete;

    unsigned long card() override;
    Item* getItem(unsigned int index) override;
    DcmSequenceOfItems* createDcmSequenceOfItems() override;

    DcmSequenceOfItems* sequence() const { return mSequence; }

private:
    DcmSequenceOfItems* mSequence;
    std::vector<ItemOF*> mItems;
};

} // namespace Mdx
