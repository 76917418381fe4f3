// The container fuzz target replayed with the ordinary compiler: over
// containers the writer makes, archives Python's zipfile makes, the kept
// inputs in data/kz (accepted-* must load, refused-* must not), every
// truncation of them and seeded mutations.
#include "support/TestSupport.h"

#include <mdxlib/cloudreader/ContainerFile.h>
#include <mdxlib/cloudreader/Writer.h>
#include <mdxlib/platform/McLogFile.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cstring>
#include <iterator>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

constexpr int kMutations = 3000;

int runTarget(QByteArray const& bytes)
{
    return LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.constData()),
                                  static_cast<std::size_t>(bytes.size()));
}

bool loads(QByteArray const& bytes)
{
    Kz::ContainerFile container(
        "replay.kz",
        [bytes](long long offset, char* data, long long length) -> long long {
            long long const n = std::max(0LL, std::min<long long>(length, bytes.size() - offset));
            std::memcpy(data, bytes.constData() + offset, static_cast<size_t>(n));
            return n;
        },
        bytes.size());
    return container.load();
}

class KzFuzzReplay : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        getTheLogInstance()->setLogLevel(4);
        sDir = std::make_unique<QTemporaryDir>();
        QString const in = sDir->path() + "/in";
        std::vector<QString> const files = mdxtest::writeFiles(in, {{"1.2.3_1.dcm", QByteArray(300, 'a')},
                                                                    {"b", "bb"},
                                                                    {"empty", ""},
                                                                    {"long", QByteArray(40000, 'c')}});
        int index = 0;
        for (std::vector<QString> const& members : {std::vector<QString>{}, std::vector<QString>{files[0]},
                                                    std::vector<QString>{files[1], files[2], files[0]}}) {
            QString const path = sDir->path() + QString("/w%1.kz").arg(index++);
            if (Kz::Writer().write(path, members))
                sWritten.push_back(mdxtest::fileContents(path));
        }
        for (char const* kind : {"plain", "streamed", "fake-table"}) {
            QString const path = sDir->path() + "/" + kind + ".zip";
            if (!mdxtest::zipOracle({"make", kind, path, files[0], files[1]}).isEmpty())
                sOthers.push_back(mdxtest::fileContents(path));
        }
    }
    static void TearDownTestSuite()
    {
        sWritten.clear();
        sOthers.clear();
        sDir.reset();
        getTheLogInstance()->setLogLevel(McLogFile::LevelInfo);
    }
    static std::vector<QByteArray> seeds()
    {
        std::vector<QByteArray> all = sWritten;
        all.insert(all.end(), sOthers.begin(), sOthers.end());
        for (QString const& name : QDir(mdxtest::testDataDir() + "/kz").entryList(QDir::Files))
            all.push_back(mdxtest::fileContents(mdxtest::testDataDir() + "/kz/" + name));
        return all;
    }
    static std::unique_ptr<QTemporaryDir> sDir;
    static std::vector<QByteArray> sWritten;
    static std::vector<QByteArray> sOthers;
};

std::unique_ptr<QTemporaryDir> KzFuzzReplay::sDir;
std::vector<QByteArray> KzFuzzReplay::sWritten;
std::vector<QByteArray> KzFuzzReplay::sOthers;

} // namespace

TEST_F(KzFuzzReplay, keptInputsAreAcceptedOrRefusedAsTheirNamesSay)
{
    QStringList const names = QDir(mdxtest::testDataDir() + "/kz").entryList(QDir::Files);
    ASSERT_FALSE(names.isEmpty());
    for (QString const& name : names) {
        QByteArray const bytes = mdxtest::fileContents(mdxtest::testDataDir() + "/kz/" + name);
        EXPECT_EQ(loads(bytes), name.startsWith("accepted-")) << name.toStdString();
        EXPECT_EQ(runTarget(bytes), 0);
    }
    ASSERT_EQ(sWritten.size(), 3u);
    ASSERT_EQ(sOthers.size(), 3u);
    for (QByteArray const& bytes : sWritten)
        EXPECT_TRUE(loads(bytes));
    for (QByteArray const& bytes : sOthers)
        EXPECT_FALSE(loads(bytes));
}

TEST_F(KzFuzzReplay, everyTruncation)
{
    for (QByteArray const& seed : seeds()) {
        int const step = std::max(1, seed.size() / 2000);
        for (int length = 0; length < seed.size(); length += step)
            EXPECT_EQ(runTarget(seed.left(length)), 0);
    }
}

TEST_F(KzFuzzReplay, seededMutations)
{
    std::vector<QByteArray> const pool = seeds();
    static quint32 const kInteresting[] = {0u,      1u,       2u,     7u,          8u,
                                           0xFFFFu, 0x10000u, 70000u, 0x7FFFFFFFu, 0xFFFFFFFFu};
    QRandomGenerator random(0x6B7A0001u);
    int loaded = 0;
    for (int run = 0; run < kMutations; ++run) {
        QByteArray bytes = pool[static_cast<size_t>(random.bounded(static_cast<int>(pool.size())))];
        // Most edits land in the header and the table, where the checks are.
        for (int edits = 1 + random.bounded(3); edits > 0 && !bytes.isEmpty(); --edits) {
            int const at = random.bounded(std::min(bytes.size(), 200));
            int const kind = random.bounded(4);
            if (kind == 0) {
                bytes[at] = static_cast<char>(bytes[at] ^ (1 << random.bounded(8)));
            } else if (kind == 1) {
                quint32 const value = kInteresting[random.bounded(int(std::size(kInteresting)))];
                int const width = random.bounded(2) ? 4 : 2;
                for (int b = 0; b < width && at + b < bytes.size(); ++b)
                    bytes[at + b] = static_cast<char>(value >> 8 * b);
            } else if (kind == 2) {
                bytes.truncate(at);
            } else {
                bytes.insert(at, bytes.mid(at, 1 + random.bounded(std::min(32, bytes.size() - at))));
            }
        }
        EXPECT_EQ(runTarget(bytes), 0);
        loaded += loads(bytes);
    }
    // Not a guarantee, a sign that the mutations get past the header.
    EXPECT_GT(loaded, 0);
    RecordProperty("loaded", loaded);
}
