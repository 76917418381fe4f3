// The loader: its path rules, the tag file it keeps per study, volumes by
// file name, and datasets read from files.
#include "support/TagLayer.h"

#include <mdxlib/tags/Item.h>
#include <mdxlib/volumes/Loader.h>

namespace {

using Mdx::Loader;

TEST(LoaderPaths, UIDsAndSuffixes)
{
    struct Row
    {
        char const* path;
        bool ok;
        char const* sop;
        char const* study;
        char const* suffix;
        int qa;
    } const rows[] = {
        {"/a/study/sop_sfx.dcm", true, "sop", "study", "sfx", 0},
        {"/a/study/sop_sfx.dcm?QA=7", false, "", "", "sfx", 7},
        {"C:\\s\\study\\sop_x.dcm", true, "sop", "study", "x", 0},
        {"sop_sfx.dcm", false, "", "", "sfx", 0},
        {"xstudy/sop_s.dcm", true, "sop", "study", "s", 0}, // no folder before the study
        {"/a/st_x/sop.dcm", true, "sop", "st_x", "sop", 0}, // no suffix; '_' of a folder
        {"/a/study/sop_sfx.exm", false, "", "", "", 0},
        {"/a.dcm", true, "a", "", "a", 0},
    };
    for (Row const& row : rows) {
        QByteArray sop = "old", study = "old";
        EXPECT_EQ(Loader::extractUIDs(row.path, sop, study), row.ok) << row.path;
        EXPECT_EQ(sop, row.sop) << row.path;
        EXPECT_EQ(study, row.study) << row.path;
        int qa = 0;
        EXPECT_EQ(Loader::extractSuffix(row.path, &qa), row.suffix) << row.path;
        EXPECT_EQ(qa, row.qa) << row.path;
    }
}

class LoaderTest : public testing::Test
{
protected:
    void SetUp() override { Mdx::TagFile::setMetaFolder(QFile::encodeName(meta.path())); }

    QTemporaryDir meta;
    Loader loader;
};

TEST_F(LoaderTest, VolumesByFileName)
{
    auto file = std::make_shared<Mdx::TagFile>();
    for (char const* sop : {"1.1", "1.2"})
        mdxtest::addImage(*file, "9", "9.1", sop);
    std::vector<Mdx::VolumeInfo*> infos;
    for (char const* name : {"s-abc_part001.exm", "s-0.exm", "plain.exm"}) {
        infos.push_back(new Mdx::VolumeInfo);
        infos.back()->imageUIDs = {"1.1", "1.2"};
        infos.back()->fileName = name;
    }
    file->addVolumeInfo(infos, false);
    for (Mdx::VolumeInfo* info : infos)
        delete info;
    QList<Mdx::Volume*> const& volumes = file->findSeries("9.1")->volumes();
    ASSERT_EQ(volumes.size(), 3);

    struct Row
    {
        char const* path;
        int volume; // -1: none
        char const* trace;
    } const rows[] = {
        {"/v/s-abc_part001.exm", 0, nullptr},
        {"/v_part2/s-abc_part001.exm", 0, nullptr},
        {"/v/s-abc.exm", -1, "does not match"},
        {"/v/s-anything_part002.exm", 1, nullptr}, // a stored "0" takes any name
        {"/v/plain_part003.exm", -1, "No filename suffix"},
        {"/v/s-abc_part004.exm", -1, "Illegal volume index"},
        {"/v/s-abc_part000.exm", -1, "Illegal volume index"},
    };
    for (Row const& row : rows) {
        mdxtest::LogCapture log;
        Mdx::Volume* volume = Loader::loadVolume(row.path, "9.1", *file);
        EXPECT_EQ(volume, row.volume < 0 ? nullptr : volumes[row.volume]) << row.path;
        EXPECT_EQ(log.count(2, row.trace ? row.trace : "Cannot load"), row.trace ? 1 : 0) << row.path;
    }
    EXPECT_EQ(Loader::loadVolume("/v/s-abc_part001.exm", "9.2", *file), nullptr);
    loader.addTagFile("9", file);
    EXPECT_EQ(loader.loadVolume("/v/s-abc_part001.exm", "9.1", QByteArray("9")), volumes[0]);
    EXPECT_EQ(loader.loadVolume("/v/s-abc_part001.exm", "9.1", QByteArray()), nullptr);
}

TEST_F(LoaderTest, TagFileOncePerStudy)
{
    {
        mdxtest::LogCapture log;
        std::shared_ptr<Mdx::TagFile> const none = loader.tagFileForStudy("1.2.3");
        ASSERT_TRUE(none);
        EXPECT_TRUE(none->images().isEmpty());
        EXPECT_EQ(log.count(2, "No tag file found for study 1.2.3"), 1);
    }
    Mdx::TagFile written;
    mdxtest::addImage(written, "1.2.3", "1.2.3.1", "1.2.3.1.1");
    ASSERT_TRUE(written.writeCacheFile());
    mdxtest::LogCapture log;
    // The empty entry stays: no second look, no second warning.
    EXPECT_TRUE(loader.tagFileForStudy("1.2.3")->images().isEmpty());
    EXPECT_TRUE(log.messages.empty());
    loader.clear();
    EXPECT_EQ(loader.tagFileForStudy("1.2.3")->images().size(), 1);
    EXPECT_EQ(log.count(1, "Tag file "), 1);

    // Metadata from the tag file, with the path of the request recorded.
    char const path[] = "/nowhere/1.2.3/1.2.3.1.1_s.dcm?QA=0";
    std::shared_ptr<Mdx::Item> item = loader.loadMetaData(path, "1.2.3.1.1", "1.2.3", kNoSessionContext);
    ASSERT_TRUE(item);
    std::string stored;
    EXPECT_TRUE(item->findAndGetOFString(Mdx::Tags::DicomFilePath, stored).good());
    EXPECT_EQ(stored, path);
    // An image the tag file lacks goes to the file, which does not exist.
    EXPECT_FALSE(loader.loadMetaData("/nowhere/x.dcm", "1.2.3.1.9", "1.2.3", kNoSessionContext));
    EXPECT_EQ(log.count(3, "Could not load /nowhere/x.dcm"), 1);
}

TEST_F(LoaderTest, DatasetsFromFiles)
{
    MDX_REQUIRE_SAMPLES();
    QString const sample = mdxtest::sampleFiles("pydicom").filter("CT_small.dcm").first();
    QByteArray const path = QFile::encodeName(sample);
    int const size = static_cast<int>(QFileInfo(sample).size());
    QTemporaryDir dir;
    QString const garbage = dir.filePath("garbage.dcm");
    ASSERT_TRUE(mdxtest::writeFile(garbage, QByteArray(300, 'x')));

    struct Row
    {
        QByteArray path;
        int size;
        char const* error; // null: loads
    } const rows[] = {
        {path, -1, nullptr},
        {path, size, nullptr},
        {path, size + 10, "Could only read"},
        {QFile::encodeName(dir.filePath("none.dcm")), 10, "Could not open"},
        {QFile::encodeName(garbage), 300, "from buffer stream"},
        {QFile::encodeName(garbage), -1, "Could not load"},
    };
    for (Row const& row : rows) {
        mdxtest::LogCapture log;
        std::shared_ptr<Mdx::Item> item = loader.loadDcmDataset(row.path, row.size, kNoSessionContext);
        EXPECT_EQ(item == nullptr, row.error != nullptr) << row.path.constData() << " " << row.size;
        EXPECT_EQ(log.count(3, row.error ? row.error : "\n"), row.error ? 1 : 0) << row.size;
        std::string sop;
        EXPECT_TRUE(!item || item->findAndGetOFString(DCM_SOPInstanceUID, sop).good());
    }
}

} // namespace
