#include <mdxlib/platform/LmCompressedDataMedia.h>
#include <mdxlib/platform/McLogFile.h>

#include <QBuffer>
#include <QByteArray>
#include <QFile>
#include <QImage>
#include <QImageReader>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

void trace(QString const& path, char const* reason)
{
    getTheLogInstance()->tracef(McLogFile::LevelDebug, "mdx", "No representative frame of %s: %s",
                                path.toLocal8Bit().constData(), reason);
}

// Containers of moving pictures, known by their first bytes.
bool looksLikeVideo(QByteArray const& head)
{
    if (head.size() >= 12 && head.mid(4, 4) == "ftyp")
        return true; // MP4, QuickTime
    if (head.size() >= 12 && head.startsWith("RIFF") && head.mid(8, 4) == "AVI ")
        return true;
    if (head.startsWith(QByteArray::fromHex("1a45dfa3")))
        return true; // Matroska, WebM
    return head.startsWith(QByteArray::fromHex("000001ba")) ||
           head.startsWith(QByteArray::fromHex("000001b3"));
}

} // namespace

McTypedData2D LmCompressedDataMedia::decodeRepresentativeFrame(QString const& path, qint64 offset,
                                                               qint64 size, int width, int height,
                                                               float position)
{
    QFile file(path);
    if (offset < 0 || size <= 0 || !file.open(QIODevice::ReadOnly) || !file.seek(offset)) {
        trace(path, "cannot be read");
        return {};
    }
    // A video is known by its first bytes, before gigabytes are read.
    if (looksLikeVideo(file.read(std::min<qint64>(size, 16)))) {
        trace(path, "a video; no video decoder is built in");
        return {};
    }
    QByteArray bytes;
    if (file.seek(offset))
        bytes = file.read(size);
    if (bytes.size() != size) {
        trace(path, "shorter than its given size");
        return {};
    }
    QBuffer buffer;
    buffer.setData(bytes);
    if (!buffer.open(QIODevice::ReadOnly)) {
        trace(path, "cannot be buffered");
        return {};
    }
    QImageReader reader(&buffer);
    reader.setAutoTransform(true);
    int const count = reader.imageCount();
    if (count > 1) {
        float const where = std::isfinite(position) ? std::clamp(position, 0.0f, 1.0f) : 0.0f;
        reader.jumpToImage(std::min(count - 1, static_cast<int>(static_cast<float>(count) * where)));
    }
    QSize const full = reader.size();
    if (full.isValid() && (width > 0 || height > 0)) {
        QSize box(width > 0 ? width : full.width(), height > 0 ? height : full.height());
        if (full.width() > box.width() || full.height() > box.height()) {
            QSize scaled = full.scaled(box, Qt::KeepAspectRatio);
            reader.setScaledSize(scaled.expandedTo(QSize(1, 1)));
        }
    }
    QImage const image = reader.read().convertToFormat(QImage::Format_RGB888);
    if (image.isNull()) {
        trace(path, reader.errorString().toLocal8Bit().constData());
        return {};
    }
    McTypedData2D result = McTypedData2D::allocate(McTypedData2D::UInt8, image.width(), image.height(), 3);
    if (result.isEmpty()) {
        trace(path, "too large");
        return {};
    }
    size_t const line = static_cast<size_t>(image.width()) * 3;
    for (int y = 0; y < image.height(); ++y)
        std::memcpy(result.pixel(0, y), image.constScanLine(y), line);
    return result;
}
