// The inherited view of a node: the node, its parent and its grandparent
// merged in key order. That depth is the depth of a study tree; point
// lookups (findElement) walk the parent chain without limit.
#include <mdxlib/tags/TagMap.h>

namespace Mdx {

void TagMap::iterator::selectLevel()
{
    int best = -1;
    for (int i = 0; i < NumLevels; ++i) {
        if (mPos[i] == mEnd[i])
            continue;
        // Strictly smaller only: on a tie the nearer level (lower index) wins.
        if (best < 0 || mPos[i].tag() < mPos[best].tag())
            best = i;
    }
    mLevel = best < 0 ? 0 : best;
}

DcmTagKey TagMap::iterator::key() const
{
    return mPos[mLevel].key();
}

TagElement* TagMap::iterator::element() const
{
    return mPos[mLevel].value();
}

void TagMap::iterator::step()
{
    std::uint32_t const current = tag();
    for (int i = 0; i < NumLevels; ++i) {
        if (mPos[i] != mEnd[i] && !(current < mPos[i].tag()))
            ++mPos[i];
    }
    selectLevel();
}

void TagMap::iterator::skipMarkers()
{
    while (!atEnd() && element()->isMissingMarker())
        step();
}

TagMap::iterator& TagMap::iterator::operator++()
{
    if (!atEnd()) {
        step();
        skipMarkers();
    }
    return *this;
}

bool TagMap::iterator::operator==(iterator const& other) const
{
    bool const end = atEnd();
    bool const otherEnd = other.atEnd();
    if (end || otherEnd)
        return end == otherEnd;
    return mPos[mLevel] == other.mPos[other.mLevel];
}

TagMap::iterator TagMap::begin() const
{
    iterator it;
    TagMap const* node = this;
    for (int i = 0; i < iterator::NumLevels && node; ++i, node = node->mParent) {
        it.mPos[i] = node->mElements.cbegin();
        it.mEnd[i] = node->mElements.cend();
    }
    it.selectLevel();
    it.skipMarkers();
    return it;
}

TagMap::iterator TagMap::end() const
{
    iterator it;
    TagMap const* node = this;
    for (int i = 0; i < iterator::NumLevels && node; ++i, node = node->mParent) {
        it.mPos[i] = node->mElements.cend();
        it.mEnd[i] = node->mElements.cend();
    }
    return it;
}

TagMap::iterator TagMap::lowerBound(DcmTagKey const& key) const
{
    iterator it;
    TagMap const* node = this;
    for (int i = 0; i < iterator::NumLevels && node; ++i, node = node->mParent) {
        it.mPos[i] = node->mElements.lowerBound(key);
        it.mEnd[i] = node->mElements.cend();
    }
    it.selectLevel();
    it.skipMarkers();
    return it;
}

} // namespace Mdx
