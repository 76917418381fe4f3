// The pixels a preview is made from: one frame of an image, reduced to
// about the size of the preview, with the window to show it in.
//
// The pixels are values of one of the element types of McTypedData2D, as
// the modality transform leaves them (monochrome), or 8-bit RGB (colour).
// They are fetched at pixels + y * rowStride + x * pixelStride; strides are
// in bytes. The pixel aspect is the width over the height of a pixel.
#pragma once

#include <mdxlib/Export.h>

#include <QString>

#include <memory>
#include <vector>

class DcmDataset;
class DicomImage;
class McTypedData2D;
class OndraMesh;

class MDX_EXPORT LmVolumeInfo
{
public:
    int mWidth = 0;
    int mHeight = 0;
    int mPixelStride = 0;
    int mRowStride = 0;
    unsigned char const* mPixels = nullptr;
    int mComponents = 0;
    int mDataType = -1;
    float mPixelAspect = 1.0f;
    float mMinValue = 0.0f;
    float mMaxValue = 0.0f;
    bool mInverted = false;

    // True when there is a picture to convert: pixels, a positive size,
    // and (for pixels this object owns) a buffer that holds every pixel.
    bool previewHasPixels() const;

    // Decodes the first of frameCount frames (at least one) of dataset and
    // reduces it, keeping its pixel aspect, to fit into maxWidth by
    // maxHeight (0 means no limit). The window is the dataset's first
    // Window Center/Width, or else the range of the values. Null when the
    // pixels are missing, shorter than the frame, in a transfer syntax
    // without a decoder, or of a kind the preview cannot show; the reason
    // goes to the log at debug level, naming filePath. With pixelData, the
    // decoded frame before the reduction is handed over there (null on
    // failure).
    static std::unique_ptr<LmVolumeInfo> readVolumeInfo(DcmDataset* dataset, int frameCount,
                                                        unsigned long maxWidth, unsigned long maxHeight,
                                                        QString const& filePath,
                                                        std::unique_ptr<DicomImage>* pixelData);

    // Slice index of a volume file's voxels (counted on its full-resolution
    // level), taken from its coarser level when the file has one, since a
    // preview needs few pixels and that level is an eighth of the bytes.
    // The window is the first Window Center/Width of its DICOM attributes
    // brought to stored values, else the slice's range. Null when the file
    // has no voxels of a type the preview can show, or they cannot be read.
    static std::unique_ptr<LmVolumeInfo> readVolumeInfo(OndraMesh* mesh, int index, unsigned long maxWidth,
                                                        unsigned long maxHeight, QString const& name);

    // A view of image with the window 0..255, as for 8-bit pictures; image
    // must outlive the result.
    static std::unique_ptr<LmVolumeInfo> fromTypedData(McTypedData2D const& image);

    // Pixels this object owns, when it copied them.
    std::vector<unsigned char> mBuffer;
};
