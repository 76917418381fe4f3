// The container writer, judged by Python's zipfile and by unzip -t: names,
// sizes, CRCs, contents, dates and data offsets of what it writes, and what
// it leaves behind when it fails.
#include "support/TestSupport.h"

#include <mdxlib/cloudreader/ContainerFile.h>
#include <mdxlib/cloudreader/LocalObject.h>
#include <mdxlib/cloudreader/Writer.h>

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <sstream>

namespace {

using Kz::Writer;
using Member = std::pair<QString, QByteArray>;

QByteArray noise(int size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator random(seed);
    for (char& c : bytes)
        c = static_cast<char>(random.bounded(256));
    return bytes;
}

QString md5(QByteArray const& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

bool unzipAccepts(QString const& archive)
{
    QByteArray output;
    return mdxtest::runProgram("unzip", {"-tq", archive}, &output) == 0;
}

// The ".part" files a writer works in, and anything else it might leave.
QStringList filesIn(QString const& dir)
{
    return QDir(dir).entryList(QDir::Files | QDir::Hidden, QDir::Name);
}

// Local date and time as a DOS field holds them: even seconds.
QJsonArray dosDateTime(QDateTime const& when)
{
    QDateTime const local = when.toLocalTime();
    return QJsonArray{local.date().year(), local.date().month(),  local.date().day(),
                      local.time().hour(), local.time().minute(), local.time().second() / 2 * 2};
}

struct Written
{
    bool ok = false;
    std::string messages;
    QJsonObject oracle;
    QByteArray hash;
    qint64 size = -1;
};

Written writeContainer(QString const& path, std::vector<QString> const& inputs,
                       Writer::ProgressCallback progress = nullptr)
{
    Written result;
    std::ostringstream messages;
    Writer writer;
    writer.setMessageStream(messages);
    writer.setProgressCallback(std::move(progress));
    result.ok = writer.write(path, inputs);
    result.messages = messages.str();
    result.hash = writer.hash();
    result.size = writer.size();
    if (result.ok)
        result.oracle = mdxtest::zipOracle({"inspect", path});
    return result;
}

// The table the reader finds in a container on disk.
std::vector<Kz::ContainerFile::Entry> tableOf(QString const& path)
{
    std::string error;
    std::shared_ptr<Kz::LocalObject> object = Kz::LocalObject::open(path.toStdString(), error);
    EXPECT_TRUE(object) << error;
    if (!object)
        return {};
    Kz::ContainerFile container(path.toStdString(), object->reader(), object->length());
    EXPECT_TRUE(container.load()) << container.initError();
    return container.entries();
}

struct ArchiveCase
{
    char const* what;
    std::vector<Member> members;
};

std::vector<ArchiveCase> archiveCases()
{
    return {
        {"one empty member", {{"empty.dcm", QByteArray()}}},
        {"one byte", {{"a", "x"}}},
        {"around the copy block",
         {{"b16383.dcm", noise(16383, 1)}, {"b16384.dcm", noise(16384, 2)}, {"b16385.dcm", noise(16385, 3)}}},
        {"mixed sizes", {{"1.2.3_1.dcm", noise(100000, 4)}, {"tiny", "abc"}, {"64k.bin", noise(65536, 5)}}},
        {"names beyond ASCII",
         {{QString::fromUtf8("Ä-é-ß.dcm"), noise(1000, 6)}, {"plain.dcm", noise(10, 7)}}},
        {"a long name", {{QString(200, 'n'), noise(77, 8)}}},
    };
}

} // namespace

TEST(KzWriter, archivesPassPythonsZipfileAndUnzipWithEveryMemberInPlace)
{
    ASSERT_TRUE(mdxtest::haveProgram("python3"));
    bool const haveUnzip = mdxtest::haveProgram("unzip");
    for (ArchiveCase const& test : archiveCases()) {
        SCOPED_TRACE(test.what);
        QTemporaryDir dir;
        std::vector<QString> const inputs = mdxtest::writeFiles(dir.path() + "/in", test.members);
        ASSERT_EQ(inputs.size(), test.members.size());
        QString const path = dir.path() + "/out.kz";
        std::vector<std::size_t> progress;
        Written const written = writeContainer(path, inputs, [&](std::size_t done, std::size_t total) {
            EXPECT_EQ(total, test.members.size());
            progress.push_back(done);
        });
        ASSERT_TRUE(written.ok) << written.messages;
        EXPECT_EQ(written.messages, "");
        EXPECT_EQ(progress.size(), test.members.size() + 1);
        EXPECT_EQ(progress.back(), test.members.size());

        QJsonObject const& oracle = written.oracle;
        ASSERT_TRUE(oracle.value("ok").toBool()) << oracle.value("error").toString().toStdString();
        EXPECT_TRUE(oracle.value("testzip").isNull())
            << "bad CRC in " << oracle.value("testzip").toString().toStdString();
        EXPECT_EQ(written.hash, oracle.value("md5").toString().toLatin1());
        EXPECT_EQ(written.size, qint64(oracle.value("size").toDouble()));
        if (haveUnzip) {
            EXPECT_TRUE(unzipAccepts(path));
        }

        // The table the reader sees names the bytes zipfile finds, member for
        // member; ".0" is in no directory.
        std::vector<Kz::ContainerFile::Entry> const entries = tableOf(path);
        QJsonArray const members = oracle.value("members").toArray();
        ASSERT_EQ(members.size(), int(test.members.size()));
        ASSERT_EQ(entries.size(), test.members.size());
        for (int i = 0; i < members.size(); ++i) {
            QJsonObject const member = members[i].toObject();
            auto const& [name, bytes] = test.members[static_cast<size_t>(i)];
            SCOPED_TRACE(name.toStdString());
            EXPECT_EQ(member.value("name").toString(), name);
            EXPECT_EQ(member.value("size").toInt(), bytes.size());
            EXPECT_EQ(member.value("compressType").toInt(), 0);
            EXPECT_EQ(member.value("md5").toString(), md5(bytes));
            EXPECT_EQ(member.value("dateTime").toArray(),
                      dosDateTime(QFileInfo(inputs[size_t(i)]).lastModified()));
            EXPECT_EQ(entries[size_t(i)].name, name.toUtf8().toStdString());
            EXPECT_EQ(qint64(entries[size_t(i)].offset), qint64(member.value("dataOffset").toDouble()));
            EXPECT_EQ(qint64(entries[size_t(i)].size), bytes.size());
        }
        EXPECT_EQ(filesIn(dir.path()), QStringList{"out.kz"});
    }
}

TEST(KzWriter, theEmptyContainerIsTheTableEntryAndTheEndRecord)
{
    QTemporaryDir dir;
    QString const path = dir.path() + "/empty.kz";
    Written const written = writeContainer(path, {});
    ASSERT_TRUE(written.ok) << written.messages;
    EXPECT_EQ(written.size, 40 + 22);
    QByteArray const bytes = mdxtest::fileContents(path);
    ASSERT_EQ(bytes.size(), 62);
    EXPECT_EQ(bytes.mid(30, 6), QByteArray(".0KZ01"));
    EXPECT_EQ(bytes.mid(36, 4), QByteArray(4, '\0'));
    EXPECT_EQ(bytes.mid(40, 4), QByteArray("PK\x05\x06"));
    // Python reads it as an archive with nothing in it (unzip calls an empty
    // archive a warning, so it is not asked).
    ASSERT_TRUE(written.oracle.value("ok").toBool());
    EXPECT_TRUE(written.oracle.value("members").toArray().isEmpty());
    EXPECT_TRUE(tableOf(path).empty());
}

TEST(KzWriter, refusesInputsBeforeWritingAnything)
{
    QTemporaryDir dir;
    std::vector<QString> const files =
        mdxtest::writeFiles(dir.path(), {{"a.dcm", "one"}, {"same.dcm", "two"}});
    QDir().mkpath(dir.path() + "/sub");
    ASSERT_TRUE(mdxtest::writeFile(dir.path() + "/sub/same.dcm", "three"));
    QString const missing = dir.path() + "/missing.dcm";
    std::vector<QString> const tooMany(65536, missing);
    std::vector<QString> const mostAllowed(65535, missing);
    struct Case
    {
        char const* what;
        std::vector<QString> inputs;
        std::string message;
    } const cases[] = {
        {"65,536 inputs", tooMany, "Too many input files.\n"},
        {"65,535 inputs pass the count", mostAllowed,
         "Input file " + missing.toStdString() + " does not exist.\n"},
        {"a missing file", {files[0], missing}, "Input file " + missing.toStdString() + " does not exist.\n"},
        {"a folder",
         {dir.path() + "/sub"},
         "Input file " + dir.path().toStdString() + "/sub is not a regular file.\n"},
        {"two files of one name",
         {files[1], dir.path() + "/sub/same.dcm"},
         "Input files " + files[1].toStdString() + " and " + dir.path().toStdString() +
             "/sub/same.dcm have the same name.\n"},
    };
    for (Case const& test : cases) {
        SCOPED_TRACE(test.what);
        Written const written = writeContainer(dir.path() + "/out.kz", test.inputs);
        EXPECT_FALSE(written.ok);
        EXPECT_EQ(written.messages, test.message);
        EXPECT_FALSE(QFileInfo::exists(dir.path() + "/out.kz"));
    }
    EXPECT_EQ(filesIn(dir.path()), (QStringList{"a.dcm", "same.dcm"}));

    QString const nowhere = dir.path() + "/no/such/folder/out.kz";
    Written const written = writeContainer(nowhere, {files[0]});
    EXPECT_FALSE(written.ok);
    EXPECT_EQ(written.messages,
              "Cannot open " + nowhere.toStdString() + " for writing: No such file or directory\n");
}

// A file that changes between its measurement and its copy (the progress call
// after the first member is the moment in between): shrunk, the write fails and
// the older container stays as it was; grown, it is stored as it was measured.
TEST(KzWriter, aMemberThatShrinksFailsAndOneThatGrowsIsStoredAsMeasured)
{
    for (bool const grows : {false, true}) {
        SCOPED_TRACE(grows ? "grows" : "shrinks");
        QTemporaryDir dir;
        QByteArray const second = noise(40000, 10);
        std::vector<QString> const inputs =
            mdxtest::writeFiles(dir.path(), {{"first.dcm", noise(5000, 9)}, {"second.dcm", second}});
        QString const path = dir.path() + "/out.kz";
        ASSERT_TRUE(mdxtest::writeFile(path, "an older container"));
        Written const written = writeContainer(path, inputs, [&](std::size_t done, std::size_t) {
            QFile file(inputs[1]);
            if (done == 1) {
                EXPECT_TRUE(grows ? file.open(QIODevice::Append) && file.write(noise(20000, 13)) == 20000
                                  : file.resize(30000));
            }
        });
        if (!grows) {
            EXPECT_FALSE(written.ok);
            EXPECT_EQ(written.messages, "Unexpected EOF " + inputs[1].toStdString() +
                                            ": expected 40000 bytes, got 30000\nI/O error\n");
            EXPECT_EQ(mdxtest::fileContents(path), QByteArray("an older container"));
            EXPECT_EQ(filesIn(dir.path()), (QStringList{"first.dcm", "out.kz", "second.dcm"}));
            continue;
        }
        ASSERT_TRUE(written.ok) << written.messages;
        ASSERT_TRUE(written.oracle.value("ok").toBool());
        EXPECT_TRUE(written.oracle.value("testzip").isNull());
        QJsonObject const member = written.oracle.value("members").toArray()[1].toObject();
        EXPECT_EQ(member.value("size").toInt(), 40000);
        EXPECT_EQ(member.value("md5").toString(), md5(second));
        if (mdxtest::haveProgram("unzip")) {
            EXPECT_TRUE(unzipAccepts(path));
        }
    }
}

// Sparse files: 4 GB of size, no disk.
TEST(KzWriter, theFourGigabyteLimitIsFoundBeforeTheFirstByte)
{
    QTemporaryDir dir;
    QString const big = dir.path() + "/big.dcm", nearly = dir.path() + "/nearly.dcm";
    QString const small = dir.path() + "/small.dcm";
    ASSERT_TRUE(mdxtest::writeFile(small, "x"));
    for (auto const& [file, size] :
         {std::pair{big, qint64(1) << 32}, std::pair{nearly, (qint64(1) << 32) - 100}}) {
        QFile sparse(file);
        ASSERT_TRUE(sparse.open(QIODevice::WriteOnly));
        ASSERT_TRUE(sparse.resize(size));
    }
    QString const path = dir.path() + "/out.kz";
    ASSERT_TRUE(mdxtest::writeFile(path, "older"));
    struct Case
    {
        std::vector<QString> inputs;
        std::string message;
    } const cases[] = {
        {{big}, "Input file " + big.toStdString() + " too large.\n"},
        // The data offset of the second member is beyond 32 bits.
        {{nearly, small}, "4GB file size limit exceeded\n"},
        // Every offset fits; the central directory would start beyond 4 GB.
        {{small, nearly}, "4GB file size limit exceeded\n"},
    };
    for (Case const& test : cases) {
        Written const written = writeContainer(path, test.inputs);
        EXPECT_FALSE(written.ok);
        EXPECT_EQ(written.messages, test.message);
        EXPECT_EQ(mdxtest::fileContents(path), QByteArray("older"));
    }
    EXPECT_EQ(filesIn(dir.path()), (QStringList{"big.dcm", "nearly.dcm", "out.kz", "small.dcm"}));
}

TEST(KzWriter, datesOutsideWhatDosCanHoldAreKeptAtTheNearestEnd)
{
    QTemporaryDir dir;
    std::vector<QString> const inputs = mdxtest::writeFiles(dir.path(), {{"old", "1"}, {"late", "2"}});
    struct
    {
        QDateTime when;
        QJsonArray stored;
    } const cases[] = {{QDateTime(QDate(1975, 6, 1), QTime(12, 0)), QJsonArray{1980, 1, 1, 0, 0, 0}},
                       {QDateTime(QDate(2150, 6, 1), QTime(12, 0)), QJsonArray{2107, 12, 31, 23, 59, 58}}};
    for (size_t i = 0; i < inputs.size(); ++i) {
        QFile file(inputs[i]);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.setFileTime(cases[i].when, QFileDevice::FileModificationTime));
    }
    Written const written = writeContainer(dir.path() + "/out.kz", inputs);
    ASSERT_TRUE(written.ok) << written.messages;
    QJsonArray const members = written.oracle.value("members").toArray();
    ASSERT_EQ(members.size(), 2);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(members[i].toObject().value("dateTime").toArray(), cases[i].stored);
}

TEST(KzWriter, namesOfContainers)
{
    EXPECT_EQ(Writer::generate36(0), "");
    EXPECT_EQ(Writer::generate36(-5), "");
    std::string const random = Writer::generate36(1000);
    ASSERT_EQ(random.size(), 1000u);
    EXPECT_EQ(random.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyz"), std::string::npos);
    EXPECT_NE(random, Writer::generate36(1000));

    // Digests from Python's hashlib of the key and a line feed.
    struct
    {
        char const* key;
        int index;
        char const* name;
    } const names[] = {
        {"key", 0, "146c07ef240.kz"},   {"key", 35, "146c07ef24z.kz"},    {"key", 36, "146c07ef2410.kz"},
        {"key", 37, "146c07ef2411.kz"}, {"key", 1295, "146c07ef24zz.kz"}, {"key", 1296, "146c07ef24-0.kz"},
        {"", 1, "68b329da981.kz"},
    };
    for (auto const& test : names)
        EXPECT_EQ(Writer::containerFileName(test.key, test.index), test.name)
            << test.key << " " << test.index;
}
