// SUV modes: each mode becomes one rescale slope and intercept on the
// volume, and single values convert between units, stored values and SUV.
#include <mdxlib/suv/LmSUVStatistics.h>

#include "SuvValues.h"

#include <mdxlib/platform/LmVolume.h>

#include <QCoreApplication>

#include <cmath>
#include <cstdlib>

using suv::findNumber;
using suv::findText;

std::map<EnUnitTag, LmSUVStatistics::SUVMode> LmSUVStatistics::mUnitsToModeMap;
std::map<LmSUVStatistics::SUVMode, EnUnitTag> LmSUVStatistics::mModeToUnitsMap;

namespace {

// Fills the maps before main, so that they are only read afterwards.
struct MapsInitializer
{
    MapsInitializer() { LmSUVStatistics::initMaps(); }
} const sMapsInitializer;

// The patient and tracer facts the SUV factors are made of.
struct Facts
{
    bool hasWeight = false;
    bool hasHeight = false;
    bool hasDose = false;
    bool hasHalfLife = false;
    bool hasTime = false;
    double weight = 0.0;
    double height = 0.0;
    double dose = 0.0;
    double halfLife = 0.0;
    float time = 0.0f;
    std::string sex;
};

Facts readFacts(HxParamBundle const& params, HxParamBundle const* bundle, char const* weightKey)
{
    Facts facts;
    facts.hasWeight = findNumber(bundle, weightKey, facts.weight);
    facts.hasHeight = findNumber(bundle, "PatientHeight", facts.height);
    facts.hasDose = findNumber(bundle, "RadionuclideTotalDose", facts.dose);
    facts.hasHalfLife = findNumber(bundle, "RadionuclideHalfLife", facts.halfLife);
    facts.hasTime = LmSUVStatistics::getElapsedTime(params, facts.time);
    findText(bundle, "PatientSex", facts.sex);
    return facts;
}

// 2^(t/h) / d, in float as the stored factors were always made: the dose
// decayed to scan time is d / 2^(t/h).
float decayPerDose(Facts const& f)
{
    float const decay = std::pow(2.0f, f.time / static_cast<float>(f.halfLife));
    return decay / static_cast<float>(f.dose);
}

// Counts to activity with the vendor's SUV factor p:
// (d * p) / (w * 2^(t/h) * 1000).
double countsToActivity(Facts const& f, double p, double weight)
{
    float const dp = static_cast<float>(f.dose) * static_cast<float>(p);
    float const decay = std::pow(2.0f, f.time / static_cast<float>(f.halfLife));
    return dp / (static_cast<float>(weight) * (decay * 1000.0));
}

// DuBois: 71.84 * W^0.425 * H^0.725 in cm², W in kg, H in cm; the powers
// and their product in float.
float duBoisPowers(double weight, double height)
{
    return std::pow(static_cast<float>(weight), 0.425f) *
           std::pow(static_cast<float>(height * 100.0), 0.725f);
}

// James: k * W - c * (W / H)², H in cm; false for a sex other than F or M.
bool jamesLeanMass(double weight, double height, std::string const& sex, double& mass)
{
    if (sex != "F" && sex != "M")
        return false;
    float const w = static_cast<float>(weight);
    float const x = static_cast<float>(height);
    float const c = sex == "F" ? 148.0f : 128.0f;
    float const q = (c * w * w) / (10000.0f * x * x);
    double const k = sex == "F" ? 1.07 : 1.1;
    mass = k * weight - q;
    return true;
}

bool isTrue(HxParamBundle const* bundle, char const* key)
{
    std::string text;
    return findText(bundle, key, text) && text == "true";
}

// The vendor's counts-to-activity factor. A factor of 0 counts as none, as
// supportsSUV has it: taken as it stands it would show every voxel as 0,
// and the SUV factor is there to fall back on.
bool bqmlFactor(HxParamBundle const* bundle, double& factor)
{
    return findNumber(bundle, "PhilipsBQMLFactor", factor) && factor != 0.0;
}

HxParamBundle const* suvBundle(LmVolume const* volume)
{
    return volume ? volume->parameters().bundle(suv::kBundle) : nullptr;
}

} // namespace

void LmSUVStatistics::initMaps()
{
    if (!mModeToUnitsMap.empty())
        return;
    std::pair<SUVMode, EnUnitTag> const pairs[] = {{SUV_MODE_ACTIVITY, UNIT_BQML},
                                                   {SUV_MODE_BODY_WEIGHT, UNIT_SUV_BW},
                                                   {SUV_MODE_BODY_SURFACE, UNIT_SUV_BSA},
                                                   {SUV_MODE_LEAN_BODY_MASS, UNIT_SUV_LBM},
                                                   {SUV_MODE_RAW_COUNTS, UNIT_COUNTS}};
    for (auto const& pair : pairs) {
        mModeToUnitsMap[pair.first] = pair.second;
        mUnitsToModeMap[pair.second] = pair.first;
    }
}

LmSUVStatistics::SUVMode LmSUVStatistics::suvMode(LmVolume const* volume)
{
    int mode = -1;
    HxParamBundle const* bundle = suvBundle(volume);
    if (!bundle || !bundle->findNum("Enabled", 1, &mode))
        return static_cast<SUVMode>(-1);
    return static_cast<SUVMode>(mode);
}

bool LmSUVStatistics::suvModeEnabled(LmVolume const* volume)
{
    int const mode = suvMode(volume);
    return mode != -1 && mode != SUV_MODE_ACTIVITY;
}

namespace {

// Whether the facts support mode; see suvModeSupported.
bool supportedBy(HxParamBundle const* bundle, Facts const& f, LmSUVStatistics::SUVMode mode)
{
    bool const w = f.hasWeight && f.weight > 0.0;
    bool const d = f.hasDose && f.dose > 0.0 && f.hasHalfLife && f.halfLife > 0.0;
    bool const t = f.hasTime && 10.0 * f.halfLife > std::fabs(f.time);
    bool const h = f.hasHeight && f.height > 0.0;
    double factor = 0.0;
    bool const p = (findNumber(bundle, "PhilipsBQMLFactor", factor) && factor >= 0.0) ||
                   (findNumber(bundle, "PhilipsSUVFactor", factor) && factor >= 0.0);
    if (isTrue(bundle, "PhilipsSUVOnly")) {
        std::string units;
        if (mode == LmSUVStatistics::SUV_MODE_RAW_COUNTS)
            return findText(bundle, "Units", units) && units == "CNTS";
        return mode == LmSUVStatistics::SUV_MODE_BODY_WEIGHT && p;
    }
    // Sex plays no part: without it lean-body-mass mode stands on the dose
    // factor alone (see setSUVMode).
    switch (mode) {
    case LmSUVStatistics::SUV_MODE_BODY_WEIGHT:
        return t && w && d;
    case LmSUVStatistics::SUV_MODE_BODY_SURFACE:
    case LmSUVStatistics::SUV_MODE_LEAN_BODY_MASS:
        return t && w && d && h;
    default:
        return true;
    }
}

// The "SUV" bundle, built first when the parameters have none.
HxParamBundle const* builtBundle(HxParamBundle& params)
{
    if (!params.bundle(suv::kBundle))
        LmSUVStatistics::initSUVBundleFromDICOMTags(params);
    return params.bundle(suv::kBundle);
}

} // namespace

bool LmSUVStatistics::suvModeSupported(HxParamBundle& params, SUVMode mode)
{
    HxParamBundle const* bundle = builtBundle(params);
    return bundle && supportedBy(bundle, readFacts(params, bundle, "PatientWeight"), mode);
}

bool LmSUVStatistics::suvModeSupported(LmVolume const* volume, SUVMode mode)
{
    if (!supportsSUV(volume))
        return false;
    // Building the bundle on first use changes the parameters, not the
    // volume's state a caller sees.
    return suvModeSupported(const_cast<LmVolume*>(volume)->parameters(), mode);
}

bool LmSUVStatistics::setSUVMode(HxParamBundle& params, SUVMode mode)
{
    if (!suvModeSupported(params, mode))
        return false;
    HxParamBundle* bundle = params.bundle(suv::kBundle, false);
    if (!bundle)
        return false;
    double f = 1.0;
    double b = 0.0;
    std::string units;
    if (!findText(bundle, "Units", units)) {
        RealWorldMapping m;
        if (!findRealWorldMappingSequence(params, "Bq/ml", &m) || m.rescaleSlope == 0.0)
            return false;
        f = m.slope / m.rescaleSlope;
        // The mapping's offset is in Bq/ml and stays out of the SUV factor
        // below, as the stored factors always had it.
        b = m.intercept - m.slope * m.rescaleIntercept / m.rescaleSlope;
        units = "BQML";
    }
    bool skipActivityToSuv = false;
    if (units == "CNTS" && mode != SUV_MODE_RAW_COUNTS) {
        double factor = 0.0;
        if (bqmlFactor(bundle, factor)) {
            f *= factor;
        } else {
            double p = 0.0;
            if (!findNumber(bundle, "PhilipsSUVFactor", p) || !(p > 0.0))
                return false;
            Facts const facts = readFacts(params, bundle, "OriginalPatientWeight");
            // Dose and half-life must be there too: a missing one would
            // divide by zero and store an infinite rescale.
            if (!isTrue(bundle, "PhilipsSUVOnly") && facts.hasWeight && facts.hasTime && facts.weight > 0.0 &&
                facts.weight < 500.0 && facts.halfLife > 0.0 && facts.dose > 0.0) {
                f *= countsToActivity(facts, p, facts.weight);
            } else if (mode != SUV_MODE_BODY_WEIGHT) {
                return false;
            } else {
                // The vendor's factor already gives SUV by body weight.
                f *= p;
                skipActivityToSuv = true;
            }
        }
    }
    if (!skipActivityToSuv &&
        (mode == SUV_MODE_BODY_WEIGHT || mode == SUV_MODE_BODY_SURFACE || mode == SUV_MODE_LEAN_BODY_MASS)) {
        Facts const facts = readFacts(params, bundle, "PatientWeight");
        if (!facts.hasTime)
            return false;
        f *= decayPerDose(facts);
        float const w = static_cast<float>(facts.weight);
        double lean = 0.0;
        if (mode == SUV_MODE_BODY_WEIGHT)
            f *= w * 1000;
        else if (mode == SUV_MODE_BODY_SURFACE)
            f *= 71.84 * duBoisPowers(facts.weight, facts.height);
        else if (jamesLeanMass(facts.weight, facts.height, facts.sex, lean))
            f *= lean * 1000;
    }
    double s = 1.0;
    double i = 0.0;
    bundle->findReal("OriginalRescaleSlope", 1, &s);
    bundle->findReal("OriginalRescaleIntercept", 1, &i);
    bundle->setReal("RescaleSlope", s * f);
    bundle->setReal("RescaleIntercept", f * i + b);
    bundle->setNum("Enabled", mode);
    return true;
}

bool LmSUVStatistics::setSUVMode(LmVolume* volume, SUVMode mode, bool* changed)
{
    if (!volume || !suvModeSupported(volume, mode))
        return false;
    double const a = volume->rescaleSlope();
    double const c = volume->rescaleIntercept();
    SUVMode const oldMode = suvMode(volume);
    if (!setSUVMode(volume->parameters(), mode))
        return false;
    HxParamBundle const* bundle = suvBundle(volume);
    double n = 1.0;
    double m = 0.0;
    bundle->findReal("RescaleSlope", 1, &n);
    bundle->findReal("RescaleIntercept", 1, &m);
    if (changed)
        *changed = false;
    // a of 0 short-circuits the quotient.
    if ((a == 0.0 || std::fabs(1.0 - n / a) <= 0.0001) && std::fabs(m - c) <= 0.0001 && oldMode == mode)
        return true;
    volume->setRescaleSlope(static_cast<float>(n));
    volume->setRescaleIntercept(static_cast<float>(m));
    if (changed)
        *changed = true;
    volume->update(LmVolume::kRescaleChanged);
    return true;
}

EnUnitTag LmSUVStatistics::originalUnits(LmVolume* volume)
{
    std::string units;
    if (!findText(suvBundle(volume), "Units", units))
        return UNIT_UNKNOWN;
    return units == "CNTS" ? UNIT_COUNTS : units == "BQML" ? UNIT_BQML : UNIT_UNKNOWN;
}

bool LmSUVStatistics::convertSUVMode(EnUnitTag unit, SUVMode& mode)
{
    auto const it = mUnitsToModeMap.find(unit);
    if (it == mUnitsToModeMap.end())
        return false;
    mode = it->second;
    return true;
}

bool LmSUVStatistics::convertSUVMode(SUVMode mode, EnUnitTag& unit)
{
    auto const it = mModeToUnitsMap.find(mode);
    if (it == mModeToUnitsMap.end())
        return false;
    unit = it->second;
    return true;
}

bool LmSUVStatistics::convertSUV(LmVolume const* volume, EnUnitTag from, float value, EnUnitTag to,
                                 float& result)
{
    SUVMode fromMode = SUV_MODE_ACTIVITY;
    SUVMode toMode = SUV_MODE_ACTIVITY;
    if (!volume || !convertSUVMode(from, fromMode) || !convertSUVMode(to, toMode) || !supportsSUV(volume))
        return false;
    // The facts are read once and serve both support checks and the factors.
    HxParamBundle& params = const_cast<LmVolume*>(volume)->parameters();
    HxParamBundle const* bundle = builtBundle(params);
    if (!bundle)
        return false;
    Facts const facts = readFacts(params, bundle, "PatientWeight");
    if (!supportedBy(bundle, facts, fromMode) || !supportedBy(bundle, facts, toMode))
        return false;
    if (fromMode == toMode) {
        result = value;
        return true;
    }
    double factor[5] = {0.0, 0.0, 0.0, 0.0, 0.0};
    std::string units;
    if (!findText(bundle, "Units", units))
        return false;
    double a = 0.0;
    if (units == "BQML") {
        a = factor[SUV_MODE_ACTIVITY] = 1.0;
    } else if (units == "CNTS") {
        factor[SUV_MODE_RAW_COUNTS] = 1.0;
        double g = 0.0;
        double p = 0.0;
        if (bqmlFactor(bundle, g)) {
            a = factor[SUV_MODE_ACTIVITY] = g;
        } else {
            if (!findNumber(bundle, "PhilipsSUVFactor", p) || !(p > 0.0))
                return false;
            double w = 0.0;
            bool const hasWeight = findNumber(bundle, "OriginalPatientWeight", w);
            if (!isTrue(bundle, "PhilipsSUVOnly") && hasWeight && w > 0.0 && w < 500.0 && facts.hasHalfLife &&
                facts.halfLife > 0.0 && facts.hasDose && facts.dose > 0.0 && facts.hasTime) {
                a = factor[SUV_MODE_ACTIVITY] = countsToActivity(facts, p, w);
            } else if (fromMode == SUV_MODE_RAW_COUNTS && toMode == SUV_MODE_BODY_WEIGHT) {
                result = static_cast<float>(value * p);
                return true;
            } else if (fromMode == SUV_MODE_BODY_WEIGHT && toMode == SUV_MODE_RAW_COUNTS) {
                result = static_cast<float>(value / p);
                return true;
            } else {
                return false;
            }
        }
    } else {
        return false;
    }
    // A dose or half-life of 0 gives no factor rather than an infinite one.
    if (facts.hasWeight && facts.hasHalfLife && facts.hasDose && facts.hasTime && facts.halfLife > 0.0 &&
        facts.dose > 0.0) {
        a = static_cast<float>(a * decayPerDose(facts));
        double const u = 1000.0 * a;
        factor[SUV_MODE_BODY_WEIGHT] = facts.weight * u;
        if (facts.hasHeight && facts.height > 0.0) {
            factor[SUV_MODE_BODY_SURFACE] = std::pow(static_cast<float>(facts.height * 100.0), 0.725f) *
                                            (a * std::pow(static_cast<float>(facts.weight), 0.425f)) * 71.84;
        }
        double lean = 0.0;
        if (facts.hasHeight && facts.height > 0.0 &&
            jamesLeanMass(facts.weight, facts.height, facts.sex, lean))
            factor[SUV_MODE_LEAN_BODY_MASS] = lean * u;
    }
    if (factor[fromMode] == 0.0 || factor[toMode] == 0.0)
        return false;
    result = static_cast<float>(factor[toMode] * value / factor[fromMode]);
    return true;
}

namespace {

bool originalSlope(LmVolume const* volume, double& s)
{
    HxParamBundle const* bundle = suvBundle(volume);
    if (!bundle || !LmSUVStatistics::supportsSUV(volume))
        return false;
    s = 1.0;
    bundle->findReal("OriginalRescaleSlope", 1, &s);
    return true;
}

} // namespace

float LmSUVStatistics::dicomToSuv(LmVolume const* volume, float value)
{
    double s = 1.0;
    if (!originalSlope(volume, s) || s == 0.0)
        return value;
    return static_cast<float>(volume->rescaleSlope() * value / s);
}

float LmSUVStatistics::suvToDicom(LmVolume const* volume, float value)
{
    double s = 1.0;
    // A slope of 0 on the volume would divide by zero: the value stays.
    if (!originalSlope(volume, s) || s == 0.0 || volume->rescaleSlope() == 0.0f)
        return value;
    return static_cast<float>(s * value / volume->rescaleSlope());
}

float LmSUVStatistics::dicomToRaw(LmVolume const* volume, float value)
{
    if (!volume)
        return value;
    HxParamBundle const* bundle = suvBundle(volume);
    double s = 1.0;
    double i = 0.0;
    if (bundle && bundle->findReal("OriginalRescaleSlope", 1, &s) &&
        bundle->findReal("OriginalRescaleIntercept", 1, &i))
        return s == 0.0 ? 0.0f : static_cast<float>((value - i) / s);
    return volume->scale(value);
}

float LmSUVStatistics::rawToDicom(LmVolume const* volume, float value)
{
    if (!volume)
        return value;
    HxParamBundle const* bundle = suvBundle(volume);
    double s = 1.0;
    double i = 0.0;
    if (bundle && bundle->findReal("OriginalRescaleSlope", 1, &s) &&
        bundle->findReal("OriginalRescaleIntercept", 1, &i))
        return static_cast<float>(value * s + i);
    return value * volume->rescaleSlope() + volume->rescaleIntercept();
}

float LmSUVStatistics::suvToRaw(HxParamBundle const& params, float value, bool* ok)
{
    HxParamBundle const* bundle = params.bundle(suv::kBundle);
    double r = 0.0;
    double c = 0.0;
    bool const found = bundle && bundle->findReal("RescaleSlope", 1, &r) && r != 0.0 &&
                       bundle->findReal("RescaleIntercept", 1, &c);
    if (ok)
        *ok = found;
    return found ? static_cast<float>((value - c) / r) : value;
}

float LmSUVStatistics::suvToRaw(LmVolume const* volume, float value, bool* ok)
{
    if (!volume) {
        if (ok)
            *ok = false;
        return value;
    }
    return suvToRaw(volume->parameters(), value, ok);
}

float LmSUVStatistics::rawToSuv(LmVolume const* volume, float value, bool* ok)
{
    HxParamBundle const* bundle = suvBundle(volume);
    double r = 0.0;
    double c = 0.0;
    bool const found = bundle && bundle->findReal("RescaleSlope", 1, &r) && r != 0.0 &&
                       bundle->findReal("RescaleIntercept", 1, &c);
    if (ok)
        *ok = found;
    return found ? static_cast<float>(value * r + c) : value;
}

bool LmSUVStatistics::rescaleMode(LmVolume* volume)
{
    HxParamBundle const* bundle = suvBundle(volume);
    int mode = -1;
    std::string units;
    if (!bundle || !bundle->findNum("Enabled", 1, &mode) || !findText(bundle, "Units", units) ||
        units.empty())
        return false;
    if (mode == SUV_MODE_ACTIVITY)
        return units != "BQML";
    if (mode == SUV_MODE_RAW_COUNTS)
        return units != "CNTS";
    return true;
}

bool LmSUVStatistics::rescaleUnit(LmVolume* volume, EnUnitTag& unit)
{
    HxParamBundle const* bundle = suvBundle(volume);
    int mode = -1;
    if (!bundle || !bundle->findNum("Enabled", 1, &mode) || mode >= 5 || mode < 0)
        return false;
    return convertSUVMode(static_cast<SUVMode>(mode), unit);
}

QString LmSUVStatistics::uptakeTimeString(QDateTime const& start, QDateTime const& end)
{
    if (!start.isValid() || !end.isValid())
        return QString();
    qint64 s = start.secsTo(end);
    QString sign;
    if (s < 0) {
        sign = QStringLiteral("-");
        s = -s;
    }
    qint64 hours = s / 3600;
    qint64 minutes = s / 60 - hours * 60;
    if (s % 60 >= 30) {
        if (minutes < 59) {
            ++minutes;
        } else {
            ++hours;
            minutes = 0;
        }
    }
    QString const format =
        QCoreApplication::translate("ExSUVEditor", "%1:%2 hours", "Format string for uptake time [HH:MM]");
    return sign + format.arg(hours).arg(minutes, 2, 10, QLatin1Char('0'));
}
