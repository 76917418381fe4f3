// Helpers shared by the tests: where the sample data lies, and small
// builders of DICOM datasets.
#pragma once

#include <QString>
#include <QStringList>

#include <map>
#include <string>
#include <vector>

class DcmDataset;

namespace mdxtest {

// The installed real-world samples (scripts/fetch-samples.sh), or empty when
// they are not installed.
QString samplesDir();
// All files under a folder of the samples, sorted; empty when absent.
QStringList sampleFiles(QString const& subFolder);
// The files of the samples that DCMTK reads as DICOM with a SOP Instance UID,
// grouped by Study Instance UID.
std::map<std::string, QStringList> sampleStudies();

// Folder of the data committed with the tests.
QString testDataDir();

// A dataset with the UIDs of one image and a few common attributes.
DcmDataset* makeImageDataset(char const* studyUID, char const* seriesUID, char const* sopUID);

} // namespace mdxtest

// Skips the current test when the sample data is not installed.
#define MDX_REQUIRE_SAMPLES()                                                                                \
    do {                                                                                                     \
        if (mdxtest::samplesDir().isEmpty())                                                                 \
            GTEST_SKIP() << "sample data not installed; run scripts/fetch-samples.sh";                       \
    } while (0)
