// PET SUV: gathers what standardised uptake values need from a volume's DICOM
// attributes into the "SUV" sub-bundle of its parameters, turns the chosen
// unit (activity, counts, three kinds of SUV) into one rescale slope and
// intercept on the volume, converts single values between units, and finds
// the box around the patient in a PET volume.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/EnUnitTag.h>
#include <mdxlib/platform/HxParamBundle.h>
#include <mdxlib/platform/McBox3f.h>
#include <mdxlib/platform/McVec3i.h>

#include <QDateTime>
#include <QString>

#include <cstdint>
#include <map>

class LmVolume;

// One piece of work of the SUV box's region fill: the voxels xLeft..xRight
// of row y in slice z. Signed 16 bits each, so that a stack of them costs
// 8 bytes a record; an axis may hold at most 32,767 voxels.
struct SF3D_Segment
{
    int16_t z;
    int16_t y;
    int16_t xLeft;
    int16_t xRight;
};

class MDX_EXPORT LmSUVStatistics
{
public:
    enum SUVMode : int
    {
        SUV_MODE_ACTIVITY = 0,
        SUV_MODE_BODY_WEIGHT = 1,
        SUV_MODE_BODY_SURFACE = 2,
        SUV_MODE_LEAN_BODY_MASS = 3,
        SUV_MODE_RAW_COUNTS = 4
    };

    // Dubious data a caller accepts, bits of "DubiousDataAcceptance".
    static constexpr int SUV_FLAG_LONG_HALF_LIFE = 8;
    static constexpr int SUV_FLAG_EARLY_ACQUISITION = 16;

    struct RealWorldMapping
    {
        double slope = 1.0;
        double intercept = 0.0;
        double rescaleSlope = 1.0;
        double rescaleIntercept = 0.0;
        int hasRange = 0;
        int firstValue = 0;
        int lastValue = 0;
    };

    // ---- The parameter bundle ----

    static void initSUVBundleFromDICOMTags(HxParamBundle& params);
    static void initSUVBundleFromDICOMTags(LmVolume* volume);
    static bool supportsSUV(HxParamBundle const& params);
    static bool supportsSUV(LmVolume const* volume);
    static bool hasDecayCorrectionDateTime(HxParamBundle const& params);
    static bool getDecayCorrectionDateTime(HxParamBundle& params, QDateTime& dateTime);
    static bool findRealWorldMappingSequence(HxParamBundle const& params, char const* units,
                                             RealWorldMapping* mapping);
    static bool getElapsedTime(HxParamBundle const& params, float& seconds);
    static bool getElapsedTime(LmVolume* volume, float& seconds);
    // Seconds an acquisition time may lie before the series time and still
    // replace it; clamped to 0..1000, 10 at start.
    static void setAcquisitionTimeTolerance(int seconds);
    static int acquisitionTimeTolerance();
    static void setSUVFlag(LmVolume* volume, int flag);
    static void unsetSUVFlag(LmVolume* volume, int flag);
    static bool isSUVFlagSet(LmVolume* volume, int flag);
    static bool isSUVFlagSet(HxParamBundle const& params, int flag);

    // ---- Modes and conversion ----

    static void initMaps();
    static SUVMode suvMode(LmVolume const* volume);
    static bool suvModeEnabled(LmVolume const* volume);
    static bool setSUVMode(LmVolume* volume, SUVMode mode, bool* changed);
    static bool setSUVMode(HxParamBundle& params, SUVMode mode);
    static bool suvModeSupported(LmVolume const* volume, SUVMode mode);
    static bool suvModeSupported(HxParamBundle& params, SUVMode mode);
    static EnUnitTag originalUnits(LmVolume* volume);
    static bool convertSUVMode(EnUnitTag unit, SUVMode& mode);
    static bool convertSUVMode(SUVMode mode, EnUnitTag& unit);
    static bool convertSUV(LmVolume const* volume, EnUnitTag from, float value, EnUnitTag to, float& result);
    static float dicomToSuv(LmVolume const* volume, float value);
    static float suvToDicom(LmVolume const* volume, float value);
    static float dicomToRaw(LmVolume const* volume, float value);
    static float rawToDicom(LmVolume const* volume, float value);
    static float suvToRaw(LmVolume const* volume, float value, bool* ok);
    static float suvToRaw(HxParamBundle const& params, float value, bool* ok);
    static float rawToSuv(LmVolume const* volume, float value, bool* ok);
    static bool rescaleMode(LmVolume* volume);
    static bool rescaleUnit(LmVolume* volume, EnUnitTag& unit);
    static QString uptakeTimeString(QDateTime const& start, QDateTime const& end);

    // ---- The SUV box ----

    // The box, in voxels of dims, around the body-sized regions at or above
    // SUV 0.1 (body weight) that reach the middle slice of data, a raw grid
    // of lowResDims (or dims when a component is 0). Leaves params in body
    // weight mode. The empty box (0, -1, ...) on any failure.
    static McBox3i computeSUVBox(HxParamBundle& params, McVec3i const& dims, McVec3i lowResDims,
                                 McBox3f const& bbox, unsigned short* data);

private:
    static std::map<EnUnitTag, SUVMode> mUnitsToModeMap;
    static std::map<SUVMode, EnUnitTag> mModeToUnitsMap;
    static int sAcquisitionTimeTolerance;
};
