// Volumes: slices and identity hashes, the wire block in each of its
// mapping kinds, volume records becoming volumes of their series (images
// found by SOP UID, volume numbers and per-image values on the images), and
// the study preview. The round trip of whole volumes with all their data is
// checked on the fuzz corpus.
#include "support/TagLayer.h"

#include <QCryptographicHash>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;
using Mdx::Volume;
using Mdx::VolumeInfo;

char const kStudy[] = "1.2.826.0.1.3680043.7.2";
char const kSeries[] = "1.2.826.0.1.3680043.7.2.1";

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
    return element ? element->mValue.toByteArray() : QByteArray("absent");
}

std::vector<std::string> uidsOf(QVector<TagMap*> const& images)
{
    std::vector<std::string> result;
    QByteArray uid;
    for (TagMap const* node : images)
        result.push_back(node->findAndGetString(DCM_SOPInstanceUID, uid) ? uid.toStdString() : "");
    return result;
}

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

TEST(Volume, slicesFramesHashAndFileNameSuffix)
{
    TagFile file;
    addImages(file, 3);
    TagMap* series = file.findSeries(kSeries);
    Volume single, multi, bare;
    single.setImages(series->children().toVector(), series);
    single.setMultiFrameInfo({});
    EXPECT_FALSE(single.isMultiFrame());
    // The hash is the MD5 of the slice texts run together, upper-case hex.
    std::vector<std::string> const uids = single.sopUIDList();
    std::string const all = imageUID(0) + imageUID(1) + imageUID(2);
    EXPECT_EQ(uids[0] + uids[1] + uids[2], all);
    EXPECT_EQ(single.volumeHash(),
              QCryptographicHash::hash(all.c_str(), QCryptographicHash::Md5).toHex().toUpper());
    multi.setImages(series->children().toVector(), series);
    multi.setMultiFrameInfo({uids[0] + ".0", uids[0] + ".1", uids[1] + ".0", uids[2] + ".0", uids[2] + ".1"});
    EXPECT_TRUE(multi.isMultiFrame());
    EXPECT_NE(multi.volumeHash(), single.volumeHash());
    int frame = 0;
    EXPECT_EQ(multi.imageForSlice(4, frame), series->children()[2]);
    EXPECT_EQ(frame, 1);
    EXPECT_TRUE(multi.imageForSlice(-1, frame) == nullptr && frame == -1 && !multi.imageForSlice(9, frame));
    // An unknown SOP instance gives slice index -1, skipped by list and hash.
    multi.setMultiFrameInfo({uids[0] + ".0", "9.9.0", uids[1] + ".0"});
    EXPECT_EQ(multi.mMultiFrameInfo[1].imageIndex, -1);
    EXPECT_EQ(multi.sopUIDList().size(), 2u);
    bare.setImages({}, series); // its only image is the series
    EXPECT_EQ(bare.mImages, QVector<TagMap*>{series});
    // clang-format off
    std::pair<char const*, char const*> const names[] = {{"/data/study.exm", ""}, {"/data/x-y.z.exm", "y"},
        {"/data/study-abc_part007.exm", "abc_7"}, {"x-_part000", "_"}, {"C:\\a-b\\study-raw", "raw"}};
    // clang-format on
    for (auto const& [name, suffix] : names)
        EXPECT_EQ(Volume::fileNameSuffix(name), suffix) << name;
}

// Each mapping kind is chosen where it fits and reads back every slice. An
// unknown image (-1) travels in every kind, in 16 bits as 65535, which is
// why a real 65535 takes 32 bits. Images removed from a series since its
// volumes were written leave mappings beyond the images there are: reported
// (fits false), and kept, also in kinds 1 and 2.
TEST(VolumeWire, eachMappingKindIsChosenAndEveryIndexReadBack)
{
    // clang-format off
    struct Case { std::vector<std::pair<int, int>> slices; int dimsZ, written, read, kind; bool fits; };
    std::vector<Case> const cases{ // slices as (image, frame)
        {{{0, 0}, {1, 0}, {2, 0}, {3, 0}}, 4, 4, 4, 1, true}, {{{3, 0}, {2, 0}, {1, 0}, {0, 0}}, 4, 4, 4, 2, true},
        {{{0, 0}, {2, 0}, {1, 0}, {3, 0}}, 4, 4, 4, 3, true}, {{{0, 0}, {-1, 0}, {1, 0}, {3, 0}}, 4, 4, 4, 3, true},
        {{{0, 0}, {2, 0}, {1, 0}, {3, 0}}, 5, 4, 4, 4, true},
        {{{0, 0}, {-1, 1}, {1, 0}, {2, 0}, {3, 65535}}, 5, 4, 4, 5, true},
        {{{0, 0}, {0, 1}, {1, 0}, {2, 0}, {3, 65536}}, 5, 4, 4, 6, true},
        {{{0, 0}, {0, 1}, {65535, 0}, {2, 0}, {3, 1}}, 5, 4, 4, 6, false},
        {{{0, 0}, {0, 1}, {1, 0}, {-1, 0}, {3, 1}}, 9, 4, 4, 6, true},
        {{{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}}, 5, 5, 3, 1, false},
        {{{4, 0}, {3, 0}, {2, 0}, {1, 0}, {0, 0}}, 5, 5, 3, 2, false},
        {{{0, 0}, {2, 0}, {1, 0}, {4, 0}, {3, 0}}, 6, 5, 4, 4, true}, // index 4 == count passes
        {{{0, 0}, {2, 0}, {1, 0}, {4, 0}, {3, 0}}, 6, 5, 3, 4, false}};
    // clang-format on
    TagFile file;
    addImages(file, 5);
    TagMap* series = file.findSeries(kSeries);
    QVector<TagMap*> const images = series->children().toVector();
    for (Case const& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases.data()));
        Volume volume(0);
        volume.mImages = images.mid(0, c.written);
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
        read->setImages(images.mid(0, c.read), series);
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

TEST(SeriesVolumes, studyPreviewComesFromTheLargestVolumeThenTheFirstSeries)
{
    TagFile file;
    addImages(file, 3);
    // clang-format off
    for (auto const& [series, number, preview] : {std::make_tuple("1.2.7", "3", "P3"), std::make_tuple("1.2.8", "1", "P1"),
                                                 std::make_tuple("1.2.9", "1", "P1b"), std::make_tuple("1.2.6", "", "")}) {
        // clang-format on
        mdxtest::Attributes const number_ = {{DCM_SeriesNumber, *number ? number : nullptr}};
        mdxtest::addImage(file, kStudy, series, std::string(series) + ".1", number_);
        TagMap* image = mdxtest::addImage(file, kStudy, series, std::string(series) + ".2", number_);
        if (*preview)
            image->putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB, preview);
    }
    TagMap* out = nullptr;
    EXPECT_EQ(file.study()->findPreviewData(&out), "P1");
    EXPECT_EQ(out, file.findImage("1.2.8.2"));
    EXPECT_TRUE(file.findSeries("1.2.6")->findPreviewData(&out).isEmpty());
    TagMap* series = file.findSeries(kSeries);
    auto* small = new Volume(0);
    series->addBareVolume(small);
    small->mPreviewData = "small";
    EXPECT_EQ(file.study()->findPreviewData(&out), "small");
    EXPECT_EQ(out, series); // a bare volume's only image is its series
    VolumeInfo large = record({0, 1, 2});
    large.previewData = "large";
    addRecords(file, {large});
    EXPECT_EQ(file.study()->findPreviewData(&out), "large");
    EXPECT_EQ(out, image(file, 1)); // the middle slice
    series->putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB, "S");
    EXPECT_EQ(series->children()[0]->findPreviewData(&out), "S");
    EXPECT_EQ(out, series->children()[0]);
}

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
    TagFile read;
    ASSERT_TRUE(mdxtest::readTagFile(read, mdxtest::tagFileBytes(file)));
    ASSERT_EQ(read.findSeries(kSeries)->volumes().size(), 1);
    EXPECT_EQ(indices(read, 3), QByteArray(1, 1));
    EXPECT_EQ(read.findSeries(kSeries)->volumes()[0]->mImages, QVector<TagMap*>{read.findSeries(kSeries)});
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

// Navigation numbers need ten floats, value ranges their flag; a volume of
// frames has its images sorted by Instance Number.
TEST(VolumeAssembly, perImageValuesAndMultiFrameVolumes)
{
    TagFile file;
    addImages(file, 4, {4, 3, 2, 1});
    VolumeInfo nine = record({0, 1}), ten = record({1, 2});
    nine.imageBoxAndCenter = std::vector<float>(9, 1.5f);
    nine.hasValueRange = true;
    float const range[6] = {-1024.0f, 3071.0f, 0.5f, 1.25f, 1e-7f, 123456789.0f};
    std::copy(range, range + 6, nine.valueRange);
    ten.imageBoxAndCenter = {0.1f, 0.2f, 0.9f, 0.8f, 0.5f, 0.5f, 1, 2, 3, 4};
    ten.valueRange[0] = 5.0f;
    ten.frameUIDs = {imageUID(1) + ".0", imageUID(1) + ".1", imageUID(2) + ".0", imageUID(2) + ".1",
                     imageUID(2) + ".2"};
    ten.dims.z = 5;
    addRecords(file, {nine, ten});
    Volume const* frames = file.findSeries(kSeries)->volumes().value(1);
    ASSERT_NE(frames, nullptr);
    EXPECT_EQ(frames->sopUIDList(), ten.frameUIDs);
    int frame = -1;
    EXPECT_EQ(frames->imageForSlice(4, frame), image(file, 2));
    EXPECT_EQ(frame, 2);
    auto value = [&](int i, int element, Mdx::VR vr) {
        Mdx::TagElement const* found =
            image(file, i)->findElementPrivate(DcmTagKey(0x0071, element), "Lumora");
        EXPECT_TRUE(!found || found->mVR == vr) << i;
        return found ? found->mValue.toByteArray() : QByteArray("absent");
    };
    for (int i : {0, 1}) {
        EXPECT_EQ(value(i, 0x75, Mdx::VR_DS) + value(i, 0x76, Mdx::VR_DS) + value(i, 0x77, Mdx::VR_DS),
                  "3071\\-10241.25\\0.51.23457e+08\\1e-07");
        EXPECT_EQ(value(i + 1, 0x70, Mdx::VR_FL),
                  QByteArray(reinterpret_cast<char const*>(ten.imageBoxAndCenter.data()), 40));
    }
    EXPECT_EQ(value(0, 0x70, Mdx::VR_FL) + value(2, 0x75, Mdx::VR_DS) + indices(file, 3),
              "absentabsentabsent");
}
