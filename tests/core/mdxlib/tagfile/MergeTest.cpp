// Partial tag files folded into the study's file: on the real samples, by
// several processes at once, and against locks, foreign files and a disk
// that is full.
#include "support/TagLayer.h"

#include <mdxlib/tagfile/TagFileFunctions.h>

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class MergeTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(meta.isValid());
        Mdx::TagFile::setMetaFolder(QFile::encodeName(meta.path()));
    }
    static QString pathOf(std::string const& study)
    {
        return Mdx::TagFile::cacheFilePathForStudy(study.c_str());
    }
    // One series of numbered images, as a receiving process holds it.
    static void partial(Mdx::TagFile& file, std::string const& study, std::string const& series, int images,
                        int first = 0)
    {
        for (int i = first; i < first + images; ++i)
            ASSERT_TRUE(mdxtest::addImage(file, study, series, series + "." + std::to_string(i)));
        file.optimizeAll();
    }
    // Runs body in a child process; its exit status.
    static int inChild(std::function<int()> const& body)
    {
        pid_t const pid = fork();
        if (pid == 0)
            _exit(body());
        int status = -1;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
    }

    QTemporaryDir meta;
};

TEST_F(MergeTest, seriesMergedOneByOneEqualTheStudyBuiltAtOnce)
{
    MDX_REQUIRE_SAMPLES();
    int merged = 0;
    for (auto const& [name, files] : mdxtest::sampleStudies()) {
        Mdx::TagFile full;
        std::map<QByteArray, QStringList> bySeries;
        for (QString const& path : files) {
            Mdx::TagMap const* image =
                full.addDicomFile(QFile::encodeName(path), QFile::encodeName(path), true);
            ASSERT_TRUE(image) << path.toStdString();
            bySeries[Mdx::TagFile::uidOf(image, DCM_SeriesInstanceUID)].append(path);
        }
        full.optimizeAll();
        if (bySeries.size() < 2)
            continue;
        SCOPED_TRACE(name);
        ++merged;
        for (auto const& [series, paths] : bySeries) {
            Mdx::TagFile part;
            for (QString const& path : paths)
                ASSERT_TRUE(part.addDicomFile(QFile::encodeName(path), QFile::encodeName(path), true));
            part.optimizeAll();
            ASSERT_TRUE(part.mergeIntoCacheFile());
        }
        Mdx::TagFile result;
        QByteArray const studyUID = full.studies().firstKey();
        ASSERT_TRUE(result.readCacheFileForStudy(studyUID.constData(), false));
        ASSERT_EQ(result.series().keys(), full.series().keys());
        ASSERT_EQ(result.images().keys(), full.images().keys());
        for (auto it = full.images().cbegin(); it != full.images().cend(); ++it) {
            std::string difference;
            EXPECT_TRUE(result.images().value(it.key())->compare(*it.value(), true, &difference))
                << it.key().constData() << ": " << difference;
        }
    }
    EXPECT_GT(merged, 0) << "no sample study has two series";
}

TEST_F(MergeTest, whatArrivesAgainReplacesWhatIsStored)
{
    Mdx::TagFile stored;
    partial(stored, "1.2.3", "1.2.3.1", 3);
    partial(stored, "1.2.3", "1.2.3.2", 2);
    QFile::remove(pathOf("1.2.3")); // the first merge of an absent file makes its folders
    ASSERT_TRUE(stored.mergeIntoCacheFile());
    // Series .1 arrives again with one of its three images and a new one;
    // image 0 of series .2 arrives again in series .1 (moved).
    Mdx::TagFile again;
    again.setStoreFilePaths(true);
    partial(again, "1.2.3", "1.2.3.1", 1, 2);
    partial(again, "1.2.3", "1.2.3.1", 1, 7);
    ASSERT_TRUE(mdxtest::addImage(again, "1.2.3", "1.2.3.1", "1.2.3.2.0"));
    mdxtest::LogCapture log;
    ASSERT_TRUE(again.mergeIntoCacheFile());
    EXPECT_EQ(log.count(3, "series 1.2.3.1 added again, 2 images lost"), 1);
    EXPECT_EQ(again.images().keys(), (QList<QByteArray>{"1.2.3.1.2", "1.2.3.1.7", "1.2.3.2.0", "1.2.3.2.1"}));
    EXPECT_EQ(again.findImage("1.2.3.1.0"), nullptr); // no index entry left behind
    Mdx::TagFile reread;
    ASSERT_TRUE(reread.readCacheFileForStudy("1.2.3", false));
    EXPECT_EQ(reread.images().keys(), again.images().keys());
    EXPECT_EQ(reread.findImage("1.2.3.2.0")->parent(), reread.findSeries("1.2.3.1"));
}

TEST_F(MergeTest, aFileItCannotUseIsLeftAsItWasAndTheDataGivenBack)
{
    Mdx::TagFile other;
    partial(other, "9.9", "9.9.1", 2);
    QByteArray const otherBytes = mdxtest::tagFileBytes(other);
    // clang-format off
    struct { char const* name; QByteArray content; char const* message; } const cases[] = {
        {"foreign", "not a tag file at all", "Could not read tag file"},
        {"truncated", otherBytes.left(otherBytes.size() / 2), "Could not read tag file"},
        {"other study", otherBytes, "contains wrong study, expected 1.2.3"}};
    // clang-format on
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(QDir().mkpath(QFileInfo(pathOf("1.2.3")).path()));
        ASSERT_TRUE(mdxtest::writeFile(pathOf("1.2.3"), c.content));
        Mdx::TagFile fresh;
        partial(fresh, "1.2.3", "1.2.3.1", 4);
        QByteArray const freshBytes = mdxtest::tagFileBytes(fresh);
        mdxtest::LogCapture log;
        EXPECT_FALSE(fresh.mergeIntoCacheFile());
        EXPECT_EQ(log.count(3, c.message), 1);
        EXPECT_EQ(mdxtest::fileContents(pathOf("1.2.3")), c.content);
        EXPECT_EQ(mdxtest::tagFileBytes(fresh), freshBytes); // the new data, whole
        ASSERT_TRUE(QFile::remove(pathOf("1.2.3")));
        EXPECT_TRUE(fresh.mergeIntoCacheFile()); // and a second attempt works
    }
}

TEST_F(MergeTest, theWritersLockKeepsOtherWritersOut)
{
    Mdx::TagFile stored;
    partial(stored, "1.2.3", "1.2.3.1", 3);
    ASSERT_TRUE(stored.mergeIntoCacheFile());
    QByteArray const before = mdxtest::fileContents(pathOf("1.2.3"));
    int const fd = ::open(QFile::encodeName(pathOf("1.2.3")).constData(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);

    Mdx::TagFile more;
    partial(more, "1.2.3", "1.2.3.2", 2);
    mdxtest::LogCapture log;
    EXPECT_FALSE(more.mergeIntoCacheFile()); // gives up after about two seconds
    EXPECT_EQ(log.count(3, "for read-write: another process is writing it"), 1);
    char const* series[] = {"1.2.3.1"};
    EXPECT_EQ(DeleteSeriesInTagFile("1.2.3", 1, series), 0); // not deleted, and it says so
    EXPECT_EQ(mdxtest::fileContents(pathOf("1.2.3")), before);

    ::close(fd);
    EXPECT_TRUE(more.mergeIntoCacheFile());
    EXPECT_EQ(more.series().size(), 2);
}

TEST_F(MergeTest, eightProcessesMergingAtOnceLoseNothing)
{
    constexpr int kProcesses = 8;
    constexpr int kRounds = 5;
    std::vector<std::unique_ptr<Mdx::TagFile>> parts;
    for (int p = 0; p < kProcesses * kRounds; ++p) {
        parts.push_back(std::make_unique<Mdx::TagFile>());
        partial(*parts.back(), "1.2.3", "1.2.3." + std::to_string(p + 1), 20);
    }
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        pid_t const pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int failed = 0;
            for (int round = 0; round < kRounds; ++round)
                failed += parts[static_cast<size_t>(round * kProcesses + p)]->mergeIntoCacheFile() ? 0 : 1;
            _exit(failed);
        }
        children.push_back(pid);
    }
    for (pid_t const pid : children) {
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    Mdx::TagFile result;
    ASSERT_TRUE(result.readCacheFileForStudy("1.2.3", false));
    EXPECT_EQ(result.series().size(), kProcesses * kRounds);
    EXPECT_EQ(result.images().size(), kProcesses * kRounds * 20);
}

TEST_F(MergeTest, aFullDiskLeavesTheFileAndTheNewDataAsTheyWere)
{
    Mdx::TagFile stored;
    partial(stored, "1.2.3", "1.2.3.1", 50);
    ASSERT_TRUE(stored.mergeIntoCacheFile());
    QByteArray const before = mdxtest::fileContents(pathOf("1.2.3"));
    Mdx::TagFile more;
    partial(more, "1.2.3", "1.2.3.2", 200);
    QByteArray const moreBytes = mdxtest::tagFileBytes(more);
    // The child may not grow any file beyond what the tag file has now.
    int const status = inChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        rlim_t const limit = static_cast<rlim_t>(before.size());
        struct rlimit const rl = {limit, limit};
        if (setrlimit(RLIMIT_FSIZE, &rl) != 0)
            return 2;
        if (more.mergeIntoCacheFile())
            return 3;
        return mdxtest::tagFileBytes(more) == moreBytes ? 0 : 4;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(mdxtest::fileContents(pathOf("1.2.3")), before);
    EXPECT_TRUE(more.mergeIntoCacheFile()); // with room again
}

} // namespace
