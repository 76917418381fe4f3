#include <mdxlib/tagfile/Compression.h>

#include <libdeflate.h>

namespace {

constexpr int kLevel = 6;
// Deflate cannot expand data by more than about 1032:1; a length in front
// that claims more is a lie and is refused before anything is allocated.
constexpr qint64 kMaxRatio = 1032;

} // namespace

QByteArray qxCompress(unsigned char const* data, int size)
{
    if (size < 0 || (size > 0 && !data))
        return QByteArray();
    libdeflate_compressor* compressor = libdeflate_alloc_compressor(kLevel);
    if (!compressor)
        return QByteArray();
    size_t const bound = libdeflate_zlib_compress_bound(compressor, static_cast<size_t>(size));
    QByteArray out(static_cast<int>(bound + 4), Qt::Uninitialized);
    size_t const packed =
        libdeflate_zlib_compress(compressor, data, static_cast<size_t>(size), out.data() + 4, bound);
    libdeflate_free_compressor(compressor);
    out.resize(static_cast<int>(packed + 4));
    auto const length = static_cast<quint32>(size);
    out[0] = static_cast<char>(length >> 24);
    out[1] = static_cast<char>(length >> 16);
    out[2] = static_cast<char>(length >> 8);
    out[3] = static_cast<char>(length);
    return out;
}

namespace {

// The length in front of a packed payload, or -1 when it cannot be right.
qint64 unpackedLength(unsigned char const* bytes, qint64 size)
{
    if (size <= 4)
        return -1;
    quint32 const length =
        quint32(bytes[0]) << 24 | quint32(bytes[1]) << 16 | quint32(bytes[2]) << 8 | bytes[3];
    if (length > 0x7FFFFFF0u || qint64(length) > (size - 4) * kMaxRatio + 64)
        return -1;
    return length;
}

bool inflate(unsigned char const* bytes, qint64 size, char* out, qint64 length)
{
    libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
    if (!decompressor)
        return false;
    libdeflate_result const result = libdeflate_zlib_decompress(
        decompressor, bytes + 4, static_cast<size_t>(size - 4), out, static_cast<size_t>(length), nullptr);
    libdeflate_free_decompressor(decompressor);
    return result == LIBDEFLATE_SUCCESS;
}

} // namespace

QByteArray qxUncompress(QByteArray const& data)
{
    auto const* bytes = reinterpret_cast<unsigned char const*>(data.constData());
    qint64 const length = unpackedLength(bytes, data.size());
    if (length < 0)
        return QByteArray();
    QByteArray out(length == 0 ? 1 : static_cast<int>(length), Qt::Uninitialized);
    if (!inflate(bytes, data.size(), out.data(), length))
        return QByteArray();
    out.resize(static_cast<int>(length));
    return out;
}

bool qxUncompress(char const* data, qint64 size, std::vector<char>& out)
{
    auto const* bytes = reinterpret_cast<unsigned char const*>(data);
    qint64 const length = unpackedLength(bytes, size);
    if (length < 0)
        return false;
    out.resize(static_cast<size_t>(length == 0 ? 1 : length));
    bool const ok = inflate(bytes, size, out.data(), length);
    out.resize(ok ? static_cast<size_t>(length) : 0);
    return ok;
}
