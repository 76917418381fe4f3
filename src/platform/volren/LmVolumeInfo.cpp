#include <mdxlib/platform/ExDicomUtilities.h>
#include <mdxlib/platform/LmVolumeInfo.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McTypedData2D.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdatset.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcelem.h"
#include "dcmtk/dcmdata/dcxfer.h"
#include "dcmtk/dcmimage/diregist.h" // colour images
#include "dcmtk/dcmimgle/dcmimage.h"
#include "dcmtk/dcmimgle/dipixel.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

void fail(QString const& filePath, char const* reason)
{
    getTheLogInstance()->tracef(McLogFile::LevelDebug, "TagFile", "No preview pixels in %s: %s",
                                filePath.toLocal8Bit().constData(), reason);
}

bool positive(double value)
{
    return std::isfinite(value) && value > 0.0;
}

// Width over height of one pixel: from the spacing of rows and columns,
// else from the aspect ratio, else square.
float pixelAspectOf(DcmDataset* dataset)
{
    for (DcmTagKey const& key : {DCM_PixelSpacing, DCM_ImagerPixelSpacing}) {
        Float64 rowSpacing = 0.0;
        Float64 columnSpacing = 0.0;
        if (dataset->findAndGetFloat64(key, rowSpacing, 0).good() &&
            dataset->findAndGetFloat64(key, columnSpacing, 1).good() && positive(rowSpacing) &&
            positive(columnSpacing))
            return static_cast<float>(columnSpacing / rowSpacing);
    }
    Sint32 vertical = 0;
    Sint32 horizontal = 0;
    if (dataset->findAndGetSint32(DCM_PixelAspectRatio, vertical, 0).good() &&
        dataset->findAndGetSint32(DCM_PixelAspectRatio, horizontal, 1).good() && vertical > 0 &&
        horizontal > 0)
        return static_cast<float>(horizontal) / static_cast<float>(vertical);
    return 1.0f;
}

// An uncompressed frame must be there whole: DCMTK would pad a short one
// with zeros, and a preview of half an image would pass for a good one.
bool firstFrameComplete(DcmDataset* dataset, E_TransferSyntax xfer)
{
    if (DcmXfer(xfer).isEncapsulated())
        return true; // the decoder tells
    DcmElement* pixels = nullptr;
    if (dataset->findAndGetElement(DCM_PixelData, pixels).bad() || !pixels)
        return false;
    Uint16 rows = 0;
    Uint16 columns = 0;
    Uint16 samples = 1;
    Uint16 bitsAllocated = 0;
    if (dataset->findAndGetUint16(DCM_Rows, rows).bad() ||
        dataset->findAndGetUint16(DCM_Columns, columns).bad() ||
        dataset->findAndGetUint16(DCM_BitsAllocated, bitsAllocated).bad())
        return false;
    if (dataset->findAndGetUint16(DCM_SamplesPerPixel, samples).bad())
        samples = 1;
    // Horizontally subsampled YCbCr stores two values per pixel, not three.
    OFString photometric;
    dataset->findAndGetOFString(DCM_PhotometricInterpretation, photometric);
    if (photometric == "YBR_FULL_422" || photometric == "YBR_PARTIAL_422")
        samples = 2;
    unsigned long long const bits = static_cast<unsigned long long>(rows) * columns * samples * bitsAllocated;
    return pixels->getLength() >= (bits + 7) / 8;
}

template <typename From, typename To> void convert(void const* source, size_t count, unsigned char* target)
{
    From const* in = static_cast<From const*>(source);
    for (size_t i = 0; i < count; ++i) {
        To const value = static_cast<To>(in[i]);
        std::memcpy(target + i * sizeof(To), &value, sizeof(To));
    }
}

// The monochrome values of image, converted to an element type previews
// know. False for representations without one.
bool copyMonochrome(DicomImage const& image, LmVolumeInfo& info)
{
    DiPixel const* inter = image.getInterData();
    if (!inter || !inter->getData())
        return false;
    size_t const count = static_cast<size_t>(info.mWidth) * static_cast<size_t>(info.mHeight);
    if (inter->getCount() < count)
        return false;
    void const* data = inter->getData();
    int type = -1;
    switch (inter->getRepresentation()) {
    case EPR_Uint8:
        type = McTypedData2D::UInt8;
        info.mBuffer.resize(count);
        std::memcpy(info.mBuffer.data(), data, count);
        break;
    case EPR_Sint8:
        type = McTypedData2D::Int16;
        info.mBuffer.resize(count * sizeof(short));
        convert<Sint8, short>(data, count, info.mBuffer.data());
        break;
    case EPR_Uint16:
        type = McTypedData2D::UInt16;
        info.mBuffer.resize(count * sizeof(Uint16));
        std::memcpy(info.mBuffer.data(), data, info.mBuffer.size());
        break;
    case EPR_Sint16:
        type = McTypedData2D::Int16;
        info.mBuffer.resize(count * sizeof(Sint16));
        std::memcpy(info.mBuffer.data(), data, info.mBuffer.size());
        break;
    case EPR_Sint32:
        type = McTypedData2D::Int32;
        info.mBuffer.resize(count * sizeof(Sint32));
        std::memcpy(info.mBuffer.data(), data, info.mBuffer.size());
        break;
    case EPR_Uint32:
        // Values above the range of int would wrap; doubles hold them all.
        type = McTypedData2D::Float64;
        info.mBuffer.resize(count * sizeof(double));
        convert<Uint32, double>(data, count, info.mBuffer.data());
        break;
    default:
        return false;
    }
    int const bytes = McTypedData2D::bytesOf(type);
    info.mDataType = type;
    info.mComponents = 1;
    info.mPixelStride = bytes;
    info.mRowStride = bytes * info.mWidth;
    return true;
}

bool copyColour(DicomImage& image, LmVolumeInfo& info)
{
    // Colour models other than RGB (YBR, palette) come out as RGB.
    size_t const size = static_cast<size_t>(info.mWidth) * static_cast<size_t>(info.mHeight) * 3;
    void const* data = image.getOutputData(8, 0, 0);
    if (!data || image.getOutputDataSize(8) < size)
        return false;
    info.mBuffer.resize(size);
    std::memcpy(info.mBuffer.data(), data, size);
    image.deleteOutputData();
    info.mDataType = McTypedData2D::UInt8;
    info.mComponents = 3;
    info.mPixelStride = 3;
    info.mRowStride = 3 * info.mWidth;
    info.mMinValue = 0.0f;
    info.mMaxValue = 255.0f;
    return true;
}

// The modality rescale. DCMTK keeps rescaled values in an integer type, so
// a fractional slope or intercept would round every value; such pixels are
// read as stored and rescaled here into floats instead.
struct Rescale
{
    double slope = 1.0;
    double intercept = 0.0;

    bool fractional() const { return slope != std::floor(slope) || intercept != std::floor(intercept); }
    double operator()(double stored) const { return stored * slope + intercept; }
};

Rescale rescaleOf(DcmDataset* dataset)
{
    Rescale rescale;
    Float64 value = 0.0;
    if (dataset->findAndGetFloat64(DCM_RescaleSlope, value).good() && std::isfinite(value) && value != 0.0)
        rescale.slope = value;
    if (dataset->findAndGetFloat64(DCM_RescaleIntercept, value).good() && std::isfinite(value))
        rescale.intercept = value;
    return rescale;
}

template <typename T>
void rescaleInto(LmVolumeInfo const& info, Rescale const& rescale, std::vector<unsigned char>& out)
{
    size_t const count = static_cast<size_t>(info.mWidth) * static_cast<size_t>(info.mHeight);
    out.resize(count * sizeof(float));
    for (size_t i = 0; i < count; ++i) {
        T stored;
        std::memcpy(&stored, info.mBuffer.data() + i * sizeof(T), sizeof(T));
        float const value = static_cast<float>(rescale(static_cast<double>(stored)));
        std::memcpy(out.data() + i * sizeof(float), &value, sizeof(float));
    }
}

// Turns the stored values copied by copyMonochrome into rescaled floats.
void applyRescale(LmVolumeInfo& info, Rescale const& rescale)
{
    std::vector<unsigned char> floats;
    switch (info.mDataType) {
    case McTypedData2D::UInt8:
        rescaleInto<unsigned char>(info, rescale, floats);
        break;
    case McTypedData2D::Int16:
        rescaleInto<short>(info, rescale, floats);
        break;
    case McTypedData2D::UInt16:
        rescaleInto<unsigned short>(info, rescale, floats);
        break;
    case McTypedData2D::Int32:
        rescaleInto<int>(info, rescale, floats);
        break;
    case McTypedData2D::Float64:
        rescaleInto<double>(info, rescale, floats);
        break;
    default:
        return;
    }
    info.mBuffer.swap(floats);
    info.mDataType = McTypedData2D::Float32;
    info.mPixelStride = sizeof(float);
    info.mRowStride = static_cast<int>(sizeof(float)) * info.mWidth;
}

void setWindow(DcmDataset* dataset, DicomImage& image, Rescale const* rescale, LmVolumeInfo& info)
{
    Float64 center = 0.0;
    Float64 width = 0.0;
    if (dataset->findAndGetFloat64(DCM_WindowCenter, center, 0).good() &&
        dataset->findAndGetFloat64(DCM_WindowWidth, width, 0).good() && std::isfinite(center) &&
        positive(width)) {
        info.mMinValue = static_cast<float>(center - width * 0.5);
        info.mMaxValue = static_cast<float>(center + width * 0.5);
        return;
    }
    double low = 0.0;
    double high = 0.0;
    if (image.getMinMaxValues(low, high, 0)) {
        if (rescale) {
            low = (*rescale)(low);
            high = (*rescale)(high);
        }
        info.mMinValue = static_cast<float>(std::min(low, high));
        info.mMaxValue = static_cast<float>(std::max(low, high));
    }
}

} // namespace

bool LmVolumeInfo::previewHasPixels() const
{
    if (!mPixels || mWidth <= 0 || mHeight <= 0)
        return false;
    if (mBuffer.empty() || mPixels != mBuffer.data())
        return true; // a view: its owner vouches for the size
    size_t const width = static_cast<size_t>(mWidth);
    size_t const height = static_cast<size_t>(mHeight);
    // Tensor pixels are packed six floats, row after row, whatever the
    // row stride says.
    if (mComponents == 6 && mPixelStride == 6 * static_cast<int>(sizeof(float)))
        return width * height * 6 * sizeof(float) <= mBuffer.size();
    if (mRowStride < 0 || mPixelStride < 0)
        return false;
    size_t const last =
        (height - 1) * static_cast<size_t>(mRowStride) + (width - 1) * static_cast<size_t>(mPixelStride);
    size_t const elementSize = static_cast<size_t>(std::max(McTypedData2D::bytesOf(mDataType), 1));
    return last + elementSize * static_cast<size_t>(std::max(mComponents, 1)) <= mBuffer.size();
}

std::unique_ptr<LmVolumeInfo> LmVolumeInfo::readVolumeInfo(DcmDataset* dataset, int frameCount,
                                                           unsigned long maxWidth, unsigned long maxHeight,
                                                           QString const& filePath,
                                                           std::unique_ptr<DicomImage>* pixelData)
{
    if (pixelData)
        pixelData->reset();
    if (!dataset) {
        fail(filePath, "no dataset");
        return nullptr;
    }
    if (!dataset->tagExistsWithValue(DCM_PixelData)) {
        fail(filePath, "no pixel data");
        return nullptr;
    }
    ExDicomUtilities::registerDecoders();
    E_TransferSyntax const xfer = dataset->getOriginalXfer();
    if (!firstFrameComplete(dataset, xfer)) {
        fail(filePath, "the pixel data end before the first frame does");
        return nullptr;
    }
    Rescale const rescale = rescaleOf(dataset);
    // Partial access decodes only the frames asked for, not a whole
    // multi-frame object, and leaves the dataset as it is.
    unsigned long const flags =
        CIF_UsePartialAccessToPixelData | (rescale.fractional() ? CIF_IgnoreModalityTransformation : 0UL);
    auto image = std::make_unique<DicomImage>(dataset, xfer, flags, 0,
                                              static_cast<unsigned long>(std::max(frameCount, 1)));
    if (image->getStatus() != EIS_Normal) {
        fail(filePath, DicomImage::getString(image->getStatus()));
        return nullptr;
    }
    unsigned long const width = image->getWidth();
    unsigned long const height = image->getHeight();
    if (width == 0 || height == 0 || width > INT_MAX || height > INT_MAX) {
        fail(filePath, "no picture size");
        return nullptr;
    }

    auto info = std::make_unique<LmVolumeInfo>();
    info->mPixelAspect = pixelAspectOf(dataset);
    bool const monochrome = image->isMonochrome();
    if (monochrome) {
        setWindow(dataset, *image, rescale.fractional() ? &rescale : nullptr, *info);
        info->mInverted = image->getPhotometricInterpretation() == EPI_Monochrome1;
    }

    // The same factor on both axes keeps the pixel aspect for the converter
    // to correct.
    std::unique_ptr<DicomImage> reduced;
    double scale = 1.0;
    if (maxWidth > 0 && width > maxWidth)
        scale = std::min(scale, static_cast<double>(maxWidth) / static_cast<double>(width));
    if (maxHeight > 0 && height > maxHeight)
        scale = std::min(scale, static_cast<double>(maxHeight) / static_cast<double>(height));
    if (scale < 1.0) {
        unsigned long const w = std::max(1L, std::lround(static_cast<double>(width) * scale));
        unsigned long const h = std::max(1L, std::lround(static_cast<double>(height) * scale));
        reduced.reset(image->createScaledImage(w, h, 1, 0));
        if (reduced && reduced->getStatus() != EIS_Normal)
            reduced.reset(); // the converter scales the whole frame instead
    }
    DicomImage& source = reduced ? *reduced : *image;
    info->mWidth = static_cast<int>(source.getWidth());
    info->mHeight = static_cast<int>(source.getHeight());
    bool const copied = monochrome ? copyMonochrome(source, *info) : copyColour(source, *info);
    if (!copied) {
        fail(filePath, "pixel representation without a preview type");
        return nullptr;
    }
    if (monochrome && rescale.fractional())
        applyRescale(*info, rescale);
    info->mPixels = info->mBuffer.data();
    if (pixelData)
        *pixelData = std::move(image);
    return info;
}

std::unique_ptr<LmVolumeInfo> LmVolumeInfo::fromTypedData(McTypedData2D const& image)
{
    if (image.isEmpty())
        return nullptr;
    auto info = std::make_unique<LmVolumeInfo>();
    info->mWidth = image.width();
    info->mHeight = image.height();
    info->mPixelStride = image.pixelStride();
    info->mRowStride = image.lineStride();
    info->mPixels = image.data();
    info->mComponents = image.components();
    info->mDataType = image.dataType();
    info->mMinValue = 0.0f;
    info->mMaxValue = 255.0f;
    return info;
}
