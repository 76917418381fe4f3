// Volumes of a tag file: volume file records become Volume objects under
// their series, and each image learns the volumes it lies in.
//
// How a series falls into volumes was decided by the program that wrote the
// volume files; each record lists its SOP instances. Here those lists are
// only tied to the image nodes already in the tree.
#include <mdxlib/tagfile/TagFile.h>

#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>
#include <mdxlib/volumes/VolumeInfo.h>

#include <QString>

namespace Mdx {

namespace {

char const kCreator[] = "Lumora";
DcmTagKey const kImageBoxAndCenter(0x0071, 0x0070);
DcmTagKey const kValueRanges[3] = {{0x0071, 0x0075}, {0x0071, 0x0076}, {0x0071, 0x0077}};

// "max\min" of one value range pair.
QByteArray rangeText(float max, float min)
{
    return QString::number(max, 'g', 6).toLatin1() + '\\' + QString::number(min, 'g', 6).toLatin1();
}

// Adds volume number v to the image's list in (0006,7103). The list is a
// byte per volume as long as every number fits a byte, which is how
// putAndInsertInt stores small numbers. A list that is not a byte list, or
// a number that does not fit, leaves the list as it is: such numbers can't
// be recorded, and a wrong byte would tie the image to another volume.
void addVolumeIndex(TagMap* image, int v)
{
    // The list may be inherited from the series once it was optimised; the
    // image then gets its own, longer copy.
    TagElement const* indices = image->findElement(Tags::VolumeIndices);
    if (!indices) {
        image->putAndInsertInt(Tags::VolumeIndices, v);
        return;
    }
    if (indices->mVR != VR_OB || v < 0 || v > 255)
        return;
    QByteArray value = indices->mValue;
    value.append(static_cast<char>(v));
    image->putAndInsertValue(Tags::VolumeIndices, VR_OB, value);
}

// What the volume record puts on each of its images beyond the indices.
void putImageValues(TagMap* image, VolumeInfo const& info)
{
    // Fewer than ten numbers can't be a navigation record; the record of
    // other modalities is empty.
    size_t const bytes = info.imageBoxAndCenter.size() * sizeof(float);
    if (bytes >= 37) {
        QByteArray const value(reinterpret_cast<char const*>(info.imageBoxAndCenter.data()),
                               static_cast<int>(bytes));
        image->putAndInsertValue(kImageBoxAndCenter, kCreator, VR_FL, value);
    }
    if (info.hasValueRange) {
        for (int i = 0; i < 3; ++i)
            image->putAndInsertValue(kValueRanges[i], kCreator, VR_DS,
                                     rangeText(info.valueRange[2 * i + 1], info.valueRange[2 * i]));
    }
}

} // namespace

void TagFile::addVolumeInfo(std::vector<VolumeInfo*> const& infos, bool keepFileName)
{
    TagMap* series = nullptr;
    for (size_t v = 0; v < infos.size(); ++v) {
        VolumeInfo const& info = *infos[v];
        QVector<TagMap*> images;
        images.reserve(static_cast<int>(info.imageUIDs.size()));
        series = nullptr;
        for (std::string const& uid : info.imageUIDs) {
            TagMap* image = mImages.value(QByteArray::fromStdString(uid), nullptr);
            if (!image) {
                // The volume keeps the images that are known; a file of an
                // older state of the series must not lose the volume.
                getTheLogInstance()->tracef(2, "TagFile", "3D volume %s contains unknown image %s",
                                            info.fileName.c_str(), uid.c_str());
                continue;
            }
            images.append(image);
            addVolumeIndex(image, static_cast<int>(v));
            putImageValues(image, info);
            if (!series)
                series = image->mParent;
        }
        // A record without known images makes no volume, and its number is
        // not given to the next record: the numbers on the images must stay
        // those of the records.
        if (images.isEmpty() || !series)
            continue;

        auto* volume = new Volume;
        series->mVolumes.append(volume);
        volume->mDims = info.dims;
        volume->mBoundingBox = info.boundingBox;
        volume->mTransformationMatrix = info.transformationMatrix;
        volume->mImages = images;
        volume->setMultiFrameInfo(info.frameUIDs);
        volume->mPreviewData = info.previewData;
        volume->mFileNameSuffix = Volume::fileNameSuffix(info.fileName.c_str());
        if (keepFileName)
            volume->mVolumeFileName = QByteArray::fromStdString(info.fileName);
        volume->mRescaleSlope = info.dataWindowScale;
        volume->mRescaleIntercept = info.dataWindowBias;
        volume->mPrecisionBitLoss = info.precisionLossBits;
        volume->mNumLossyCompressedImages = static_cast<uint32_t>(info.numLossyCompressedImages);
        volume->mHistogram =
            LmHistogram(info.histogram, static_cast<float>(info.dataMin), static_cast<float>(info.dataMax));
        volume->mNumOverlayPlanes = static_cast<uint8_t>(info.numOverlayPlanes);
        volume->mHasPaddingValue = info.hasPaddingValue;
        volume->mPaddingValue = info.paddingValue;
        volume->mHasPaddingRangeMax = info.hasPaddingRangeMax;
        volume->mPaddingRangeMax = info.paddingRangeMax;
        volume->mSuvBox = info.suvBox;
        volume->mDataLevels = info.dataLevels;
    }
    // All records belong to one series, so one pass over it suffices; the
    // series is the last record's, and a last record without known images
    // leaves the lists as they are.
    if (series)
        series->optimize(Tags::VolumeIndices);
}

void TagFile::createVolumes()
{
    // Volumes are made by addVolumeInfo; this walk is all that is left of
    // an older way and changes nothing.
    QMap<QByteArray, TagMap*> const series = mSeries;
    for (auto it = series.cbegin(); it != series.cend(); ++it)
        (void)it.value();
}

} // namespace Mdx
