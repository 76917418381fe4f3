// The "SUV" bundle of a volume's parameters: built once from the DICOM
// attributes, and the time between injection and scan worked out from it.
#include <mdxlib/suv/LmSUVStatistics.h>

#include "SuvValues.h"

#include <mdxlib/platform/ExDicomUtilities.h>
#include <mdxlib/platform/LmVolume.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

using suv::findNumber;
using suv::findText;
using suv::tagText;
using suv::unpad;

int LmSUVStatistics::sAcquisitionTimeTolerance = 10;

namespace {

constexpr char kPhilipsCreator[] = "Philips PET Private Group";
constexpr double kTwelveHours = 43200.0;

// date + HHMMSS of time, when date has 8 characters and time normalises.
bool joinDateTime(std::string const& date, std::string const& time, std::string& out)
{
    std::string normalized;
    if (date.size() != 8 || time.empty() || !ExDicomUtilities::normalizeTMString(time.c_str(), normalized))
        return false;
    // Fractions of a second are cut: the reference times are whole seconds.
    out = date + normalized.substr(0, 6);
    return true;
}

void setIfNotEmpty(HxParamBundle* bundle, char const* key, std::string const& value)
{
    if (!value.empty())
        bundle->set(key, value);
}

// A value that a float conversion accepts in full.
bool isNumber(std::string const& text)
{
    char* end = nullptr;
    std::strtof(text.c_str(), &end);
    return end != text.c_str() && unpad(end).empty();
}

} // namespace

void LmSUVStatistics::initSUVBundleFromDICOMTags(HxParamBundle& params)
{
    double slope = 1.0;
    double intercept = 0.0;
    int mode = SUV_MODE_ACTIVITY;
    int flags = 0;
    bool hasFlags = false;
    params.findReal("DataWindowScale", 1, &slope);
    params.findReal("DataWindowBias", 1, &intercept);
    if (HxParamBundle const* old = params.bundle(suv::kBundle)) {
        // A rebuild keeps the caller's mode and the rescale the file had:
        // the data window may by now show the rescale of an SUV mode.
        old->findNum("Enabled", 1, &mode);
        old->findReal("OriginalRescaleSlope", 1, &slope);
        old->findReal("OriginalRescaleIntercept", 1, &intercept);
        // The caller's acceptance of dubious data stays with the volume too:
        // dropping it here would silently turn accepted data away again.
        hasFlags = old->findNum("DubiousDataAcceptance", 1, &flags);
        params.remove(suv::kBundle);
    }
    HxParamBundle* bundle = params.bundle(suv::kBundle, true);
    bundle->setNum("Enabled", mode);
    bundle->setReal("OriginalRescaleSlope", slope);
    bundle->setReal("OriginalRescaleIntercept", intercept);
    if (hasFlags)
        bundle->setNum("DubiousDataAcceptance", flags);

    std::string const seriesDate = unpad(tagText(params, 0x0008, 0x0021));
    std::string dateTime;
    if (joinDateTime(seriesDate, tagText(params, 0x0008, 0x0031), dateTime))
        bundle->set("SeriesDateTime", dateTime);
    else
        bundle->remove("SeriesDateTime");
    if (joinDateTime(unpad(tagText(params, 0x0008, 0x0022)), tagText(params, 0x0008, 0x0032), dateTime))
        bundle->set("AcquisitionDateTime", dateTime);

    std::string const weight = unpad(tagText(params, 0x0010, 0x1030));
    if (!weight.empty() && isNumber(weight)) {
        bundle->set("PatientWeight", weight);
        bundle->set("OriginalPatientWeight", weight);
    }
    std::string const height = unpad(tagText(params, 0x0010, 0x1020));
    if (!height.empty() && isNumber(height))
        bundle->set("PatientHeight", height);
    setIfNotEmpty(bundle, "PatientSex", unpad(tagText(params, 0x0010, 0x0040)));
    setIfNotEmpty(bundle, "DecayCorrection", unpad(tagText(params, 0x0054, 0x1102)));

    QDateTime decayCorrection;
    if (getDecayCorrectionDateTime(params, decayCorrection)) {
        bundle->set("DecayCorrection", "DATETIME");
        bundle->set("DecayCorrectionDateTime",
                    decayCorrection.toString(QStringLiteral("yyyyMMddhhmmss")).toStdString());
    }

    HxParamBundle const* item = ExDicomUtilities::findSequenceItem(
        params.dicomAll(), HxParamBundle::tagName(0x0054, 0x0016).c_str(), 0);
    if (!item)
        item = ExDicomUtilities::findSequenceItem(&params, HxParamBundle::tagName(0x0054, 0x0016).c_str(), 0);
    if (item) {
        std::string start = unpad(tagText(*item, 0x0018, 0x1078));
        if (start.size() < 14) {
            char const* stored = item->findPrivateTag("Lumora", "G0071-xxD1");
            if (!stored)
                stored = suv::dicom(params)->findPrivateTag("Lumora", "G0071-xxD1");
            start = stored ? unpad(stored) : std::string();
        }
        if (start.size() >= 14) {
            bundle->set("RadiopharmaceuticalStartDateTime", start.substr(0, 14));
            bundle->remove("RadiopharmaceuticalStartDateFromSeriesDate");
        } else if (joinDateTime(seriesDate, tagText(*item, 0x0018, 0x1072), dateTime)) {
            bundle->set("RadiopharmaceuticalStartDateTime", dateTime);
            bundle->setNum("RadiopharmaceuticalStartDateFromSeriesDate", 1);
        }

        std::string const dose = unpad(tagText(*item, 0x0018, 0x1074));
        std::string const modality = unpad(tagText(params, 0x0008, 0x0060));
        if (!dose.empty() && modality == "NM") {
            // NM objects give the dose in MBq, PET objects in Bq.
            char text[64];
            std::snprintf(text, sizeof text, "%f", std::atof(dose.c_str()) * 1000000.0);
            bundle->set("RadionuclideTotalDose", text);
        } else if (!dose.empty() && modality == "PT") {
            bundle->set("RadionuclideTotalDose", dose);
        }
        setIfNotEmpty(bundle, "RadionuclideHalfLife", unpad(tagText(*item, 0x0018, 0x1075)));
    }

    std::string const units = unpad(tagText(params, 0x0054, 0x1001));
    setIfNotEmpty(bundle, "Units", units);
    if (units == "CNTS") {
        HxParamBundle const* all = suv::dicom(params);
        if (char const* factor = all->findPrivateTag(kPhilipsCreator, "G7053-XX00"))
            bundle->set("PhilipsSUVFactor", unpad(factor));
        if (char const* factor = all->findPrivateTag(kPhilipsCreator, "G7053-XX09"))
            bundle->set("PhilipsBQMLFactor", unpad(factor));
    }
}

void LmSUVStatistics::initSUVBundleFromDICOMTags(LmVolume* volume)
{
    if (volume)
        initSUVBundleFromDICOMTags(volume->parameters());
}

bool LmSUVStatistics::supportsSUV(HxParamBundle const& params)
{
    std::string const modality = unpad(tagText(params, 0x0008, 0x0060));
    if (modality != "NM" && modality != "PT")
        return false;
    std::string const units = unpad(tagText(params, 0x0054, 0x1001));
    if (units != "BQML" && units != "CNTS" && !findRealWorldMappingSequence(params, "Bq/ml", nullptr))
        return false;
    if (units == "CNTS") {
        HxParamBundle const* all = suv::dicom(params);
        std::string const bqml = unpad(all->findPrivateTag(kPhilipsCreator, "G7053-XX09", ""));
        if (!bqml.empty() && std::atof(bqml.c_str()) != 0.0)
            return hasDecayCorrectionDateTime(params);
        std::string const factor = unpad(all->findPrivateTag(kPhilipsCreator, "G7053-XX00", ""));
        return !factor.empty() && std::atof(factor.c_str()) > 0.0;
    }
    return hasDecayCorrectionDateTime(params);
}

bool LmSUVStatistics::supportsSUV(LmVolume const* volume)
{
    return volume && supportsSUV(volume->parameters());
}

bool LmSUVStatistics::hasDecayCorrectionDateTime(HxParamBundle const& params)
{
    std::string const correction = unpad(tagText(params, 0x0054, 0x1102));
    if (correction == "START" || correction == "ADMIN")
        return true;
    return unpad(tagText(params, 0x0018, 0x9758)) == "YES" && params.findTagInAll(0x0018, 0x9701);
}

bool LmSUVStatistics::getDecayCorrectionDateTime(HxParamBundle& params, QDateTime& dateTime)
{
    if (unpad(tagText(params, 0x0018, 0x9758)) != "YES" || !params.findTagInAll(0x0018, 0x9701))
        return false;
    return suv::scanDateTime(tagText(params, 0x0018, 0x9701), dateTime);
}

namespace {

bool mappingFits(HxParamBundle const& params, HxParamBundle const& item, char const* units,
                 LmSUVStatistics::RealWorldMapping* mapping)
{
    HxParamBundle const* unitItem =
        ExDicomUtilities::findSequenceItem(&item, HxParamBundle::tagName(0x0040, 0x08EA).c_str(), 0);
    if (!unitItem || unpad(tagText(*unitItem, 0x0008, 0x0100)) != units)
        return false;
    char const* slope = item.findTag(0x0040, 0x9225);
    char const* intercept = item.findTag(0x0040, 0x9224);
    if (!slope || !intercept)
        return false;
    if (!mapping)
        return true;
    char const* rescaleIntercept = params.findTagInAll(0x0028, 0x1052);
    char const* rescaleSlope = params.findTagInAll(0x0028, 0x1053);
    double const r = rescaleSlope ? std::atof(rescaleSlope) : 1.0;
    // DICOM names (0040,9216) the first and (0040,9211) the last value
    // mapped; read them by that meaning, or the range check below would
    // turn away every real file whose mapping runs upwards.
    char const* first = item.findTag(0x0040, 0x9216);
    char const* last = item.findTag(0x0040, 0x9211);
    HxParamBundle const* bundle = params.bundle(suv::kBundle);
    double minMax[2] = {0.0, 0.0};
    double s = 1.0;
    if (first && last && bundle && params.findReal("DataMinMax", 2, minMax) &&
        bundle->findReal("OriginalRescaleSlope", 1, &s)) {
        // The mapped range has to span the data's range, to within one
        // rescale step.
        double const span = (minMax[1] - minMax[0]) * s - (std::atof(last) - std::atof(first)) * r;
        if (std::fabs(span) > r)
            return false;
    }
    mapping->slope = std::atof(slope);
    mapping->intercept = std::atof(intercept);
    if (first && last) {
        mapping->hasRange = 1;
        mapping->firstValue = std::atoi(first);
        mapping->lastValue = std::atoi(last);
    }
    if (rescaleSlope)
        mapping->rescaleSlope = r;
    if (rescaleIntercept)
        mapping->rescaleIntercept = std::atof(rescaleIntercept);
    return true;
}

bool anyMappingFits(HxParamBundle const& params, HxParamBundle const* holder, char const* units,
                    LmSUVStatistics::RealWorldMapping* mapping)
{
    HxParamBundle const* sequence =
        holder ? holder->bundle(HxParamBundle::tagName(0x0040, 0x9096).c_str()) : nullptr;
    if (!sequence)
        return false;
    for (int i = 0; i < sequence->nBundles(); ++i)
        if (mappingFits(params, *sequence->bundle(i), units, mapping))
            return true;
    return false;
}

} // namespace

bool LmSUVStatistics::findRealWorldMappingSequence(HxParamBundle const& params, char const* units,
                                                   RealWorldMapping* mapping)
{
    HxParamBundle const* all = params.dicomAll();
    if (!all || !units)
        return false;
    HxParamBundle const* first = nullptr;
    HxParamBundle const* second = nullptr;
    bool const enhanced = HxParamBundle::isEnhancedDcm(all, &first, &second);
    if (enhanced && first) {
        // A rescale in the shared groups stands in for a mapping.
        HxParamBundle const* transformation =
            ExDicomUtilities::findSequenceItem(first, HxParamBundle::tagName(0x0028, 0x9145).c_str(), 0);
        if (transformation &&
            (transformation->findTag(0x0028, 0x1052) || transformation->findTag(0x0028, 0x1053)))
            return false;
    }
    if (enhanced && second && anyMappingFits(params, second, units, mapping))
        return true;
    return anyMappingFits(params, all, units, mapping);
}

bool LmSUVStatistics::getElapsedTime(HxParamBundle const& params, float& seconds)
{
    HxParamBundle const* bundle = params.bundle(suv::kBundle);
    std::string correction;
    if (!findText(bundle, "DecayCorrection", correction))
        return false;
    if (correction == "ADMIN") {
        // Corrected to the time of administration: nothing to make up.
        seconds = 0.0f;
        return true;
    }
    QDateTime reference;
    std::string text;
    if (correction == "DATETIME") {
        if (findText(bundle, "DecayCorrectionDateTime", text))
            suv::scanDateTime(text, reference);
    } else if (correction == "START") {
        QDateTime acquisition;
        if (findText(bundle, "SeriesDateTime", text) && suv::scanDateTime(text, reference) &&
            findText(bundle, "AcquisitionDateTime", text) && suv::scanDateTime(text, acquisition)) {
            QDateTime const tolerated = acquisition.addSecs(sAcquisitionTimeTolerance);
            if (acquisition < reference && !(tolerated < reference))
                reference = acquisition;
            else if (tolerated < reference && !isSUVFlagSet(params, SUV_FLAG_EARLY_ACQUISITION))
                return false;
        }
    }
    if (!reference.isValid())
        return false;
    QDateTime start;
    if (!findText(bundle, "RadiopharmaceuticalStartDateTime", text) || !suv::scanDateTime(text, start))
        return false;
    int fromSeries = 0;
    if (bundle->findNum("RadiopharmaceuticalStartDateFromSeriesDate", 1, &fromSeries) && fromSeries == 1) {
        double halfLife = 0.0;
        if (!findNumber(bundle, "RadionuclideHalfLife", halfLife) || !(halfLife > 0.0))
            return false;
        if (halfLife > kTwelveHours) {
            // A borrowed date may be days off for a long-lived nuclide.
            if (!isSUVFlagSet(params, SUV_FLAG_LONG_HALF_LIFE))
                return false;
        } else if (reference < start) {
            // Injected before midnight, scanned after it.
            QDateTime const dayBefore = start.addDays(-1);
            qint64 const gap = dayBefore.secsTo(reference);
            if (gap >= 0 && 2.0 * halfLife > static_cast<double>(gap))
                start = dayBefore;
            if (reference < start)
                return false;
        }
    }
    seconds = static_cast<float>(start.secsTo(reference));
    return true;
}

bool LmSUVStatistics::getElapsedTime(LmVolume* volume, float& seconds)
{
    return volume && getElapsedTime(volume->parameters(), seconds);
}

void LmSUVStatistics::setAcquisitionTimeTolerance(int seconds)
{
    sAcquisitionTimeTolerance = std::min(std::max(seconds, 0), 1000);
}

int LmSUVStatistics::acquisitionTimeTolerance()
{
    return sAcquisitionTimeTolerance;
}

void LmSUVStatistics::setSUVFlag(LmVolume* volume, int flag)
{
    if (!volume)
        return;
    HxParamBundle* bundle = volume->parameters().bundle(suv::kBundle, true);
    int flags = 0;
    bundle->findNum("DubiousDataAcceptance", 1, &flags);
    bundle->setNum("DubiousDataAcceptance", flags | flag);
}

void LmSUVStatistics::unsetSUVFlag(LmVolume* volume, int flag)
{
    HxParamBundle* bundle = volume ? volume->parameters().bundle(suv::kBundle, false) : nullptr;
    int flags = 0;
    if (bundle && bundle->findNum("DubiousDataAcceptance", 1, &flags))
        bundle->setNum("DubiousDataAcceptance", flags & ~flag);
}

bool LmSUVStatistics::isSUVFlagSet(LmVolume* volume, int flag)
{
    return volume && isSUVFlagSet(volume->parameters(), flag);
}

bool LmSUVStatistics::isSUVFlagSet(HxParamBundle const& params, int flag)
{
    HxParamBundle const* bundle = params.bundle(suv::kBundle);
    int flags = 0;
    return bundle && bundle->findNum("DubiousDataAcceptance", 1, &flags) && (flags & flag) != 0;
}
