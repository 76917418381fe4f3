// Reorganisation of a merged tree. For one key of one node, three ways of
// storing it are priced in stored bytes and the cheapest is taken:
//   keep      leave everything as it is;
//   option A  the node gives the value up and every child stores its own;
//   option B  the node stores the commonest value of its children, and only
//             the children that differ keep one (or a missing marker).
// An attribute costs its value length plus 7 bytes, a missing marker 5.
#include <mdxlib/tags/TagMap.h>

#include <QSet>

#include <cstring>
#include <map>
#include <set>

namespace Mdx {

namespace {

constexpr int64_t kAttributeOverhead = 7;
constexpr int64_t kMarkerSize = 5;

int64_t storedSize(TagElement const* element)
{
    return element->mValue.size() + kAttributeOverhead;
}

struct ValueKey
{
    TagValue value;
    VR vr;
};

// Shorter values first, then by bytes, then by VR: among equal sums, the
// first in this order wins.
struct ValueKeyLess
{
    bool operator()(ValueKey const& a, ValueKey const& b) const
    {
        if (a.value.size() != b.value.size())
            return a.value.size() < b.value.size();
        int const c =
            std::memcmp(a.value.constData(), b.value.constData(), static_cast<size_t>(a.value.size()));
        if (c != 0)
            return c < 0;
        return a.vr < b.vr;
    }
};

TagElement* copyOf(TagElement const* element)
{
    auto* copy = new TagElement;
    copy->mValue = element->mValue;
    copy->mVR = element->mVR;
    return copy;
}

} // namespace

void TagMap::optimize(DcmTagKey const& key)
{
    if (mChildren.isEmpty())
        return;

    TagElement const* current = findElement(key);
    if (current && current->mVR == VR_SQ)
        return;

    int64_t keepSize = current ? storedSize(current) : 0;
    int64_t missingChildren = 0;
    int64_t emptyChildren = 0;
    std::map<ValueKey, int64_t, ValueKeyLess> histogram;

    for (TagMap const* child : mChildren) {
        TagElement const* own = child->ownElement(key);
        if (own && own->mVR == VR_SQ)
            return; // sequences are never moved
        if (own && own->isMissingMarker()) {
            ++missingChildren;
            keepSize += kMarkerSize;
        } else if (own) {
            keepSize += storedSize(own);
            histogram[ValueKey{own->mValue, own->mVR}] += storedSize(own);
        } else if (current) {
            histogram[ValueKey{current->mValue, current->mVR}] += storedSize(current);
        } else {
            ++emptyChildren;
        }
    }

    int64_t total = 0;
    auto best = histogram.cend();
    for (auto it = histogram.cbegin(); it != histogram.cend(); ++it) {
        total += it->second;
        if (best == histogram.cend() || it->second > best->second)
            best = it;
    }

    if (total <= 0) {
        // Nobody holds a value. At the root the markers hide nothing.
        if (mParent)
            return;
        deleteElement(key);
        if (missingChildren > 0) {
            for (TagMap* child : mChildren)
                child->deleteElement(key);
        }
        return;
    }

    int64_t const absent = emptyChildren + missingChildren;
    int64_t const sizeB =
        best->first.value.size() + kMarkerSize * absent + (total - best->second) + kAttributeOverhead;
    if (total < sizeB && total < keepSize)
        storeOptionA(key);
    else if (sizeB < keepSize)
        storeOptionB(key, best->first.vr, best->first.value);
}

void TagMap::storeOptionA(DcmTagKey const& key)
{
    TagElement const* current = findElement(key);
    for (TagMap* child : mChildren) {
        TagElement* own = child->ownElement(key);
        if (own && own->isMissingMarker())
            child->deleteElement(key);
        else if (!own && current)
            child->mElements.insert(key, copyOf(current));
    }
    if (mParent && mParent->findElement(key)) {
        // The node must now hide what it would inherit.
        if (TagElement* own = ownElement(key))
            own->mVR = VR_Missing;
        else
            markAsMissing(key);
    } else {
        deleteElement(key);
    }
}

void TagMap::storeOptionB(DcmTagKey const& key, VR vr, QByteArray value)
{
    TagElement const* current = findElement(key);
    // current may be this node's own element, which is rewritten below: keep
    // what the children need of it first.
    TagValue const currentValue = current ? current->mValue : TagValue();
    for (TagMap* child : mChildren) {
        TagElement const* own = child->ownElement(key);
        if (own) {
            if (!own->isMissingMarker() && own->mValue == value)
                child->deleteElement(key);
        } else if (current) {
            if (currentValue != value)
                child->mElements.insert(key, copyOf(current));
        } else {
            child->markAsMissing(key);
        }
    }
    putAndInsertValue(key, vr, value);
}

void TagMap::optimizeAll()
{
    if (mChildren.isEmpty())
        return;
    std::set<DcmTagKey> keys;
    auto collect = [&keys](ElementMap const& elements) {
        for (auto it = elements.cbegin(); it != elements.cend(); ++it) {
            if (it.value()->mVR != VR_SQ)
                keys.insert(it.key());
        }
    };
    collect(mElements);
    for (TagMap const* child : mChildren)
        collect(child->mElements);
    for (DcmTagKey const& key : keys)
        optimize(key);
}

} // namespace Mdx
