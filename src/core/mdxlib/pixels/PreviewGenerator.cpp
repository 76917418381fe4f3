#include <mdxlib/pixels/PreviewGenerator.h>
#include <mdxlib/platform/LmCompressedDataMedia.h>
#include <mdxlib/platform/LmVolumeInfo.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tagfile/TagFile.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmimgle/dcmimage.h"

#include <QBuffer>
#include <QFileInfo>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace Mdx {

namespace {

// Six floats per pixel: a symmetric 3x3 tensor stored as its upper
// triangle, of which the diagonal (0, 3, 5) is shown.
constexpr int TensorStride = 6 * static_cast<int>(sizeof(float));
// A tensor with this value on its diagonal marks a pixel without data.
constexpr float TensorHole = 0.001f;

// A value of type T at p, which need not be aligned for T: channels of
// wide types are fetched at byte offsets.
template <typename T> float load(unsigned char const* p)
{
    T value;
    std::memcpy(&value, p, sizeof(T));
    return static_cast<float>(value);
}

struct Window
{
    float low = 0.0f;
    float scale = 0.0f;

    // clamp(int((v - low + 0.5) * scale), 0, 255), with the clamp done in
    // float first so that huge values and NaN cannot overflow the int.
    uint8_t map(float v) const
    {
        float const f = (v - low + 0.5f) * scale;
        if (!(f > 0.0f))
            return 0;
        if (f >= 255.0f)
            return 255;
        return static_cast<uint8_t>(static_cast<int>(f));
    }
};

// With inverted pixels low and high trade places, so the scale turns
// negative. The edge-case notes would have the lowest value map to 255,
// but by this formula it maps to int(255 - 127.5 / width), 254 for any
// width above 127.5; we keep the formula, which is what the stored
// previews of other writers hold too.
Window makeWindow(float center, float width, bool inverted)
{
    Window window;
    float low = center - 0.5f * width;
    float high = center + 0.5f * width;
    if (inverted) {
        low = center + 0.5f * width;
        high = center - 0.5f * width;
    }
    window.low = low;
    window.scale = high == low ? 0.0f : 255.0f / (high - low);
    return window;
}

QImage convertTensors(LmVolumeInfo const& info, QImage image)
{
    int const width = info.mWidth;
    int const height = info.mHeight;
    auto tensor = [&](int x, int y) {
        return info.mPixels + (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) *
                                  static_cast<size_t>(TensorStride);
    };
    auto diagonal = [](unsigned char const* p, float& sum) {
        float const a = load<float>(p);
        float const b = load<float>(p + 3 * sizeof(float));
        float const c = load<float>(p + 5 * sizeof(float));
        sum = a + b + c;
        return !(a == TensorHole || b == TensorHole || c == TensorHole);
    };
    float minSum = 1e10f;
    float maxSum = -1e10f;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            float sum = 0.0f;
            if (diagonal(tensor(x, y), sum) && std::isfinite(sum)) {
                minSum = std::min(minSum, sum);
                maxSum = std::max(maxSum, sum);
            }
        }
    // One value everywhere (or none) would divide by zero: all pixels get 0.
    float const scale = maxSum > minSum ? 255.0f / (maxSum - minSum) : 0.0f;
    for (int y = 0; y < height; ++y) {
        QRgb* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < width; ++x) {
            float sum = 0.0f;
            int v = 0;
            if (diagonal(tensor(x, y), sum) && std::isfinite(sum)) {
                float const f = (sum - minSum) * scale;
                v = f > 0.0f && f < 256.0f ? static_cast<int>(f) & 0xFF : 0;
            }
            int const redGreen = (v * 0x15556) >> 17;
            line[x] = qRgb(redGreen, redGreen, v);
        }
    }
    return image;
}

template <typename T> QImage convertToQImageImpl(LmVolumeInfo const& info, float center, float width)
{
    QImage image(info.mWidth, info.mHeight, QImage::Format_RGB32);
    if (image.isNull())
        return image;
    // Left unfilled, an unknown layout would hand out whatever the heap
    // held; opaque black is what it shows instead.
    image.fill(qRgb(0, 0, 0));
    if (info.mComponents == 6) {
        if (info.mPixelStride == TensorStride)
            return convertTensors(info, std::move(image));
        return image;
    }
    Window const window = makeWindow(center, width, info.mInverted);
    bool const rawBytes = info.mDataType == McTypedData2D::UInt8;
    for (int y = 0; y < info.mHeight; ++y) {
        QRgb* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        unsigned char const* row = info.mPixels + static_cast<ptrdiff_t>(y) * info.mRowStride;
        for (int x = 0; x < info.mWidth; ++x) {
            unsigned char const* p = row + static_cast<ptrdiff_t>(x) * info.mPixelStride;
            if (info.mComponents == 1) {
                uint8_t const v = window.map(load<T>(p));
                line[x] = qRgb(v, v, v);
            } else if (info.mComponents == 3 || info.mComponents == 4) {
                if (rawBytes)
                    line[x] = qRgb(p[0], p[1], p[2]);
                else
                    line[x] =
                        qRgb(window.map(load<T>(p)), window.map(load<T>(p + 1)), window.map(load<T>(p + 2)));
            } else {
                return image;
            }
        }
    }
    return image;
}

// Fits (w, h) into the box; a negative limit leaves its axis free. Sizes
// never fall to 0: a picture one pixel thin stays one pixel thin instead
// of turning into a null image.
void fitBox(int& w, int& h, int maxWidth, int maxHeight)
{
    float const r = static_cast<float>(w) / static_cast<float>(h);
    if (maxWidth >= 0 && maxHeight >= 0) {
        if (r > 1.0f) {
            w = maxWidth;
            h = static_cast<int>(std::rint(static_cast<float>(maxWidth) / r));
        } else {
            w = static_cast<int>(std::rint(r * static_cast<float>(maxHeight)));
            h = maxHeight;
        }
    } else if (maxWidth >= 0) {
        w = maxWidth;
        h = static_cast<int>(std::rint(static_cast<float>(maxWidth) / r));
    } else {
        w = static_cast<int>(std::rint(r * static_cast<float>(maxHeight)));
        h = maxHeight;
    }
    w = std::max(w, 1);
    h = std::max(h, 1);
}

} // namespace

QImage PreviewGenerator::createPreviewImage(DcmDataset* dataset, unsigned long maxWidth,
                                            unsigned long maxHeight, QString const& filePath)
{
    std::unique_ptr<LmVolumeInfo> info =
        LmVolumeInfo::readVolumeInfo(dataset, 1, maxWidth, maxHeight, filePath, nullptr);
    int const limitW = static_cast<int>(std::min<unsigned long>(maxWidth, INT_MAX));
    int const limitH = static_cast<int>(std::min<unsigned long>(maxHeight, INT_MAX));
    return convertToQImage(info.get(), limitW, limitH);
}

QImage PreviewGenerator::createPreviewImage(OndraMesh* mesh, char const* name, unsigned long maxWidth,
                                            unsigned long maxHeight, int index)
{
    if (!mesh || !name)
        return QImage();
    std::unique_ptr<LmVolumeInfo> info =
        LmVolumeInfo::readVolumeInfo(mesh, index, maxWidth, maxHeight, QString::fromLocal8Bit(name));
    int const limitW = static_cast<int>(std::min<unsigned long>(maxWidth, INT_MAX));
    int const limitH = static_cast<int>(std::min<unsigned long>(maxHeight, INT_MAX));
    return convertToQImage(info.get(), limitW, limitH);
}

QImage PreviewGenerator::createPreviewImage(OndraMesh* /*mesh*/, McTypedData2D const& image)
{
    if (image.isEmpty())
        return QImage();
    std::unique_ptr<LmVolumeInfo> info = LmVolumeInfo::fromTypedData(image);
    return convertToQImage(info.get(), TagFile::sPreviewSize[0], TagFile::sPreviewSize[1]);
}

McTypedData2D PreviewGenerator::createPreviewImage(QString const& path, int width, int height)
{
    QFileInfo const file(path);
    if (!file.exists() || !file.isFile())
        return {};
    return LmCompressedDataMedia::decodeRepresentativeFrame(path, 0, file.size(), width, height, 0.3f);
}

QImage PreviewGenerator::convertToQImage(LmVolumeInfo* info, int maxWidth, int maxHeight)
{
    if (!info || !info->previewHasPixels())
        return QImage();
    float const center = (info->mMinValue + info->mMaxValue) * 0.5f;
    float const width = info->mMaxValue - info->mMinValue;
    QImage image = convertToQImage(info, center, width);
    if (image.isNull())
        return image;

    int w = image.width();
    int h = image.height();
    // An aspect that is not a positive number says nothing; the picture is
    // taken as square, which gives what 0 gives.
    float const a =
        std::isfinite(info->mPixelAspect) && info->mPixelAspect > 0.0f ? info->mPixelAspect : 1.0f;
    if (a < 1.0f)
        w = static_cast<int>(static_cast<float>(w) * a);
    else if (a > 1.0f)
        h = static_cast<int>(static_cast<float>(h) / a);
    if (w == 0 || h == 0)
        return image;

    bool const boxed = maxWidth >= 0 || maxHeight >= 0;
    bool const over = (maxWidth >= 0 && w > maxWidth) || (maxHeight >= 0 && h > maxHeight);
    if (boxed && over) {
        fitBox(w, h, maxWidth, maxHeight);
        return image.scaled(w, h, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    }
    // Within 5% of square a resampling would only blur the picture.
    if (a < 0.95f || a > 1.05f)
        return image.scaled(w, h, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    return image;
}

QImage PreviewGenerator::convertToQImage(LmVolumeInfo* info, float center, float width)
{
    if (!info || !info->previewHasPixels())
        return QImage();
    switch (info->mDataType) {
    case McTypedData2D::UInt8:
        return convertToQImageImpl<unsigned char>(*info, center, width);
    case McTypedData2D::Int16:
        return convertToQImageImpl<short>(*info, center, width);
    case McTypedData2D::Int32:
        return convertToQImageImpl<int>(*info, center, width);
    case McTypedData2D::Float32:
        return convertToQImageImpl<float>(*info, center, width);
    case McTypedData2D::Float64:
        return convertToQImageImpl<double>(*info, center, width);
    case McTypedData2D::UInt16:
        return convertToQImageImpl<unsigned short>(*info, center, width);
    default:
        return QImage();
    }
}

QByteArray PreviewGenerator::createPreviewData(QImage const& image)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    if (!buffer.open(QIODevice::WriteOnly) || !image.save(&buffer, "JPEG", -1))
        getTheLogInstance()->tracef(McLogFile::LevelWarning, "TagFile",
                                    "Failed to compress preview image in JPEG format");
    return bytes;
}

} // namespace Mdx
