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

namespace {

using Mdx::TagMap;
using Mdx::Volume;

// Image nodes under one series node, each with a SOP UID and optionally an
// Instance Number.
struct Series
{
    explicit Series(std::vector<std::pair<char const*, int>> const& images)
    {
        node.putAndInsertValue(DCM_SeriesInstanceUID, Mdx::VR_UI, "1.2.3");
        for (auto const& [uid, number] : images) {
            auto* image = new TagMap;
            image->putAndInsertValue(DCM_SOPInstanceUID, Mdx::VR_UI, uid);
            if (number >= 0)
                image->putAndInsertString(DCM_InstanceNumber, QByteArray::number(number));
            image->mParent = &node;
            node.mChildren.append(image);
        }
    }
    QVector<TagMap*> images() const { return node.children().toVector(); }
    TagMap node;
};

QByteArray uidOf(TagMap const* map)
{
    QByteArray uid;
    map->findAndGetString(DCM_SOPInstanceUID, uid);
    return uid;
}

// Writes volume, returns the block (with its length in front) and the
// mapping kind byte.
QByteArray writeVolume(Volume const& volume, QList<QByteArray>& previews, int* kind = nullptr)
{
    LmMsg out;
    volume.serialize(out, previews);
    QByteArray const bytes(out.dataPtr(), static_cast<int>(out.size()));
    if (kind) {
        int const offset = 2 + 12 + 24 + 64 + 4 + volume.mVolumeFileName.size();
        *kind = static_cast<unsigned char>(bytes[offset]);
    }
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

TEST(Volume, slicesAndFramesOfSingleAndMultiFrameImages)
{
    Series series({{"1.1", 1}, {"1.2", 2}, {"1.3", 3}});
    Volume single;
    single.setImages(series.images(), &series.node);
    single.setMultiFrameInfo({});
    EXPECT_FALSE(single.isMultiFrame());
    EXPECT_EQ(single.sopUIDList(), std::vector<std::string>({"1.1", "1.2", "1.3"}));

    Volume multi;
    multi.setImages(series.images(), &series.node);
    multi.setMultiFrameInfo({"1.1.0", "1.1.1", "1.2.0", "1.3.0", "1.3.1"});
    EXPECT_TRUE(multi.isMultiFrame());
    EXPECT_EQ(multi.sopUIDList(), std::vector<std::string>({"1.1.0", "1.1.1", "1.2.0", "1.3.0", "1.3.1"}));
    int frame = 0;
    EXPECT_EQ(multi.imageForSlice(4, frame), series.node.children()[2]);
    EXPECT_EQ(frame, 1);
    EXPECT_EQ(multi.imageForSlice(-1, frame), nullptr);
    EXPECT_EQ(frame, -1);
    EXPECT_EQ(multi.imageForSlice(9, frame), nullptr);

    // The hash is the MD5 of the slice texts run together, upper-case hex.
    QByteArray const expected =
        QCryptographicHash::hash("1.11.21.3", QCryptographicHash::Md5).toHex().toUpper();
    EXPECT_EQ(single.volumeHash(), expected);
    EXPECT_NE(multi.volumeHash(), single.volumeHash());

    // An unknown SOP instance gives slice index -1, skipped by list and hash.
    Volume partial;
    partial.setImages(series.images(), &series.node);
    partial.setMultiFrameInfo({"1.1.0", "9.9.0", "1.2.0", "1.3.0"});
    EXPECT_EQ(partial.mMultiFrameInfo[1].imageIndex, -1);
    EXPECT_EQ(partial.sopUIDList().size(), 3u);
}

TEST(Volume, imagesSortByInstanceNumberThenUIDAndSlicesKeepTheGivenOrder)
{
    // Absent Instance Number sorts as 0; ties go by UID text.
    Series series({{"1.9", 2}, {"1.5", 2}, {"1.7", -1}, {"1.1", 1}});
    Volume volume;
    volume.mImages = series.images();
    volume.setMultiFrameInfo({});
    QList<QByteArray> order;
    for (TagMap* image : qAsConst(volume.mImages))
        order.append(uidOf(image));
    EXPECT_EQ(order, QList<QByteArray>({"1.7", "1.1", "1.5", "1.9"}));
    // Slice i is still the i-th image as given.
    EXPECT_EQ(volume.sopUIDList(), std::vector<std::string>({"1.9", "1.5", "1.7", "1.1"}));

    Volume bare;
    bare.setImages({}, &series.node);
    ASSERT_EQ(bare.mImages.size(), 1);
    EXPECT_EQ(bare.mImages[0], &series.node);
}

TEST(Volume, fileNameSuffixAndDataLevels)
{
    EXPECT_EQ(Volume::fileNameSuffix("/data/study.exm"), "");
    EXPECT_EQ(Volume::fileNameSuffix("/data/x-y.z.exm"), "y");
    EXPECT_EQ(Volume::fileNameSuffix("/data/study-abc_part007.exm"), "abc_7");
    EXPECT_EQ(Volume::fileNameSuffix("x-_part000"), "_");
    EXPECT_EQ(Volume::fileNameSuffix("C:\\a-b\\study-raw"), "raw");

    Volume volume;
    volume.mDataLevels = 0x01;
    EXPECT_FALSE(volume.hasDataLevel(0).has_value());
    volume.mDataLevels = 0x81;
    EXPECT_EQ(volume.hasDataLevel(0), true);
    EXPECT_EQ(volume.hasDataLevel(1), false);
    EXPECT_EQ(volume.hasDataLevel(2), true);
}

// (image, frame) pairs as slices.
QVector<Volume::MultiFrameInfo> slicesOf(std::vector<std::pair<int, int>> const& pairs)
{
    QVector<Volume::MultiFrameInfo> slices;
    for (auto const& [image, frame] : pairs)
        slices.append(Volume::MultiFrameInfo{image, frame});
    return slices;
}

TEST(VolumeWire, eachMappingKindIsChosenAndEveryIndexReadBack)
{
    Series series({{"1.1", 1}, {"1.2", 2}, {"1.3", 3}, {"1.4", 4}});
    struct Case
    {
        std::vector<std::pair<int, int>> slices; // (image, frame)
        int dimsZ;
        int kind;
    };
    // An unknown image (-1, as setMultiFrameInfo gives it) travels in every
    // kind; in 16 bits as 65535, which is why a real 65535 takes 32 bits.
    std::vector<Case> const cases{
        {{{0, 0}, {1, 0}, {2, 0}, {3, 0}}, 4, 1},
        {{{3, 0}, {2, 0}, {1, 0}, {0, 0}}, 4, 2},
        {{{0, 0}, {2, 0}, {1, 0}, {3, 0}}, 4, 3},
        {{{0, 0}, {-1, 0}, {1, 0}, {3, 0}}, 4, 3},
        {{{0, 0}, {2, 0}, {1, 0}, {3, 0}}, 5, 4},
        {{{0, 0}, {0, 1}, {1, 0}, {2, 0}, {3, 7}}, 5, 5},
        {{{0, 0}, {-1, 1}, {1, 0}, {2, 0}, {3, 65535}}, 5, 5},
        {{{0, 0}, {0, 1}, {1, 0}, {2, 0}, {3, 65536}}, 5, 6},
        {{{0, 0}, {0, 1}, {65535, 0}, {2, 0}, {3, 1}}, 5, 6},
        {{{0, 0}, {0, 1}, {1, 0}, {-1, 0}, {3, 1}}, 9, 6},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases.data()));
        Volume volume(0);
        volume.mImages = series.images();
        volume.mMultiFrameInfo = slicesOf(c.slices);
        volume.mDims = McVec3i(64, 64, c.dimsZ);
        volume.mVolumeFileName = "/vol/study-a.exm";
        QList<QByteArray> previews;
        int kind = 0;
        QByteArray const bytes = writeVolume(volume, previews, &kind);
        EXPECT_EQ(kind, c.kind);
        bool fits = false;
        auto read = readVolume(bytes, previews, 4, &fits);
        EXPECT_EQ(fits, std::all_of(c.slices.begin(), c.slices.end(), [](auto s) { return s.first <= 4; }));
        EXPECT_EQ(read->mDims, volume.mDims);
        EXPECT_EQ(read->mVolumeFileName, volume.mVolumeFileName);
        if (c.kind <= 4) // frames are not stored for one-image-a-slice kinds
            for (Volume::MultiFrameInfo& slice : volume.mMultiFrameInfo)
                slice.frame = 0;
        EXPECT_EQ(read->mMultiFrameInfo, volume.mMultiFrameInfo);
    }

    // A bare volume: kind 5, no payload.
    Volume bare(0);
    QList<QByteArray> previews;
    int kind = 0;
    auto read = readVolume(writeVolume(bare, previews, &kind), previews, 0);
    EXPECT_EQ(kind, 5);
    EXPECT_TRUE(read->isBareVolume());
    EXPECT_TRUE(read->mMultiFrameInfo.isEmpty());
}

// Images removed from a series since its volumes were written leave
// mappings that name more images than there are: reported, and kept.
TEST(VolumeWire, aMappingBeyondTheSeriesIsReportedAndKept)
{
    Series series({{"1.1", 1}, {"1.2", 2}, {"1.3", 3}, {"1.4", 4}, {"1.5", 5}});
    struct Case
    {
        std::vector<std::pair<int, int>> slices;
        int dimsZ;
        int numImages;
        bool fits;
    };
    std::vector<Case> const cases{
        {{{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}}, 5, 3, false}, // kind 1
        {{{4, 0}, {3, 0}, {2, 0}, {1, 0}, {0, 0}}, 5, 3, false}, // kind 2
        {{{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}}, 5, 5, true},
        {{{0, 0}, {2, 0}, {1, 0}, {4, 0}, {3, 0}}, 6, 4, true}, // kind 4: index 4 == count passes
        {{{0, 0}, {2, 0}, {1, 0}, {4, 0}, {3, 0}}, 6, 3, false},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases.data()));
        Volume volume(0);
        volume.mImages = series.images();
        volume.mMultiFrameInfo = slicesOf(c.slices);
        volume.mDims = McVec3i(8, 8, c.dimsZ);
        QList<QByteArray> previews;
        bool fits = !c.fits;
        auto read = readVolume(writeVolume(volume, previews), previews, c.numImages, &fits);
        EXPECT_EQ(fits, c.fits);
        EXPECT_EQ(read->mMultiFrameInfo, volume.mMultiFrameInfo);
        // Slices of the images that are left still find them.
        read->setImages(series.images().mid(0, c.numImages), &series.node);
        EXPECT_EQ(read->sopUIDList().size(),
                  static_cast<size_t>(std::count_if(c.slices.begin(), c.slices.end(),
                                                    [&](auto s) { return s.first < c.numImages; })));
        int frame = -1;
        EXPECT_EQ(read->imageForSlice(4, frame), read->image(c.slices[4].first));
    }

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
    volume.mRescaleSlope = 2.5f;
    volume.mRescaleIntercept = -1024.f;
    volume.mPrecisionBitLoss = 1.5f;
    volume.mNumLossyCompressedImages = 3;
    volume.mHasPaddingValue = true;
    volume.mPaddingValue = 1234;
    volume.mHasPaddingRangeMax = true;
    volume.mPaddingRangeMax = 99;
    volume.mHistogram = LmHistogram({1, 2, 3}, 10.4f, 2000.6f);
    volume.mNumOverlayPlanes = 2;
    volume.mSuvBox = McBox3i(1, 2, 3, 4, 5, 6);
    volume.mDataLevels = 0x83;

    QList<QByteArray> previews{"other"};
    QByteArray const bytes = writeVolume(volume, previews);
    EXPECT_EQ(previews.size(), 2);
    auto read = readVolume(bytes, previews, 0);
    EXPECT_EQ(read->mPreviewData, "JPEG");
    EXPECT_EQ(read->mBoundingBox, volume.mBoundingBox);
    EXPECT_EQ(read->mTransformationMatrix, volume.mTransformationMatrix);
    EXPECT_EQ(read->mFileNameSuffix, "abc");
    EXPECT_EQ(read->mRescaleSlope, 2.5f);
    EXPECT_EQ(read->mRescaleIntercept, -1024.f);
    EXPECT_EQ(read->mPrecisionBitLoss, 1.5f);
    EXPECT_EQ(read->mNumLossyCompressedImages, 3u);
    EXPECT_EQ(read->mPaddingValue, 1234);
    EXPECT_EQ(read->mPaddingRangeMax, 99);
    // The histogram range is stored rounded to whole numbers.
    EXPECT_EQ(read->mHistogram, LmHistogram({1, 2, 3}, 10.f, 2001.f));
    EXPECT_EQ(read->mNumOverlayPlanes, 2);
    EXPECT_EQ(read->mSuvBox, volume.mSuvBox);
    EXPECT_EQ(read->mDataLevels, 0x83);

    // A block that ends right after the overlay count (an older writer)
    // still reads, and leaves the SUV box and data levels at defaults.
    QByteArray cut = bytes.mid(2);
    cut.chop(1 + 24 + 1); // SUV flag, box, data levels
    LmMsg out;
    Mdx::TagMapSerializer::writeLength(out, cut.size());
    out.writeRawBytes(cut.constData(), static_cast<size_t>(cut.size()));
    auto older = readVolume(QByteArray(out.dataPtr(), static_cast<int>(out.size())), previews, 0);
    EXPECT_EQ(older->mNumOverlayPlanes, 2);
    EXPECT_EQ(older->mSuvBox, McBox3i());
    EXPECT_EQ(older->mDataLevels, 0);

    // Without a suffix no extra data is written.
    volume.mFileNameSuffix.clear();
    auto plain = readVolume(writeVolume(volume, previews), previews, 0);
    EXPECT_EQ(plain->mRescaleSlope, 0.f);
}

TEST(SeriesVolumes, volumesAttachToTheirImagesThroughTheWire)
{
    Series series({{"1.1", 1}, {"1.2", 2}, {"1.3", 3}});
    // Images 0 and 1 in volume 0, image 2 in volumes 0 and 1, and a bogus 7.
    series.node.children()[0]->putAndInsertInt(Mdx::Tags::VolumeIndices, 0);
    series.node.children()[1]->putAndInsertInt(Mdx::Tags::VolumeIndices, 0);
    series.node.children()[2]->putAndInsertValue(Mdx::Tags::VolumeIndices, Mdx::VR_OB,
                                                 QByteArray("\x00\x01\x07", 3));
    auto* full = new Volume(0);
    full->mDims = McVec3i(2, 2, 3);
    series.node.addBareVolume(full);
    full->setImages(series.images(), &series.node);
    full->setMultiFrameInfo({});
    series.node.addBareVolume(new Volume(1));

    Mdx::TagMapSerializer serializer;
    QList<QByteArray> previews;
    LmMsg out;
    serializer.serializeVolumes(&series.node, out, previews);
    series.node.clearVolumes();
    EXPECT_TRUE(series.node.volumes().isEmpty());
    EXPECT_EQ(series.node.children()[0]->ownElement(Mdx::Tags::VolumeIndices), nullptr);

    // Put the indices back and read the volumes.
    series.node.children()[0]->putAndInsertInt(Mdx::Tags::VolumeIndices, 0);
    series.node.children()[1]->putAndInsertInt(Mdx::Tags::VolumeIndices, 0);
    series.node.children()[2]->putAndInsertValue(Mdx::Tags::VolumeIndices, Mdx::VR_OB,
                                                 QByteArray("\x00\x01\x07", 3));
    LmMsg in(out.dataPtr(), out.size());
    int const length = TagMap::readLength(in);
    LmMsg list(in.readRawBytes(static_cast<size_t>(length)), static_cast<size_t>(length));
    series.node.deserializeVolumes(list, previews);
    ASSERT_EQ(series.node.volumes().size(), 2);
    EXPECT_EQ(series.node.volumes()[0]->mImages.size(), 3);
    ASSERT_EQ(series.node.volumes()[1]->mImages.size(), 1);
    EXPECT_EQ(series.node.volumes()[1]->mImages[0], series.node.children()[2]);
    EXPECT_EQ(series.node.volumes()[0]->sopUIDList(), std::vector<std::string>({"1.1", "1.2", "1.3"}));
}

TEST(SeriesVolumes, studyPreviewComesFromTheLargestVolumeWithAPreview)
{
    Mdx::TagFile file;
    for (char const* sop : {"1.2.3.1", "1.2.3.2", "1.2.3.3"}) {
        std::unique_ptr<DcmDataset> dataset(mdxtest::makeImageDataset("1.2", "1.2.3", sop));
        file.addDataset(dataset.get(), nullptr, false);
    }
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
    for (char const* sop : {"1.2.3.1", "1.2.3.2"}) {
        std::unique_ptr<DcmDataset> dataset(mdxtest::makeImageDataset("1.2", "1.2.3", sop));
        dataset->putAndInsertString(DCM_RescaleSlope, "2");
        file.addDataset(dataset.get(), nullptr, false);
    }
    std::unique_ptr<DcmDataset> other(mdxtest::makeImageDataset("1.2", "1.2.9", "1.2.9.1"));
    other->putAndInsertString(DCM_SeriesNumber, "9");
    file.addDataset(other.get(), nullptr, false);

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
    EXPECT_EQ(copy->mIndex, 1);
    EXPECT_EQ(copy->mDims, volume->mDims);
    EXPECT_FALSE(copy->hasPreview());
    ASSERT_EQ(copy->mImages.size(), 2);
    EXPECT_EQ(file.images().size(), 5);
    for (TagMap* image : qAsConst(copy->mImages)) {
        EXPECT_TRUE(uidOf(image).startsWith("2.25."));
        EXPECT_EQ(image->parent(), target);
        QByteArray number;
        image->findAndGetString(DCM_SeriesNumber, number);
        EXPECT_EQ(number, "9");
        int index = -1;
        EXPECT_TRUE(image->findAndGetInt(Mdx::Tags::VolumeIndices, index));
        EXPECT_EQ(index, 1);
    }
}

} // namespace
