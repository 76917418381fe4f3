// One entry of the catalog's study directory: a study with its series, or a
// series with its images, its volume file and its parts. GetStudy makes
// study entries; GetSeries fills in their series.
#pragma once

#include <mdxlib/platform/SeriesInfo.h>

#include <memory>
#include <string>
#include <vector>

namespace Lmg {

class DicomDirectoryEntry
{
public:
    // Bits of flags.
    static constexpr int HasVolume = 1 << 2; // the entry has a volume file (volumePath)

    int id = 0; // the catalog's row id of the study or series

    // Study entries.
    std::string studyUID;
    std::string patientName;
    std::string patientId;
    std::string studyDate;

    // Series entries.
    std::string modality;
    std::string seriesUID;
    int seriesNumber = 0;
    std::string seriesDescription;
    std::string seriesDate; // as stored, "YYYYMMDD"; see dateReformat
    std::string seriesTime;
    std::string stationName;
    std::shared_ptr<SeriesInfo> info; // null until GetSeries asks for images
    std::string volumePath;
    int volumeNumber = 0; // the number beside the volume path
    int flags = 0;

    // The series of a study entry; the parts of a series entry.
    std::vector<std::shared_ptr<DicomDirectoryEntry>> children;
};

} // namespace Lmg
