// Tag files on disk: the format in every compression mode, the old format,
// damaged and hostile files, concurrent writers and readers, and the
// exported delete functions.
#include "support/TestSupport.h"

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/tagfile/Compression.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tagfile/TagFileFunctions.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagMapSerializer.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtEndian>

#include <memory>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;

// Collects what the log says while it lives.
struct LogCapture
{
    LogCapture()
    {
        getTheLogInstance()->setWriteCallback(
            [this](int level, std::string const& text) { messages.emplace_back(level, text); });
    }
    ~LogCapture() { getTheLogInstance()->setWriteCallback(nullptr); }
    bool contains(std::string const& text) const
    {
        for (auto const& m : messages)
            if (m.second.find(text) != std::string::npos)
                return true;
        return false;
    }
    std::vector<std::pair<int, std::string>> messages;
};

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

    // A study of two series with a preview, markers and a volume.
    static void fill(TagFile& file, char const* study = "1.2")
    {
        QByteArray const s(study);
        for (int i = 0; i < 4; ++i) {
            QByteArray const series = s + (i < 3 ? ".3" : ".4");
            QByteArray const sop = series + "." + QByteArray::number(i);
            std::unique_ptr<DcmDataset> dataset(mdxtest::makeImageDataset(study, series, sop));
            dataset->putAndInsertString(DCM_InstanceNumber, QByteArray::number(i));
            if (i == 1)
                dataset->findAndDeleteElement(DCM_PatientID); // a missing marker
            TagMap* image = file.addDataset(dataset.get(), (sop + "_x.dcm").constData(), false);
            if (i == 2)
                image->putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB, "PREVIEW");
        }
        TagMap* series = file.findSeries(s + ".3");
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

    static QByteArray bytesOf(TagFile const& file)
    {
        QByteArray bytes;
        QDataStream stream(&bytes, QIODevice::WriteOnly);
        EXPECT_TRUE(file.writeCacheFile(stream));
        return bytes;
    }

    static bool readBytes(TagFile& file, QByteArray bytes, char const* study = nullptr)
    {
        QDataStream stream(&bytes, QIODevice::ReadOnly);
        return file.readCacheFile(stream, study);
    }

    static void expectSameTree(TagMap const* a, TagMap const* b)
    {
        ASSERT_NE(a, nullptr);
        ASSERT_NE(b, nullptr);
        std::string difference;
        EXPECT_TRUE(a->compare(*b, true, &difference)) << difference;
        EXPECT_EQ(a->elements().keys(), b->elements().keys());
        EXPECT_EQ(a->volumes().size(), b->volumes().size());
        ASSERT_EQ(a->children().size(), b->children().size());
        for (int i = 0; i < a->children().size(); ++i)
            expectSameTree(a->children()[i], b->children()[i]);
    }

    QTemporaryDir mDir;
    int mMode = 1;
};

TEST(Compression, qxCompressIsCompatibleWithQt)
{
    QByteArray const text = QByteArray("tag file payload ").repeated(1000);
    QByteArray const ours = qxCompress(reinterpret_cast<unsigned char const*>(text.constData()), text.size());
    EXPECT_EQ(qUncompress(ours), text);
    EXPECT_EQ(qxUncompress(qCompress(text, 9)), text);
    EXPECT_EQ(qxUncompress(qxCompress(nullptr, 0)), QByteArray());

    EXPECT_TRUE(qxUncompress(QByteArray("\x00\x00\x00\x05", 4)).isEmpty());
    // The length in front must be exact, and no lie about it allocates.
    QByteArray wrong = ours;
    wrong[3] = static_cast<char>(wrong[3] + 1);
    EXPECT_TRUE(qxUncompress(wrong).isEmpty());
    QByteArray huge = ours;
    huge[0] = '\x7f';
    EXPECT_TRUE(qxUncompress(huge).isEmpty());
}

TEST_F(TagFileIO, pathComesFromTheMD5OfTheStudyUID)
{
    QString const path = TagFile::cacheFilePathForStudy("1.2.840.1");
    EXPECT_EQ(path, TagFile::cacheFilePathForStudy("1.2.840.1"));
    EXPECT_NE(path, TagFile::cacheFilePathForStudy("1.2.840.2"));
    EXPECT_FALSE(path.contains("1.2.840.1"));
    QString const digits = QCryptographicHash::hash("1.2.840.1\n", QCryptographicHash::Md5).toHex();
    EXPECT_EQ(path,
              mDir.path() + "/" + digits.left(2) + "/" + digits.mid(2, 2) + "/" + digits.mid(4) + ".tc");
}

TEST_F(TagFileIO, everyModeRoundTripsThroughDisk)
{
    TagFile original;
    fill(original);
    for (int mode : {0, 1, 2}) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        TagFile::sCompressionMode = mode;
        ASSERT_TRUE(original.writeCacheFile());
        TagFile read;
        ASSERT_TRUE(read.readCacheFileForStudy("1.2", false));
        expectSameTree(original.study(), read.study());
        EXPECT_EQ(read.images().size(), 4);
        EXPECT_EQ(read.series().size(), 2);
        int series, images, volumes, previews, optimize, readMsec, write, compressed, uncompressed,
            unoptimized, previewBytes;
        read.getStatistics(series, images, volumes, previews, optimize, readMsec, write, compressed,
                           uncompressed, unoptimized, previewBytes);
        EXPECT_EQ(volumes, 1);
        EXPECT_EQ(previews, 2);
        EXPECT_EQ(previewBytes, 7 + 13);
        if (mode == 0)
            EXPECT_EQ(compressed, uncompressed);
        else
            EXPECT_LT(compressed, uncompressed);

        TagMap* image = read.findImage("1.2.3.2");
        QByteArray preview;
        ASSERT_TRUE(image->findAndGetString(Mdx::Tags::PreviewData, preview));
        EXPECT_EQ(image->findElement(Mdx::Tags::PreviewData)->mValue, "PREVIEW");
        Mdx::Volume const* volume = read.findSeries("1.2.3")->volumes().value(0);
        ASSERT_NE(volume, nullptr);
        EXPECT_EQ(volume->previewData(), "VOLUMEPREVIEW");
        EXPECT_EQ(volume->sopUIDList(), std::vector<std::string>({"1.2.3.0", "1.2.3.1", "1.2.3.2"}));
        EXPECT_EQ(read.findImage("1.2.3.1")->findElement(DCM_PatientID), nullptr);
    }
}

TEST_F(TagFileIO, realStudiesRoundTripInEveryMode)
{
    MDX_REQUIRE_SAMPLES();
    for (auto const& [studyUID, files] : mdxtest::sampleStudies()) {
        SCOPED_TRACE("study " + studyUID);
        TagFile original;
        for (QString const& file : files)
            original.addDicomFile(file.toLocal8Bit().constData(), file.toLocal8Bit().constData(), false);
        original.optimizeAll();
        for (int mode : {0, 1, 2}) {
            TagFile::sCompressionMode = mode;
            TagFile read;
            ASSERT_TRUE(readBytes(read, bytesOf(original), original.studies().firstKey().constData()));
            expectSameTree(original.study(), read.study());
            EXPECT_EQ(read.images().keys(), original.images().keys());
        }
    }
}

TEST_F(TagFileIO, headerVariantsAndTrailingBytes)
{
    TagFile original;
    fill(original);
    TagFile::sCompressionMode = 0;
    QByteArray const bytes = bytesOf(original);
    ASSERT_EQ(bytes.left(8), QByteArray("TaCa\x00\x00\x02\x00", 8));
    // Mode 0: the length field is the unpacked payload size.
    qint32 const length = qFromBigEndian<qint32>(bytes.constData() + 8);
    QByteArray const payload = bytes.mid(12, length);

    TagFile read;
    QByteArray variant = bytes;
    variant[5] = '\x7f'; // reserved: anything goes
    variant[6] = '\x03'; // unknown formats read as the current one
    variant.append("stale bytes of an earlier, longer file");
    EXPECT_TRUE(readBytes(read, variant));
    expectSameTree(original.study(), read.study());

    // Format 1: the payload runs to the end of the file, no previews.
    QByteArray old = QByteArray("TaCa\x00\x00\x01\x00", 8) + payload;
    EXPECT_TRUE(readBytes(read, old));
    EXPECT_EQ(read.images().size(), 4);
    EXPECT_EQ(read.findImage("1.2.3.2")->findElement(Mdx::Tags::PreviewData), nullptr);
    EXPECT_FALSE(read.findSeries("1.2.3")->volumes()[0]->hasPreview());

    LogCapture log;
    QByteArray bad = bytes;
    bad[0] = 'X';
    EXPECT_FALSE(readBytes(read, bad));
    bad = bytes;
    bad[4] = '\x01';
    EXPECT_FALSE(readBytes(read, bad));
    bad = bytes;
    bad[7] = '\x03';
    EXPECT_FALSE(readBytes(read, bad));
    EXPECT_TRUE(log.contains("Tag file has incorrect header"));
    EXPECT_TRUE(log.contains("Tag file has unsupported version"));
    EXPECT_TRUE(log.contains("Tag file has unsupported compression format"));
    EXPECT_TRUE(read.studies().isEmpty());
}

TEST_F(TagFileIO, studySelectionAndSeveralStudies)
{
    TagFile first;
    fill(first, "1.2");
    TagFile second;
    fill(second, "7.7");
    TagFile::sCompressionMode = 0;
    QByteArray const a = bytesOf(first);
    QByteArray const b = bytesOf(second);
    // A payload of both studies, one after the other.
    auto payloadOf = [](QByteArray const& file) {
        return file.mid(12, qFromBigEndian<qint32>(file.constData() + 8));
    };
    QByteArray const both = payloadOf(a) + payloadOf(b);
    QByteArray file = QByteArray("TaCa\x00\x00\x02\x00", 8);
    QByteArray length(4, '\0');
    qToBigEndian<qint32>(both.size(), length.data());
    file += length + both + QByteArray(4, '\0');

    TagFile read;
    EXPECT_TRUE(readBytes(read, file));
    EXPECT_EQ(read.studies().keys(), QList<QByteArray>({"1.2"}));
    EXPECT_EQ(read.images().size(), 4);
    EXPECT_EQ(read.findImage("7.7.3.0"), nullptr);
    EXPECT_TRUE(readBytes(read, file, "7.7"));
    EXPECT_EQ(read.studies().keys(), QList<QByteArray>({"7.7"}));
    EXPECT_FALSE(readBytes(read, file, "9.9"));
    EXPECT_TRUE(read.studies().isEmpty());
    EXPECT_TRUE(read.images().isEmpty());
}

TEST_F(TagFileIO, damagedFilesFailCleanly)
{
    TagFile original;
    fill(original);
    LogCapture log;
    for (int mode : {0, 1, 2}) {
        TagFile::sCompressionMode = mode;
        QByteArray const bytes = bytesOf(original);
        // Every cut before the end of the preview list fails.
        for (int cut = 0; cut < bytes.size(); ++cut) {
            TagFile read;
            EXPECT_FALSE(readBytes(read, bytes.left(cut))) << "mode " << mode << " cut " << cut;
            EXPECT_TRUE(read.images().isEmpty());
        }
        // A preview list that claims more than there is.
        QByteArray damaged = bytes;
        qint32 const length = qFromBigEndian<qint32>(bytes.constData() + 8);
        qToBigEndian<quint32>(1000, damaged.data() + 12 + length);
        TagFile read;
        EXPECT_FALSE(readBytes(read, damaged));
    }
    EXPECT_TRUE(log.contains("Tag file seems to be truncated"));

    // Mode 1 with a stored payload of 4 bytes or fewer unpacks to nothing.
    TagFile read;
    EXPECT_FALSE(
        readBytes(read, QByteArray("TaCa\x00\x00\x02\x01\x00\x00\x00\x03\x00\x00\x00\x00\x00\x00\x00", 19)));
}

TEST_F(TagFileIO, randomDamageNeverCrashes)
{
    TagFile original;
    fill(original);
    LogCapture quiet;
    QRandomGenerator random(12345);
    for (int mode : {0, 1}) {
        TagFile::sCompressionMode = mode;
        QByteArray const bytes = bytesOf(original);
        for (int round = 0; round < 400; ++round) {
            QByteArray damaged = bytes;
            int const flips = 1 + static_cast<int>(random.bounded(4));
            for (int f = 0; f < flips; ++f)
                damaged[static_cast<int>(random.bounded(damaged.size()))] =
                    static_cast<char>(random.bounded(256));
            TagFile read;
            if (readBytes(read, damaged)) {
                // What was read is a consistent tree: every indexed image
                // sits in it and can be flattened.
                for (TagMap* image : read.images()) {
                    ASSERT_NE(image, nullptr);
                    std::unique_ptr<TagMap>(image->clone());
                }
            }
        }
    }
}

TEST_F(TagFileIO, writeThroughTheOpenFileAndDeleteWhenEmpty)
{
    TagFile original;
    fill(original);
    ASSERT_TRUE(original.writeCacheFile());
    QString const path = TagFile::cacheFilePathForStudy("1.2");

    TagFile edit;
    ASSERT_TRUE(edit.readCacheFileForStudy("1.2", true));
    LogCapture log;
    EXPECT_FALSE(edit.readCacheFileForStudy("1.2", true));
    EXPECT_TRUE(log.contains("Tag file already opened"));
    char const* series[] = {"1.2.4"};
    EXPECT_EQ(edit.removeSeries(1, series), 1);
    ASSERT_TRUE(edit.writeCacheFile());
    TagFile read;
    ASSERT_TRUE(read.readCacheFileForStudy("1.2", false));
    EXPECT_EQ(read.series().size(), 1);
    EXPECT_EQ(QFileInfo(path).size(), bytesOf(read).size()); // no stale tail

    ASSERT_TRUE(edit.readCacheFileForStudy("1.2", true));
    edit.clear();
    EXPECT_TRUE(edit.writeCacheFile());
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_FALSE(edit.writeCacheFile()); // nothing to write, nothing open
}

TEST_F(TagFileIO, writingToAnImpossiblePlaceFails)
{
    TagFile original;
    fill(original);
    LogCapture log;
    EXPECT_FALSE(original.writeCacheFile("/proc/mdx-test/study.tc"));
    EXPECT_TRUE(log.contains("Could not open /proc/mdx-test/study.tc for writing"));
    TagFile missing;
    EXPECT_FALSE(missing.readCacheFileForStudy("no.such.study", false));
    EXPECT_FALSE(missing.readCacheFileForStudy("no.such.study", true));
}

// Writers overwrite in place without a lock; a reader in another process
// must either read a whole tree or fail, never crash.
TEST_F(TagFileIO, concurrentWritersAndReadersInSeparateProcesses)
{
    TagFile small;
    fill(small);
    TagFile large;
    fill(large);
    for (int i = 0; i < 200; ++i) {
        std::unique_ptr<DcmDataset> dataset(
            mdxtest::makeImageDataset("1.2", "1.2.5", ("1.2.5." + std::to_string(i)).c_str()));
        dataset->putAndInsertString(DCM_ImageComments, QByteArray::number(i).repeated(40).constData());
        large.addDataset(dataset.get(), nullptr, false);
    }
    ASSERT_TRUE(small.writeCacheFile());

    std::vector<pid_t> writers;
    for (int w = 0; w < 2; ++w) {
        pid_t const pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            getTheLogInstance()->setLogLevel(4);
            for (int i = 0; i < 60; ++i)
                ((i + w) % 2 ? large : small).writeCacheFile();
            _exit(0);
        }
        writers.push_back(pid);
    }
    getTheLogInstance()->setLogLevel(4);
    int whole = 0;
    int failed = 0;
    size_t running = writers.size();
    while (running > 0) {
        TagFile read;
        if (read.readCacheFileForStudy("1.2", false)) {
            ++whole;
            EXPECT_TRUE(read.images().size() == 4 || read.images().size() == 204) << read.images().size();
        } else {
            ++failed;
        }
        for (pid_t& pid : writers) {
            int status = 0;
            if (pid > 0 && waitpid(pid, &status, WNOHANG) == pid) {
                EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
                pid = 0;
                --running;
            }
        }
    }
    getTheLogInstance()->setLogLevel(McLogFile::LevelInfo);
    EXPECT_GT(whole + failed, 0);
    // Once the writers are done, the file is whole.
    TagFile last;
    EXPECT_TRUE(last.readCacheFileForStudy("1.2", false));
    RecordProperty("whole_reads", whole);
    RecordProperty("failed_reads", failed);
}

TEST_F(TagFileIO, deleteFunctions)
{
    std::vector<std::tuple<int, std::string, std::string>> traces;
    static std::vector<std::tuple<int, std::string, std::string>>* sink;
    sink = &traces;
    SetTraceFunction(
        [](int level, char const* category, char const* text) { sink->emplace_back(level, category, text); });
    ConfigureLogging(1, "Server=db.localhost;Database=mdx");
    EXPECT_EQ(GetDatabaseServer(), "Server=db.localhost;Database=mdx");
    ASSERT_FALSE(traces.empty());
    EXPECT_EQ(std::get<2>(traces.back()), "Configure logging: debug=1 timings=0");
    traces.clear();

    // No file: nothing to delete, nothing said.
    EXPECT_EQ(DeleteTagFile("1.2"), 1);
    EXPECT_EQ(DeleteSeriesInTagFile("1.2", 0, nullptr), 1);
    EXPECT_TRUE(traces.empty());

    TagFile original;
    fill(original);
    ASSERT_TRUE(original.writeCacheFile());
    char const* images[] = {"1.2.3.0", "1.2.4.3"};
    EXPECT_EQ(DeleteImagesInTagFile("1.2", 2, images), 1);
    TagFile read;
    ASSERT_TRUE(read.readCacheFileForStudy("1.2", false));
    EXPECT_EQ(read.images().size(), 2);
    EXPECT_EQ(read.series().size(), 1);
    char const* series[] = {"1.2.3"};
    EXPECT_EQ(DeleteSeriesInTagFile("1.2", 1, series), 1);
    EXPECT_FALSE(QFile::exists(TagFile::cacheFilePathForStudy("1.2")));

    EXPECT_EQ(DeleteTagFile(nullptr), 0);
    ASSERT_TRUE(original.writeCacheFile());
    EXPECT_EQ(DeleteTagFile("1.2"), 1);
    EXPECT_FALSE(QFile::exists(TagFile::cacheFilePathForStudy("1.2")));

    // A path that cannot be unlinked (here a folder) is retried, then
    // reported with the category split off the message.
    traces.clear();
    QDir().mkpath(TagFile::cacheFilePathForStudy("4.4"));
    EXPECT_EQ(DeleteTagFile("4.4"), 0);
    ASSERT_FALSE(traces.empty());
    EXPECT_EQ(std::get<0>(traces.back()), 3);
    EXPECT_EQ(std::get<1>(traces.back()), "TagFile");
    EXPECT_EQ(std::get<2>(traces.back()).rfind("Tag file ", 0), 0u);
    EXPECT_NE(std::get<2>(traces.back()).find("could not be deleted (errno 21)"), std::string::npos);

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

TEST_F(TagFileIO, readOnlyAndUnwritableFiles)
{
    TagFile original;
    fill(original);
    ASSERT_TRUE(original.writeCacheFile());
    QString const path = TagFile::cacheFilePathForStudy("1.2");
    QString const folder = QFileInfo(path).absolutePath();
    // Everything readable, nothing writable: the file and its folders.
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther);
    QFile::Permissions const readOnlyFolder = QFileDevice::ReadOwner | QFileDevice::ExeOwner |
                                              QFileDevice::ReadGroup | QFileDevice::ExeGroup |
                                              QFileDevice::ReadOther | QFileDevice::ExeOther;
    QFile::setPermissions(folder, readOnlyFolder);
    QFile::setPermissions(mDir.path(), readOnlyFolder);
    QFile::setPermissions(QFileInfo(folder).absolutePath(), readOnlyFolder);

    // Reading still works for anybody.
    EXPECT_EQ(runUnprivileged([] {
                  TagFile read;
                  return read.readCacheFileForStudy("1.2", false) && read.images().size() == 4 ? 0 : 1;
              }),
              0);
    // A file that can't be opened for writing can't be changed, and the
    // functions say so.
    EXPECT_EQ(runUnprivileged([] { return DeleteTagFile("1.2"); }), 0);
    EXPECT_EQ(runUnprivileged([] {
                  char const* images[] = {"1.2.3.0"};
                  return DeleteImagesInTagFile("1.2", 1, images);
              }),
              0);
    EXPECT_EQ(runUnprivileged([] {
                  TagFile copy;
                  fill(copy);
                  return copy.writeCacheFile() ? 1 : 0;
              }),
              0);
    EXPECT_TRUE(QFile::exists(path));

    QFile::setPermissions(QFileInfo(folder).absolutePath(), readOnlyFolder | QFileDevice::WriteOwner);
    QFile::setPermissions(mDir.path(), readOnlyFolder | QFileDevice::WriteOwner);
    QFile::setPermissions(folder, readOnlyFolder | QFileDevice::WriteOwner);
    TagFile read;
    ASSERT_TRUE(read.readCacheFileForStudy("1.2", false));
    EXPECT_EQ(read.images().size(), 4);
}

} // namespace
