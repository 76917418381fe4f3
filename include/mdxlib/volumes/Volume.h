// A 3D volume (or multi-frame image set) inside a series of a tag file.
//
// A volume owns no pixels: it lists the image nodes of its series, maps each
// slice to (image, frame), and carries what a viewer needs before any pixel
// is loaded: geometry, rescale values, padding, a histogram, a preview and
// the SUV crop box. A series node owns its volumes. A bare volume (zero
// dimensions) stands for a series without a volume file; its image list
// holds the series node alone.
//
// On the wire a volume is one length-prefixed block, so that readers can
// skip it and the block can grow at its end (optional extra data).
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/LmHistogram.h>
#include <mdxlib/platform/McBox3f.h>
#include <mdxlib/platform/McMat4f.h>
#include <mdxlib/platform/McVec3i.h>

#include <QByteArray>
#include <QList>
#include <QVector>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class LmMsg;

namespace Mdx {

class TagFile;
class TagMap;

class MDX_EXPORT Volume
{
public:
    // One slice: the image it lies in and the frame inside that image.
    struct MultiFrameInfo
    {
        int32_t imageIndex = -1; // -1: the slice's SOP instance is not among the images
        int32_t frame = 0;

        bool operator==(MultiFrameInfo const& o) const
        {
            return imageIndex == o.imageIndex && frame == o.frame;
        }
    };

    Volume();
    explicit Volume(int index);
    ~Volume();

    Volume(Volume const&) = delete;
    Volume& operator=(Volume const&) = delete;

    bool isBareVolume() const { return mDims.x == 0; }
    TagMap* image(int i) const;
    int numImages() const { return mImages.size(); }
    int numSlices() const { return mMultiFrameInfo.size(); }
    // The image holding slice, with its frame in frame; null (frame -1) for
    // a slice outside the volume.
    TagMap* imageForSlice(int slice, int& frame) const;
    bool isMultiFrame() const { return mMultiFrameInfo.size() > mImages.size(); }

    void getBoundingBox(McBox3f& box) const { box = mBoundingBox; }
    void getTransformationMatrix(McMat4f& matrix) const { matrix = mTransformationMatrix; }
    McBox3i const& getSUVBox() const { return mSuvBox; }

    // MD5 of the slices' SOP Instance UIDs (with ".frame" for multi-frame
    // volumes), 32 upper-case hexadecimal digits; cached.
    QByteArray volumeHash() const;
    void volumeHash(std::string& hash) const;
    // "<SOP Instance UID>" or "<SOP Instance UID>.<frame>" per slice.
    std::vector<std::string> sopUIDList() const;

    // Slices given as "<SOP Instance UID>.<frame>"; an empty list keeps the
    // order in which the images were given, one slice each.
    void setMultiFrameInfo(std::vector<std::string> const& frames);
    // Takes the images sorted by Instance Number, then SOP Instance UID; an
    // empty list stands for the series itself.
    void setImages(QVector<TagMap*> const& images, TagMap* series);
    void setVolumeFileName(QByteArray const& fileName) { mVolumeFileName = fileName; }

    QByteArray previewData() const { return mPreviewData; }
    bool hasPreview() const { return !mPreviewData.isEmpty(); }
    void clearPreview() { mPreviewData.clear(); }

    // One linear map for all images; computed on first use.
    float rescaleSlope() const;
    float rescaleIntercept() const;
    float precisionBitLoss() const;

    // Unknown (no value) until the mask is known; only levels 0 and 1 can be
    // told apart.
    std::optional<bool> hasDataLevel(int level) const;

    // The variant suffix of a volume file name: "study-abc.exm" gives "abc",
    // "study-abc_part007.exm" gives "abc_7".
    static QByteArray fileNameSuffix(char const* path);

    // A copy of this volume inside series, with image copies of new identity
    // entered into tagFile.
    Volume* duplicate(TagFile& tagFile, TagMap& series);

    void serialize(LmMsg& out, QList<QByteArray>& previews) const;
    // False when the mapping does not fit numImages; reading goes on.
    bool deserialize(LmMsg& in, QList<QByteArray> const& previews, int numImages);
    bool hasExtraData() const;
    void serializeExtraData(LmMsg& out) const;
    void deserializeExtraData(LmMsg& in);

    int32_t mIndex = -1;
    QVector<TagMap*> mImages; // not owned
    QVector<MultiFrameInfo> mMultiFrameInfo;
    McVec3i mDims;
    McBox3f mBoundingBox;
    McMat4f mTransformationMatrix;
    QByteArray mVolumeFileName;
    QByteArray mPreviewData;
    mutable QByteArray mHash;
    QByteArray mFileNameSuffix;
    mutable float mRescaleSlope = 0.0f; // 0: not computed yet
    mutable float mRescaleIntercept = 0.0f;
    mutable float mPrecisionBitLoss = 0.0f;
    uint32_t mNumLossyCompressedImages = 0;
    int32_t mPaddingValue = 0;
    bool mHasPaddingValue = false;
    int32_t mPaddingRangeMax = 0;
    bool mHasPaddingRangeMax = false;
    LmHistogram mHistogram;
    uint8_t mNumOverlayPlanes = 0;
    McBox3i mSuvBox;
    // Bit 7: the mask is known; bit 0: level 0 data exists; bit 1: level 1.
    uint8_t mDataLevels = 0;

private:
    void sortImages(std::vector<int>* oldPositions);
    void initRescaleSlopeIntercept() const;
};

} // namespace Mdx
