#include <mdxlib/tags/TagElement.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcitem.h"
#include "dcmtk/dcmdata/dcsequen.h"

namespace Mdx {

TagSequence::TagSequence()
{
    mVR = VR_SQ;
}

TagSequence::~TagSequence()
{
    clear();
}

void TagSequence::clear()
{
    qDeleteAll(mItems);
    mItems.clear();
}

void TagSequence::addItem(TagMap* item)
{
    mItems.append(item);
}

bool TagSequence::compare(TagElement const& other, bool checkVR, std::string* difference) const
{
    auto const* sequence = dynamic_cast<TagSequence const*>(&other);
    if (!sequence || sequence->mItems.size() != mItems.size())
        return false;
    for (int i = 0; i < mItems.size(); ++i) {
        TagMap const* mine = mItems[i];
        TagMap const* theirs = sequence->mItems[i];
        if (!mine || !theirs || !mine->compare(*theirs, checkVR, difference))
            return false;
    }
    return true;
}

DcmElement* TagSequence::createDcmElement(DcmTagKey const& key) const
{
    auto* sequence = new DcmSequenceOfItems(DcmTag(key));
    for (TagMap const* item : mItems) {
        auto* dcmItem = new DcmItem;
        if (item) {
            for (TagMap::iterator it = item->begin(), end = item->end(); it != end; ++it) {
                if (it.element()->isOmittedMarker())
                    continue;
                if (DcmElement* element = it.element()->createDcmElement(it.key()))
                    dcmItem->insert(element, false, false);
            }
        }
        sequence->append(dcmItem);
    }
    return sequence;
}

TagElement* TagSequence::clone() const
{
    auto* copy = new TagSequence;
    for (TagMap const* item : mItems)
        copy->addItem(item ? item->clone() : nullptr);
    return copy;
}

} // namespace Mdx
