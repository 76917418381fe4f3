// Volume records become volumes of their series: images found by SOP UID,
// volume numbers and per-image values on the images.
#include "support/TestSupport.h"

#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>
#include <mdxlib/volumes/VolumeInfo.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;
using Mdx::Volume;
using Mdx::VolumeInfo;

char const kStudy[] = "1.2.826.0.1.3680043.7.2";
char const kSeries[] = "1.2.826.0.1.3680043.7.2.1";
char const kCreator[] = "Lumora";

std::string imageUID(int i)
{
    return std::string(kSeries) + "." + std::to_string(i);
}

TagMap const* image(TagFile const& file, int i)
{
    return file.findImage(QByteArray::fromStdString(imageUID(i)));
}

// count images of one series; Instance Number i + 1 for image i unless given.
void addImages(TagFile& file, int count, std::vector<int> numbers = {})
{
    for (int i = 0; i < count; ++i) {
        std::string const number = std::to_string(numbers.empty() ? i + 1 : numbers[size_t(i)]);
        ASSERT_NE(
            mdxtest::addImage(file, kStudy, kSeries, imageUID(i), {{DCM_InstanceNumber, number.c_str()}}, 1),
            nullptr);
    }
}

// A record of the given images, then of the further UIDs.
VolumeInfo record(std::vector<int> const& images, std::vector<std::string> const& uids = {})
{
    VolumeInfo info;
    for (int i : images)
        info.imageUIDs.push_back(imageUID(i));
    info.imageUIDs.insert(info.imageUIDs.end(), uids.begin(), uids.end());
    info.fileName = "study-x.exm";
    info.dims = McVec3i(256, 256, static_cast<int>(info.imageUIDs.size()));
    return info;
}

void addRecords(TagFile& file, std::vector<VolumeInfo> records, bool keepFileName = true)
{
    std::vector<VolumeInfo*> pointers;
    for (VolumeInfo& info : records)
        pointers.push_back(&info);
    file.addVolumeInfo(pointers, keepFileName);
}

// The bytes of (0006,7103) an image shows, or "absent".
QByteArray indices(TagFile const& file, int i)
{
    Mdx::TagElement const* element = image(file, i)->findElement(Mdx::Tags::VolumeIndices);
    EXPECT_TRUE(!element || element->mVR == Mdx::VR_OB) << i;
    return element ? element->mValue : "absent";
}

std::vector<std::string> uidsOf(QVector<TagMap*> const& images)
{
    std::vector<std::string> result;
    QByteArray uid;
    for (TagMap const* node : images)
        result.push_back(node->findAndGetString(DCM_SOPInstanceUID, uid) ? uid.toStdString() : "");
    return result;
}

std::unique_ptr<TagFile> readBack(TagFile const& file)
{
    auto read = std::make_unique<TagFile>();
    EXPECT_TRUE(mdxtest::readTagFile(*read, mdxtest::tagFileBytes(file)));
    return read;
}

} // namespace

TEST(VolumeAssembly, everyFieldOfTheRecordArrives)
{
    TagFile file;
    addImages(file, 3, {30, 10, 20});

    VolumeInfo info = record({0, 1, 2});
    info.fileName = "study-abc_part007.exm";
    info.dims = McVec3i(512, 384, 3);
    info.boundingBox = McBox3f(-10, 10, -20, 20, 0, 7.5f);
    info.transformationMatrix.m[0][3] = 12.5f;
    info.previewData = "PREVIEW";
    info.histogram = {5, 0, 7, 1};
    info.suvBox = McBox3i(1, 2, 3, 4, 5, 6);
    std::tie(info.dataWindowScale, info.dataWindowBias, info.precisionLossBits, info.numLossyCompressedImages,
             info.numOverlayPlanes, info.paddingValue, info.hasPaddingValue, info.paddingRangeMax,
             info.hasPaddingRangeMax, info.dataMin, info.dataMax, info.dataLevels) =
        std::make_tuple(0.5f, -1024.0f, 1.5f, 2, 1, -2000, true, -1500, true, -1024, 3071, 0x81);
    addRecords(file, {info});
    file.createVolumes(); // left from an older way: changes nothing

    ASSERT_EQ(file.findSeries(kSeries)->volumes().size(), 1);
    Volume const* volume = file.findSeries(kSeries)->volumes()[0];
    EXPECT_EQ(std::make_tuple(volume->mIndex, volume->mDims, volume->mBoundingBox, volume->mSuvBox,
                              volume->mTransformationMatrix),
              std::make_tuple(-1, info.dims, info.boundingBox, info.suvBox, info.transformationMatrix));
    // Images sorted by Instance Number; slices in the order of the record.
    EXPECT_EQ(uidsOf(volume->mImages), (std::vector<std::string>{imageUID(1), imageUID(2), imageUID(0)}));
    EXPECT_EQ(volume->sopUIDList(), info.imageUIDs);
    EXPECT_FALSE(volume->isMultiFrame());
    EXPECT_EQ(
        std::make_tuple(volume->previewData(), volume->mFileNameSuffix, volume->mVolumeFileName),
        std::make_tuple(QByteArray("PREVIEW"), QByteArray("abc_7"), QByteArray("study-abc_part007.exm")));
    EXPECT_EQ(std::make_tuple(volume->mRescaleSlope, volume->mRescaleIntercept, volume->mPrecisionBitLoss,
                              volume->mNumLossyCompressedImages, int(volume->mNumOverlayPlanes),
                              volume->mPaddingValue, volume->mHasPaddingValue, volume->mPaddingRangeMax,
                              volume->mHasPaddingRangeMax, int(volume->mDataLevels)),
              std::make_tuple(0.5f, -1024.0f, 1.5f, 2u, 1, -2000, true, -1500, true, 0x81));
    EXPECT_EQ(volume->mHistogram, LmHistogram({5, 0, 7, 1}, -1024.0f, 3071.0f));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(indices(file, i), QByteArray(1, 0));
}

TEST(VolumeAssembly, unknownImagesAreLoggedAndLeftOutAndTheNumbersStayThoseOfTheRecords)
{
    TagFile file;
    addImages(file, 4);
    {
        mdxtest::LogCapture log;
        addRecords(file, {record({}, {"9.9.1"}), record({0, 1, 2, 3}, {"9.9.9"}), record({}, {"9.9.2"})},
                   false);
        ASSERT_EQ(log.messages.size(), 3u);
        EXPECT_EQ(
            log.messages[1],
            std::make_pair(2, std::string("[TagFile] 3D volume study-x.exm contains unknown image 9.9.9")));
    }
    ASSERT_EQ(file.findSeries(kSeries)->volumes().size(), 1);
    Volume const* volume = file.findSeries(kSeries)->volumes()[0];
    EXPECT_EQ(uidsOf(volume->mImages),
              (std::vector<std::string>{imageUID(0), imageUID(1), imageUID(2), imageUID(3)}));
    EXPECT_TRUE(volume->mVolumeFileName.isEmpty()); // not asked to keep it; the suffix is kept always
    EXPECT_EQ(volume->mFileNameSuffix, "x");
    // The last record found nothing, so the lists were not optimised.
    EXPECT_EQ(file.findSeries(kSeries)->ownElement(Mdx::Tags::VolumeIndices), nullptr);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(indices(file, i), QByteArray(1, 1));

    // On disk the volumes are in list order: read back, the volume behind the
    // skipped number has the series node in place of its images.
    std::unique_ptr<TagFile> const read = readBack(file);
    ASSERT_EQ(read->findSeries(kSeries)->volumes().size(), 1);
    EXPECT_EQ(indices(*read, 3), QByteArray(1, 1));
    EXPECT_EQ(read->findSeries(kSeries)->volumes()[0]->mImages, QVector<TagMap*>{read->findSeries(kSeries)});
}

TEST(VolumeAssembly, indicesAreOptimisedAfterwardsAndListEveryVolumeOfAnImage)
{
    TagFile file;
    addImages(file, 5);
    addRecords(file, {record({0, 1, 2, 3, 4})});
    TagMap const* series = file.findSeries(kSeries);
    ASSERT_NE(series->ownElement(Mdx::Tags::VolumeIndices), nullptr);
    EXPECT_EQ(series->ownElement(Mdx::Tags::VolumeIndices)->mValue, QByteArray(1, 0));
    EXPECT_EQ(image(file, 0)->ownElement(Mdx::Tags::VolumeIndices), nullptr);

    // A later call: each image gets its own, longer copy of the inherited list.
    addRecords(file, {record({0, 1}), record({2}), record({0, 3})});
    EXPECT_EQ(series->volumes().size(), 4);
    char const* const expected[] = {"000002", "0000", "0001", "0002", "00"};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(indices(file, i), QByteArray::fromHex(expected[i])) << i;
}

TEST(VolumeAssembly, numbersAboveAByteAreNotRecordedInAList)
{
    // A byte list can't take 256; a first 300 becomes a two-byte integer that nothing can join.
    TagFile file;
    addImages(file, 2);
    std::vector<VolumeInfo> records(302);
    records[0].imageUIDs = records[256].imageUIDs = {imageUID(0)};
    records[300].imageUIDs = records[301].imageUIDs = {imageUID(1)};
    addRecords(file, records);
    addRecords(file, {record({1})});
    EXPECT_EQ(file.findSeries(kSeries)->volumes().size(), 5);
    EXPECT_EQ(indices(file, 0), QByteArray(1, 0));
    Mdx::TagElement const* large = image(file, 1)->findElement(Mdx::Tags::VolumeIndices);
    ASSERT_NE(large, nullptr);
    EXPECT_EQ(std::make_tuple(large->mVR, large->valueAsInt(nullptr, 0), large->numFields()),
              std::make_tuple(Mdx::VR_US, 300, 1));
}

TEST(VolumeAssembly, perImageValuesAndMultiFrameVolumes)
{
    // Navigation numbers need ten floats, value ranges their flag; the
    // second volume is one of frames, its images sorted by Instance Number.
    TagFile file;
    addImages(file, 4, {4, 3, 2, 1});
    VolumeInfo nine = record({0, 1});
    nine.imageBoxAndCenter = std::vector<float>(9, 1.5f);
    nine.hasValueRange = true;
    float const range[6] = {-1024.0f, 3071.0f, 0.5f, 1.25f, 1e-7f, 123456789.0f};
    std::copy(range, range + 6, nine.valueRange);
    nine.previewData = "VOLUME PREVIEW";
    nine.transformationMatrix.m[2][3] = -40.0f;
    VolumeInfo ten = record({1, 2});
    ten.imageBoxAndCenter = {0.1f, 0.2f, 0.9f, 0.8f, 0.5f, 0.5f, 1, 2, 3, 4};
    ten.valueRange[0] = 5.0f;
    ten.fileName = "study-mip_part002.exm";
    ten.frameUIDs = {imageUID(1) + ".0", imageUID(1) + ".1", imageUID(2) + ".0", imageUID(2) + ".1",
                     imageUID(2) + ".2"};
    ten.dims.z = 5;
    addRecords(file, {nine, ten});
    Volume const* frames = file.findSeries(kSeries)->volumes().value(1);
    ASSERT_NE(frames, nullptr);
    EXPECT_TRUE(frames->isMultiFrame());
    EXPECT_EQ(frames->sopUIDList(), ten.frameUIDs);
    int frame = -1;
    EXPECT_EQ(frames->imageForSlice(4, frame), image(file, 2));
    EXPECT_EQ(frame, 2);

    auto value = [&](int i, int element, Mdx::VR vr) {
        Mdx::TagElement const* found =
            image(file, i)->findElementPrivate(DcmTagKey(0x0071, element), kCreator);
        EXPECT_TRUE(!found || found->mVR == vr) << i;
        return found ? found->mValue : QByteArray("absent");
    };
    for (int i : {0, 1}) {
        EXPECT_EQ(value(i, 0x75, Mdx::VR_DS), "3071\\-1024");
        EXPECT_EQ(value(i, 0x76, Mdx::VR_DS), "1.25\\0.5");
        EXPECT_EQ(value(i, 0x77, Mdx::VR_DS), "1.23457e+08\\1e-07");
        EXPECT_EQ(value(i + 1, 0x70, Mdx::VR_FL),
                  QByteArray(reinterpret_cast<char const*>(ten.imageBoxAndCenter.data()), 40));
    }
    EXPECT_EQ(value(0, 0x70, Mdx::VR_FL), "absent");
    EXPECT_EQ(value(2, 0x75, Mdx::VR_DS), "absent");
    EXPECT_EQ(indices(file, 3), "absent");

    // The slices of frames come back from the disk as they were.
    file.optimizeAll();
    std::unique_ptr<TagFile> const read = readBack(file);
    ASSERT_EQ(read->findSeries(kSeries)->volumes().size(), 2);
    EXPECT_EQ(read->findSeries(kSeries)->volumes()[1]->sopUIDList(), ten.frameUIDs);
    EXPECT_EQ(read->findSeries(kSeries)->volumes()[0]->volumeHash(),
              file.findSeries(kSeries)->volumes()[0]->volumeHash());
}
