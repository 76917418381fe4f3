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

QByteArray qxUncompress(QByteArray const& data)
{
    if (data.size() <= 4)
        return QByteArray();
    auto const* bytes = reinterpret_cast<unsigned char const*>(data.constData());
    quint32 const length =
        quint32(bytes[0]) << 24 | quint32(bytes[1]) << 16 | quint32(bytes[2]) << 8 | bytes[3];
    if (length > 0x7FFFFFF0u || qint64(length) > (qint64(data.size()) - 4) * kMaxRatio + 64)
        return QByteArray();
    QByteArray out(length == 0 ? 1 : static_cast<int>(length), Qt::Uninitialized);
    libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
    if (!decompressor)
        return QByteArray();
    libdeflate_result const result = libdeflate_zlib_decompress(
        decompressor, bytes + 4, static_cast<size_t>(data.size() - 4), out.data(), length, nullptr);
    libdeflate_free_decompressor(decompressor);
    if (result != LIBDEFLATE_SUCCESS)
        return QByteArray();
    out.resize(static_cast<int>(length));
    return out;
}
