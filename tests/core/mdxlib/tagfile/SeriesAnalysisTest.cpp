// Display numbers, localizer marks and the choice of 2D previews, on built
// geometries for each rule and on the real studies of the installed samples.
#include "support/TagLayer.h"

#include <cmath>
#include <iterator>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;
using mdxtest::Attributes;

char const kStudy[] = "1.2.826.0.1.3680043.7.1";
char const kAxial[] = "1\\0\\0\\0\\1\\0";
char const kCoronal[] = "1\\0\\0\\0\\0\\-1";
char const kSagittal[] = "0\\1\\0\\0\\0\\-1";

std::string sop(std::string const& parent, size_t i)
{
    return parent + "." + std::to_string(i);
}

TagMap* addImage(TagFile& file, std::string const& series, std::string const& uid,
                 mdxtest::Attributes const& attributes = {}, int numPixels = 4)
{
    return mdxtest::addImage(file, kStudy, series, uid, attributes, numPixels);
}

TagMap* addPlane(TagFile& file, std::string const& series, std::string const& uid,
                 std::string const& orientation, char const* position = "0\\0\\0",
                 char const* frames = nullptr)
{
    return addImage(file, series, uid,
                    {{DCM_ImageOrientationPatient, orientation.c_str()},
                     {DCM_ImagePositionPatient, position},
                     {DCM_NumberOfFrames, frames}});
}

// An axial plane turned about the x axis.
std::string tilted(double degrees)
{
    double const a = degrees * 3.14159265358979323846 / 180.0;
    return "1\\0\\0\\0\\" + std::to_string(std::cos(a)) + "\\" + std::to_string(std::sin(a));
}

// (0006,7121) of an image, -1 when absent.
int localizer(TagMap const* image)
{
    Mdx::TagElement const* element = image ? image->findElement(Mdx::Tags::AbstractLocalizer) : nullptr;
    int value = -1;
    EXPECT_TRUE(!element ||
                (element->mVR == Mdx::VR_OB && image->findAndGetInt(Mdx::Tags::AbstractLocalizer, value)));
    return value;
}

int localizer(TagFile const& file, std::string const& uid)
{
    return localizer(file.findImage(QByteArray::fromStdString(uid)));
}

// (0006,7120) of a series, "<none>" when absent.
std::string displayNumber(TagFile const& file, std::string const& series)
{
    Mdx::TagElement const* element =
        file.findSeries(QByteArray::fromStdString(series))->findElement(Mdx::Tags::AbstractSeriesNumber);
    EXPECT_TRUE(!element || element->mVR == Mdx::VR_LO);
    return element ? element->mValue.toByteArray().toStdString() : "<none>";
}

// The selection, into a list that is not empty before.
std::vector<std::string> previews(TagFile& file)
{
    QList<QByteArray> uids{"stale"};
    file.selectPreviewImages2D(uids);
    return std::vector<std::string>(uids.begin(), uids.end());
}

// A volume of the images; a single image is a multi-frame one, a frame per slice.
void addVolume(TagFile& file, std::vector<std::string> uids, McVec3i dims, McBox3f box, McMat4f matrix = {})
{
    Mdx::VolumeInfo info;
    info.imageUIDs = std::move(uids);
    info.dims = dims;
    info.boundingBox = box;
    info.transformationMatrix = matrix;
    info.fileName = "volume.exm";
    for (int f = 0; info.imageUIDs.size() == 1 && f < dims.z; ++f)
        info.frameUIDs.push_back(sop(info.imageUIDs[0], static_cast<size_t>(f)));
    file.addVolumeInfo({&info}, true);
}

} // namespace

TEST(SeriesNumbers, sharedNumbersAreCountedByDateTimeAndUID)
{
    // pixels: per image, 'y' with pixel data, 'n' without, 'L' left on disk.
    // clang-format off
    struct Case { char const *series, *number, *date, *time, *pixels, *expected; };
    Case const cases[] = {
        {"1.2.7", "7", nullptr, nullptr, "yy", "7"}, {"1.2.1", "3", "20200102", nullptr, "y", "3 (2)"},
        {"1.2.2", "3", "20200101", nullptr, "y", "3 (1)"}, {"1.2.8", "5", "20200101", "101500", "y", "5 (3)"},
        {"1.2.9", "5", "20200101", "093000", "y", "5 (2)"},
        {"1.2.10", "5", "20200101", "093000", "y", "5 (1)"}, // strcmp: "1.2.10" < "1.2.9"
        {"1.2.20", "6", "19990101", nullptr, "y", "6 (2)"}, {"1.2.21", "6", nullptr, nullptr, "y", "6 (1)"},
        {"1.2.30", nullptr, nullptr, nullptr, "y", "0 (1)"}, {"1.2.31", "0", "20010101", nullptr, "y", "0 (2)"},
        {"1.2.40", "9", nullptr, nullptr, "n", "<none>"}, {"1.2.41", "9", nullptr, nullptr, "y", "9"},
        {"1.2.42", "4", nullptr, nullptr, "ny", "<none>"}, // only the first image decides
        {"1.2.50", "50", nullptr, nullptr, "L", "50"}};
    // clang-format on
    TagFile file;
    for (Case const& c : cases) {
        for (size_t i = 0; c.pixels[i]; ++i) {
            addImage(file, c.series, sop(c.series, i),
                     {{DCM_SeriesNumber, c.number}, {DCM_SeriesDate, c.date}, {DCM_SeriesTime, c.time}},
                     std::map<char, int>{{'n', 0}, {'y', 4}, {'L', 4096}}.at(c.pixels[i]));
        }
    }
    ASSERT_TRUE(file.findImage("1.2.50.0")->findElement(DCM_PixelData)->isOmittedMarker());
    for (int run = 0; run < 2; ++run) {
        file.createAbstractSeriesNumber();
        for (Case const& c : cases)
            EXPECT_EQ(displayNumber(file, c.series), c.expected) << c.series << ", run " << run;
    }
    EXPECT_EQ(file.findImage("1.2.7.0")->ownElement(Mdx::Tags::AbstractSeriesNumber), nullptr);
}

TEST(Localizers, aPlaneAtARightAngleToMoreThanHalfOfTheSeries)
{
    // One series per case. Broken planes and multi-frame images get 0 and
    // are not counted; counted, they would turn the marks of their series.
    // clang-format off
    struct Group { std::string orientation; int count, expected; char const *position = "0\\0\\0", *frames = nullptr;
                   bool omitted = false; };
    std::vector<std::vector<Group>> const cases = {
        {{kCoronal, 20, 0}, {kAxial, 1, 1}}, {{kAxial, 5, 0}, {kCoronal, 5, 0}},
        {{kAxial, 1, 0}, {kCoronal, 1, 0}, {kSagittal, 1, 0}},
        {{kCoronal, 4, 0}, {tilted(10), 1, 1}}, {{kCoronal, 4, 0}, {tilted(20), 1, 0}},
        {{kCoronal, 3, 0}, {"2\\0\\0\\0\\3\\0", 1, 1}},
        {{kCoronal, 2, 0}, {kAxial, 1, 1}, {"1\\0\\0\\0.01\\1\\0", 1, 0}, {"1\\0\\0\\0\\1", 1, 0},
         {kAxial, 1, 0, "0\\0"}, {"nan\\0\\0\\0\\1\\0", 1, 0}, {"0\\0\\0\\0\\1\\0", 1, 0},
         {kAxial, 1, 0, nullptr}, {kAxial, 1, 0, "0\\0\\0", nullptr, true}},
        {{kCoronal, 2, 0}, {kAxial, 1, 1}, {kAxial, 2, 0, "0\\0\\0", "5"}, {kCoronal, 1, 0, "0\\0\\9", "1"}}};
    // clang-format on
    TagFile file;
    auto forEachImage = [&](auto&& action) {
        for (size_t k = 0; k < cases.size(); ++k)
            for (size_t g = 0; g < cases[k].size(); ++g)
                for (int i = 0; i < cases[k][g].count; ++i)
                    action(sop("1.2", k), sop(sop(sop("1.2", k), g), static_cast<size_t>(i)), cases[k][g]);
    };
    forEachImage([&](std::string const& series, std::string const& uid, Group const& group) {
        TagMap* image = addPlane(file, series, uid, group.orientation, group.position, group.frames);
        if (group.omitted)
            image->markAsOmitted(DCM_ImagePositionPatient);
    });
    file.createAbstractSeriesLocalizer();
    forEachImage([&](std::string const&, std::string const& uid, Group const& group) {
        EXPECT_EQ(localizer(file, uid), group.expected) << uid;
    });
}

TEST(Localizers, aPlaneCuttingAcrossTheSlicesOfAVolume)
{
    // Coronal slices of a 64 x 64 x 5 volume; in patient space it spans
    // x -64..62, y -50..-30, z -62..64.
    McMat4f const coronal{{{2, 0, 0, -64}, {0, 0, 5, -50}, {0, -2, 0, 64}, {0, 0, 0, 1}}};
    McMat4f const slices{{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 2, 0}, {0, 0, 0, 1}}}; // 2 mm apart
    McBox3f const small(0, 63, 0, 63, 0, 4), cube(0, 100, 0, 100, 0, 100), half(0, 100, 0, 100, 0, 49);
    // clang-format off
    struct Case { McMat4f matrix; McBox3f box; std::string orientation; char const* position; int expected; };
    Case const cases[] = {
        {coronal, small, kAxial, "-100\\-100\\0", 1}, {coronal, small, kAxial, "-100\\-100\\100", 0}, // above
        {coronal, small, kCoronal, "-100\\-40\\100", 0},  // parallel to the slices, inside
        {coronal, small, kSagittal, "100\\-100\\100", 0}, // beside the volume
        {{}, cube, tilted(40), "0\\50\\50", 0}, {{}, cube, tilted(50), "0\\50\\50", 1}, // 45 degrees apart?
        {slices, half, tilted(50), "0\\50\\50", 0}}; // about 31 degrees in the volume frame
    // clang-format on
    for (Case const& c : cases) {
        TagFile file;
        addImage(file, "1.2.1", "1.2.1.1", {{DCM_NumberOfFrames, "5"}});
        addVolume(file, {"1.2.1.1"}, McVec3i(64, 64, 5), c.box, c.matrix);
        addPlane(file, "1.2.1", "1.2.1.2", c.orientation, c.position);
        file.createAbstractSeriesLocalizer();
        EXPECT_EQ(localizer(file, "1.2.1.2"), c.expected) << &c - cases;
        EXPECT_EQ(localizer(file, "1.2.1.1"), 0) << &c - cases;
    }
}

TEST(Localizers, volumesDecideOnlyForImagesWithoutAMarkYet)
{
    // Two axial planes across a coronal volume: both localizers by the
    // geometry, but one was marked 0 before (by an earlier run, or in the
    // tag file it was read from), and that mark stays, also on disk.
    McMat4f const coronal{{{2, 0, 0, -64}, {0, 0, 5, -50}, {0, -2, 0, 64}, {0, 0, 0, 1}}};
    TagFile file;
    addImage(file, "1.2.1", "1.2.1.1", {{DCM_NumberOfFrames, "5"}});
    addImage(file, "1.2.1", "1.2.1.4", {{DCM_NumberOfFrames, "5"}});
    addPlane(file, "1.2.1", "1.2.1.2", kAxial, "-100\\-100\\0");
    addPlane(file, "1.2.1", "1.2.1.3", kAxial, "-100\\-100\\0")
        ->putAndInsertInt(Mdx::Tags::AbstractLocalizer, 0);
    // As many volume images as candidates: the volumes decide.
    addVolume(file, {"1.2.1.1", "1.2.1.4"}, McVec3i(64, 64, 5), McBox3f(0, 63, 0, 63, 0, 4), coronal);
    file.createAbstractSeriesLocalizer();
    EXPECT_EQ(localizer(file, "1.2.1.2"), 1);
    EXPECT_EQ(localizer(file, "1.2.1.3"), 0);

    TagFile read;
    ASSERT_TRUE(mdxtest::readTagFile(read, mdxtest::tagFileBytes(file)));
    read.createAbstractSeriesLocalizer();
    EXPECT_EQ(localizer(read, "1.2.1.2"), 1);
    EXPECT_EQ(localizer(read, "1.2.1.3"), 0);
    EXPECT_EQ(localizer(read, "1.2.1.1"), 0);
}

TEST(Previews, twentyImagesGiveTheMiddleOneByNumberAndNineteenGiveAll)
{
    TagFile file;
    std::vector<std::string> nineteen;
    for (size_t i = 0; i < 20; ++i) {
        size_t const number = (i * 7 + 3) % 20 + 1; // shuffled
        std::string const text = std::to_string(number);
        addImage(file, "1.2.1", sop("1.2.1", number), {{DCM_InstanceNumber, text.c_str()}});
        if (number != 20) {
            nineteen.push_back(sop("1.2.2", number));
            addImage(file, "1.2.2", nineteen.back(), {{DCM_InstanceNumber, text.c_str()}});
        }
    }
    nineteen.insert(nineteen.begin(), "1.2.1.11");
    EXPECT_EQ(previews(file), nineteen);
}

TEST(Previews, multiFramesFirstThenTheMiddleOfEachListThenTheRest)
{
    char const kUltrasound[] = "1.2.840.10008.5.1.4.1.1.6.1";
    // By Instance Number; they arrive in reverse.
    // clang-format off
    Attributes const images[] = {
        {}, {{DCM_SOPClassUID, kUltrasound}}, {{DCM_ImageType, "DERIVED\\LOCALIZER"}},
        {{DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.7"}}, {{DCM_SOPClassUID, kUltrasound}},
        {{DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.2.1"}, {DCM_NumberOfFrames, "9"}},
        {{DCM_SOPClassUID, kUltrasound}, {DCM_NumberOfFrames, "1"}}, {{DCM_SOPClassUID, kUltrasound}},
        {{DCM_SOPClassUID, kUltrasound}, {DCM_NumberOfFrames, "40"}}, {}};
    // clang-format on
    TagFile file;
    for (size_t n = std::size(images); n >= 1; --n) {
        Attributes attributes = images[n - 1];
        std::string const number = std::to_string(n);
        attributes.emplace_back(DCM_InstanceNumber, number.c_str());
        addImage(file, "1.2.1", sop("1.2.1", n), attributes);
    }
    EXPECT_EQ(previews(file), (std::vector<std::string>{"1.2.1.9", "1.2.1.6", "1.2.1.7", "1.2.1.4", "1.2.1.3",
                                                        "1.2.1.10", "1.2.1.1"}));
}

TEST(Previews, classesLocalizersAndScoutsGiveTheMiddleOfThree)
{
    // clang-format off
    std::pair<Attributes, int> const cases[] = {
        {{{DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.6.1"}}, 1},
        {{{DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.66"}}, 1}, // a plain prefix test
        {{{DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.66.4"}}, 0}, {{{DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.2"}}, 3},
        {{{DCM_ImageType, "ORIGINAL\\PRIMARY\\LOCALIZER"}}, 1},
        {{{DCM_Modality, "MR"}, {DCM_SeriesDescription, "Fast Localizer"}}, 1},
        {{{DCM_Modality, "MR"}, {DCM_SeriesDescription, "3-plane scout"}}, 1},
        {{{DCM_Modality, "MR"}, {DCM_SeriesDescription, "t1 block"}}, 1},
        {{{DCM_Modality, "CT"}, {DCM_SeriesDescription, "SCOUT"}}, 3}};
    // clang-format on
    TagFile file;
    std::vector<std::string> expected;
    for (size_t k = 0; k < std::size(cases); ++k) {
        std::string const series = sop("1.2", 10 + k);
        for (char const* number : {"1", "2", "3"}) {
            Attributes attributes = cases[k].first;
            attributes.emplace_back(DCM_InstanceNumber, number);
            addImage(file, series, series + "." + number, attributes);
            if (cases[k].second == 3 || (cases[k].second == 1 && number[0] == '2'))
                expected.push_back(series + "." + number);
        }
    }
    EXPECT_EQ(previews(file), expected);
}

TEST(Previews, imagesOfVolumesAndImagesWithoutPixelsGetNone)
{
    TagFile file;
    for (size_t i = 1; i <= 3; ++i)
        addImage(file, "1.2.1", sop("1.2.1", i));
    addImage(file, "1.2.1", "1.2.1.4", {}, 0);
    addImage(file, "1.2.2", "1.2.2.1", {}, 0);
    addVolume(file, {"1.2.1.1", "1.2.1.2"}, McVec3i(512, 512, 2), McBox3f(0, 1, 0, 1, 0, 1));
    EXPECT_EQ(previews(file), std::vector<std::string>{"1.2.1.3"});
    file.optimizeAll(); // the volume numbers may move up to the series
    EXPECT_EQ(previews(file), std::vector<std::string>{"1.2.1.3"});
}

// Every real study: unique display numbers, marks 0 or 1, previews of
// known images. Known ones: "number x images" of each series in UID order,
// and the number of previews: a CR study of one image per series; calcium
// scoring, whose two scouts at a right angle give one preview by Image Type
// (the first); an MR localizer, a three-plane pilot and seven projections.
TEST(SampleSeries, everyStudyGetsConsistentTagsAndTheKnownOnesTheirValues)
{
    MDX_REQUIRE_SAMPLES();
    std::string const r = "1.3.6.1.4.1.5962.1.1.0.0.0.";
    std::map<std::string, std::tuple<std::string, size_t, std::string>> const known = {
        {r + "1196527414.5534.0.1", {"1x1 2x1 3x1", 3, ""}},
        {r + "1194734704.16302.0.1", {"4x2 5x5", 1 + 5, r + "1194734704.16302.0.5"}},
        {r + "1196533885.18148.0.1", {"700x7 1x1 2x3", 1 + 3 + 7, ""}}};
    size_t checked = 0;
    for (auto const& [studyUID, files] : mdxtest::sampleStudies()) {
        SCOPED_TRACE("study " + studyUID);
        TagFile file;
        for (QString const& path : files)
            file.addDicomFile(path.toLocal8Bit().constData(), path.toLocal8Bit().constData(), false);
        file.optimizeAll();
        file.createAbstractTags();
        std::set<std::string> numbers;
        std::string series;
        int localizers = 0;
        for (auto it = file.series().cbegin(); it != file.series().cend(); ++it) {
            std::string const number = displayNumber(file, it.key().toStdString());
            EXPECT_TRUE(number == "<none>" || numbers.insert(number).second) << number;
            series +=
                (series.empty() ? "" : " ") + number + "x" + std::to_string(it.value()->children().size());
            for (TagMap const* image : it.value()->children())
                localizers += localizer(image) == 1 ? 1 : localizer(image) == 0 ? 0 : 1000;
        }
        std::vector<std::string> const selected = previews(file);
        for (std::string const& uid : selected)
            EXPECT_NE(file.findImage(QByteArray::fromStdString(uid)), nullptr);
        if (known.count(studyUID) && ++checked) {
            auto const& [expectedSeries, numPreviews, firstPreview] = known.at(studyUID);
            EXPECT_EQ(std::make_tuple(series, localizers, selected.size()),
                      std::make_tuple(expectedSeries, 0, numPreviews));
            EXPECT_TRUE(firstPreview.empty() || selected.at(0) == firstPreview);
        }
        EXPECT_LT(localizers, 1000);
    }
    EXPECT_EQ(checked, known.size());
}
