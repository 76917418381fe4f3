// mdx suv: the SUV parameters the library gathers from PET or NM images, and
// the factor from stored values to each unit the images support.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"

#include <mdxlib/platform/ExDicomUtilities.h>
#include <mdxlib/platform/LmVolume.h>
#include <mdxlib/suv/LmSUVStatistics.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcfilefo.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace mdxtool {

namespace {

CommandSyntax const& suvSyntax()
{
    static CommandSyntax const syntax{
        "suv",
        "FILE...",
        "Reads each DICOM FILE of a PET or NM series and prints the values the library\n"
        "takes for SUV (dates and times, patient, dose, half-life, units), the time from\n"
        "injection to the scan, and for every unit the image supports (activity, SUV by\n"
        "body weight, body surface area or lean body mass, counts) the factor from the\n"
        "file's values to that unit, with the rescale slope and intercept it gives.\n"
        "Exits with status 4 when no file supports SUV.",
        {helpOption(),
         jsonOption(),
         {"--tolerance", 0, "SECONDS",
          "how far the acquisition time may lie before the series time (default 10)"},
         {"--accept-long-half-life", 0, nullptr,
          "accept a start date taken from the series for half-lives above 12 h"},
         {"--accept-early-acquisition", 0, nullptr,
          "accept an acquisition time far before the series time"}}};
    return syntax;
}

struct ModeName
{
    LmSUVStatistics::SUVMode mode;
    char const* name;
};

ModeName const kModes[] = {{LmSUVStatistics::SUV_MODE_ACTIVITY, "activity"},
                           {LmSUVStatistics::SUV_MODE_BODY_WEIGHT, "body-weight"},
                           {LmSUVStatistics::SUV_MODE_BODY_SURFACE, "body-surface"},
                           {LmSUVStatistics::SUV_MODE_LEAN_BODY_MASS, "lean-body-mass"},
                           {LmSUVStatistics::SUV_MODE_RAW_COUNTS, "raw-counts"}};

// The volume of one file: its attributes, and its rescale as data window.
bool loadVolume(std::string const& path, LmVolume& volume, std::string& problem)
{
    DcmFileFormat file;
    OFCondition const status = file.loadFile(path.c_str());
    if (status.bad()) {
        problem = status.text();
        return false;
    }
    HxParamBundle& params = volume.parameters();
    ExDicomUtilities::copyToParamBundle(file.getDataset(), *params.dicomAllCreate());
    char const* slope = params.findTagInAll(0x0028, 0x1053);
    char const* intercept = params.findTagInAll(0x0028, 0x1052);
    double const s = slope ? std::atof(slope) : 1.0;
    double const i = intercept ? std::atof(intercept) : 0.0;
    params.setReal("DataWindowScale", s);
    params.setReal("DataWindowBias", i);
    volume.setRescaleSlope(static_cast<float>(s));
    volume.setRescaleIntercept(static_cast<float>(i));
    return true;
}

QJsonObject describe(std::string const& path, LmVolume& volume, bool& supported)
{
    LmSUVStatistics::initSUVBundleFromDICOMTags(&volume);
    supported = LmSUVStatistics::supportsSUV(&volume);
    QJsonObject result{{"file", QString::fromLocal8Bit(path.c_str())}, {"supportsSUV", supported}};
    float elapsed = 0.0f;
    if (LmSUVStatistics::getElapsedTime(&volume, elapsed))
        result["elapsedSeconds"] = static_cast<double>(elapsed);
    // The bundle as it was built, before a mode writes its rescale.
    QJsonObject values;
    HxParamBundle const* bundle = volume.parameters().bundle("SUV");
    for (int i = 0; bundle && i < bundle->nParameters(); ++i)
        values[QString::fromStdString(bundle->parameter(i)->name())] =
            QString::fromStdString(bundle->parameter(i)->getString());
    result["bundle"] = values;
    QJsonObject modes;
    for (ModeName const& mode : kModes) {
        QJsonObject entry{{"supported", false}};
        HxParamBundle params = volume.parameters();
        if (supported && LmSUVStatistics::suvModeSupported(&volume, mode.mode) &&
            LmSUVStatistics::setSUVMode(params, mode.mode)) {
            HxParamBundle const* suv = params.bundle("SUV");
            double slope = 0.0, intercept = 0.0, original = 1.0;
            suv->findReal("RescaleSlope", 1, &slope);
            suv->findReal("RescaleIntercept", 1, &intercept);
            suv->findReal("OriginalRescaleSlope", 1, &original);
            entry["supported"] = true;
            entry["rescaleSlope"] = slope;
            entry["rescaleIntercept"] = intercept;
            if (original != 0.0)
                entry["factor"] = slope / original;
        }
        modes[mode.name] = entry;
    }
    result["modes"] = modes;
    return result;
}

void printText(QJsonObject const& report)
{
    std::printf("%s\n", report["file"].toString().toLocal8Bit().constData());
    std::printf("  supports SUV: %s\n", report["supportsSUV"].toBool() ? "yes" : "no");
    if (report.contains("elapsedSeconds"))
        std::printf("  elapsed time: %.0f s\n", report["elapsedSeconds"].toDouble());
    QJsonObject const values = report["bundle"].toObject();
    for (auto it = values.begin(); it != values.end(); ++it)
        std::printf("  %s: %s\n", it.key().toUtf8().constData(), it.value().toString().toUtf8().constData());
    QJsonObject const modes = report["modes"].toObject();
    for (ModeName const& mode : kModes) {
        QJsonObject const entry = modes[mode.name].toObject();
        if (!entry["supported"].toBool())
            std::printf("  mode %s: unsupported\n", mode.name);
        else
            std::printf("  mode %s: factor %.9g (rescale slope %.9g, intercept %.9g)\n", mode.name,
                        entry["factor"].toDouble(), entry["rescaleSlope"].toDouble(),
                        entry["rescaleIntercept"].toDouble());
    }
}

} // namespace

int suvCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(suvSyntax(), args, parsed))
        return *done;
    if (parsed.positional.empty())
        return usageError(suvSyntax(), "give at least one FILE");
    if (parsed.values.count("--tolerance")) {
        char* end = nullptr;
        std::string const text = parsed.value("--tolerance");
        long const seconds = std::strtol(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || seconds < 0 || seconds > 1000)
            return fail(ExitCode::Usage, "--tolerance takes whole seconds from 0 to 1000, not '%s'",
                        text.c_str());
        LmSUVStatistics::setAcquisitionTimeTolerance(static_cast<int>(seconds));
    }
    bool const json = parsed.has("--json");
    QJsonArray reports;
    int failures = 0;
    int missing = 0;
    int supported = 0;
    for (std::string const& path : parsed.positional) {
        LmVolume volume;
        std::string problem;
        if (!QFileInfo::exists(QString::fromLocal8Bit(path.c_str()))) {
            warn("%s: no such file", path.c_str());
            ++missing;
            continue;
        }
        if (!loadVolume(path, volume, problem)) {
            warn("cannot read %s: %s", path.c_str(), problem.c_str());
            ++failures;
            continue;
        }
        if (parsed.has("--accept-long-half-life"))
            LmSUVStatistics::setSUVFlag(&volume, LmSUVStatistics::SUV_FLAG_LONG_HALF_LIFE);
        if (parsed.has("--accept-early-acquisition"))
            LmSUVStatistics::setSUVFlag(&volume, LmSUVStatistics::SUV_FLAG_EARLY_ACQUISITION);
        bool supports = false;
        QJsonObject const report = describe(path, volume, supports);
        supported += supports ? 1 : 0;
        if (json)
            reports.append(report);
        else
            printText(report);
    }
    if (json)
        std::fputs(QJsonDocument(reports).toJson(QJsonDocument::Indented).constData(), stdout);
    if (missing > 0)
        return status(ExitCode::NoInput);
    if (failures > 0)
        return status(ExitCode::UnreadableInput);
    if (supported == 0)
        return fail(ExitCode::NothingFound, "no file supports SUV");
    return status(ExitCode::Ok);
}

} // namespace mdxtool
