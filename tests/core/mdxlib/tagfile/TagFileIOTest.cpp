// The study tree (adding, replacing, refusing, finding and removing images)
// and its file on disk: the header and its variants, rewriting through the
// open file, failures of the system with their reasons, concurrent writers
// and readers, read-only files and the exported delete functions. Real
// studies in every mode are in SampleStudiesTest and the fuzz corpus;
// damaged files in the fuzz replay.
#include "support/TagLayer.h"

#include <mdxlib/platform/WebService.h>
#include <mdxlib/tagfile/Compression.h>
#include <mdxlib/tagfile/TagFileFunctions.h>
#include <mdxlib/volumes/Loader.h>

#include <QtEndian>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;
using mdxtest::addImage;

QByteArray text(TagMap const* node, DcmTagKey const& key)
{
    QByteArray value;
    node->findAndGetString(key, value);
    return value;
}

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
TEST(StudyTree, imagesJoinOneStudyOnceAndAreReplacedOnlyWhenAsked)
{
    TagFile file;
    TagMap* image = addImage(file, "1.2", "1.2.3", "1.2.3.4", {{DCM_PatientID, "first"}});
    ASSERT_NE(image, nullptr);
    TagMap* series = file.findSeries("1.2.3");
    ASSERT_TRUE(image->parent() == series && series->parent() == file.study());
    // Each node keeps its own UID; everything else went to the top.
    EXPECT_EQ(image->elements().keys(), QList<DcmTagKey>({DCM_SOPInstanceUID}));
    EXPECT_EQ(series->elements().keys(), QList<DcmTagKey>({DCM_SeriesInstanceUID}));
    // A known image without replace, or one of another study, is refused.
    EXPECT_EQ(addImage(file, "1.2", "1.2.3", "1.2.3.4", {{DCM_PatientID, "second"}}), nullptr);
    EXPECT_EQ(addImage(file, "9.9", "9.9.9", "9.9.9.9"), nullptr);
    EXPECT_EQ(text(file.findImage("1.2.3.4"), DCM_PatientID), "first");
    EXPECT_EQ(std::make_tuple(file.studies().size(), file.series().size(), file.images().size()),
              std::make_tuple(1, 1, 1));
    // Replacing the only image of a series makes the series anew; replacing
    // one of several keeps the others as they were.
    TagMap* replaced =
        addImage(file, "1.2", "1.2.3", "1.2.3.4", {{DCM_PatientID, "changed"}}, 0, nullptr, true);
    ASSERT_EQ(file.findImage("1.2.3.4"), replaced);
    EXPECT_EQ(text(replaced, DCM_PatientID) + text(replaced, DCM_PatientName), "changedDoe^Jane");
    addImage(file, "1.2", "1.2.3", "1.2.3.5", {{DCM_PatientID, "changed"}});
    addImage(file, "1.2", "1.2.3", "1.2.3.5", {{DCM_PatientID, "changed"}, {DCM_ImageComments, "new"}}, 0,
             nullptr, true);
    EXPECT_EQ(file.findSeries("1.2.3")->children().size(), 2);
    EXPECT_EQ(text(file.findImage("1.2.3.5"), DCM_ImageComments), "new");
    EXPECT_EQ(file.findImage("1.2.3.4")->findElement(DCM_ImageComments), nullptr);
}

TEST(StudyTree, takingAndRemovingImagesAndSeries)
{
    TagFile file;
    for (char const* sop : {"1.2.3.1", "1.2.3.2", "1.2.3.3"})
        addImage(file, "1.2", "1.2.3", sop, {{DCM_InstanceNumber, sop + 6}});
    addImage(file, "1.2", "1.2.4", "1.2.4.1");
    // A taken image is a flat copy.
    std::unique_ptr<TagMap> taken(file.takeImage("1.2.3.3"));
    ASSERT_NE(taken, nullptr);
    EXPECT_TRUE(taken->parent() == nullptr && taken->ownElement(DCM_PatientName) &&
                taken->ownElement(DCM_SeriesInstanceUID));
    EXPECT_EQ(file.takeImage("1.2.3.3"), nullptr);
    // findImages filters in UID order.
    auto const found = file.findImages(
        [](TagMap const* image) { return image->findElement(DCM_InstanceNumber) != nullptr; });
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(text(found[1], DCM_SOPInstanceUID), "1.2.3.2");
    // Removals count what was removed.
    char const* images[] = {"1.2.3.1", "unknown", "1.2.3.1"};
    EXPECT_EQ(file.removeImages(3, images), 1);
    char const* series[] = {"1.2.3", "nope"};
    EXPECT_EQ(file.removeSeries(2, series), 1);
    EXPECT_EQ(std::make_pair(file.series().size(), file.images().size()), std::make_pair(1, 1));
    char const* last[] = {"1.2.4.1"};
    EXPECT_EQ(file.removeImages(1, last), 1);
    EXPECT_TRUE(file.series().isEmpty() && file.studies().isEmpty());
    EXPECT_NE(addImage(file, "7.7", "7.7.7", "7.7.7.7"), nullptr); // an emptied file takes another study
    // Taking the last image leaves an empty series until the cleanup.
    taken.reset(file.takeImage("7.7.7.7"));
    EXPECT_EQ(file.series().size(), 1);
    file.deleteEmptyNodes();
    EXPECT_TRUE(file.series().isEmpty() && file.studies().isEmpty());
}

TEST(StudyTree, addSeriesOptimisesItAndRefusesNothingToAddAndForeignOrKnownSeries)
{
    TagFile file;
    EXPECT_FALSE(file.addSeries(0, nullptr, nullptr));
    EXPECT_TRUE(file.studies().isEmpty());
    auto makeSeries = [](char const* uid) {
        auto* series = new TagMap;
        series->putAndInsertValue(DCM_StudyInstanceUID, Mdx::VR_UI, "1.2");
        series->putAndInsertValue(DCM_SeriesInstanceUID, Mdx::VR_UI, uid);
        return series;
    };
    std::unique_ptr<TagMap> orphan(makeSeries("1.2.8")); // no study yet
    EXPECT_FALSE(file.addSeries(orphan.get()));

    std::vector<std::unique_ptr<DcmDataset>> owned;
    std::vector<DcmDataset*> datasets;
    for (int i = 0; i < 4; ++i) {
        owned.emplace_back(mdxtest::makeImageDataset("1.2", "1.2.3", ("1.2.3." + std::to_string(i)).c_str()));
        owned.back()->putAndInsertString(DCM_WindowCenter, i == 3 ? "400" : "40");
        datasets.push_back(owned.back().get());
    }
    char const* names[] = {"a_x.dcm", "b_x.dcm", "c_x.dcm", "d_y.dcm"};
    ASSERT_TRUE(file.addSeries(4, datasets.data(), names));
    // The commonest value moved up to the series; the one that differs stays.
    EXPECT_EQ(file.study()->elements().size(), 1);
    EXPECT_EQ(file.findSeries("1.2.3")->ownElement(DCM_WindowCenter)->mValue, "40");
    EXPECT_EQ(file.findImage("1.2.3.0")->ownElement(DCM_WindowCenter), nullptr);
    EXPECT_EQ(text(file.findImage("1.2.3.3"), DCM_WindowCenter) +
                  text(file.findImage("1.2.3.3"), Mdx::Tags::FileSuffix),
              "400y");

    std::unique_ptr<TagMap> known(makeSeries("1.2.3"));
    EXPECT_FALSE(file.addSeries(known.get()));
    TagMap* fresh = makeSeries("1.2.9");
    ASSERT_TRUE(file.addSeries(fresh));
    EXPECT_EQ(file.findSeries("1.2.9"), fresh);
    EXPECT_EQ(fresh->parent(), file.study());
}

TEST(Suffix, extractSuffixCutsNameQueryAndExtension)
{
    // clang-format off
    std::pair<char const*, char const*> const cases[] = {
        {"/data/1.2.3/1.2.3.4_abc.dcm", "abc"}, {"C:\\data\\1.2_3_x.dcm", "x"}, {"/data/plain.dcm", "plain"},
        {"/data/1.2.3.4_abc.dcm?QA=7", "abc"}, {"/data/1.2.3.4_abc.jpg", ""},
        {"a.dcm", ""}, {"ab.dcm", "ab"}, // the name ends below position 6
        {"/dir_x/name.dcm", "name"}, {"/data/_.dcm", ""}, {"", ""}}; // never past the file name's start
    // clang-format on
    for (auto const& [path, suffix] : cases)
        EXPECT_EQ(Mdx::Loader::extractSuffix(path, nullptr), suffix) << path;
    int qa = -1, none = -1; // the QA number of the query, if any
    EXPECT_EQ(Mdx::Loader::extractSuffix("s3://bucket/1.2_v2.dcm?QA=42", &qa), "v2");
    Mdx::Loader::extractSuffix("/data/1.2_v2.dcm?x=1", &none);
    EXPECT_EQ(std::make_pair(qa, none), std::make_pair(42, -1));
}

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

// Other processes find a study's file by this rule, so it must not drift:
// the MD5 of the UID and a line feed, split 2/2/28 (digests from Python's
// hashlib).
TEST_F(TagFileIO, cacheFilePathIsTheMd5OfTheStudyUIDAndALineFeed)
{
    QString const meta = QString::fromLocal8Bit(TagFile::metaFolder());
    EXPECT_EQ(TagFile::cacheFilePathForStudy("1.2.840.113619.2.55.3"),
              meta + "4b/44/e64af49379421cfffeadad79bcc4.tc");
    EXPECT_EQ(TagFile::cacheFilePathForStudy(""), meta + "68/b3/29da9893e34099c7d8ad5cb9c940.tc");
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

    // A path that cannot be unlinked (here a folder) is reported with the
    // category split off the message and the reason.
    QDir().mkpath(TagFile::cacheFilePathForStudy("4.4"));
    EXPECT_EQ(DeleteTagFile("4.4"), 0);
    ASSERT_FALSE(traces.empty());
    auto const& [level, category, text] = traces.back();
    EXPECT_EQ(std::make_pair(level, category), std::make_pair(3, std::string("TagFile")));
    EXPECT_NE(text.find("could not be deleted (errno 21): Is a directory"), std::string::npos);
    getTheLogInstance()->setWriteCallback(nullptr);
    getTheLogInstance()->setLogLevel(McLogFile::LevelInfo);
    SetTraceFunction(nullptr);
}

} // namespace
