// A 3D volume (or multi-frame image set) inside a series of a tag file.
//
// A volume owns no pixels: it lists the image nodes of its series, maps each
// slice to (image, frame) and carries what a viewer needs before any pixel is
// loaded, among it an encoded preview. A series node owns its volumes. A
// bare volume stands for a series without a volume file; its image list holds
// the series node alone.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>
#include <QVector>

#include <cstdint>

namespace Mdx {

class TagMap;

class MDX_EXPORT Volume
{
public:
    // One slice: the image it lies in and the frame inside that image.
    struct MultiFrameInfo
    {
        int32_t imageIndex = -1; // -1: the slice's SOP instance is not among the images
        int32_t frame = 0;
    };

    Volume();
    explicit Volume(int index);
    ~Volume();

    Volume(Volume const&) = delete;
    Volume& operator=(Volume const&) = delete;

    TagMap* image(int i) const;
    int numImages() const { return mImages.size(); }
    int numSlices() const { return mMultiFrameInfo.size(); }
    // The image holding slice, with its frame in frame; null (frame -1) for
    // a slice outside the volume.
    TagMap* imageForSlice(int slice, int& frame) const;
    bool isMultiFrame() const { return mMultiFrameInfo.size() > mImages.size(); }

    QByteArray previewData() const { return mPreviewData; }
    bool hasPreview() const { return !mPreviewData.isEmpty(); }
    void clearPreview() { mPreviewData.clear(); }

    int32_t mIndex = -1;
    QVector<TagMap*> mImages; // not owned
    QVector<MultiFrameInfo> mMultiFrameInfo;
    QByteArray mVolumeFileName;
    QByteArray mPreviewData;
    QByteArray mHash;
    QByteArray mFileNameSuffix;
};

} // namespace Mdx
