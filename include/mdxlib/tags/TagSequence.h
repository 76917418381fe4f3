// The element of a sequence attribute: it owns one TagMap per item.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/tags/TagElement.h>

#include <QList>

namespace Mdx {

class TagMap;

class MDX_EXPORT TagSequence : public TagElement
{
public:
    TagSequence();
    ~TagSequence() override;

    void clear();
    // Appends and takes ownership.
    void addItem(TagMap* item);

    bool compare(TagElement const& other, bool checkVR, std::string* difference) const override;
    DcmElement* createDcmElement(DcmTagKey const& key) const override;
    // Items are cloned flat: inherited attributes are copied into them.
    TagElement* clone() const override;

    QList<TagMap*> mItems;
};

} // namespace Mdx
