// The attributes a tag map node stores itself: a flat array of (key,
// element) pairs sorted by key.
//
// A node holds a few to a few hundred attributes, and almost every node is
// filled in key order (DCMTK datasets and the wire form are sorted), so an
// array with an append fast path beats a balanced tree: one allocation per
// node instead of one per attribute, a quarter of the memory, and lookups
// that stay in one or two cache lines. The interface is the part of QMap's
// that the tag layer uses, so the node code reads the same.
//
// Unlike QMap's, iterators and references into the map are invalidated by an
// insertion or removal. The map does not own the elements; TagMap deletes
// them.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctagkey.h"

#include <QList>

#include <cstdint>
#include <vector>

namespace Mdx {

class TagElement;

class MDX_EXPORT ElementMap
{
public:
    // The key is packed into 32 bits: DCMTK's DcmTagKey carries a vtable
    // and would make each entry half as large again.
    struct Entry
    {
        Entry(DcmTagKey const& key, TagElement* element)
            : tag(packed(key))
            , value(element)
        {
        }
        Entry(std::uint32_t packedKey, TagElement* element)
            : tag(packedKey)
            , value(element)
        {
        }
        DcmTagKey key() const { return DcmTagKey(static_cast<Uint16>(tag >> 16), static_cast<Uint16>(tag)); }

        std::uint32_t tag;
        TagElement* value;
    };
    using Storage = std::vector<Entry>;

    // Iterators in QMap's manner: *it is the element, it.key() its key.
    template <typename Base, typename Ref> class Iterator
    {
    public:
        Iterator() = default;
        explicit Iterator(Base pos)
            : mPos(pos)
        {
        }
        template <typename OtherBase, typename OtherRef>
        Iterator(Iterator<OtherBase, OtherRef> const& other)
            : mPos(other.base())
        {
        }

        DcmTagKey key() const { return mPos->key(); }
        // The key packed as in Entry, cheaper to compare.
        std::uint32_t tag() const { return mPos->tag; }
        Ref value() const { return mPos->value; }
        Ref operator*() const { return mPos->value; }
        Iterator& operator++()
        {
            ++mPos;
            return *this;
        }
        Iterator operator++(int)
        {
            Iterator const old = *this;
            ++mPos;
            return old;
        }
        Iterator& operator--()
        {
            --mPos;
            return *this;
        }
        template <typename OtherBase, typename OtherRef>
        bool operator==(Iterator<OtherBase, OtherRef> const& o) const
        {
            return mPos == o.base();
        }
        template <typename OtherBase, typename OtherRef>
        bool operator!=(Iterator<OtherBase, OtherRef> const& o) const
        {
            return mPos != o.base();
        }
        Base base() const { return mPos; }

    private:
        Base mPos{};
    };
    using iterator = Iterator<Storage::iterator, TagElement*&>;
    using const_iterator = Iterator<Storage::const_iterator, TagElement* const&>;

    int size() const { return static_cast<int>(mEntries.size()); }
    bool isEmpty() const { return mEntries.empty(); }
    void clear() { mEntries.clear(); }
    void swap(ElementMap& other) noexcept { mEntries.swap(other.mEntries); }
    void reserve(int count) { mEntries.reserve(static_cast<size_t>(count)); }

    iterator begin() { return iterator(mEntries.begin()); }
    iterator end() { return iterator(mEntries.end()); }
    const_iterator begin() const { return const_iterator(mEntries.cbegin()); }
    const_iterator end() const { return const_iterator(mEntries.cend()); }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }

    // The first entry whose key is not below key.
    iterator lowerBound(DcmTagKey const& key) { return iterator(mEntries.begin() + lowerIndex(key)); }
    const_iterator lowerBound(DcmTagKey const& key) const
    {
        return const_iterator(mEntries.cbegin() + lowerIndex(key));
    }
    iterator find(DcmTagKey const& key);
    const_iterator constFind(DcmTagKey const& key) const;
    const_iterator find(DcmTagKey const& key) const { return constFind(key); }
    bool contains(DcmTagKey const& key) const { return constFind(key) != cend(); }
    TagElement* value(DcmTagKey const& key, TagElement* fallback = nullptr) const;
    DcmTagKey lastKey() const { return mEntries.back().key(); }
    QList<DcmTagKey> keys() const;

    // Sets the element at key, replacing (not deleting) one that is there.
    iterator insert(DcmTagKey const& key, TagElement* value);
    // Appends behind the last entry; key must be above every key held.
    void append(DcmTagKey const& key, TagElement* value) { mEntries.emplace_back(key, value); }
    // The slot of key, made (null) when absent.
    TagElement*& operator[](DcmTagKey const& key);
    // Removes the entry and hands back its element; null when absent.
    TagElement* take(DcmTagKey const& key);
    iterator erase(iterator pos) { return iterator(mEntries.erase(pos.base())); }

    Storage& entries() { return mEntries; }
    Storage const& entries() const { return mEntries; }

    static std::uint32_t packed(DcmTagKey const& key)
    {
        return (std::uint32_t(key.getGroup()) << 16) | key.getElement();
    }

private:
    std::ptrdiff_t lowerIndex(DcmTagKey const& key) const;

    Storage mEntries;
};

} // namespace Mdx
