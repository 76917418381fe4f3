#include <mdxlib/tags/ElementMap.h>

namespace Mdx {

std::ptrdiff_t ElementMap::lowerIndex(DcmTagKey const& key) const
{
    std::uint32_t const wanted = packed(key);
    // Most lookups made while a node is filled ask for a key above the last.
    if (mEntries.empty() || mEntries.back().tag < wanted)
        return static_cast<std::ptrdiff_t>(mEntries.size());
    std::ptrdiff_t low = 0;
    std::ptrdiff_t high = static_cast<std::ptrdiff_t>(mEntries.size());
    while (low < high) {
        std::ptrdiff_t const middle = low + (high - low) / 2;
        if (mEntries[static_cast<size_t>(middle)].tag < wanted)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

ElementMap::iterator ElementMap::find(DcmTagKey const& key)
{
    auto const pos = mEntries.begin() + lowerIndex(key);
    return iterator(pos != mEntries.end() && pos->tag == packed(key) ? pos : mEntries.end());
}

ElementMap::const_iterator ElementMap::constFind(DcmTagKey const& key) const
{
    auto const pos = mEntries.cbegin() + lowerIndex(key);
    return const_iterator(pos != mEntries.cend() && pos->tag == packed(key) ? pos : mEntries.cend());
}

TagElement* ElementMap::value(DcmTagKey const& key, TagElement* fallback) const
{
    auto const pos = mEntries.cbegin() + lowerIndex(key);
    return pos != mEntries.cend() && pos->tag == packed(key) ? pos->value : fallback;
}

QList<DcmTagKey> ElementMap::keys() const
{
    QList<DcmTagKey> result;
    result.reserve(size());
    for (Entry const& entry : mEntries)
        result.append(entry.key());
    return result;
}

ElementMap::iterator ElementMap::insert(DcmTagKey const& key, TagElement* value)
{
    auto pos = mEntries.begin() + lowerIndex(key);
    if (pos != mEntries.end() && pos->tag == packed(key))
        pos->value = value;
    else
        pos = mEntries.insert(pos, Entry(key, value));
    return iterator(pos);
}

TagElement*& ElementMap::operator[](DcmTagKey const& key)
{
    auto pos = mEntries.begin() + lowerIndex(key);
    if (pos == mEntries.end() || pos->tag != packed(key))
        pos = mEntries.insert(pos, Entry(key, nullptr));
    return pos->value;
}

TagElement* ElementMap::take(DcmTagKey const& key)
{
    auto const pos = mEntries.begin() + lowerIndex(key);
    if (pos == mEntries.end() || pos->tag != packed(key))
        return nullptr;
    TagElement* const value = pos->value;
    mEntries.erase(pos);
    return value;
}

} // namespace Mdx
