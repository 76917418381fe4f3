// The small picture that stands for an image, a series or a study.
//
// Pixels come as an LmVolumeInfo (one frame, already reduced to about the
// preview size); they are windowed into an 8-bit RGB QImage, corrected for
// a pixel that is not square, fitted into a box, and packed as JPEG for the
// tag file. No display is involved: QImage works without a GUI application.
// All operations are static and touch only their arguments.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McTypedData2D.h>

#include <QByteArray>
#include <QImage>
#include <QString>

class DcmDataset;
class LmVolumeInfo;
class OndraMesh;

namespace Mdx {

class MDX_EXPORT PreviewGenerator
{
public:
    // The preview of the first frame of dataset, fitted into the box.
    // Null when its pixels cannot be read or shown.
    static QImage createPreviewImage(DcmDataset* dataset, unsigned long maxWidth, unsigned long maxHeight,
                                     QString const& filePath);
    // Slice index of a volume file's voxels, windowed and fitted into the
    // box; name is the file's, for messages. Null for a null mesh or name,
    // or a file without voxels to show.
    static QImage createPreviewImage(OndraMesh* mesh, char const* name, unsigned long maxWidth,
                                     unsigned long maxHeight, int index);
    // A picture already taken from a volume (a rendering, a media frame),
    // fitted into the tag file's preview box. Null for an empty picture.
    static QImage createPreviewImage(OndraMesh* mesh, McTypedData2D const& image);
    // A representative picture of the media file at path (a still image;
    // videos need a decoder the build lacks), reduced to fit width by
    // height. Empty when path is not a readable regular file.
    static McTypedData2D createPreviewImage(QString const& path, int width, int height);

    // Windowed with the preview's own window (minValue .. maxValue),
    // corrected for the pixel aspect and fitted into maxWidth by maxHeight;
    // both negative means no box. Null for a null info or one without
    // pixels.
    static QImage convertToQImage(LmVolumeInfo* info, int maxWidth, int maxHeight);
    // Windowed with center and width, at the preview's size, in RGB32 with
    // full alpha. Null for data types other than 0 to 4 and 7.
    static QImage convertToQImage(LmVolumeInfo* info, float center, float width);

    // The image as JPEG at the default quality; on failure a warning and
    // whatever the encoder left (usually nothing).
    static QByteArray createPreviewData(QImage const& image);
};

} // namespace Mdx
