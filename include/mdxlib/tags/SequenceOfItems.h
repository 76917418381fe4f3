// A sequence seen through item views; its items stay owned by it.
#pragma once

#include <mdxlib/Export.h>

class DcmSequenceOfItems;

namespace Mdx {

class Item;

class MDX_EXPORT SequenceOfItems
{
public:
    virtual unsigned long card() = 0;
    virtual Item* getItem(unsigned int index) = 0;
    // A new DCMTK sequence with the items' attributes; the caller owns it.
    virtual DcmSequenceOfItems* createDcmSequenceOfItems() = 0;
    virtual ~SequenceOfItems();
};

} // namespace Mdx
