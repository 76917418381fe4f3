// What one volume file says about its volume, on its way into a tag file.
//
// The reader of volume files fills one record per file and hands the
// records of a series to TagFile::addVolumeInfo, which turns them into
// Volume objects and marks the images. A plain public record: it owns its
// members, and the caller owns the records and deletes them afterwards.
#pragma once

#include <mdxlib/platform/McBox3f.h>
#include <mdxlib/platform/McMat4f.h>
#include <mdxlib/platform/McVec3i.h>

#include <QByteArray>

#include <cstdint>
#include <string>
#include <vector>

namespace Mdx {

struct VolumeInfo
{
    // SOP Instance UIDs of the images, without frame endings; one per image.
    std::vector<std::string> imageUIDs;
    // For a multi-frame volume "<SOP UID>.<frame>" per slice; empty otherwise.
    std::vector<std::string> frameUIDs;
    // Base name of the volume file.
    std::string fileName;
    McVec3i dims;
    McBox3f boundingBox;
    // Volume to patient; identity when the file has none.
    McMat4f transformationMatrix;
    // Encoded preview image; empty if none.
    QByteArray previewData;
    // Mammography navigation numbers; empty for other modalities.
    std::vector<float> imageBoxAndCenter;
    float dataWindowScale = 1.0f;
    float dataWindowBias = 0.0f;
    float precisionLossBits = 0.0f;
    int32_t numLossyCompressedImages = 0;
    int32_t numOverlayPlanes = 0;
    int32_t paddingValue = 0;
    bool hasPaddingValue = false;
    int32_t paddingRangeMax = 0;
    bool hasPaddingRangeMax = false;
    // The histogram's range.
    int32_t dataMin = 0;
    int32_t dataMax = 0;
    // Bin counts; empty if none.
    std::vector<uint64_t> histogram;
    McBox3i suvBox;
    // As Volume::mDataLevels.
    uint8_t dataLevels = 0;
    // Set by callers that make records themselves; the file reader never
    // fills these. Written as three (max, min) pairs onto every image.
    bool hasValueRange = false;
    float valueRange[6] = {-1.0f, -1.0f, -1.0f, -1.0f, -1.0f, -1.0f};
};

} // namespace Mdx
