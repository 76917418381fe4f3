// Images that a QA job moved from one series to another, so that the
// volumes of the series can follow them or be dropped.
#pragma once

#include <mdxlib/Export.h>

#include <QHash>

#include <cstdint>

namespace Mdx {

class TagMap;

struct MDX_EXPORT QASeriesMove
{
    TagMap* oldSeries = nullptr; // the series the images were in
    TagMap* newSeries = nullptr; // the series they are in now
    int32_t numImages = 0;
    int32_t numVolumeImages = 0;      // raised together with numImages
    QHash<TagMap*, TagMap*> imageMap; // old image to new image
};

} // namespace Mdx
