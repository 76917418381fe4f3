#include <mdxlib/tags/TagValue.h>

#include <QHash>

#include <cstring>
#include <utility>

namespace Mdx {

static_assert(sizeof(TagValue) == 20 && alignof(TagValue) == 4,
              "a value fits beside a VR in a pooled element");
static_assert(sizeof(QByteArray::DataPtr) <= TagValue::kInlineCapacity + 1,
              "the shared form fits the inline bytes");

TagValue::TagValue(TagValue const& other)
{
    std::memcpy(mBytes, other.mBytes, sizeof mBytes);
    mMeta = other.mMeta;
    if (isShared())
        shared()->ref.ref();
}

TagValue& TagValue::operator=(TagValue const& other)
{
    if (this != &other) {
        TagValue copy(other);
        release();
        std::memcpy(mBytes, copy.mBytes, sizeof mBytes);
        mMeta = copy.mMeta;
        copy.clearInline(true); // its reference, if any, is ours now
    }
    return *this;
}

TagValue& TagValue::operator=(QByteArray const& bytes)
{
    // Through a copy: bytes may be this value's own QByteArray form.
    TagValue copy(bytes);
    release();
    std::memcpy(mBytes, copy.mBytes, sizeof mBytes);
    mMeta = copy.mMeta;
    copy.clearInline(true);
    return *this;
}

void TagValue::clear()
{
    release();
    clearInline(true);
}

QByteArray TagValue::toByteArray() const
{
    if (isShared()) {
        QByteArray::DataPtr data = shared();
        data->ref.ref();
        return QByteArray(QByteArrayDataPtr{data}); // adopts the reference just taken
    }
    if (isNull())
        return QByteArray();
    return QByteArray(mBytes, size());
}

bool TagValue::equalBytes(TagValue const& value, char const* bytes, int size)
{
    return value.size() == size && std::memcmp(value.constData(), bytes, static_cast<size_t>(size)) == 0;
}

void TagValue::setBytes(char const* bytes, int size)
{
    if (!bytes || size < 0) {
        clearInline(true);
    } else if (size <= kInlineCapacity) {
        std::memcpy(mBytes, bytes, static_cast<size_t>(size));
        mBytes[size] = '\0';
        mMeta = static_cast<std::uint32_t>(size);
    } else {
        setArray(QByteArray(bytes, size));
    }
}

void TagValue::setArray(QByteArray const& bytes)
{
    if (bytes.size() <= kInlineCapacity) {
        if (bytes.isNull())
            clearInline(true);
        else
            setBytes(bytes.constData(), bytes.size());
        return;
    }
    // Take a reference of our own and keep the bare data pointer.
    QByteArray copy(bytes);
    QByteArray::DataPtr data = std::exchange(copy.data_ptr(), QTypedArrayData<char>::sharedNull());
    std::memcpy(mBytes, &data, sizeof data);
    mMeta = kSharedBit;
}

void TagValue::release() noexcept
{
    if (isShared()) {
        QByteArray const owner(QByteArrayDataPtr{shared()}); // drops our reference as it goes
        clearInline(true);
    }
}

uint qHash(TagValue const& value, uint seed) noexcept
{
    return qHashBits(value.constData(), static_cast<size_t>(value.size()), seed);
}

} // namespace Mdx
