// Tag files on disk: the header and its variants, previews, volumes and
// statistics in every compression mode, study selection, rewriting through
// the open file, failures of the system with their reasons, concurrent
// writers and readers, and the exported delete functions. Real studies in
// every mode are in SampleStudiesTest; damaged files in the fuzz replay.
#include "support/TagLayer.h"

#include <mdxlib/platform/WebService.h>
#include <mdxlib/tagfile/Compression.h>
#include <mdxlib/tagfile/TagFileFunctions.h>

#include <QtEndian>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;

class TagFileIO : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(mDir.isValid());
        TagFile::setMetaFolder(mDir.path().toLocal8Bit().constData());
        mMode = TagFile::sCompressionMode;
    }
    void TearDown() override
    {
        TagFile::sCompressionMode = mMode;
        TagFile::sMetaFolder.clear();
    }

    // A study of two series, images 0-2 and 3, with an image preview on
    // image 2, a missing marker on image 1, and a volume with a preview.
    static void fill(TagFile& file, std::string const& study = "1.2")
    {
        for (int i = 0; i < 4; ++i) {
            std::string const series = study + (i < 3 ? ".3" : ".4"), sop = series + "." + std::to_string(i);
            std::string const number = std::to_string(i), name = sop + "_x.dcm";
            TagMap* image = mdxtest::addImage(
                file, study, series, sop,
                {{DCM_InstanceNumber, number.c_str()}, {DCM_PatientID, i == 1 ? nullptr : "P"}}, 0,
                name.c_str());
            if (i == 2)
                image->putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB, "PREVIEW");
        }
        TagMap* series = file.findSeries(QByteArray::fromStdString(study + ".3"));
        auto* volume = new Mdx::Volume(0);
        series->addBareVolume(volume);
        volume->setImages(series->children().toVector(), series);
        volume->setMultiFrameInfo({});
        volume->mDims = McVec3i(512, 512, 3);
        volume->mPreviewData = "VOLUMEPREVIEW";
        for (TagMap* image : series->children())
            image->putAndInsertInt(Mdx::Tags::VolumeIndices, 0);
        file.optimizeAll();
    }

    QTemporaryDir mDir;
    int mMode = 1;
};

// Lengths that lie are refused in the damaged files of the fuzz replay.
TEST(Compression, qxCompressIsQtsFormat)
{
    QByteArray const text = QByteArray("tag file payload ").repeated(1000);
    EXPECT_EQ(qUncompress(qxCompress(reinterpret_cast<unsigned char const*>(text.constData()), text.size())),
              text);
    EXPECT_EQ(qxUncompress(qCompress(text, 9)), text);
    EXPECT_EQ(qxUncompress(qxCompress(nullptr, 0)), QByteArray());
}

TEST_F(TagFileIO, headerVariantsAndTheOldFormat)
{
    TagFile original;
    fill(original);
    TagFile::sCompressionMode = 0;
    QByteArray const bytes = mdxtest::tagFileBytes(original);
    ASSERT_EQ(bytes.left(8), QByteArray("TaCa\x00\x00\x02\x00", 8));
    // Mode 0: the length field is the unpacked payload size.
    QByteArray const payload = bytes.mid(12, qFromBigEndian<qint32>(bytes.constData() + 8));

    TagFile read;
    QByteArray variant = bytes;
    variant[5] = '\x7f'; // reserved: anything goes
    variant[6] = '\x03'; // unknown formats read as the current one
    variant.append("stale bytes of an earlier, longer file");
    EXPECT_TRUE(mdxtest::readTagFile(read, variant));
    mdxtest::expectSameStoredTree(original.study(), read.study());

    // Format 1: the payload runs to the end of the file, no previews.
    EXPECT_TRUE(mdxtest::readTagFile(read, QByteArray("TaCa\x00\x00\x01\x00", 8) + payload));
    EXPECT_EQ(read.images().size(), 4);
    EXPECT_EQ(read.findImage("1.2.3.2")->findElement(Mdx::Tags::PreviewData), nullptr);
    EXPECT_FALSE(read.findSeries("1.2.3")->volumes()[0]->hasPreview());

    // Refused headers are among the damaged files of the fuzz replay; here
    // the reason they give.
    mdxtest::LogCapture log;
    QByteArray bad = bytes;
    bad[7] = '\x03';
    EXPECT_FALSE(mdxtest::readTagFile(read, bad));
    EXPECT_EQ(log.count(McLogFile::LevelError, "Tag file has unsupported compression format"), 1);
    EXPECT_TRUE(read.studies().isEmpty());
}

TEST_F(TagFileIO, rewriteThroughTheOpenFileCutsTheTailAndAnEmptiedFileIsDeleted)
{
    TagFile original;
    fill(original);
    ASSERT_TRUE(original.writeCacheFile());
    QString const path = TagFile::cacheFilePathForStudy("1.2");

    TagFile edit;
    ASSERT_TRUE(edit.readCacheFileForStudy("1.2", true));
    {
        mdxtest::LogCapture log;
        EXPECT_FALSE(edit.readCacheFileForStudy("1.2", true));
        EXPECT_EQ(log.count(McLogFile::LevelWarning, "Tag file already opened"), 1);
    }
    char const* series[] = {"1.2.4"};
    EXPECT_EQ(edit.removeSeries(1, series), 1);
    ASSERT_TRUE(edit.writeCacheFile());
    TagFile read;
    ASSERT_TRUE(read.readCacheFileForStudy("1.2", false));
    EXPECT_EQ(read.series().size(), 1);
    EXPECT_EQ(QFileInfo(path).size(), mdxtest::tagFileBytes(read).size());

    ASSERT_TRUE(edit.readCacheFileForStudy("1.2", true));
    edit.clear();
    EXPECT_TRUE(edit.writeCacheFile());
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_FALSE(edit.writeCacheFile()); // nothing to write, nothing open
    EXPECT_FALSE(read.readCacheFileForStudy("1.2", false));
    EXPECT_FALSE(read.readCacheFileForStudy("1.2", true));
}

// Every refusal of the system is a false result and a logged error that
// says which call failed and why; a file that did not get all of its bytes
// is never reported as written.
TEST_F(TagFileIO, failuresOfTheSystemAreReportedWithTheirReason)
{
    TagFile original;
    fill(original);
    mdxtest::LogCapture log;
    // The meta folder lies below a file: no folder can be made there.
    QFile blocker(mDir.filePath("blocker"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    TagFile::setMetaFolder(blocker.fileName().toLocal8Bit().constData());
    EXPECT_FALSE(original.writeCacheFile());
    EXPECT_EQ(log.count(McLogFile::LevelError, "Could not create folder " + blocker.fileName().toStdString()),
              1);
    EXPECT_EQ(log.count(McLogFile::LevelError, ": Not a directory"), 1);

    // A device that takes no bytes: the open succeeds, the write does not.
    EXPECT_FALSE(original.writeCacheFile("/dev/full"));
    EXPECT_EQ(log.count(McLogFile::LevelError, "Could not write /dev/full"), 1);
    EXPECT_EQ(log.count(McLogFile::LevelError, "No space left on device"), 1);

    EXPECT_FALSE(original.writeCacheFile(mDir.path().toLocal8Bit().constData())); // a folder
    EXPECT_EQ(
        log.count(McLogFile::LevelError, "Could not open " + mDir.path().toStdString() + " for writing: "),
        1);
}

// Writers overwrite in place without a lock; a reader in another process
// must either read a whole tree or fail, never crash.
TEST_F(TagFileIO, readersOfAHalfWrittenFileFailCleanly)
{
    TagFile small, large;
    fill(small);
    fill(large);
    for (int i = 0; i < 200; ++i)
        mdxtest::addImage(large, "1.2", "1.2.5", "1.2.5." + std::to_string(i),
                          {{DCM_ImageComments, QByteArray::number(i).repeated(40).constData()}});
    ASSERT_TRUE(small.writeCacheFile());
    getTheLogInstance()->setLogLevel(4);
    pid_t const writer = fork();
    ASSERT_GE(pid_t(writer), 0);
    if (writer == 0) {
        for (int i = 0; i < 100; ++i)
            (i % 2 ? large : small).writeCacheFile();
        _exit(0);
    }
    int status = 0;
    while (waitpid(writer, &status, WNOHANG) == 0) {
        TagFile read;
        int const images = read.readCacheFileForStudy("1.2", false) ? read.images().size() : 4;
        EXPECT_TRUE(images == 4 || images == 204) << images;
    }
    getTheLogInstance()->setLogLevel(McLogFile::LevelInfo);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(TagFileIO, deleteFunctionsAndTheirTrace)
{
    static std::vector<std::tuple<int, std::string, std::string>> traces;
    SetTraceFunction([](int level, char const* category, char const* text) {
        traces.emplace_back(level, category, text);
    });
    ConfigureLogging(1, "Server=db.localhost;Database=mdx");
    EXPECT_EQ(GetDatabaseServer(), "Server=db.localhost;Database=mdx");
    traces.clear();
    // No file: nothing to delete, nothing said.
    EXPECT_EQ(DeleteTagFile("1.2") + DeleteSeriesInTagFile("1.2", 0, nullptr), 2);
    EXPECT_TRUE(traces.empty());

    TagFile original;
    fill(original);
    ASSERT_TRUE(original.writeCacheFile());
    char const* images[] = {"1.2.3.0", "1.2.4.3"};
    EXPECT_EQ(DeleteImagesInTagFile("1.2", 2, images), 1);
    TagFile read;
    ASSERT_TRUE(read.readCacheFileForStudy("1.2", false));
    EXPECT_EQ(std::make_pair(read.images().size(), read.series().size()), std::make_pair(2, 1));
    char const* series[] = {"1.2.3"};
    EXPECT_EQ(DeleteSeriesInTagFile("1.2", 1, series), 1); // the last series: the file goes
    EXPECT_FALSE(QFile::exists(TagFile::cacheFilePathForStudy("1.2")));
    EXPECT_EQ(DeleteTagFile(nullptr), 0);

    // A path that cannot be unlinked (here a folder) is retried, then
    // reported with the category split off the message and the reason.
    QDir().mkpath(TagFile::cacheFilePathForStudy("4.4"));
    EXPECT_EQ(DeleteTagFile("4.4"), 0);
    ASSERT_FALSE(traces.empty());
    auto const& [level, category, text] = traces.back();
    EXPECT_EQ(std::make_tuple(level, category, text.rfind("Tag file ", 0)),
              std::make_tuple(3, "TagFile", 0ul));
    EXPECT_NE(text.find("could not be deleted (errno 21): Is a directory"), std::string::npos);
    FreeTagFileData(nullptr);
    FreeTagFileData(new QByteArray("data"));
    getTheLogInstance()->setWriteCallback(nullptr);
    getTheLogInstance()->setLogLevel(McLogFile::LevelInfo);
    SetTraceFunction(nullptr);
}

// Runs body in a child process without write permission anywhere the test
// made: as root, the child drops to an unprivileged user, since root ignores
// file modes. Returns the child's exit status.
template <typename Body> int runUnprivileged(Body body)
{
    pid_t const pid = fork();
    if (pid == 0) {
        getTheLogInstance()->setLogLevel(4);
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            _exit(100);
        _exit(body());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(TagFileIO, readOnlyFilesAreReadButNotChanged)
{
    TagFile original;
    fill(original);
    ASSERT_TRUE(original.writeCacheFile());
    QString const path = TagFile::cacheFilePathForStudy("1.2");
    QStringList const folders = {QFileInfo(path).absolutePath(),
                                 QFileInfo(QFileInfo(path).absolutePath()).absolutePath(), mDir.path()};
    QFile::Permissions const readOnly =
                                 QFileDevice::ReadOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther,
                             exe = QFileDevice::ExeOwner | QFileDevice::ExeGroup | QFileDevice::ExeOther;
    QFile::setPermissions(path, readOnly);
    for (QString const& folder : folders)
        QFile::setPermissions(folder, readOnly | exe);

    // Each child returns 0 for what should happen: reading works, deleting
    // and writing fail.
    int (*const children[])() = {
        [] {
            TagFile read;
            return read.readCacheFileForStudy("1.2", false) && read.images().size() == 4 ? 0 : 1;
        },
        [] { return DeleteTagFile("1.2"); },
        [] {
            char const* images[] = {"1.2.3.0"};
            return DeleteImagesInTagFile("1.2", 1, images);
        },
        [] {
            TagFile copy;
            fill(copy);
            return copy.writeCacheFile() ? 1 : 0;
        }};
    for (auto child : children)
        EXPECT_EQ(runUnprivileged(child), 0);
    for (QString const& folder : folders)
        QFile::setPermissions(folder, readOnly | exe | QFileDevice::WriteOwner);
    TagFile read;
    ASSERT_TRUE(read.readCacheFileForStudy("1.2", false));
    EXPECT_EQ(read.images().size(), 4);
}

} // namespace
