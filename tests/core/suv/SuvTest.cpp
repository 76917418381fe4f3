// The SUV bundle, modes, conversions and box on parameters built in code;
// the factors of real files are checked against independent formulas by
// suv_oracle.py.
#include <mdxlib/platform/ExDicomUtilities.h>
#include <mdxlib/platform/LmVolume.h>
#include <mdxlib/platform/McBitfield.h>
#include <mdxlib/suv/LmSUVStatistics.h>

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using S = LmSUVStatistics;

// A PET image of 70 kg, 1.75 m, 3.7e8 Bq of F-18, decay corrected to the
// administration (t = 0) unless changed.
HxParamBundle petParams(char const* correction = "ADMIN")
{
    HxParamBundle params;
    HxParamBundle* all = params.dicomAllCreate();
    all->setTag(0x0008, 0x0060, "PT");
    all->setTag(0x0008, 0x0021, "20240315");
    all->setTag(0x0008, 0x0031, "101500");
    all->setTag(0x0010, 0x1030, "70");
    all->setTag(0x0010, 0x1020, "1.75");
    all->setTag(0x0010, 0x0040, "M");
    all->setTag(0x0054, 0x1001, "BQML");
    all->setTag(0x0054, 0x1102, correction);
    HxParamBundle* item = all->bundle("G0054-0016", true)->bundle("Item0", true);
    item->setTag(0x0018, 0x1072, "091000");
    item->setTag(0x0018, 0x1074, "3.7e8");
    item->setTag(0x0018, 0x1075, "6586.2");
    return params;
}

HxParamBundle* item0(HxParamBundle& params)
{
    return params.dicomAll()->bundle("G0054-0016", false)->bundle("Item0", false);
}

std::string suvText(HxParamBundle const& params, char const* key)
{
    std::string text;
    params.bundle("SUV")->findString(key, text);
    return text;
}

TEST(SuvPlatform, NormalizeTimeText)
{
    struct Row
    {
        char const* text;
        bool ok;
        char const* normalized;
    } const rows[] = {{"101455.5", true, "101455.5"},
                      {"1014", true, "101400"},
                      {"10", true, "100000"},
                      {"10:14:55.25", true, "101455.25"},
                      {" 101455 ", true, "101455"},
                      {"2460", false, ""},
                      {"24", false, ""},
                      {"abc", false, ""},
                      {"", false, ""},
                      {"10145", false, ""},
                      {"101455.", false, ""}};
    for (Row const& row : rows) {
        std::string out = "unchanged";
        EXPECT_EQ(ExDicomUtilities::normalizeTMString(row.text, out), row.ok) << row.text;
        EXPECT_EQ(out, row.ok ? row.normalized : "unchanged") << row.text;
    }
    std::string out;
    EXPECT_FALSE(ExDicomUtilities::normalizeTMString(nullptr, out));
}

TEST(SuvPlatform, BitfieldSetRangeMatchesBitByBit)
{
    struct Row
    {
        size_t first, last;
    } const rows[] = {{0, 0}, {3, 62}, {63, 64}, {60, 200}, {128, 191}, {250, 400}, {10, 5}};
    for (Row const& row : rows) {
        McBitfield bits(300);
        bits.setRange(row.first, row.last);
        for (size_t i = 0; i < 300; ++i)
            ASSERT_EQ(bits[i], i >= row.first && i <= row.last)
                << row.first << ".." << row.last << " at " << i;
    }
}

TEST(SuvPlatform, BoxExtendByAndVoxelSize)
{
    McBox3i box;
    box.extendBy(McBox3i());
    EXPECT_FALSE(box.isValid());
    box.extendBy(McBox3i(5, 10, 6, 7, 8, 9));
    EXPECT_EQ(box, McBox3i(5, 10, 6, 7, 8, 9));
    box.extendBy(McBox3i(1, 2, 20, 21, 8, 8));
    EXPECT_EQ(box, McBox3i(1, 10, 6, 21, 8, 9));
    McVec3f const v = getVoxelSize(McBox3f(0, 99, 0, 10, 5, 7), McVec3i(100, 1, 0));
    EXPECT_FLOAT_EQ(v.x, 1.0f);
    EXPECT_FLOAT_EQ(v.y, 10.0f);
    EXPECT_FLOAT_EQ(v.z, 2.0f);
}

TEST(SuvBundle, RebuildKeepsModeOriginalRescaleAndFlags)
{
    HxParamBundle params = petParams();
    params.setReal("DataWindowScale", 0.5);
    params.setReal("DataWindowBias", 2.0);
    ASSERT_TRUE(S::setSUVMode(params, S::SUV_MODE_BODY_WEIGHT));
    params.bundle("SUV", false)->setNum("DubiousDataAcceptance", S::SUV_FLAG_LONG_HALF_LIFE);
    params.setReal("DataWindowScale", 7.0);
    params.dicomAll()->setTag(0x0010, 0x1030, "80");
    S::initSUVBundleFromDICOMTags(params);
    EXPECT_EQ(suvText(params, "Enabled"), "1");
    EXPECT_EQ(suvText(params, "OriginalRescaleSlope"), "0.5");
    EXPECT_EQ(suvText(params, "OriginalRescaleIntercept"), "2");
    EXPECT_EQ(suvText(params, "PatientWeight"), "80");
    EXPECT_TRUE(S::isSUVFlagSet(params, S::SUV_FLAG_LONG_HALF_LIFE));
    EXPECT_FALSE(params.bundle("SUV")->find("RescaleSlope"));
}

TEST(SuvBundle, ShortStartDateTimeFallsBackOnPrivateTagThenTime)
{
    HxParamBundle params = petParams();
    item0(params)->setTag(0x0018, 0x1078, "2024031509100");
    ASSERT_TRUE(item0(params)->setPrivateTag("Lumora", 0x0071, 0xD1, "20240314235959.123"));
    S::initSUVBundleFromDICOMTags(params);
    EXPECT_EQ(suvText(params, "RadiopharmaceuticalStartDateTime"), "20240314235959");
    EXPECT_FALSE(params.bundle("SUV")->find("RadiopharmaceuticalStartDateFromSeriesDate"));
}

// The 5 s tolerance and long half-lives are suv_oracle.py's cases.
TEST(SuvBundle, ElapsedTimeRules)
{
    struct Row
    {
        char const* name;
        char const* series;      // series time
        char const* acquisition; // time on the series date, or null
        char const* start;       // start time, the date taken from the series
        char const* halfLife;
        int flags;
        bool ok;
        float seconds;
    } const rows[] = {
        {"acquisition 60 s early is refused", "101500", "101400", "091000", "6586.2", 0, false, 0.0f},
        {"accepted early acquisition keeps series", "101500", "101400", "091000", "6586.2",
         S::SUV_FLAG_EARLY_ACQUISITION, true, 3900.0f},
        {"later acquisition keeps series", "101500", "101600", "091000", "6586.2", 0, true, 3900.0f},
        {"day before beyond two half-lives", "101500", nullptr, "235000", "6586.2", 0, false, 0.0f},
        {"day move within two half-lives", "101500", nullptr, "235000", "20000", 0, true, 37500.0f},
        {"midnight move at just two half-lives", "002000", nullptr, "235000", "901", 0, true, 1800.0f},
        {"midnight move beyond two half-lives", "002000", nullptr, "235000", "899", 0, false, 0.0f},
        {"no half-life", "101500", nullptr, "091000", "0", 0, false, 0.0f},
    };
    for (Row const& row : rows) {
        HxParamBundle params = petParams("START");
        params.dicomAll()->setTag(0x0008, 0x0031, row.series);
        if (row.acquisition) {
            params.dicomAll()->setTag(0x0008, 0x0022, "20240315");
            params.dicomAll()->setTag(0x0008, 0x0032, row.acquisition);
        }
        item0(params)->setTag(0x0018, 0x1072, row.start);
        item0(params)->setTag(0x0018, 0x1075, row.halfLife);
        S::initSUVBundleFromDICOMTags(params);
        params.bundle("SUV", false)->setNum("DubiousDataAcceptance", row.flags);
        float seconds = -1.0f;
        EXPECT_EQ(S::getElapsedTime(params, seconds), row.ok) << row.name;
        if (row.ok) {
            EXPECT_FLOAT_EQ(seconds, row.seconds) << row.name;
        }
    }
}

TEST(SuvBundle, ToleranceIsClamped)
{
    S::setAcquisitionTimeTolerance(5000);
    EXPECT_EQ(S::acquisitionTimeTolerance(), 1000);
    S::setAcquisitionTimeTolerance(-1);
    EXPECT_EQ(S::acquisitionTimeTolerance(), 0);
    S::setAcquisitionTimeTolerance(10);
}

TEST(SuvBundle, PhilipsBqmlFactorOfZeroFallsBackOnSuvFactor)
{
    HxParamBundle params = petParams();
    params.dicomAll()->setTag(0x0054, 0x1001, "CNTS");
    ASSERT_TRUE(params.dicomAll()->setPrivateTag("Philips PET Private Group", 0x7053, 0x09, "0"));
    EXPECT_FALSE(S::supportsSUV(params));
    ASSERT_TRUE(params.dicomAll()->setPrivateTag("Philips PET Private Group", 0x7053, 0x00, "0.0003"));
    EXPECT_TRUE(S::supportsSUV(params));
    // Counts to activity to SUV by body weight gives back the vendor's factor,
    // not the 0 of the BQML factor.
    ASSERT_TRUE(S::setSUVMode(params, S::SUV_MODE_BODY_WEIGHT));
    double slope = 0.0;
    params.bundle("SUV")->findReal("RescaleSlope", 1, &slope);
    EXPECT_NEAR(slope, 0.0003, 1e-9);
}

// Its factors and its unscaled offset are suv_oracle.py's; here the range.
TEST(SuvBundle, RealWorldMappingReadsFirstAndLastByTheirDicomMeaning)
{
    HxParamBundle params = petParams();
    params.dicomAll()->remove("G0054-1001");
    params.setReal("DataWindowScale", 1.0);
    params.set("DataMinMax", std::vector<double>{0.0, 1000.0});
    HxParamBundle* mapping = params.dicomAll()->bundle("G0040-9096", true)->bundle("Item0", true);
    mapping->bundle("G0040-08EA", true)->bundle("Item0", true)->setTag(0x0008, 0x0100, "Bq/ml");
    mapping->setTag(0x0040, 0x9225, "2.5");
    mapping->setTag(0x0040, 0x9224, "10");
    mapping->setTag(0x0040, 0x9216, "0");    // first value mapped
    mapping->setTag(0x0040, 0x9211, "1000"); // last value mapped
    S::initSUVBundleFromDICOMTags(params);
    S::RealWorldMapping m;
    ASSERT_TRUE(S::findRealWorldMappingSequence(params, "Bq/ml", &m));
    EXPECT_EQ(m.hasRange, 1);
    EXPECT_EQ(m.firstValue, 0);
    EXPECT_EQ(m.lastValue, 1000);
    EXPECT_DOUBLE_EQ(m.slope, 2.5);
    EXPECT_FALSE(S::findRealWorldMappingSequence(params, "cnts", nullptr));
    mapping->setTag(0x0040, 0x9216, "1000");
    mapping->setTag(0x0040, 0x9211, "0");
    EXPECT_FALSE(S::findRealWorldMappingSequence(params, "Bq/ml", &m));
}

TEST(SuvModes, FactorsAndRescale)
{
    struct Row
    {
        char const* units;
        S::SUVMode mode;
        double factor;
        bool changed; // the mode changes from 0 even when the rescale stays
    } const rows[] = {{"BQML", S::SUV_MODE_ACTIVITY, 1.0, false},
                      {"BQML", S::SUV_MODE_BODY_WEIGHT, 70000.0 / 3.7e8, true},
                      {"CNTS", S::SUV_MODE_RAW_COUNTS, 1.0, true}};
    for (Row const& row : rows) {
        LmVolume volume(petParams());
        volume.parameters().dicomAll()->setTag(0x0054, 0x1001, row.units);
        if (std::string(row.units) == "CNTS")
            volume.parameters().dicomAll()->setPrivateTag("Philips PET Private Group", 0x7053, 0x09, "2");
        volume.parameters().setReal("DataWindowScale", 0.5);
        volume.setRescaleSlope(0.5f);
        S::initSUVBundleFromDICOMTags(&volume);
        bool changed = true;
        ASSERT_TRUE(S::setSUVMode(&volume, row.mode, &changed)) << row.units << row.mode;
        EXPECT_NEAR(volume.rescaleSlope() / 0.5, row.factor, row.factor * 1e-6);
        EXPECT_EQ(S::rescaleMode(&volume), row.mode == S::SUV_MODE_BODY_WEIGHT);
        EXPECT_EQ(changed, row.changed);
    }
}

TEST(SuvModes, RescaleChangeIsNotified)
{
    LmVolume volume(petParams());
    std::vector<int> seen;
    volume.addObserver([&seen](LmVolume&, int what) { seen.push_back(what); });
    bool changed = false;
    ASSERT_TRUE(S::setSUVMode(&volume, S::SUV_MODE_LEAN_BODY_MASS, &changed));
    EXPECT_TRUE(changed);
    ASSERT_TRUE(S::setSUVMode(&volume, S::SUV_MODE_LEAN_BODY_MASS, &changed));
    EXPECT_FALSE(changed);
    EXPECT_EQ(seen, std::vector<int>{LmVolume::kRescaleChanged});
    EXPECT_EQ(S::suvMode(&volume), S::SUV_MODE_LEAN_BODY_MASS);
    EXPECT_TRUE(S::suvModeEnabled(&volume));
    EnUnitTag unit = UNIT_UNKNOWN;
    ASSERT_TRUE(S::rescaleUnit(&volume, unit));
    EXPECT_EQ(unit, UNIT_SUV_LBM);
}

TEST(SuvModes, PhilipsSuvOnlyUsesTheVendorFactor)
{
    LmVolume volume(petParams("NONE"));
    volume.parameters().dicomAll()->setTag(0x0054, 0x1001, "CNTS");
    volume.parameters().dicomAll()->setPrivateTag("Philips PET Private Group", 0x7053, 0x00, "0.0003");
    S::initSUVBundleFromDICOMTags(&volume);
    volume.parameters().bundle("SUV", false)->set("PhilipsSUVOnly", "true");
    EXPECT_FALSE(S::suvModeSupported(&volume, S::SUV_MODE_ACTIVITY));
    ASSERT_TRUE(S::setSUVMode(&volume, S::SUV_MODE_BODY_WEIGHT, nullptr));
    EXPECT_FLOAT_EQ(volume.rescaleSlope(), 0.0003f);
    float result = 0.0f;
    ASSERT_TRUE(S::convertSUV(&volume, UNIT_COUNTS, 100.0f, UNIT_SUV_BW, result));
    EXPECT_FLOAT_EQ(result, 0.03f);
}

TEST(SuvModes, ElevenHalfLivesAreTooMany)
{
    HxParamBundle params = petParams("START");
    item0(params)->setTag(0x0018, 0x1075, "354.5"); // 3900 s is 11 half-lives
    S::initSUVBundleFromDICOMTags(params);
    for (S::SUVMode mode : {S::SUV_MODE_BODY_WEIGHT, S::SUV_MODE_BODY_SURFACE, S::SUV_MODE_LEAN_BODY_MASS})
        EXPECT_FALSE(S::suvModeSupported(params, mode));
    EXPECT_TRUE(S::suvModeSupported(params, S::SUV_MODE_ACTIVITY));
}

TEST(SuvModes, ConversionsAgreeWithTheRescale)
{
    LmVolume volume(petParams());
    S::initSUVBundleFromDICOMTags(&volume);
    float bw = 0.0f;
    ASSERT_TRUE(S::convertSUV(&volume, UNIT_BQML, 3.7e5f, UNIT_SUV_BW, bw));
    EXPECT_NEAR(bw, 70.0f, 1e-3);
    float same = 0.0f;
    ASSERT_TRUE(S::convertSUV(&volume, UNIT_SUV_BSA, 4.0f, UNIT_SUV_BSA, same));
    EXPECT_EQ(same, 4.0f);
    ASSERT_TRUE(S::setSUVMode(&volume, S::SUV_MODE_BODY_WEIGHT, nullptr));
    bool ok = false;
    float const raw = S::suvToRaw(&volume, 70.0f, &ok);
    ASSERT_TRUE(ok);
    EXPECT_NEAR(raw, 3.7e5f, 1.0f);
    EXPECT_NEAR(S::rawToSuv(&volume, raw, &ok), 70.0f, 1e-4);
    EXPECT_NEAR(S::dicomToSuv(&volume, 3.7e5f), 70.0f, 1e-3);
    EXPECT_NEAR(S::suvToDicom(&volume, 70.0f), 3.7e5f, 1.0f);
    volume.parameters().bundle("SUV", false)->setReal("RescaleSlope", 0.0);
    S::rawToSuv(&volume, 1.0f, &ok);
    EXPECT_FALSE(ok);
}

TEST(SuvModes, UptakeTimeString)
{
    QDateTime const start(QDate(2024, 3, 15), QTime(9, 0, 0));
    struct Row
    {
        int seconds;
        char const* text;
    } const rows[] = {{3570, "1:00 hours"},
                      {-90, "-0:02 hours"},
                      {3895, "1:05 hours"},
                      {0, "0:00 hours"},
                      {7229, "2:00 hours"}};
    for (Row const& row : rows)
        EXPECT_EQ(S::uptakeTimeString(start, start.addSecs(row.seconds)).toStdString(), row.text)
            << row.seconds;
    EXPECT_TRUE(S::uptakeTimeString(QDateTime(), start).isEmpty());
}

TEST(SuvModes, BadInputNeitherThrowsNorCrashes)
{
    EXPECT_EQ(S::suvMode(nullptr), -1);
    EXPECT_FALSE(S::supportsSUV(static_cast<LmVolume const*>(nullptr)));
    EXPECT_FALSE(S::setSUVMode(nullptr, S::SUV_MODE_BODY_WEIGHT, nullptr));
    EXPECT_EQ(S::dicomToSuv(nullptr, 5.0f), 5.0f);
    EXPECT_EQ(S::rawToDicom(nullptr, 5.0f), 5.0f);
    float out = 0.0f;
    EXPECT_FALSE(S::getElapsedTime(static_cast<LmVolume*>(nullptr), out));
    EXPECT_EQ(S::originalUnits(nullptr), UNIT_UNKNOWN);
    // An unreadable weight is suv_oracle.py's; an empty dose is refused too.
    HxParamBundle params = petParams();
    item0(params)->setTag(0x0018, 0x1074, "");
    EXPECT_FALSE(S::setSUVMode(params, S::SUV_MODE_BODY_WEIGHT));
    EXPECT_TRUE(S::setSUVMode(params, S::SUV_MODE_ACTIVITY));
}

// A phantom of 1 mm voxels for the SUV box: value 1000 inside the given
// boxes, 0 elsewhere. At 70 kg and 3.7e8 Bq, SUV 0.1 is about 529.
struct Phantom
{
    McVec3i dims;
    std::vector<unsigned short> voxels;

    explicit Phantom(McVec3i d)
        : dims(d)
        , voxels(static_cast<size_t>(d.x) * d.y * d.z, 0)
    {
    }
    Phantom& fill(McBox3i const& box)
    {
        for (int z = box.min[2]; z <= box.max[2]; ++z)
            for (int y = box.min[1]; y <= box.max[1]; ++y)
                for (int x = box.min[0]; x <= box.max[0]; ++x)
                    voxels[(static_cast<size_t>(z) * dims.y + y) * dims.x + x] = 1000;
        return *this;
    }
    McBox3f bbox(float voxel = 1.0f) const
    {
        return McBox3f(0, (dims.x - 1) * voxel, 0, (dims.y - 1) * voxel, 0, (dims.z - 1) * voxel);
    }
};

TEST(SuvBox, RegionsOfBodySizeInTheMiddleSlice)
{
    McVec3i const dims(200, 150, 30);
    McBox3i const small(10, 59, 10, 59, 0, 29);     // 75,000 mm³
    McBox3i const body(80, 189, 20, 139, 5, 24);    // 264,000 mm³
    McBox3i const offMiddle(0, 199, 0, 149, 0, 10); // never reaches slice 15
    struct Row
    {
        char const* name;
        std::vector<McBox3i> regions;
        McBox3i expected;
    } const rows[] = {
        {"nothing in the middle slice", {offMiddle}, McBox3i()},
        {"small region ignored", {small, body}, McBox3i(80, 189, 19, 140, 4, 25)},
        {"two body regions", {McBox3i(10, 59, 10, 109, 2, 27), body}, McBox3i(10, 189, 9, 140, 1, 28)},
        {"90 units wide", {McBox3i(0, 89, 0, 149, 0, 29)}, McBox3i()},
    };
    for (Row const& row : rows) {
        Phantom phantom(dims);
        for (McBox3i const& region : row.regions)
            phantom.fill(region);
        HxParamBundle params = petParams();
        EXPECT_EQ(S::computeSUVBox(params, dims, McVec3i(), phantom.bbox(), phantom.voxels.data()),
                  row.expected)
            << row.name;
    }

    // Another mode is left for body weight; no voxels, absurd sizes and
    // other modalities give no box.
    Phantom phantom(dims);
    phantom.fill(body);
    HxParamBundle params = petParams();
    ASSERT_TRUE(S::setSUVMode(params, S::SUV_MODE_RAW_COUNTS));
    EXPECT_TRUE(S::computeSUVBox(params, dims, McVec3i(), phantom.bbox(), phantom.voxels.data()).isValid());
    EXPECT_EQ(suvText(params, "Enabled"), "1");
    EXPECT_EQ(S::computeSUVBox(params, dims, McVec3i(), phantom.bbox(), nullptr), McBox3i());
    EXPECT_EQ(
        S::computeSUVBox(params, McVec3i(40000, 1, 1), McVec3i(), phantom.bbox(), phantom.voxels.data()),
        McBox3i());
    HxParamBundle notPet = petParams();
    notPet.dicomAll()->setTag(0x0008, 0x0060, "CT");
    EXPECT_EQ(S::computeSUVBox(notPet, dims, McVec3i(), phantom.bbox(), phantom.voxels.data()), McBox3i());
}

TEST(SuvBox, LowResolutionBoxScalesUp)
{
    Phantom phantom(McVec3i(64, 64, 32));
    phantom.fill(McBox3i(30, 63, 0, 9, 0, 31));
    HxParamBundle params = petParams();
    Phantom const full(McVec3i(128, 128, 64));
    McBox3i const box =
        S::computeSUVBox(params, full.dims, phantom.dims, full.bbox(10.0f), phantom.voxels.data());
    EXPECT_EQ(box, McBox3i(60, 127, 0, 21, 0, 63));
}

} // namespace
