#include <mdxlib/platform/LmMsg.h>

#include <cstring>
#include <type_traits>

LmMsg::LmMsg(char const* data, size_t size)
{
    setRawData(data, size);
}

void LmMsg::reset(size_t size, size_t capacity)
{
    if (mForeign) {
        mOwned = QByteArray();
        mForeign = false;
    }
    mOwned.resize(static_cast<int>(size));
    if (size > 0)
        std::memset(mOwned.data(), 0, size);
    if (capacity > size)
        mOwned.reserve(static_cast<int>(capacity));
    mData = mOwned.constData();
    mSize = size;
    mRead = 0;
    mFailed = false;
}

void LmMsg::setRawData(char const* data, size_t size)
{
    mOwned = QByteArray();
    mData = data;
    mSize = data ? size : 0;
    mRead = 0;
    mForeign = true;
    mFailed = false;
}

void LmMsg::ensureWritable(size_t extra)
{
    if (mForeign) {
        // Writing to a view turns it into an owned copy of what it showed.
        mOwned = QByteArray(mData, static_cast<int>(mSize));
        mForeign = false;
    }
    size_t const needed = mSize + extra;
    if (needed > static_cast<size_t>(mOwned.capacity()))
        mOwned.reserve(static_cast<int>(qMax(needed, static_cast<size_t>(mOwned.capacity()) * 2)));
    mOwned.resize(static_cast<int>(needed));
    mData = mOwned.constData();
}

void LmMsg::writeRawBytes(void const* data, size_t count)
{
    if (count == 0)
        return;
    size_t const at = mSize;
    ensureWritable(count);
    std::memcpy(mOwned.data() + at, data, count);
    mSize += count;
    mData = mOwned.constData();
}

char const* LmMsg::readRawBytes(size_t count)
{
    if (count > bytesAvailable()) {
        mRead = mSize;
        mFailed = true;
        return nullptr;
    }
    char const* at = mData + mRead;
    mRead += count;
    return at;
}

bool LmMsg::readRawBytes(void* target, size_t count)
{
    char const* source = readRawBytes(count);
    if (!source) {
        std::memset(target, 0, count);
        return false;
    }
    if (count > 0)
        std::memcpy(target, source, count);
    return true;
}

template <typename T> void LmMsg::writeLittle(T value)
{
    static_assert(std::is_integral_v<T> && std::is_unsigned_v<T>, "unsigned integers only");
    unsigned char bytes[sizeof(T)];
    for (size_t i = 0; i < sizeof(T); ++i)
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    writeRawBytes(bytes, sizeof(T));
}

template <typename T> T LmMsg::readLittle()
{
    static_assert(std::is_integral_v<T> && std::is_unsigned_v<T>, "unsigned integers only");
    unsigned char const* bytes = reinterpret_cast<unsigned char const*>(readRawBytes(sizeof(T)));
    if (!bytes)
        return 0;
    T value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        value = static_cast<T>(value | static_cast<T>(static_cast<T>(bytes[i]) << (8 * i)));
    return value;
}

namespace {

uint32_t floatBits(float v)
{
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

float floatFromBits(uint32_t bits)
{
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

} // namespace

LmMsg& LmMsg::operator<<(unsigned char v)
{
    writeLittle<uint8_t>(v);
    return *this;
}

LmMsg& LmMsg::operator<<(unsigned short v)
{
    writeLittle<uint16_t>(v);
    return *this;
}

LmMsg& LmMsg::operator<<(int v)
{
    writeLittle<uint32_t>(static_cast<uint32_t>(v));
    return *this;
}

LmMsg& LmMsg::operator<<(unsigned int v)
{
    writeLittle<uint32_t>(v);
    return *this;
}

LmMsg& LmMsg::operator<<(float v)
{
    writeLittle<uint32_t>(floatBits(v));
    return *this;
}

LmMsg& LmMsg::operator<<(QByteArray const& text)
{
    writeLittle<uint32_t>(static_cast<uint32_t>(text.size()));
    writeRawBytes(text.constData(), static_cast<size_t>(text.size()));
    return *this;
}

LmMsg& LmMsg::operator<<(McVec3i const& v)
{
    return *this << v.x << v.y << v.z;
}

LmMsg& LmMsg::operator<<(McBox3f const& b)
{
    return *this << b.min[0] << b.min[1] << b.min[2] << b.max[0] << b.max[1] << b.max[2];
}

LmMsg& LmMsg::operator<<(McBox3i const& b)
{
    return *this << b.min[0] << b.min[1] << b.min[2] << b.max[0] << b.max[1] << b.max[2];
}

LmMsg& LmMsg::operator<<(McMat4f const& m)
{
    for (auto const& row : m.m)
        for (float v : row)
            *this << v;
    return *this;
}

LmMsg& LmMsg::operator>>(unsigned char& v)
{
    v = readLittle<uint8_t>();
    return *this;
}

LmMsg& LmMsg::operator>>(unsigned short& v)
{
    v = readLittle<uint16_t>();
    return *this;
}

LmMsg& LmMsg::operator>>(int& v)
{
    v = static_cast<int>(readLittle<uint32_t>());
    return *this;
}

LmMsg& LmMsg::operator>>(unsigned int& v)
{
    v = readLittle<uint32_t>();
    return *this;
}

LmMsg& LmMsg::operator>>(float& v)
{
    v = floatFromBits(readLittle<uint32_t>());
    return *this;
}

LmMsg& LmMsg::operator>>(QByteArray& text)
{
    uint32_t const length = readLittle<uint32_t>();
    // The count is checked against what is left before anything is
    // allocated, so a corrupt count cannot ask for gigabytes.
    char const* bytes = readRawBytes(length);
    text = bytes ? QByteArray(bytes, static_cast<int>(length)) : QByteArray();
    return *this;
}

LmMsg& LmMsg::operator>>(McVec3i& v)
{
    return *this >> v.x >> v.y >> v.z;
}

LmMsg& LmMsg::operator>>(McBox3f& b)
{
    return *this >> b.min[0] >> b.min[1] >> b.min[2] >> b.max[0] >> b.max[1] >> b.max[2];
}

LmMsg& LmMsg::operator>>(McBox3i& b)
{
    return *this >> b.min[0] >> b.min[1] >> b.min[2] >> b.max[0] >> b.max[1] >> b.max[2];
}

LmMsg& LmMsg::operator>>(McMat4f& m)
{
    for (auto& row : m.m)
        for (float& v : row)
            *this >> v;
    return *this;
}
