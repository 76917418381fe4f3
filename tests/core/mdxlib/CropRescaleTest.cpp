// The crop box of projection radiographs on built and real images, the
// common rescale of a stack of images and the low-resolution level of a
// volume.
#include <mdxlib/CropBox.h>
#include <mdxlib/Rescale.h>
#include <mdxlib/TagMap.h>
#include <mdxlib/platform/McBox3f.h>

#include "support/TestSupport.h"

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/dcmimgle/dcmimage.h"
#include "dcmtk/dcmimgle/dipixel.h"
#include "dcmtk/oflog/oflog.h"

#include <QByteArray>
#include <QList>

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

using namespace Mdx;

namespace {

DcmTagKey const CropBoxKey(0x0071, 0x0074);

// A dataset, the image DCMTK makes of it and its tag map. The image refers
// to the dataset, so it is declared after it and goes first.
struct TestImage
{
    std::unique_ptr<DcmDataset> dataset;
    std::unique_ptr<DicomImage> image;
    std::unique_ptr<TagMap> map;
};

struct Layout
{
    char const* manufacturer = "ACME";
    char const* modality = "CR";
    char const* photometric = "MONOCHROME2";
    int bitsStored = 0; // 0: all allocated bits
    bool isSigned = false;
};

template <typename T>
TestImage makeImage(int width, int height, std::vector<T> const& pixels, Layout const& layout = Layout())
{
    int const bitsAllocated = 8 * sizeof(T);
    int const bitsStored = layout.bitsStored ? layout.bitsStored : bitsAllocated;
    TestImage t;
    t.dataset = std::make_unique<DcmDataset>();
    DcmDataset* d = t.dataset.get();
    d->putAndInsertString(DCM_Modality, layout.modality);
    d->putAndInsertString(DCM_Manufacturer, layout.manufacturer);
    d->putAndInsertString(DCM_PhotometricInterpretation, layout.photometric);
    d->putAndInsertUint16(DCM_SamplesPerPixel, 1);
    d->putAndInsertUint16(DCM_Rows, static_cast<Uint16>(height));
    d->putAndInsertUint16(DCM_Columns, static_cast<Uint16>(width));
    d->putAndInsertUint16(DCM_BitsAllocated, static_cast<Uint16>(bitsAllocated));
    d->putAndInsertUint16(DCM_BitsStored, static_cast<Uint16>(bitsStored));
    d->putAndInsertUint16(DCM_HighBit, static_cast<Uint16>(bitsStored - 1));
    d->putAndInsertUint16(DCM_PixelRepresentation, layout.isSigned ? 1 : 0);
    if (sizeof(T) == 1)
        d->putAndInsertUint8Array(DCM_PixelData, reinterpret_cast<Uint8 const*>(pixels.data()),
                                  pixels.size());
    else
        d->putAndInsertUint16Array(DCM_PixelData, reinterpret_cast<Uint16 const*>(pixels.data()),
                                   pixels.size());
    t.image = std::make_unique<DicomImage>(d, EXS_LittleEndianExplicit);
    t.map.reset(TagMap::createTagMap(d, 1024));
    return t;
}

// width x height pixels of value background.
template <typename T> std::vector<T> fill(int width, int height, T background)
{
    return std::vector<T>(static_cast<size_t>(width) * height, background);
}

template <typename T> void setRect(std::vector<T>& pixels, int width, int x0, int y0, int w, int h, T value)
{
    for (int y = y0; y < y0 + h; ++y)
        for (int x = x0; x < x0 + w; ++x)
            pixels[static_cast<size_t>(y) * width + x] = value;
}

// The stored box, or "none" when nothing was stored.
QByteArray cropOf(TestImage& t)
{
    if (t.image->isMonochrome()) {
        EXPECT_EQ(t.image->getStatus(), EIS_Normal);
    }
    CropBox::process(t.image.get(), t.map.get());
    QByteArray out;
    if (!t.map->findAndGetString(CropBoxKey, CropBox::PrivateCreator, out))
        return "none";
    return out;
}

} // namespace

// ---- CropBox on built images ----

TEST(CropBox, AllZerosHasNoForegroundAndGivesTheWholeImage)
{
    TestImage t = makeImage(20, 10, fill<uint8_t>(20, 10, 0));
    EXPECT_EQ(cropOf(t), "0\\0\\20\\10\\v1");
}

TEST(CropBox, StoresTheBoxOfWhatDiffersFromTheFirstPixel)
{
    auto pixels = fill<uint8_t>(30, 20, 100);
    setRect<uint8_t>(pixels, 30, 5, 3, 5, 10, 200);
    pixels[18 * 30 + 2] = 99; // below the background value counts as well
    TestImage t = makeImage(30, 20, pixels);
    EXPECT_EQ(cropOf(t), "2\\3\\8\\16\\v1");

    // The creator's block was allocated in the private group.
    QByteArray creator;
    ASSERT_TRUE(t.map->findAndGetString(DcmTagKey(0x0071, 0x0010), creator));
    EXPECT_EQ(creator, "Lumora");
    EXPECT_NE(t.map->findElement(DcmTagKey(0x0071, 0x1074)), nullptr);
}

TEST(CropBox, OnlyMonochromeCrAndDxImagesAreProcessed)
{
    auto pixels = fill<uint8_t>(8, 8, 0);
    pixels[9] = 50;
    Layout layout;
    layout.modality = "MR";
    TestImage mr = makeImage(8, 8, pixels, layout);
    EXPECT_EQ(cropOf(mr), "none");
    layout.modality = "DX";
    TestImage dx = makeImage(8, 8, pixels, layout);
    EXPECT_EQ(cropOf(dx), "1\\1\\1\\1\\v1");
    layout.modality = "CR";
    layout.photometric = "MONOCHROME1";
    TestImage mono1 = makeImage(8, 8, pixels, layout);
    EXPECT_EQ(cropOf(mono1), "1\\1\\1\\1\\v1");

    // Three samples per pixel: a colour image is left alone. The library
    // links no colour support, so DCMTK complains about it; that is expected.
    OFLogger imageLog = OFLog::getLogger("dcmtk.dcmimgle");
    dcmtk::log4cplus::LogLevel const level = imageLog.getLogLevel();
    imageLog.setLogLevel(OFLogger::FATAL_LOG_LEVEL);
    std::vector<uint8_t> rgb(8 * 8 * 3, 0);
    layout.photometric = "RGB";
    TestImage color = makeImage(8, 8, rgb, layout);
    color.dataset->putAndInsertUint16(DCM_SamplesPerPixel, 3);
    color.dataset->putAndInsertUint16(DCM_PlanarConfiguration, 0);
    color.image = std::make_unique<DicomImage>(color.dataset.get(), EXS_LittleEndianExplicit);
    imageLog.setLogLevel(level);
    EXPECT_EQ(color.image->getPhotometricInterpretation(), EPI_RGB);
    EXPECT_EQ(cropOf(color), "none");

    // Null arguments are ignored.
    CropBox::process(nullptr, dx.map.get());
    CropBox::process(dx.image.get(), nullptr);
}

TEST(CropBox, SignedEightBitPixelsAreNotRead)
{
    std::vector<int8_t> pixels(8 * 8, -100);
    pixels[10] = 100;
    Layout layout;
    layout.isSigned = true;
    TestImage t = makeImage(8, 8, pixels, layout);
    ASSERT_EQ(t.image->getInterData()->getRepresentation(), EPR_Sint8);
    EXPECT_EQ(cropOf(t), "none");
}

TEST(CropBox, SixteenBitUnsignedPixels)
{
    Layout layout;
    layout.bitsStored = 12;
    auto pixels = fill<uint16_t>(40, 30, 4000);
    setRect<uint16_t>(pixels, 40, 10, 20, 25, 3, 300);
    TestImage t = makeImage(40, 30, pixels, layout);
    ASSERT_EQ(t.image->getInterData()->getRepresentation(), EPR_Uint16);
    EXPECT_EQ(cropOf(t), "10\\20\\25\\3\\v1");
}

TEST(CropBox, SixteenBitSignedPixelsCompareByBitPattern)
{
    // Background -1000 reads as 64536; -500 (65036) and 1000 are foreground.
    Layout layout;
    layout.isSigned = true;
    auto pixels = fill<int16_t>(20, 20, -1000);
    pixels[4 * 20 + 3] = -500;
    pixels[15 * 20 + 17] = 1000;
    TestImage t = makeImage(20, 20, pixels, layout);
    ASSERT_EQ(t.image->getInterData()->getRepresentation(), EPR_Sint16);
    EXPECT_EQ(cropOf(t), "3\\4\\15\\12\\v1");
}

TEST(CropBox, SiemensWithFirstPixelZeroTreatsZeroToSixteenAsBackground)
{
    auto pixels = fill<uint8_t>(20, 20, 0);
    setRect<uint8_t>(pixels, 20, 0, 1, 20, 4, 16); // noise of the unexposed plate
    pixels[10 * 20 + 4] = 17;
    pixels[12 * 20 + 9] = 200;
    Layout layout;
    layout.manufacturer = "Siemens Healthineers"; // compared in upper case
    TestImage siemens = makeImage(20, 20, pixels, layout);
    EXPECT_EQ(cropOf(siemens), "4\\10\\6\\3\\v1");

    // Another manufacturer: the 16s are image.
    TestImage other = makeImage(20, 20, pixels);
    EXPECT_EQ(cropOf(other), "0\\1\\20\\12\\v1");

    // A first pixel other than 0 does not widen the background.
    auto five = fill<uint8_t>(20, 20, 5);
    five[7 * 20 + 3] = 6;
    TestImage notZero = makeImage(20, 20, five, layout);
    EXPECT_EQ(cropOf(notZero), "3\\7\\1\\1\\v1");
}

TEST(CropBox, KonicaCornerMarkIsLeftOutOfTheSearch)
{
    int const w = 60;
    int const h = 50;
    Layout layout;
    layout.manufacturer = "KONICA MINOLTA";
    layout.bitsStored = 12;
    auto pixels = fill<uint16_t>(w, h, 0);
    setRect<uint16_t>(pixels, w, w - 40, 0, 40, 40, 4031);
    setRect<uint16_t>(pixels, w, w - 40, 0, 10, 10, 63);
    setRect<uint16_t>(pixels, w, 5, 30, 10, 15, 2000);
    pixels[45 * w + 8] = 1; // at or below 1 with a first pixel of 0: background
    TestImage konica = makeImage(w, h, pixels, layout);
    EXPECT_EQ(cropOf(konica), "5\\30\\10\\15\\v1");

    // Just below the block the columns are searched again.
    pixels[40 * w + (w - 1)] = 900;
    TestImage below = makeImage(w, h, pixels, layout);
    EXPECT_EQ(cropOf(below), "5\\30\\55\\15\\v1");
    pixels[40 * w + (w - 1)] = 0;

    // Without the manufacturer the block is image, and so is the 1.
    layout.manufacturer = "ACME";
    TestImage other = makeImage(w, h, pixels, layout);
    EXPECT_EQ(cropOf(other), "5\\0\\55\\46\\v1");
}

TEST(CropBox, KonicaBlockWithOtherValuesIsNoMarkButFirstPixelZeroStillRaisesHigh)
{
    int const w = 41;
    int const h = 41;
    Layout layout;
    layout.manufacturer = "Konica";
    auto pixels = fill<uint8_t>(w, h, 0);
    setRect<uint8_t>(pixels, w, 1, 0, 40, 40, 63);
    pixels[2 * w + 30] = 64; // spoils the mark
    setRect<uint8_t>(pixels, w, 0, 40, 41, 1, 1);
    TestImage t = makeImage(w, h, pixels, layout);
    EXPECT_EQ(cropOf(t), "1\\0\\40\\40\\v1");

    // Once the block holds only 0 and 63 it is a mark, and with the 1s
    // below it as background nothing is left.
    pixels[2 * w + 30] = 0;
    TestImage mark = makeImage(w, h, pixels, layout);
    EXPECT_EQ(cropOf(mark), "0\\0\\41\\41\\v1");
}

TEST(CropBox, KonicaImageOfFortyColumnsNeverGetsTheCornerMark)
{
    int const w = 40;
    int const h = 50;
    Layout layout;
    layout.manufacturer = "KONICA";
    auto pixels = fill<uint8_t>(w, h, 0);
    setRect<uint8_t>(pixels, w, 0, 0, 40, 40, 63);
    pixels[0] = 0;
    pixels[45 * w + 20] = 1; // no check, so high stays 0
    TestImage t = makeImage(w, h, pixels, layout);
    EXPECT_EQ(cropOf(t), "0\\0\\40\\46\\v1");
}

TEST(CropBox, FujifilmBackgroundIsTheTwoCornerValuesOnly)
{
    int const w = 10;
    int const h = 8;
    Layout layout;
    layout.manufacturer = "FUJIFILM Corporation";
    auto pixels = fill<uint8_t>(w, h, 5);
    pixels[h * w - 1] = 9; // corners 5, 5, 5, 9
    pixels[3 * w + 2] = 9; // background
    pixels[2 * w + 4] = 7; // between the two: foreground
    pixels[6 * w + 6] = 6; // likewise
    TestImage fuji = makeImage(w, h, pixels, layout);
    EXPECT_EQ(cropOf(fuji), "4\\2\\3\\5\\v1");

    // A picture one pixel high has no corners to look at: the range rule
    // with the first pixel alone holds.
    std::vector<uint8_t> row = {5, 5, 7, 5, 9, 5};
    TestImage flat = makeImage(6, 1, row, layout);
    EXPECT_EQ(cropOf(flat), "2\\0\\3\\1\\v1");
}

TEST(CropBox, FujifilmCornersJoinTheHighSoFar)
{
    // Siemens widens high to 16 first; the corners 0, 0, 0, 3 then give the
    // pair (0, 16), and the 3 in between is image.
    Layout layout;
    layout.manufacturer = "SIEMENS FUJIFILM";
    auto pixels = fill<uint8_t>(6, 6, 0);
    pixels[35] = 3;
    pixels[7] = 16;
    pixels[8] = 10;
    TestImage t = makeImage(6, 6, pixels, layout);
    EXPECT_EQ(cropOf(t), "2\\1\\4\\5\\v1");
}

// ---- CropBox on real radiographs ----

TEST(CropBox, RealCrImagesGiveANonEmptyBoxInsideTheImage)
{
    MDX_REQUIRE_SAMPLES();
    int checked = 0;
    for (QString const& file : mdxtest::sampleFiles("pydicom/dicomdirtests")) {
        DcmFileFormat fileFormat;
        // Only files with a DICOM preamble: the folder holds a read-me too.
        if (fileFormat
                .loadFile(OFFilename(file.toLocal8Bit().constData()), EXS_Unknown, EGL_noChange,
                          DCM_MaxReadLength, ERM_fileOnly)
                .bad())
            continue;
        DcmDataset* dataset = fileFormat.getDataset();
        OFString modality;
        if (dataset->findAndGetOFString(DCM_Modality, modality).bad() || modality != "CR" ||
            !dataset->tagExists(DCM_PixelData))
            continue;
        SCOPED_TRACE(file.toStdString());
        DicomImage image(dataset, dataset->getOriginalXfer());
        ASSERT_EQ(image.getStatus(), EIS_Normal);
        std::unique_ptr<TagMap> map(TagMap::createTagMap(dataset, 1024));
        CropBox::process(&image, map.get());
        QByteArray text;
        ASSERT_TRUE(map->findAndGetString(CropBoxKey, CropBox::PrivateCreator, text));
        QList<QByteArray> const parts = text.split('\\');
        ASSERT_EQ(parts.size(), 5);
        EXPECT_EQ(parts[4], "v1");
        int const x = parts[0].toInt();
        int const y = parts[1].toInt();
        int const w = parts[2].toInt();
        int const h = parts[3].toInt();
        int const width = static_cast<int>(image.getWidth());
        int const height = static_cast<int>(image.getHeight());
        EXPECT_GE(x, 0);
        EXPECT_GE(y, 0);
        EXPECT_GT(w, 0);
        EXPECT_GT(h, 0);
        EXPECT_LE(x + w, width);
        EXPECT_LE(y + h, height);

        // The manufacturer has no rule of its own, so the box is that of the
        // pixels other than the first; recount on DCMTK's pixels.
        DiPixel const* pixel = image.getInterData();
        ASSERT_EQ(pixel->getRepresentation(), EPR_Uint16);
        auto const* data = static_cast<uint16_t const*>(pixel->getData());
        int minX = width, minY = height, maxX = -1, maxY = -1;
        for (int py = 0; py < height; ++py)
            for (int px = 0; px < width; ++px)
                if (data[py * width + px] != data[0]) {
                    minX = std::min(minX, px);
                    maxX = std::max(maxX, px);
                    minY = std::min(minY, py);
                    maxY = std::max(maxY, py);
                }
        ASSERT_GE(maxX, 0);
        EXPECT_EQ(x, minX);
        EXPECT_EQ(y, minY);
        EXPECT_EQ(w, maxX - minX + 1);
        EXPECT_EQ(h, maxY - minY + 1);
        ++checked;
    }
    EXPECT_EQ(checked, 3);
}

// ---- RescaleSlopeCalculator ----

TEST(RescaleSlopeCalculator, StartsUniformWithTheIdentity)
{
    RescaleSlopeCalculator calc(2);
    EXPECT_FALSE(calc.hasData());
    EXPECT_TRUE(calc.isUniform());
    EXPECT_EQ(calc.rescaleSlope(), 1.0f);
    EXPECT_EQ(calc.rescaleIntercept(), 0.0f);
    EXPECT_EQ(calc.precisionBitLoss(), 0.0f);
    EXPECT_EQ(calc.lowerLimit(), -FLT_MAX);
    EXPECT_EQ(calc.upperLimit(), FLT_MAX);
    EXPECT_EQ(calc.minValue(), FLT_MAX);
    EXPECT_EQ(calc.maxValue(), -FLT_MAX);
    EXPECT_EQ(calc.numClamped(), 0);
}

TEST(RescaleSlopeCalculator, ThreeEqualImagesStayUniform)
{
    RescaleSlopeCalculator calc(2);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(calc.add(2.0f, -100.0f, 12, false), 4095);
    EXPECT_TRUE(calc.hasData());
    EXPECT_TRUE(calc.isUniform());
    EXPECT_EQ(calc.rescaleSlope(), 2.0f);
    EXPECT_EQ(calc.rescaleIntercept(), -100.0f);
    EXPECT_EQ(calc.precisionBitLoss(), 0.0f);
    EXPECT_EQ(calc.minValue(), -100.0f);
    EXPECT_EQ(calc.maxValue(), 8090.0f);
}

TEST(RescaleSlopeCalculator, IdentityImageDoesNotWidenTheRange)
{
    RescaleSlopeCalculator calc(2);
    EXPECT_EQ(calc.add(1.0f, 0.0f, 12, false), 4095);
    EXPECT_EQ(calc.minValue(), FLT_MAX);
    EXPECT_EQ(calc.add(2.0f, 10.0f, 12, false), 4095);
    EXPECT_FALSE(calc.isUniform());
    EXPECT_EQ(calc.minValue(), 10.0f);
    EXPECT_EQ(calc.maxValue(), 8200.0f);
    EXPECT_FLOAT_EQ(calc.rescaleSlope(), 8190.0f / 65535.0f);
    EXPECT_EQ(calc.rescaleIntercept(), 10.0f);
    EXPECT_EQ(calc.minAbsSlope(), 1.0f);
    EXPECT_EQ(calc.precisionBitLoss(), 0.0f); // 0.125 is finer than 1
}

TEST(RescaleSlopeCalculator, SignedDataIsShiftedByTheOffset)
{
    RescaleSlopeCalculator calc(2);
    // 12-bit signed, -2048..2047, shifted by 32768 to 30720..34815.
    EXPECT_EQ(calc.add(1.0f, -1024.0f, 12, true), 34815);
    EXPECT_TRUE(calc.isUniform());
    EXPECT_EQ(calc.rescaleSlope(), 1.0f);
    EXPECT_EQ(calc.rescaleIntercept(), -1024.0f - 32768.0f);
    EXPECT_EQ(calc.minValue(), -3072.0f);
    EXPECT_EQ(calc.maxValue(), 1023.0f);

    // The same physical map once more keeps the stack uniform.
    calc.add(1.0f, -1024.0f, 12, true);
    EXPECT_TRUE(calc.isUniform());

    // Half the slope: -1024..1023.5 joins the range.
    EXPECT_EQ(calc.add(0.5f, 0.0f, 12, true), 34815);
    EXPECT_FALSE(calc.isUniform());
    EXPECT_EQ(calc.minValue(), -3072.0f);
    EXPECT_EQ(calc.maxValue(), 1023.5f);
    EXPECT_FLOAT_EQ(calc.rescaleSlope(), 4095.5f / 65535.0f);
    EXPECT_EQ(calc.rescaleIntercept(), -3072.0f);
    EXPECT_EQ(calc.minAbsSlope(), 0.5f);

    // One byte per voxel shifts by 128: 8-bit signed becomes 0..255.
    RescaleSlopeCalculator bytes(1);
    EXPECT_EQ(bytes.add(1.0f, 0.0f, 8, true), 255);
    EXPECT_EQ(bytes.rescaleIntercept(), -128.0f);
    EXPECT_EQ(bytes.add(1.0f, 0.0f, 7, true), 191);
    EXPECT_EQ(bytes.maxBits(), 8);
}

TEST(RescaleSlopeCalculator, ValuesPastTheLimitsAreClamped)
{
    RescaleSlopeCalculator calc(2);
    calc.setLimits(-1024.0f, 3071.0f);
    calc.add(1.0f, -1024.0f, 12, true); // -3072..1023
    EXPECT_EQ(calc.numClamped(), 1);
    EXPECT_EQ(calc.minValue(), -1024.0f);
    EXPECT_EQ(calc.maxValue(), 1023.0f);
    calc.add(2.0f, 0.0f, 12, false); // 0..8190
    EXPECT_EQ(calc.numClamped(), 2);
    EXPECT_EQ(calc.maxValue(), 3071.0f);
    EXPECT_FLOAT_EQ(calc.rescaleSlope(), 4095.0f / 65535.0f);
    EXPECT_EQ(calc.rescaleIntercept(), -1024.0f);

    // An identity image is not looked at, so it cannot be clamped.
    RescaleSlopeCalculator identity(2);
    identity.setLimits(0.0f, 10.0f);
    identity.add(1.0f, 0.0f, 16, false);
    EXPECT_EQ(identity.numClamped(), 0);
}

TEST(RescaleSlopeCalculator, PrecisionBitLossByHand)
{
    // Slopes 0.5 and 4 over 8 bits: range 0..1020, common slope 1020 / 255 = 4,
    // which is 8 times the finer slope: 3 bits.
    RescaleSlopeCalculator calc(1);
    calc.add(0.5f, 0.0f, 8, false);
    calc.add(4.0f, 0.0f, 8, false);
    EXPECT_FLOAT_EQ(calc.rescaleSlope(), 4.0f);
    EXPECT_FLOAT_EQ(calc.precisionBitLoss(), 3.0f);

    // log2(4 / 0.01) = 8.64 is capped at the 8 bits stored.
    RescaleSlopeCalculator capped(1);
    capped.add(0.01f, 0.0f, 8, false);
    capped.add(4.0f, 0.0f, 8, false);
    EXPECT_EQ(capped.precisionBitLoss(), 8.0f);

    // A zero slope counts as 1 for the first image and is skipped later.
    RescaleSlopeCalculator zero(1);
    zero.add(0.0f, 5.0f, 8, false);
    zero.add(2.0f, 0.0f, 8, false);
    zero.add(0.0f, 7.0f, 8, false);
    EXPECT_EQ(zero.minAbsSlope(), 1.0f);
    EXPECT_EQ(zero.minValue(), 0.0f);
    EXPECT_EQ(zero.maxValue(), 510.0f);
    EXPECT_FLOAT_EQ(zero.precisionBitLoss(), 1.0f); // log2(2 / 1)
}

// ---- Low-resolution level ----

TEST(LowRes, SizesOfTheListedVolumes)
{
    int lowDims[3];
    int steps[3];
    int const cube[3] = {512, 512, 512};
    EXPECT_TRUE(computeLowResSize(cube, lowDims, steps));
    EXPECT_EQ(std::vector<int>(steps, steps + 3), (std::vector<int>{2, 2, 2}));
    EXPECT_EQ(std::vector<int>(lowDims, lowDims + 3), (std::vector<int>{256, 256, 256}));

    int const tall[3] = {512, 512, 513};
    EXPECT_TRUE(computeLowResSize(tall, lowDims, steps));
    EXPECT_EQ(steps[2], 2);
    EXPECT_EQ(lowDims[2], 256);

    int const small[3] = {100, 100, 1};
    EXPECT_FALSE(computeLowResSize(small, lowDims, steps));
    EXPECT_EQ(std::vector<int>(steps, steps + 3), (std::vector<int>{1, 1, 1}));
    EXPECT_EQ(std::vector<int>(lowDims, lowDims + 3), (std::vector<int>{100, 100, 1}));

    // 1530 slices: 1530 / 3 = 510 is one above the limit of 509.
    int const large[3] = {1024, 768, 1530};
    EXPECT_TRUE(computeLowResSize(large, lowDims, steps));
    EXPECT_EQ(std::vector<int>(steps, steps + 3), (std::vector<int>{4, 3, 4}));
    EXPECT_EQ(std::vector<int>(lowDims, lowDims + 3), (std::vector<int>{256, 256, 382}));
}

TEST(LowRes, StepIsTheSmallestThatFits)
{
    for (int d = 1; d < 3000; d += 7) {
        int const dims[3] = {d, d, d};
        int lowDims[3];
        int steps[3];
        computeLowResSize(dims, lowDims, steps);
        for (int axis = 0; axis < 3; ++axis) {
            int const limit = axis < 2 || d < 513 ? 256 : 509;
            EXPECT_LE(d / steps[axis], limit) << d;
            EXPECT_EQ(lowDims[axis], d / steps[axis]) << d;
            if (steps[axis] > 1) {
                EXPECT_GT(d / (steps[axis] - 1), limit) << d;
            }
        }
    }
}

TEST(LowRes, BoxOfTheVoxelCentres)
{
    int const dims[3] = {512, 512, 1};
    int lowDims[3];
    int steps[3];
    ASSERT_TRUE(computeLowResSize(dims, lowDims, steps));
    // x: voxel 1, y: voxel 0.5, z: a single slice has no voxel size.
    McBox3f const box(0.0f, 511.0f, -10.0f, 245.5f, 5.0f, 5.0f);
    McBox3f low;
    computeLowResBox(dims, lowDims, steps, box, low);
    EXPECT_EQ(low, McBox3f(0.5f, 510.5f, -9.75f, 245.25f, 5.0f, 5.0f));

    // Unreduced axes keep the box; the output may be the input.
    int const same[3] = {100, 50, 20};
    ASSERT_FALSE(computeLowResSize(same, lowDims, steps));
    McBox3f inPlace(1.0f, 100.0f, 2.0f, 51.0f, -3.0f, 16.0f);
    computeLowResBox(same, lowDims, steps, inPlace, inPlace);
    EXPECT_EQ(inPlace, McBox3f(1.0f, 100.0f, 2.0f, 51.0f, -3.0f, 16.0f));
}
