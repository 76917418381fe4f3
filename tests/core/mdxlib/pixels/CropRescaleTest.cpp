// The crop box of projection radiographs, the common rescale of a stack of
// images and the low-resolution level of a volume.
#include "support/TagLayer.h"

#include <mdxlib/pixels/CropBox.h>
#include <mdxlib/pixels/Rescale.h>
#include <mdxlib/platform/McBox3f.h>

#include "dcmtk/dcmimgle/dcmimage.h"
#include "dcmtk/dcmimgle/dipixel.h"
#include "dcmtk/oflog/oflog.h"

#include <array>
#include <cfloat>

using namespace Mdx;

namespace {

// value over w x h pixels from (x, y).
struct Rect
{
    int x, y, value, w = 1, h = 1;
};

// Pixels as allocated and stored: 8 bits, 8 signed, 12 of 16, 16 signed.
constexpr int U8 = 0, S8 = 1, U12 = 2, S16 = 3;

struct Image
{
    char const* manufacturer;
    int width, height, background;
    std::vector<Rect> rects;
    int layout = U8;
    char const *modality = "CR", *photometric = "MONOCHROME2";
};

// The tag map of the image after CropBox has processed it.
std::unique_ptr<TagMap> cropped(Image const& source)
{
    bool const wide = source.layout == U12 || source.layout == S16;
    int const samples = std::string(source.photometric) == "RGB" ? 3 : 1;
    std::vector<int> values(static_cast<size_t>(source.width * source.height * samples), source.background);
    for (Rect const& r : source.rects)
        for (int y = r.y; y < r.y + r.h; ++y)
            std::fill_n(values.begin() + y * source.width + r.x, r.w, r.value);
    DcmDataset dataset;
    dataset.putAndInsertString(DCM_Modality, source.modality);
    dataset.putAndInsertString(DCM_Manufacturer, source.manufacturer);
    dataset.putAndInsertString(DCM_PhotometricInterpretation, source.photometric);
    int const allocated = wide ? 16 : 8, stored = source.layout == U12 ? 12 : allocated;
    for (auto const& [key, value] : std::vector<std::pair<DcmTagKey, int>>{
             {DCM_SamplesPerPixel, samples},
             {DCM_PlanarConfiguration, 0},
             {DCM_Rows, source.height},
             {DCM_Columns, source.width},
             {DCM_BitsAllocated, allocated},
             {DCM_BitsStored, stored},
             {DCM_HighBit, stored - 1},
             {DCM_PixelRepresentation, source.layout == S8 || source.layout == S16}})
        dataset.putAndInsertUint16(key, static_cast<Uint16>(value));
    std::vector<Uint16> const words(values.begin(), values.end());
    std::vector<Uint8> const bytes(values.begin(), values.end());
    if (wide)
        dataset.putAndInsertUint16Array(DCM_PixelData, words.data(), words.size());
    else
        dataset.putAndInsertUint8Array(DCM_PixelData, bytes.data(), bytes.size());
    DicomImage image(&dataset, EXS_LittleEndianExplicit);
    if (samples == 1) {
        EP_Representation const representation[] = {EPR_Uint8, EPR_Sint8, EPR_Uint16, EPR_Sint16};
        EXPECT_EQ(image.getStatus(), EIS_Normal);
        EXPECT_EQ(image.getInterData()->getRepresentation(), representation[source.layout]);
    }
    std::unique_ptr<TagMap> map(TagMap::createTagMap(&dataset, 1024));
    CropBox::process(&image, map.get());
    return map;
}

std::string boxOf(TagMap const& map)
{
    QByteArray box;
    map.findAndGetString(DcmTagKey(0x0071, 0x0074), CropBox::PrivateCreator, box);
    return box.isEmpty() ? "none" : box.toStdString();
}

} // namespace

TEST(CropBox, BoxOfWhatIsNotBackgroundByManufacturerAndLayout)
{
    std::vector<Rect> const dot = {{1, 1, 50}}, siemens = {{0, 1, 16, 20, 4}, {4, 10, 17}, {9, 12, 200}};
    std::vector<Rect> const konica = {
        {20, 0, 4031, 40, 40}, {20, 0, 63, 10, 10}, {5, 30, 2000, 10, 15}, {8, 45, 1}, {8, 46, 2}};
    std::vector<Rect> const konicaBelow = {konica[0], konica[1], konica[2], konica[3], {59, 40, 900}};
    std::vector<Rect> const spoiled = {{1, 0, 63, 40, 40}, {30, 2, 64}, {0, 40, 1, 41, 1}};
    // clang-format off
    std::pair<Image, char const*> const cases[] = {
        // Modalities, photometrics and pixel layouts; no foreground gives the whole image.
        {{"ACME", 20, 10, 0, {}}, "0\\0\\20\\10\\v1"}, {{"ACME", 8, 8, 0, dot, U8, "MR"}, "none"},
        {{"ACME", 8, 8, 0, dot, U8, " DX"}, "1\\1\\1\\1\\v1"}, // read trimmed
        {{"ACME", 8, 8, 0, dot, U8, "CR", "MONOCHROME1"}, "1\\1\\1\\1\\v1"},
        {{"ACME", 8, 8, 0, dot, U8, "CR", "RGB"}, "none"}, {{"ACME", 8, 8, -100, {{2, 1, 100}}, S8}, "none"},
        {{"ACME", 40, 30, 4000, {{10, 20, 300, 25, 3}}, U12}, "10\\20\\25\\3\\v1"},
        {{"ACME", 20, 20, -1000, {{3, 4, -500}, {17, 15, 1000}}, S16}, "3\\4\\15\\12\\v1"}, // as bit patterns
        // With a first pixel of 0, Siemens' 0..16 are background.
        {{"Siemens Healthineers", 20, 20, 0, siemens}, "4\\10\\6\\3\\v1"},
        {{"ACME", 20, 20, 0, siemens}, "0\\1\\20\\12\\v1"}, {{"SIEMENS", 20, 20, 5, {{3, 7, 6}}}, "3\\7\\1\\1\\v1"},
        // Konica: a top right block of only 0, 63 and 4031 is a mark left out
        // of the search; a first pixel of 0 makes 0..1 background.
        {{"KONICA MINOLTA", 60, 50, 0, konica, U12}, "5\\30\\10\\17\\v1"},
        {{"KONICA MINOLTA", 60, 50, 0, konicaBelow, U12}, "5\\30\\55\\15\\v1"},
        {{"ACME", 60, 50, 0, konica, U12}, "5\\0\\55\\47\\v1"}, {{"Konica", 41, 41, 0, spoiled}, "1\\0\\40\\40\\v1"},
        {{"KONICA", 40, 50, 0, {{0, 0, 63, 40, 40}, {0, 0, 0}, {20, 45, 1}}}, "0\\0\\40\\46\\v1"}, // no room
        // Fujifilm: background is the lowest and highest corner value only.
        {{"FUJIFILM Corporation", 10, 8, 5, {{0, 7, 9}, {2, 3, 9}, {4, 2, 7}, {6, 6, 6}}}, "4\\2\\3\\5\\v1"},
        {{"Fujifilm", 6, 1, 5, {{2, 0, 7}, {4, 0, 9}, {5, 0, 6}}}, "2\\0\\4\\1\\v1"}, // no corners
        {{"SIEMENS FUJIFILM", 6, 6, 0, {{5, 5, 3}, {1, 1, 16}, {2, 1, 10}}}, "2\\1\\4\\5\\v1"}};
    // clang-format on
    // DCMTK complains about the colour image, which no colour support reads.
    OFLogger imageLog = OFLog::getLogger("dcmtk.dcmimgle");
    dcmtk::log4cplus::LogLevel const level = imageLog.getLogLevel();
    imageLog.setLogLevel(OFLogger::FATAL_LOG_LEVEL);
    for (auto const& [image, box] : cases)
        EXPECT_EQ(boxOf(*cropped(image)), box) << image.manufacturer << " " << image.width;
    imageLog.setLogLevel(level);
}

TEST(RescaleSlopeCalculator, CommonSlopeRangeClampsAndBitLoss)
{
    // clang-format off
    // Slope, intercept, bits stored, signed, and what add returns: the largest value stored, shifted.
    using Add = std::tuple<float, float, int, bool, int>;
    struct Input { int bytesPerVoxel; std::vector<Add> adds; float lower = -FLT_MAX, upper = FLT_MAX; };
    // Slope, intercept, min, max, min |slope|, bits lost, max bits, clamped, uniform.
    using Expected = std::tuple<float, float, float, float, float, float, int, int, bool>;
    float const M = FLT_MAX;
    Add const ct = {1.0f, -1024.0f, 12, true, 34815}; // -2048..2047 shifted by 32768
    std::pair<Input, Expected> const cases[] = {
        {{2, {}}, {1, 0, M, -M, 0, 0, 0, 0, true}},
        {{2, {{2, -100, 12, false, 4095}, {2, -100, 12, false, 4095}}}, {2, -100, -100, 8090, 2, 0, 12, 0, true}},
        // An identity image says nothing about the range.
        {{2, {{1, 0, 12, false, 4095}, {2, 10, 12, false, 4095}}}, {8190.0f / 65535, 10, 10, 8200, 1, 0, 12, 0, false}},
        {{2, {ct, ct}}, {1, -1024 - 32768, -3072, 1023, 1, 0, 12, 0, true}},
        {{2, {ct, ct, {0.5f, 0, 12, true, 34815}}}, {4095.5f / 65535, -3072, -3072, 1023.5f, 0.5f, 0, 12, 0, false}},
        // One byte per voxel shifts by 128.
        {{1, {{1, 0, 8, true, 255}, {1, 0, 7, true, 191}}}, {1, -128, M, -M, 1, 0, 8, 0, true}},
        {{2, {ct, {2, 0, 12, false, 4095}}, -1024, 3071}, {4095.0f / 65535, -1024, -1024, 3071, 1, 0, 12, 2, false}},
        // Common slope 1020 / 255 = 4, eight times the finer 0.5: 3 bits.
        {{1, {{0.5f, 0, 8, false, 255}, {4, 0, 8, false, 255}}}, {4, 0, 0, 1020, 0.5f, 3, 8, 0, false}},
        // log2(1.99 / 0.001) is capped at the most bits stored.
        {{1, {{0.001f, 0, 8, false, 255}, {4, 0, 7, false, 127}}}, {508.0f / 255, 0, 0, 508, 0.001f, 8, 8, 0, false}},
        // A zero slope counts as 1 for the first image and is skipped later.
        {{1, {{0, 5, 8, false, 255}, {2, 0, 8, false, 255}, {0, 7, 8, false, 255}}}, {2, 0, 0, 510, 1, 1, 8, 0, false}}};
    // clang-format on
    for (auto const& c : cases) {
        auto const& [in, expected] = c;
        SCOPED_TRACE(&c - cases);
        RescaleSlopeCalculator calc(in.bytesPerVoxel);
        if (in.lower != -M || in.upper != M)
            calc.setLimits(in.lower, in.upper);
        for (auto const& [slope, intercept, bits, isSigned, stored] : in.adds)
            EXPECT_EQ(calc.add(slope, intercept, bits, isSigned), stored);
        EXPECT_EQ(calc.hasData(), !in.adds.empty());
        EXPECT_EQ(std::make_pair(calc.lowerLimit(), calc.upperLimit()), std::make_pair(in.lower, in.upper));
        EXPECT_EQ(std::make_tuple(calc.rescaleSlope(), calc.rescaleIntercept(), calc.minValue(),
                                  calc.maxValue(), calc.minAbsSlope(), calc.precisionBitLoss(),
                                  calc.maxBits(), calc.numClamped(), calc.isUniform()),
                  expected);
    }
}

TEST(LowRes, SizesAndBoxesOfTheListedVolumes)
{
    // clang-format off
    using Dims = std::array<int, 3>;
    struct Case { Dims sizes[3]; McBox3f boxes[2]; }; // dims, steps, reduced dims; box of the voxel centres, reduced
    Case const cases[] = {
        {{{512, 512, 512}, {2, 2, 2}, {256, 256, 256}}, {{0, 511, 0, 511, 0, 511}, {0.5f, 510.5f, 0.5f, 510.5f, 0.5f, 510.5f}}},
        {{{512, 512, 513}, {2, 2, 2}, {256, 256, 256}}, {{0, 511, 0, 511, 0, 512}, {0.5f, 510.5f, 0.5f, 510.5f, 0.5f, 510.5f}}},
        // x: voxel 1, y: voxel 0.5, z: a single slice has no voxel size.
        {{{512, 512, 1}, {2, 2, 1}, {256, 256, 1}}, {{0, 511, -10, 245.5f, 5, 5}, {0.5f, 510.5f, -9.75f, 245.25f, 5, 5}}},
        {{{100, 50, 20}, {1, 1, 1}, {100, 50, 20}}, {{1, 100, 2, 51, -3, 16}, {1, 100, 2, 51, -3, 16}}},
        // 1530 / 3 = 510 is one above the limit of 509.
        {{{1024, 768, 1530}, {4, 3, 4}, {256, 256, 382}}, {{0, 1023, 0, 767, 0, 1529}, {1.5f, 1021.5f, 1, 766, 1.5f, 1525.5f}}}};
    // clang-format on
    for (Case const& c : cases) {
        Dims steps, lowDims;
        EXPECT_EQ(computeLowResSize(c.sizes[0].data(), lowDims.data(), steps.data()),
                  (c.sizes[1] != Dims{1, 1, 1}));
        EXPECT_EQ(steps, c.sizes[1]);
        EXPECT_EQ(lowDims, c.sizes[2]);
        McBox3f low, inPlace = c.boxes[0]; // the output may be the input
        computeLowResBox(c.sizes[0].data(), lowDims.data(), steps.data(), c.boxes[0], low);
        computeLowResBox(c.sizes[0].data(), lowDims.data(), steps.data(), inPlace, inPlace);
        EXPECT_EQ(low, c.boxes[1]);
        EXPECT_EQ(inPlace, c.boxes[1]);
    }
}
