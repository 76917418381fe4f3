// A representative picture of a media file that accompanies a study: a
// still image (JPEG, PNG, GIF, BMP and the other formats Qt reads) or a
// video.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McTypedData2D.h>

#include <QString>

class MDX_EXPORT LmCompressedDataMedia
{
public:
    // Decodes the picture held by the bytes offset .. offset + size of the
    // file at path, reduced to fit width by height (keeping its shape;
    // non-positive limits mean no limit), as 8-bit RGB. position (0 to 1)
    // picks the picture of a file that holds several. Videos need a decoder
    // library the build does not have: they, and anything unreadable, give
    // an empty result and a trace.
    static McTypedData2D decodeRepresentativeFrame(QString const& path, qint64 offset, qint64 size, int width,
                                                   int height, float position);
};
