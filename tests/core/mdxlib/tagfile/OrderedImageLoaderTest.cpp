// Loading on several threads must give the tree, and so the tag file, that
// one thread gives, hand every result over in file order, never block on a
// FIFO, and stop when asked. Runs under ThreadSanitizer as well.
#include <support/TestSupport.h>

#include <mdxlib/tagfile/OrderedImageLoader.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QDataStream>
#include <QDir>
#include <QTemporaryDir>

#include <sys/stat.h>

namespace {

using Mdx::TagFile;

// Every sample file, plus a FIFO, a missing file and a folder, in a fixed order.
std::vector<QByteArray> inputs(QString const& scratch)
{
    std::vector<QByteArray> paths;
    for (QString const& file : mdxtest::sampleFiles(QString()))
        paths.push_back(QFile::encodeName(file));
    QByteArray const fifo = QFile::encodeName(scratch + "/fifo");
    EXPECT_EQ(::mkfifo(fifo.constData(), 0600), 0);
    paths.insert(paths.begin() + static_cast<long>(paths.size() / 2), fifo);
    paths.push_back(QFile::encodeName(scratch + "/missing.dcm"));
    paths.push_back(QFile::encodeName(scratch));
    return paths;
}

// The tag files, as bytes, of every study built from paths with jobs threads.
std::map<QByteArray, QByteArray> build(std::vector<QByteArray> const& paths, int jobs, int& calls)
{
    std::map<QByteArray, std::unique_ptr<TagFile>> studies;
    int expected = 0;
    calls = 0;
    Mdx::loadImagesInOrder(
        paths, jobs, [&](int index, std::unique_ptr<Mdx::TagMap> image, TagFile::AddResult why) {
            EXPECT_EQ(index, expected++);
            ++calls;
            EXPECT_EQ(image != nullptr, why == TagFile::AddResult::Added);
            if (image) {
                auto& study = studies[TagFile::uidOf(image.get(), DCM_StudyInstanceUID)];
                if (!study)
                    study = std::make_unique<TagFile>();
                study->addTagMap(image.release(), paths[static_cast<size_t>(index)].constData(), false);
            }
            return true;
        });
    std::map<QByteArray, QByteArray> files;
    for (auto& [uid, study] : studies) {
        study->optimizeAll();
        QBuffer buffer(&files[uid]);
        buffer.open(QIODevice::WriteOnly);
        QDataStream stream(&buffer);
        EXPECT_TRUE(study->writeCacheFile(stream));
    }
    return files;
}

TEST(OrderedImageLoader, manyThreadsBuildWhatOneThreadBuildsAndSkipWhatIsNoFile)
{
    MDX_REQUIRE_SAMPLES();
    QTemporaryDir scratch;
    std::vector<QByteArray> const paths = inputs(scratch.path());
    int callsOne = 0;
    int callsMany = 0;
    auto const one = build(paths, 1, callsOne);
    auto const many = build(paths, 4, callsMany);
    EXPECT_EQ(callsOne, static_cast<int>(paths.size()));
    EXPECT_EQ(callsMany, static_cast<int>(paths.size()));
    EXPECT_GT(one.size(), 20u);
    EXPECT_TRUE(one == many) << "tag files differ between 1 and 4 threads";
}

TEST(OrderedImageLoader, stopsWhenConsumeSaysSo)
{
    MDX_REQUIRE_SAMPLES();
    std::vector<QByteArray> paths;
    for (QString const& file : mdxtest::sampleFiles(QString()))
        paths.push_back(QFile::encodeName(file));
    for (int jobs : {1, 3}) {
        int calls = 0;
        Mdx::loadImagesInOrder(
            paths, jobs, [&](int, std::unique_ptr<Mdx::TagMap>, TagFile::AddResult) { return ++calls < 5; });
        EXPECT_EQ(calls, 5) << jobs << " jobs";
    }
}

} // namespace
