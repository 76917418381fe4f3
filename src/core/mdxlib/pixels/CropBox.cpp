#include <mdxlib/pixels/CropBox.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/VR.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmimgle/dcmimage.h"
#include "dcmtk/dcmimgle/dipixel.h"

#include <QByteArray>

#include <algorithm>
#include <cstdint>

namespace Mdx {

namespace {

DcmTagKey const ModalityKey(0x0008, 0x0060);
DcmTagKey const ManufacturerKey(0x0008, 0x0070);
DcmTagKey const CropBoxKey(0x0071, 0x0074);

// Konica plates carry a mark in the top right corner that is not part of the
// exposure. It is recognised by a block of this size holding only the mark's
// values.
constexpr unsigned long MarkSize = 40;

struct Vendor
{
    bool siemens = false;
    bool konica = false;
    bool fujifilm = false;
};

struct Box
{
    unsigned long x = 0;
    unsigned long y = 0;
    unsigned long width = 0;
    unsigned long height = 0;
};

template <typename T> bool isCornerMark(T const* pixels, unsigned long width)
{
    for (unsigned long y = 0; y < MarkSize; ++y) {
        T const* row = pixels + y * width;
        for (unsigned long x = width - MarkSize; x < width; ++x) {
            unsigned int const v = row[x];
            bool const markValue = v == 0 || v == 63 || (sizeof(T) == 2 && v == 4031);
            if (!markValue)
                return false;
        }
    }
    return true;
}

template <typename T>
Box findBox(T const* pixels, unsigned long width, unsigned long height, Vendor const& vendor)
{
    // The background is what the top left pixel holds, widened by what each
    // manufacturer is known to put into unexposed parts of the plate.
    unsigned int const first = pixels[0];
    unsigned int low = first;
    unsigned int high = first;
    bool twoValues = false;
    bool cornerMark = false;

    if (vendor.siemens && first == 0)
        high = 16;

    if (vendor.konica && width > MarkSize && height > MarkSize) {
        cornerMark = isCornerMark(pixels, width);
        if (first == 0)
            high = 1;
    }

    if (vendor.fujifilm && width >= 2 && height >= 2) {
        // Fujifilm fills the unexposed area with one or two constant values,
        // which the corners show. Values between them are real signal.
        unsigned int const corners[] = {pixels[0], pixels[width - 1], pixels[(height - 1) * width],
                                        pixels[height * width - 1]};
        unsigned int const highSoFar = high;
        low = highSoFar;
        high = highSoFar;
        for (unsigned int v : corners) {
            low = std::min(low, v);
            high = std::max(high, v);
        }
        twoValues = true;
    }

    bool found = false;
    unsigned long minX = 0;
    unsigned long maxX = 0;
    unsigned long minY = 0;
    unsigned long maxY = 0;
    for (unsigned long y = 0; y < height; ++y) {
        T const* row = pixels + y * width;
        unsigned long const end = cornerMark && y < MarkSize ? width - MarkSize : width;
        for (unsigned long x = 0; x < end; ++x) {
            unsigned int const v = row[x];
            bool const background = twoValues ? (v == low || v == high) : (v >= low && v <= high);
            if (background)
                continue;
            if (!found) {
                minX = maxX = x;
                minY = maxY = y;
                found = true;
                continue;
            }
            minX = std::min(minX, x);
            maxX = std::max(maxX, x);
            maxY = y; // rows are scanned in order
        }
    }

    Box box;
    if (!found) {
        box.width = width;
        box.height = height;
        return box;
    }
    box.x = minX;
    box.y = minY;
    box.width = maxX - minX + 1;
    box.height = maxY - minY + 1;
    return box;
}

} // namespace

void CropBox::process(DicomImage* image, TagMap* map)
{
    if (!image || !map)
        return;
    EP_Interpretation const interpretation = image->getPhotometricInterpretation();
    if (interpretation != EPI_Monochrome1 && interpretation != EPI_Monochrome2)
        return;

    QByteArray modality;
    map->findAndGetString(ModalityKey, modality);
    modality = modality.trimmed();
    if (modality != "CR" && modality != "DX")
        return;

    QByteArray manufacturer;
    map->findAndGetString(ManufacturerKey, manufacturer);
    manufacturer = manufacturer.toUpper();
    Vendor vendor;
    vendor.siemens = manufacturer.contains("SIEMENS");
    vendor.konica = manufacturer.contains("KONICA");
    vendor.fujifilm = manufacturer.contains("FUJIFILM");

    DiPixel const* pixel = image->getInterData();
    if (!pixel || !pixel->getData())
        return;
    unsigned long const width = image->getWidth();
    unsigned long const height = image->getHeight();
    // Only the first frame is looked at; the pixel array must hold it whole.
    if (width == 0 || height == 0 || pixel->getCount() < width * height)
        return;

    Box box;
    switch (pixel->getRepresentation()) {
    case EPR_Uint8:
        box = findBox(static_cast<uint8_t const*>(pixel->getData()), width, height, vendor);
        break;
    case EPR_Uint16:
    case EPR_Sint16:
        // Signed pixels are compared by their bit pattern: the background
        // values of interest are all small non-negative ones.
        box = findBox(static_cast<uint16_t const*>(pixel->getData()), width, height, vendor);
        break;
    default:
        return;
    }

    QByteArray text;
    text += QByteArray::number(static_cast<qulonglong>(box.x)) + '\\';
    text += QByteArray::number(static_cast<qulonglong>(box.y)) + '\\';
    text += QByteArray::number(static_cast<qulonglong>(box.width)) + '\\';
    text += QByteArray::number(static_cast<qulonglong>(box.height)) + '\\';
    text += "v1";
    map->putAndInsertValue(CropBoxKey, PrivateCreator, VR_LO, text);
}

} // namespace Mdx
