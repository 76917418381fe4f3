// Helpers of the pixel tests: independent oracles in Python (numpy, scipy)
// and generators of synthetic images that no sample package ships.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

class DcmDataset;

namespace mdxtest {

// Runs tests/support/oracles/<script> with the system's python3, input on
// its standard input, and gives its standard output; empty, with the
// reason in *error, when it failed. Exit status 77 means the oracle's
// modules are missing: *skip is set.
std::optional<QByteArray> runOracle(QString const& script, QStringList const& args, QByteArray const& input,
                                    QString* error, bool* skip = nullptr);

// An 8-bit picture as the oracles read it: "width height channels\n" and
// the bytes row by row.
QByteArray oracleImage(QImage const& image, bool grayOnly);
// The reverse: a picture an oracle wrote (1 channel: gray, 3: RGB).
QImage imageFromOracle(QByteArray const& bytes);

// A mammogram: a half-ellipse of tissue touching the left (x = 0) or right
// border, 16-bit MONOCHROME2 with 12 bits stored.
struct Mammogram
{
    int width = 200;
    int height = 256;
    bool chestLeft = true;
    char const* modality = "MG";
    char const* studyDescription = nullptr;
    char const* laterality = "L";
    char const* patientOrientation = nullptr;   // e.g. "A\\R"
    char const* imageOrientation = nullptr;     // six cosines
    bool orientationInFunctionalGroups = false; // inside (5200,9229)/(0020,9116)
    std::vector<char const*> viewModifiers;     // code values of (0054,0222)
    bool topBand = false;                       // a bright band along the top edge
};

DcmDataset* makeMammogram(Mammogram const& mg, char const* sopUID);
// The tissue's box in pixels: x min, y min, x max, y max.
std::vector<int> mammogramTissueBox(Mammogram const& mg);

} // namespace mdxtest
