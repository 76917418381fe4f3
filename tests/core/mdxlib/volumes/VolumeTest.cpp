// Volumes: slices, sorting, identity hashes, the wire block in each of its
// mapping kinds, and volumes attached to series.
#include "support/TestSupport.h"

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagMapSerializer.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>

#include <algorithm>
#include <memory>
#include <optional>
#include <tuple>

namespace {

using Mdx::TagMap;
using Mdx::Volume;

// Image nodes "1.1", "1.2", ... under one series node, with Instance Numbers
// as given (-1: none).
struct Series
{
    explicit Series(std::vector<int> const& numbers, std::vector<char const*> const& uids = {})
    {
        for (size_t i = 0; i < numbers.size(); ++i) {
            auto* image = new TagMap;
            image->putAndInsertValue(DCM_SOPInstanceUID, Mdx::VR_UI,
                                     i < uids.size() ? QByteArray(uids[i])
                                                     : "1." + QByteArray::number(int(i) + 1));
            if (numbers[i] >= 0)
                image->putAndInsertString(DCM_InstanceNumber, QByteArray::number(numbers[i]));
            image->mParent = &node;
            node.mChildren.append(image);
        }
    }
    QVector<TagMap*> images() const { return node.children().toVector(); }
    TagMap node;
};

// The block of volume with its length in front; kind gets the mapping kind.
QByteArray writeVolume(Volume const& volume, QList<QByteArray>& previews, int* kind = nullptr)
{
    LmMsg out;
    volume.serialize(out, previews);
    QByteArray const bytes(out.dataPtr(), static_cast<int>(out.size()));
    if (kind)
        *kind = static_cast<unsigned char>(bytes[2 + 12 + 24 + 64 + 4 + volume.mVolumeFileName.size()]);
    return bytes;
}

std::unique_ptr<Volume> readVolume(QByteArray const& bytes, QList<QByteArray> const& previews, int numImages,
                                   bool* fits = nullptr)
{
    LmMsg in(bytes.constData(), static_cast<size_t>(bytes.size()));
    int const length = TagMap::readLength(in);
    LmMsg block(in.readRawBytes(static_cast<size_t>(length)), static_cast<size_t>(length));
    auto volume = std::make_unique<Volume>(0);
    bool const ok = volume->deserialize(block, previews, numImages);
    if (fits)
        *fits = ok;
    EXPECT_FALSE(block.failed());
    return volume;
}

} // namespace

TEST(Volume, slicesFramesHashAndSortOrder)
{
    Series series({1, 2, 3});
    Volume single;
    single.setImages(series.images(), &series.node);
    single.setMultiFrameInfo({});
    EXPECT_FALSE(single.isMultiFrame());
    EXPECT_EQ(single.sopUIDList(), std::vector<std::string>({"1.1", "1.2", "1.3"}));
    // The hash is the MD5 of the slice texts run together, upper-case hex.
    EXPECT_EQ(single.volumeHash(),
              QCryptographicHash::hash("1.11.21.3", QCryptographicHash::Md5).toHex().toUpper());

    Volume multi;
    multi.setImages(series.images(), &series.node);
    multi.setMultiFrameInfo({"1.1.0", "1.1.1", "1.2.0", "1.3.0", "1.3.1"});
    EXPECT_TRUE(multi.isMultiFrame());
    EXPECT_NE(multi.volumeHash(), single.volumeHash());
    int frame = 0;
    EXPECT_EQ(multi.imageForSlice(4, frame), series.node.children()[2]);
    EXPECT_EQ(frame, 1);
    EXPECT_EQ(multi.imageForSlice(-1, frame), nullptr);
    EXPECT_EQ(frame, -1);
    EXPECT_EQ(multi.imageForSlice(9, frame), nullptr);
    // An unknown SOP instance gives slice index -1, skipped by list and hash.
    multi.setMultiFrameInfo({"1.1.0", "9.9.0", "1.2.0", "1.3.0"});
    EXPECT_EQ(multi.mMultiFrameInfo[1].imageIndex, -1);
    EXPECT_EQ(multi.sopUIDList().size(), 3u);

    // Images sort by Instance Number (absent: 0), then by UID text; slice i
    // is still the i-th image as given.
    Series shuffled({2, 2, -1, 1}, {"1.9", "1.5", "1.7", "1.1"});
    Volume volume;
    volume.mImages = shuffled.images();
    volume.setMultiFrameInfo({});
    std::vector<std::string> order;
    for (TagMap* image : qAsConst(volume.mImages))
        order.push_back(image->ownElement(DCM_SOPInstanceUID)->mValue.toStdString());
    EXPECT_EQ(order, std::vector<std::string>({"1.7", "1.1", "1.5", "1.9"}));
    EXPECT_EQ(volume.sopUIDList(), std::vector<std::string>({"1.9", "1.5", "1.7", "1.1"}));
    Volume bare; // its only image is the series
    bare.setImages({}, &series.node);
    EXPECT_EQ(bare.mImages, QVector<TagMap*>{&series.node});
}

TEST(Volume, fileNameSuffixAndDataLevels)
{
    std::pair<char const*, char const*> const names[] = {{"/data/study.exm", ""},
                                                         {"/data/x-y.z.exm", "y"},
                                                         {"/data/study-abc_part007.exm", "abc_7"},
                                                         {"x-_part000", "_"},
                                                         {"C:\\a-b\\study-raw", "raw"}};
    for (auto const& [name, suffix] : names)
        EXPECT_EQ(Volume::fileNameSuffix(name), suffix) << name;
    Volume volume;
    volume.mDataLevels = 0x01; // without the high bit the levels are unknown
    EXPECT_FALSE(volume.hasDataLevel(0).has_value());
    volume.mDataLevels = 0x81;
    EXPECT_EQ(
        std::make_tuple(volume.hasDataLevel(0), volume.hasDataLevel(1), volume.hasDataLevel(2)),
        std::make_tuple(std::optional<bool>(true), std::optional<bool>(false), std::optional<bool>(true)));
}

// Each mapping kind is chosen where it fits and reads back every slice. An
// unknown image (-1) travels in every kind, in 16 bits as 65535, which is
// why a real 65535 takes 32 bits. Images removed from a series since its
// volumes were written leave mappings beyond the images there are: reported
// (fits false), and kept, also in kinds 1 and 2.
TEST(VolumeWire, eachMappingKindIsChosenAndEveryIndexReadBack)
{
    struct Case
    {
        std::vector<std::pair<int, int>> slices; // (image, frame)
        int dimsZ, written, read, kind;
        bool fits;
    };
    std::vector<Case> const cases{
        {{{0, 0}, {1, 0}, {2, 0}, {3, 0}}, 4, 4, 4, 1, true},
        {{{3, 0}, {2, 0}, {1, 0}, {0, 0}}, 4, 4, 4, 2, true},
        {{{0, 0}, {2, 0}, {1, 0}, {3, 0}}, 4, 4, 4, 3, true},
        {{{0, 0}, {-1, 0}, {1, 0}, {3, 0}}, 4, 4, 4, 3, true},
        {{{0, 0}, {2, 0}, {1, 0}, {3, 0}}, 5, 4, 4, 4, true},
        {{{0, 0}, {-1, 1}, {1, 0}, {2, 0}, {3, 65535}}, 5, 4, 4, 5, true},
        {{{0, 0}, {0, 1}, {1, 0}, {2, 0}, {3, 65536}}, 5, 4, 4, 6, true},
        {{{0, 0}, {0, 1}, {65535, 0}, {2, 0}, {3, 1}}, 5, 4, 4, 6, false},
        {{{0, 0}, {0, 1}, {1, 0}, {-1, 0}, {3, 1}}, 9, 4, 4, 6, true},
        {{{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}}, 5, 5, 3, 1, false},
        {{{4, 0}, {3, 0}, {2, 0}, {1, 0}, {0, 0}}, 5, 5, 3, 2, false},
        {{{0, 0}, {2, 0}, {1, 0}, {4, 0}, {3, 0}}, 6, 5, 4, 4, true}, // index 4 == count passes
        {{{0, 0}, {2, 0}, {1, 0}, {4, 0}, {3, 0}}, 6, 5, 3, 4, false},
    };
    Series series({1, 2, 3, 4, 5});
    for (Case const& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases.data()));
        Volume volume(0);
        volume.mImages = series.images().mid(0, c.written);
        for (auto const& [image, frame] : c.slices)
            volume.mMultiFrameInfo.append(Volume::MultiFrameInfo{image, frame});
        volume.mDims = McVec3i(64, 64, c.dimsZ);
        volume.mVolumeFileName = "/vol/study-a.exm";
        QList<QByteArray> previews;
        int kind = 0;
        bool fits = !c.fits;
        auto read = readVolume(writeVolume(volume, previews, &kind), previews, c.read, &fits);
        EXPECT_EQ(kind, c.kind);
        EXPECT_EQ(fits, c.fits);
        EXPECT_EQ(std::make_pair(read->mDims, read->mVolumeFileName),
                  std::make_pair(volume.mDims, volume.mVolumeFileName));
        if (c.kind <= 4) // frames are not stored for one-image-a-slice kinds
            for (Volume::MultiFrameInfo& slice : volume.mMultiFrameInfo)
                slice.frame = 0;
        EXPECT_EQ(read->mMultiFrameInfo, volume.mMultiFrameInfo);
        // Slices of the images that are left still find them.
        read->setImages(series.images().mid(0, c.read), &series.node);
        auto const left = [&](std::pair<int, int> s) { return s.first >= 0 && s.first < c.read; };
        EXPECT_EQ(read->sopUIDList().size(), size_t(std::count_if(c.slices.begin(), c.slices.end(), left)));
        int frame = -1;
        int const last = int(c.slices.size()) - 1;
        EXPECT_EQ(read->imageForSlice(last, frame),
                  left(c.slices.back()) ? read->image(c.slices.back().first) : nullptr);
    }

    // A bare volume: kind 5, no payload.
    QList<QByteArray> previews;
    int kind = 0;
    auto read = readVolume(writeVolume(Volume(0), previews, &kind), previews, 0);
    EXPECT_EQ(kind, 5);
    EXPECT_TRUE(read->isBareVolume() && read->mMultiFrameInfo.isEmpty());
    // A dims.z that no series could have had builds no table.
    LmMsg block;
    block << McVec3i(1, 1, 0x7FFFFFFF) << McBox3f() << McMat4f() << QByteArray()
          << static_cast<unsigned char>(1);
    Volume volume;
    LmMsg in(block.dataPtr(), block.size());
    EXPECT_FALSE(volume.deserialize(in, {}, 10));
    EXPECT_TRUE(volume.mMultiFrameInfo.isEmpty());
}

TEST(VolumeWire, previewAndExtraDataRoundTrip)
{
    Volume volume(0);
    volume.mDims = McVec3i(4, 4, 0);
    volume.mBoundingBox = McBox3f(-1, 1, -2, 2, -3, 3);
    volume.mTransformationMatrix.m[0][3] = 12.5f;
    volume.mPreviewData = "JPEG";
    volume.mFileNameSuffix = "abc";
    std::tie(volume.mRescaleSlope, volume.mRescaleIntercept, volume.mPrecisionBitLoss,
             volume.mNumLossyCompressedImages, volume.mHasPaddingValue, volume.mPaddingValue,
             volume.mHasPaddingRangeMax, volume.mPaddingRangeMax, volume.mNumOverlayPlanes) =
        std::make_tuple(2.5f, -1024.f, 1.5f, 3u, true, 1234, true, 99, 2);
    volume.mHistogram = LmHistogram({1, 2, 3}, 10.4f, 2000.6f);
    volume.mSuvBox = McBox3i(1, 2, 3, 4, 5, 6);
    volume.mDataLevels = 0x83;
    auto fields = [](Volume const& v) {
        return std::make_tuple(v.mPreviewData, v.mBoundingBox, v.mTransformationMatrix, v.mFileNameSuffix,
                               v.mRescaleSlope, v.mRescaleIntercept, v.mPrecisionBitLoss,
                               v.mNumLossyCompressedImages, v.mPaddingValue, v.mPaddingRangeMax,
                               int(v.mNumOverlayPlanes), v.mSuvBox, int(v.mDataLevels));
    };

    QList<QByteArray> previews{"other"};
    QByteArray const bytes = writeVolume(volume, previews);
    EXPECT_EQ(previews.size(), 2);
    auto read = readVolume(bytes, previews, 0);
    EXPECT_EQ(fields(*read), fields(volume));
    // The histogram range is stored rounded to whole numbers.
    EXPECT_EQ(read->mHistogram, LmHistogram({1, 2, 3}, 10.f, 2001.f));

    // A block that ends right after the overlay count (an older writer)
    // still reads, and leaves the SUV box and data levels at defaults.
    QByteArray cut = bytes.mid(2);
    cut.chop(1 + 24 + 1); // SUV flag, box, data levels
    LmMsg out;
    Mdx::TagMapSerializer::writeLength(out, cut.size());
    out.writeRawBytes(cut.constData(), static_cast<size_t>(cut.size()));
    auto older = readVolume(QByteArray(out.dataPtr(), static_cast<int>(out.size())), previews, 0);
    EXPECT_EQ(std::make_tuple(int(older->mNumOverlayPlanes), older->mSuvBox, int(older->mDataLevels)),
              std::make_tuple(2, McBox3i(), 0));
    // Without a suffix no extra data is written.
    volume.mFileNameSuffix.clear();
    EXPECT_EQ(readVolume(writeVolume(volume, previews), previews, 0)->mRescaleSlope, 0.f);
}

TEST(SeriesVolumes, volumesAttachToTheirImagesThroughTheWire)
{
    Series series({1, 2, 3});
    // Images 0 and 1 in volume 0, image 2 in volumes 0 and 1, and a bogus 7.
    auto setIndices = [&] {
        series.node.children()[0]->putAndInsertInt(Mdx::Tags::VolumeIndices, 0);
        series.node.children()[1]->putAndInsertInt(Mdx::Tags::VolumeIndices, 0);
        series.node.children()[2]->putAndInsertValue(Mdx::Tags::VolumeIndices, Mdx::VR_OB,
                                                     QByteArray("\x00\x01\x07", 3));
    };
    setIndices();
    auto* full = new Volume(0);
    full->mDims = McVec3i(2, 2, 3);
    series.node.addBareVolume(full);
    full->setImages(series.images(), &series.node);
    full->setMultiFrameInfo({});
    series.node.addBareVolume(new Volume(1));

    QList<QByteArray> previews;
    LmMsg out;
    Mdx::TagMapSerializer().serializeVolumes(&series.node, out, previews);
    series.node.clearVolumes(); // also takes the indices off the images
    EXPECT_TRUE(series.node.volumes().isEmpty());
    EXPECT_EQ(series.node.children()[0]->ownElement(Mdx::Tags::VolumeIndices), nullptr);

    setIndices();
    LmMsg in(out.dataPtr(), out.size());
    int const length = TagMap::readLength(in);
    LmMsg list(in.readRawBytes(static_cast<size_t>(length)), static_cast<size_t>(length));
    series.node.deserializeVolumes(list, previews);
    ASSERT_EQ(series.node.volumes().size(), 2);
    EXPECT_EQ(series.node.volumes()[0]->sopUIDList(), std::vector<std::string>({"1.1", "1.2", "1.3"}));
    EXPECT_EQ(series.node.volumes()[1]->mImages, QVector<TagMap*>{series.node.children()[2]});
}

TEST(SeriesVolumes, studyPreviewComesFromTheLargestVolumeWithAPreview)
{
    Mdx::TagFile file;
    for (char const* sop : {"1.2.3.1", "1.2.3.2", "1.2.3.3"})
        mdxtest::addImage(file, "1.2", "1.2.3", sop);
    TagMap* series = file.findSeries("1.2.3");
    auto* small = new Volume(0);
    series->addBareVolume(small);
    small->mPreviewData = "small";
    auto* large = new Volume(1);
    series->addBareVolume(large);
    large->setImages(series->children().toVector(), series);
    large->setMultiFrameInfo({});
    large->mPreviewData = "large";

    TagMap* image = nullptr;
    EXPECT_EQ(file.study()->findPreviewData(&image), "large");
    EXPECT_EQ(image, file.findImage("1.2.3.2")); // the middle slice
    large->clearPreview();
    EXPECT_EQ(file.study()->findPreviewData(&image), "small");
    EXPECT_EQ(image, series); // a bare volume's only image is its series
}

TEST(SeriesVolumes, duplicateCopiesAVolumeWithNewImageIdentities)
{
    Mdx::TagFile file;
    for (char const* sop : {"1.2.3.1", "1.2.3.2"})
        mdxtest::addImage(file, "1.2", "1.2.3", sop, {{DCM_RescaleSlope, "2"}});
    mdxtest::addImage(file, "1.2", "1.2.9", "1.2.9.1", {{DCM_SeriesNumber, "9"}});
    TagMap* series = file.findSeries("1.2.3");
    auto* volume = new Volume(0);
    series->addBareVolume(volume);
    volume->setImages(series->children().toVector(), series);
    volume->setMultiFrameInfo({});
    volume->mDims = McVec3i(512, 512, 2);
    volume->mPreviewData = "not copied";
    EXPECT_FLOAT_EQ(volume->rescaleSlope(), 2.f);

    TagMap* target = file.findSeries("1.2.9");
    Volume* copy = volume->duplicate(file, *target);
    EXPECT_EQ(std::make_tuple(copy->mIndex, copy->mDims, copy->hasPreview(), copy->mImages.size()),
              std::make_tuple(1, volume->mDims, false, 2));
    EXPECT_EQ(file.images().size(), 5);
    for (TagMap* image : qAsConst(copy->mImages)) {
        QByteArray uid, number;
        int index = -1;
        EXPECT_TRUE(image->findAndGetString(DCM_SOPInstanceUID, uid) && uid.startsWith("2.25."));
        EXPECT_EQ(image->parent(), target);
        EXPECT_TRUE(image->findAndGetString(DCM_SeriesNumber, number) && number == "9");
        EXPECT_TRUE(image->findAndGetInt(Mdx::Tags::VolumeIndices, index) && index == 1);
    }
}
