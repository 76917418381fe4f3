// The rows of the study catalog as plain values: what the catalog stores of
// a study, a series, an image and a volume file.
#pragma once

#include <cstdint>
#include <string>

namespace Lmg {

struct CatalogStudy
{
    int64_t id = 0; // given by the catalog
    std::string uid;
    std::string patientName;
    std::string patientId;
    std::string studyDate; // as the DICOM header gives it, e.g. "20010413"
};

struct CatalogSeries
{
    int64_t id = 0; // given by the catalog
    int64_t studyId = 0;
    std::string uid;
    std::string modality;
    int number = 0;
    std::string description;
    std::string date;
    std::string time;
    std::string station;
    int flags = 0; // DicomDirectoryEntry::HasVolume and the like
    std::string volumePath;
    int volumeNumber = 0;
    int64_t parentId = 0; // the series this one is a part of; 0 for none
    bool generatorMark = false;
};

struct CatalogImage
{
    std::string sopUID;
    int64_t seriesId = 0;
    std::string path;
    std::string suffix;
};

struct CatalogVolumeFile
{
    std::string path;
    int64_t seriesId = 0;
    int ordinal = 0; // the volume's place within its series
};

} // namespace Lmg
