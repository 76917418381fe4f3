// The bytes of one attribute value, as a tag element holds them.
//
// A study tree holds one value per stored attribute, tens of thousands of
// them, and four in five are 15 bytes or shorter (codes, numbers, dates,
// times). Those are kept inside the value itself, behind a terminating NUL,
// so that reading a tree makes no heap block for them. Longer values (UIDs,
// positions, previews) are an implicitly shared QByteArray, so copying them
// between nodes, into an index or out to a caller costs a reference count.
//
// The interface is the part of QByteArray's that readers of a value use;
// toByteArray() (or the conversion) gives a QByteArray that owns or shares
// its bytes and so stays valid after the value is gone. A null value (a
// marker's) and an empty one are told apart as QByteArray does.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>

#include <cstdint>
#include <cstring>

namespace Mdx {

class MDX_EXPORT TagValue
{
public:
    // Values up to this many bytes are held inline.
    static constexpr int kInlineCapacity = 15;

    TagValue() noexcept { clearInline(true); }
    TagValue(char const* bytes, int size) { setBytes(bytes, size); }
    TagValue(QByteArray const& bytes) { setArray(bytes); } // NOLINT: stands in for QByteArray
    TagValue(TagValue const& other);
    TagValue& operator=(TagValue const& other);
    TagValue& operator=(QByteArray const& bytes);
    ~TagValue() { release(); }

    // Copies size bytes; null bytes give a null value.
    void assign(char const* bytes, int size)
    {
        if (isShared())
            release();
        if (bytes && size >= 0 && size <= kInlineCapacity) {
            std::memcpy(mBytes, bytes, static_cast<size_t>(size));
            mBytes[size] = '\0';
            mMeta = static_cast<std::uint32_t>(size);
        } else {
            setBytes(bytes, size);
        }
    }
    // Becomes null, as QByteArray::clear does.
    void clear();

    int size() const
    {
        return isShared() ? shared()->size : static_cast<int>(mMeta & ~(kSharedBit | kNullBit));
    }
    bool isEmpty() const { return size() == 0; }
    bool isNull() const { return (mMeta & kNullBit) != 0; }
    // The bytes, followed by a NUL; valid while the value is unchanged.
    char const* constData() const { return isShared() ? static_cast<char const*>(shared()->data()) : mBytes; }
    char at(int index) const { return constData()[index]; }
    char operator[](int index) const { return constData()[index]; }

    QByteArray toByteArray() const;
    operator QByteArray() const { return toByteArray(); } // NOLINT: reads as the QByteArray it replaces

    friend bool operator==(TagValue const& a, TagValue const& b)
    {
        return equalBytes(a, b.constData(), b.size());
    }
    friend bool operator!=(TagValue const& a, TagValue const& b) { return !(a == b); }
    friend bool operator==(TagValue const& a, QByteArray const& b)
    {
        return equalBytes(a, b.constData(), b.size());
    }
    friend bool operator!=(TagValue const& a, QByteArray const& b) { return !(a == b); }
    friend bool operator==(QByteArray const& a, TagValue const& b) { return b == a; }
    friend bool operator!=(QByteArray const& a, TagValue const& b) { return !(b == a); }

private:
    static constexpr std::uint32_t kSharedBit = 0x80000000u;
    static constexpr std::uint32_t kNullBit = 0x40000000u;

    static bool equalBytes(TagValue const& value, char const* bytes, int size);
    bool isShared() const { return (mMeta & kSharedBit) != 0; }
    QByteArray::DataPtr shared() const
    {
        QByteArray::DataPtr data;
        std::memcpy(&data, mBytes, sizeof data);
        return data;
    }
    void clearInline(bool null) noexcept
    {
        mBytes[0] = '\0';
        mMeta = null ? kNullBit : 0;
    }
    void setBytes(char const* bytes, int size);
    void setArray(QByteArray const& bytes);
    void release() noexcept;

    // Inline: the bytes and a NUL. Shared: a QByteArray's data pointer,
    // copied in and out, so that the value needs no more than 4-byte
    // alignment and fits beside a VR and a vtable in 32 bytes.
    char mBytes[kInlineCapacity + 1];
    // Inline size in the low bits, and the two flags.
    std::uint32_t mMeta;
};

// qHash for hash tables keyed by values, equal to qHash of the bytes.
MDX_EXPORT uint qHash(TagValue const& value, uint seed = 0) noexcept;

} // namespace Mdx
