// The benchmark study; see BenchStudy.h.
#include "BenchStudy.h"
#include "BenchSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace benchstudy {

namespace {

constexpr double kSliceSpacing = 0.625;

// Contrast phases of one examination: the window moves a little between them.
struct SeriesLook
{
    char const* description;
    int windowCenter;
    int windowWidth;
};
constexpr SeriesLook kLooks[kSeries] = {{"Non contrast 0.625mm", 35, 400},
                                        {"Arterial 0.625mm", 40, 400},
                                        {"Portal venous 0.625mm", 50, 350},
                                        {"Delayed 0.625mm", 45, 380},
                                        {"Soft tissue 0.625mm", 40, 420}};

} // namespace

std::string format(char const* pattern, ...)
{
    char text[256];
    va_list args;
    va_start(args, pattern);
    std::vsnprintf(text, sizeof text, pattern, args);
    va_end(args);
    return text;
}

namespace {

// DICOM TM with microseconds, from seconds since midnight.
std::string timeOfDay(double seconds, bool fraction)
{
    auto const micros = static_cast<long long>(seconds * 1e6 + 0.5);
    long long const whole = micros / 1000000;
    std::string text = format("%02lld%02lld%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    return fraction ? text + format(".%06lld", micros % 1000000) : text;
}

void setString(DcmDataset* dataset, DcmTagKey const& key, std::string const& value)
{
    dataset->putAndInsertString(key, value.c_str());
}

// Private attributes keep their element (and with it the VR the creator
// gave them); only the value changes.
void setPrivateFloat(DcmDataset* dataset, DcmTagKey const& key, double value)
{
    DcmElement* element = nullptr;
    if (dataset->findAndGetElement(key, element).good())
        element->putFloat32(static_cast<Float32>(value));
}

void setPrivateInt(DcmDataset* dataset, DcmTagKey const& key, int value)
{
    DcmElement* element = nullptr;
    if (dataset->findAndGetElement(key, element).good())
        element->putSint32(value);
}

} // namespace

void forEachImage(DcmDataset* dataset, int images, std::function<void(int series, int index)> const& visit)
{
    int const perSeries = images / kSeries;
    for (int s = 0; s < kSeries; ++s) {
        int const count = s == kSeries - 1 ? images - perSeries * (kSeries - 1) : perSeries;
        SeriesLook const& look = kLooks[s];
        double const seriesStart = 11 * 3600 + 29 * 60 + 36 + s * 150.0; // one phase every 2.5 minutes
        std::string const seriesUID = format("1.3.6.1.4.1.5962.1.3.1.%d.20040119072730.12322", s + 1);
        setString(dataset, DCM_SeriesInstanceUID, seriesUID);
        setString(dataset, DCM_SeriesNumber, std::to_string(s + 2));
        setString(dataset, DCM_SeriesDescription, look.description);
        setString(dataset, DCM_SeriesTime, timeOfDay(seriesStart - 20, false));
        setPrivateInt(dataset, DcmTagKey(0x0025, 0x1007), count); // images in series
        for (int i = 0; i < count; ++i) {
            double const z = -75.699997 - i * kSliceSpacing;
            double const acquired = seriesStart + i * 0.0125;
            double const reconstructed = seriesStart + 30 + i * 0.04;
            std::string const digits = timeOfDay(acquired, true);
            std::string const sopUID = format("1.3.6.1.4.1.5962.1.1.%d.%d.19970430%.6s%.6s.12322", s + 1,
                                              i + 1, digits.c_str(), digits.c_str() + 7);
            setString(dataset, DCM_SOPInstanceUID, sopUID);
            setString(dataset, DCM_InstanceNumber, std::to_string(i + 1));
            setString(dataset, DCM_InstanceCreationTime, timeOfDay(reconstructed, false));
            setString(dataset, DCM_AcquisitionTime, digits);
            setString(dataset, DCM_ContentTime, timeOfDay(reconstructed, true));
            setString(dataset, DCM_ImagePositionPatient, format("-158.135803\\-179.035797\\%.6f", z));
            setString(dataset, DCM_SliceLocation, format("%.10g", z - 1.504066));
            // Now and then the technologist touched the window of a slice.
            bool const touched = i % 97 == 42;
            setString(dataset, DCM_WindowCenter, std::to_string(look.windowCenter + (touched ? 10 : 0)));
            setString(dataset, DCM_WindowWidth, std::to_string(look.windowWidth + (touched ? 100 : 0)));
            // The vendor's own copies: image location, S coordinates of centre and corners.
            setPrivateFloat(dataset, DcmTagKey(0x0027, 0x1041), z - 1.504066);
            for (Uint16 element : {0x1044, 0x104a, 0x104d})
                setPrivateFloat(dataset, DcmTagKey(0x0027, element), z);
            visit(s, i);
        }
    }
}

// Writes the study as a scanner would: series by series, slice by slice
// along z, the times stepping with the table. Returns the file paths.
std::vector<std::string> writeStudy(DcmFileFormat& source, QString const& folder, int images)
{
    DcmDataset* dataset = source.getDataset();
    // A full-size slice, so the files weigh what real ones do on disk; its
    // content never matters because headers are read to 4 KB only.
    std::vector<Uint16> const pixels(512 * 512, 0);
    dataset->putAndInsertUint16(DCM_Rows, 512);
    dataset->putAndInsertUint16(DCM_Columns, 512);
    dataset->putAndInsertUint16Array(DCM_PixelData, pixels.data(), static_cast<unsigned long>(pixels.size()));
    dataset->findAndDeleteElement(DCM_DataSetTrailingPadding);

    std::vector<std::string> paths;
    forEachImage(dataset, images, [&](int s, int i) {
        if (i == 0)
            QDir().mkpath(folder + QString("/S%1").arg(s + 1));
        std::string const path = format("%s/S%d/IM%05d", folder.toLocal8Bit().constData(), s + 1, i + 1);
        OFCondition const status = source.saveFile(path.c_str(), EXS_LittleEndianExplicit);
        if (status.bad()) {
            std::fprintf(stderr, "Could not write %s: %s\n", path.c_str(), status.text());
            std::exit(1);
        }
        paths.push_back(path);
    });
    return paths;
}

bool loadCtSample(QString const& given, DcmFileFormat& source)
{
    QString const sample = given.isEmpty() ? findCtSample() : given;
    if (sample.isEmpty() || source.loadFile(sample.toLocal8Bit().constData()).bad()) {
        std::fprintf(stderr, "No CT sample: pass the path of pydicom/CT_small.dcm or set MDX_SAMPLES\n");
        return false;
    }
    return true;
}

QString findCtSample()
{
    return mdxbench::findSampleFile("pydicom/CT_small.dcm");
}

} // namespace benchstudy
