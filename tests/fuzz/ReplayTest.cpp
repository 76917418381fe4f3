// The damage suites of the three stored forms (tag file, tag map body,
// volume block), and the stability of the tag files written for the samples.
//
// libFuzzer needs clang; the guarantees it checks (any bytes end in a
// refusal or in a tree that walks, writes and reads back) should not depend
// on the compiler. This runs the same entry function over the seed corpus
// made from the samples (with volumes of every mapping kind and previews),
// its truncations, seeded mutations, and the damaged files in data/tagfiles,
// under the sanitizers of the test build; and the readers of tag map bodies
// and volume lists over cuts of the corpus' records.
#include "support/TagLayer.h"

#include "CorpusMaker.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtEndian>

#include <cstdint>
#include <iterator>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

// Mutated inputs in ByteFlips, and the cuts per record body: a seeded
// sample that keeps each test near ten seconds under ASan in a debug build.
constexpr int kMutations = 400;
constexpr size_t kCutsPerRecord = 256;
// Files above this size are truncated at a stride rather than at every byte.
constexpr int kEveryPrefixUpTo = 16384;

int runTarget(QByteArray const& bytes)
{
    return LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.constData()),
                                  static_cast<std::size_t>(bytes.size()));
}

bool readBytes(QByteArray const& bytes)
{
    Mdx::TagFile file;
    return mdxtest::readTagFile(file, bytes);
}

// The corpus is made once for all tests of the suite.
class FuzzReplay : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        sDir = std::make_unique<QTemporaryDir>();
        if (!mdxtest::samplesDir().isEmpty() && sDir->isValid())
            sCorpus = MdxFuzz::makeCorpus(mdxtest::samplesDir(), sDir->path() + "/corpus");
    }
    static void TearDownTestSuite()
    {
        sCorpus.clear();
        sDir.reset();
    }
    static QStringList corpusInMode(int mode)
    {
        return sCorpus.filter(QRegularExpression(QStringLiteral("-mode%1\\.tc$").arg(mode)));
    }
    static std::unique_ptr<QTemporaryDir> sDir;
    static QStringList sCorpus;
};

std::unique_ptr<QTemporaryDir> FuzzReplay::sDir;
QStringList FuzzReplay::sCorpus;

// Every study in each of the three modes is read and written again to the
// same bytes: all that the corpus holds (volumes of each mapping kind with
// their extra data, previews, markers, file paths) survives the trip.
TEST_F(FuzzReplay, CorpusFromSamples)
{
    MDX_REQUIRE_SAMPLES();
    ASSERT_FALSE(sCorpus.isEmpty());
    EXPECT_EQ(corpusInMode(0).size() * 3, sCorpus.size());
    int const mode = Mdx::TagFile::sCompressionMode;
    for (int m = 0; m <= 2; ++m) {
        for (QString const& path : corpusInMode(m)) {
            SCOPED_TRACE(path.toStdString());
            QByteArray const bytes = mdxtest::fileContents(path);
            Mdx::TagFile file;
            ASSERT_TRUE(mdxtest::readTagFile(file, bytes)); // else the fuzzer stays at the door
            EXPECT_GT(file.images().size(), 0);
            Mdx::TagFile::sCompressionMode = m;
            EXPECT_EQ(mdxtest::tagFileBytes(file), bytes);
            EXPECT_EQ(runTarget(bytes), 0);
        }
    }
    Mdx::TagFile::sCompressionMode = mode;
}

TEST_F(FuzzReplay, Truncations)
{
    MDX_REQUIRE_SAMPLES();
    ASSERT_FALSE(sCorpus.isEmpty());
    // The smallest and the largest study in every mode: a writer
    // interrupted at any byte.
    QStringList files;
    auto const bySize = [](QString const& a, QString const& b) {
        return QFileInfo(a).size() < QFileInfo(b).size();
    };
    for (int mode = 0; mode <= 2; ++mode) {
        QStringList const inMode = corpusInMode(mode);
        auto const [smallest, largest] = std::minmax_element(inMode.begin(), inMode.end(), bySize);
        files << *smallest << *largest;
    }
    files.removeDuplicates();
    ASSERT_GE(files.size(), 3);

    for (QString const& path : qAsConst(files)) {
        SCOPED_TRACE(path.toStdString());
        QByteArray const bytes = mdxtest::fileContents(path);
        int const step = qMax(1, bytes.size() / kEveryPrefixUpTo);
        for (int length = 0; length < bytes.size(); length += step) {
            QByteArray const prefix = bytes.left(length);
            EXPECT_EQ(runTarget(prefix), 0);
            // A cut inside the payload or the previews is always refused: the
            // format carries its lengths for this. (The old format, which has
            // none, is never written.)
            ASSERT_FALSE(readBytes(prefix)) << "prefix of " << length << " bytes was accepted";
        }
    }
}

TEST_F(FuzzReplay, ByteFlips)
{
    MDX_REQUIRE_SAMPLES();
    // Uncompressed seeds seven times in eight: a flip in a packed payload
    // seldom survives the codec's checks, so mutations there reach little
    // but the codec.
    std::vector<QByteArray> pools[2];
    for (int mode = 0; mode <= 2; ++mode)
        for (QString const& path : corpusInMode(mode))
            pools[mode > 0].push_back(mdxtest::fileContents(path));
    ASSERT_FALSE(pools[0].empty() || pools[1].empty());
    // Values that make lengths and counts lie in interesting ways.
    static quint32 const kInteresting[] = {0u,          1u,          0x7Fu,       0x80u,       0xFFu,
                                           0xFFFEu,     0xFFFFu,     0x10000u,    0x7FFFFFFFu, 0x80000000u,
                                           0xFFFFFFFEu, 0xFFFFFFFFu, 0x7FFFFFF0u, 64u,         65u};
    QRandomGenerator random(0x7A6F11E5u);
    int accepted = 0;
    for (int run = 0; run < kMutations; ++run) {
        std::vector<QByteArray> const& pool = pools[random.bounded(8) == 0];
        QByteArray bytes = pool[static_cast<size_t>(random.bounded(static_cast<int>(pool.size())))];
        for (int edits = 1 + random.bounded(4); edits > 0 && !bytes.isEmpty(); --edits) {
            int const at = random.bounded(bytes.size());
            int const kind = random.bounded(5);
            if (kind == 0) { // one bit
                bytes[at] = static_cast<char>(bytes[at] ^ (1 << random.bounded(8)));
            } else if (kind == 1) { // one byte
                bytes[at] = static_cast<char>(random.bounded(256));
            } else if (kind == 2) { // a lying 16- or 32-bit field, either byte order
                quint32 const value = kInteresting[random.bounded(int(std::size(kInteresting)))];
                int const width = random.bounded(2) ? 4 : 2;
                bool const big = random.bounded(2);
                for (int b = 0; b < width && at + b < bytes.size(); ++b)
                    bytes[at + b] = static_cast<char>(value >> 8 * (big ? width - 1 - b : b));
            } else if (kind == 3) { // a cut
                bytes.truncate(at);
            } else { // a repeated stretch, as a record or an item twice
                bytes.insert(at, bytes.mid(at, 1 + random.bounded(qMin(256, bytes.size() - at))));
            }
        }
        EXPECT_EQ(runTarget(bytes), 0);
        accepted += readBytes(bytes);
    }
    // Not a guarantee, a sign that the mutations reach past the header.
    EXPECT_GT(accepted, 0);
    RecordProperty("accepted", accepted);
}

// The corpus is every sample study's tag file in each mode; its digests were
// recorded with the writer as it was, so any change of a written byte shows.
TEST_F(FuzzReplay, SampleTagFilesAreByteForByteStable)
{
    MDX_REQUIRE_SAMPLES();
    QFile table(mdxtest::testDataDir() + "/tagfile-sha256.txt");
    ASSERT_TRUE(table.open(QIODevice::ReadOnly | QIODevice::Text));
    QMap<QString, QByteArray> expected;
    for (QByteArray const& line : table.readAll().split('\n'))
        if (line.simplified().split(' ').size() == 2 && !line.startsWith('#'))
            expected.insert(QString::fromLatin1(line.simplified().split(' ')[1]),
                            line.simplified().split(' ')[0]);
    ASSERT_EQ(expected.size(), sCorpus.size());
    for (QString const& path : qAsConst(sCorpus)) {
        QString const name = QFileInfo(path).fileName();
        EXPECT_EQ(QCryptographicHash::hash(mdxtest::fileContents(path), QCryptographicHash::Sha256).toHex(),
                  expected.value(name))
            << name.toStdString();
    }
}

// Tag map bodies and volume lists cut at every byte (at a stride in large
// records), read by themselves: never a crash, a leak or a huge allocation
// under the sanitizers. A body is read whole, and a body without its last
// byte, which always lies in its last entry, is refused.
TEST_F(FuzzReplay, RecordBodiesCutAnywhere)
{
    MDX_REQUIRE_SAMPLES();
    QStringList const files = corpusInMode(0);
    ASSERT_FALSE(files.isEmpty());
    QList<QByteArray> const previews{"a", "b"};
    int records = 0;
    for (QString const& path : files.mid(0, 4)) {
        SCOPED_TRACE(path.toStdString());
        QByteArray const file = mdxtest::fileContents(path);
        QByteArray const payload = file.mid(12, qFromBigEndian<qint32>(file.constData() + 8));
        LmMsg in(payload.constData(), static_cast<size_t>(payload.size()));
        Mdx::TagMap series; // parent of the images, for the volume lists
        while (in.bytesAvailable() > 0 && !in.failed()) {
            unsigned char type = 0;
            in >> type;
            size_t const length = static_cast<size_t>(Mdx::TagMap::readLength(in));
            char const* body = in.readRawBytes(length);
            ASSERT_NE(body, nullptr);
            ++records;
            size_t const step = qMax<size_t>(1, length / kCutsPerRecord);
            for (size_t cut = 0; cut <= length; cut = cut + step < length - 1 ? cut + step : cut + 1) {
                LmMsg part(body, cut);
                if (type == 3) {
                    series.deserializeVolumes(part, previews);
                    qDeleteAll(series.mVolumes);
                    series.mVolumes.clear();
                } else {
                    Mdx::TagMap node;
                    node.deserialize(part, nullptr, previews);
                    EXPECT_TRUE(cut + 1 != length || part.failed()) << "type " << int(type) << ", " << length;
                }
                EXPECT_TRUE(cut != length || !part.failed()) << "type " << int(type);
            }
            if (type == 1) {
                qDeleteAll(series.mChildren);
                series.mChildren.clear();
            } else if (type == 2) {
                LmMsg whole(body, length);
                (new Mdx::TagMap)->deserialize(whole, &series, previews); // owned by series
            }
        }
        EXPECT_FALSE(in.failed());
    }
    EXPECT_GT(records, 20);
}

// Hand-made damaged files. Files named "refused-*" must be refused with a
// logged reason; the others only have to be survived.
TEST(FuzzReplayDamaged, DamagedFiles)
{
    QDir const dir(mdxtest::testDataDir() + "/tagfiles");
    QStringList const names = dir.entryList(QStringList{"*.tc"}, QDir::Files, QDir::Name);
    ASSERT_GE(names.size(), 10) << dir.path().toStdString();
    for (QString const& name : names) {
        SCOPED_TRACE(name.toStdString());
        QByteArray const bytes = mdxtest::fileContents(dir.filePath(name));
        EXPECT_EQ(runTarget(bytes), 0);
        if (name.startsWith("refused-")) {
            int const level = getTheLogInstance()->logLevel(); // the fuzz target silences the log
            getTheLogInstance()->setLogLevel(McLogFile::LevelDebug);
            mdxtest::LogCapture log;
            EXPECT_FALSE(readBytes(bytes));
            EXPECT_FALSE(log.messages.empty()) << "refused without a reason";
            getTheLogInstance()->setLogLevel(level);
        } else if (name.startsWith("accepted-")) {
            EXPECT_TRUE(readBytes(bytes));
        }
    }
}

} // namespace
