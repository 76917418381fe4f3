// The sequence view over a tag sequence.
#pragma once

#include <mdxlib/tags/SequenceOfItems.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctagkey.h"

#include <vector>

namespace Mdx {

class ItemTM;
class TagSequence;

class MDX_EXPORT SequenceOfItemsTM : public SequenceOfItems
{
public:
    SequenceOfItemsTM(DcmTagKey const& key, TagSequence* sequence);
    ~SequenceOfItemsTM() override;
    SequenceOfItemsTM(SequenceOfItemsTM const&) = delete;
    SequenceOfItemsTM& operator=(SequenceOfItemsTM const&) = delete;

    unsigned long card() override;
    // No range test: the index must lie below card().
    Item* getItem(unsigned int index) override;
    DcmSequenceOfItems* createDcmSequenceOfItems() override;

    TagSequence* sequence() const { return mSequence; }

private:
    TagSequence* mSequence;
    std::vector<ItemTM*> mItems;
    DcmTagKey mKey;
};

} // namespace Mdx
