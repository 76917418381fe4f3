// Reading containers: the table of archives our writer made and Python's
// zipfile checked, every refusal of init with its one trace line, and
// members opened by name.
#include "support/TestSupport.h"

#include <mdxlib/cloudreader/ContainerFile.h>
#include <mdxlib/cloudreader/LocalObject.h>

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QTemporaryDir>
#include <QtEndian>

#include <atomic>
#include <thread>

namespace {

using Kz::ContainerFile;

struct TableEntry
{
    QByteArray name;
    quint32 offset;
    quint32 size;
};

template <typename T> QByteArray little(T value)
{
    char raw[sizeof value];
    qToLittleEndian(value, raw);
    return QByteArray(raw, sizeof value);
}
QByteArray le16(quint16 value)
{
    return little(value);
}
QByteArray le32(quint32 value)
{
    return little(value);
}

// The first bytes of a container, made here from the format and not by the
// writer: the table entry's header, ".0", the magic, count and entries.
QByteArray containerHead(quint32 count, std::vector<TableEntry> const& entries)
{
    QByteArray table = "KZ01" + le32(count);
    for (TableEntry const& entry : entries)
        table +=
            le16(quint16(entry.name.size())) + entry.name + le16(0) + le32(entry.offset) + le32(entry.size);
    return le32(0x04034B50) + le16(20) + le16(0) + le16(0) + le16(0) + le16(0) + le32(0) +
           le32(quint32(table.size())) + le32(quint32(table.size())) + le16(2) + le16(0) + ".0" + table;
}

QByteArray patched(QByteArray bytes, int at, QByteArray const& with)
{
    bytes.replace(at, with.size(), with);
    return bytes;
}

ContainerFile::ByteReader memoryReader(QByteArray const& bytes, std::atomic<int>* reads = nullptr)
{
    return [bytes, reads](long long offset, char* data, long long length) -> long long {
        if (reads)
            ++*reads;
        if (offset >= bytes.size())
            return 0;
        long long const n = std::min<long long>(length, bytes.size() - offset);
        std::memcpy(data, bytes.constData() + offset, static_cast<size_t>(n));
        return n;
    };
}

} // namespace

TEST(KzContainer, refusalsOfInitGiveOneTraceLineAndNoMember)
{
    QByteArray const good = containerHead(1, {{"a.dcm", 100, 5}}) + QByteArray(100, 'x');
    QByteArray const lying = containerHead(3, {{"a.dcm", 100, 5}, {"b.dcm", 105, 5}});
    struct Case
    {
        char const* what;
        QByteArray bytes;
        char const* message;
    } const cases[] = {
        // (Streamed, deflated, other names, extra fields and another magic: the archives of
        // zipArchivesWithoutTheTableAreRefusedForTheRightReason.)
        {"an empty object", QByteArray(), "Unexpected length of header data"},
        {"35 bytes", good.left(35), "Unexpected length of header data"},
        {"another signature", patched(good, 0, le32(0x08074B50)), "Wrong file entry header"},
        {"sizes that differ", patched(good, 22, le32(99)), "Inconsistent size"},
        {"a table of 7 bytes", patched(patched(good, 18, le32(7)), 22, le32(7)), "Inconsistent size"},
        {"65,536 members", patched(good, 36, le32(65536)), "Illegal number of files"},
        {"more members than entries", lying, "Invalid offset table"},
        {"a name running out of the table", patched(good, 40, le16(200)), "Invalid offset table"},
        {"a table cut short", good.left(50), "Invalid offset table"},
        {"a table of 4 GB in a small object",
         patched(patched(good, 18, le32(0xFFFFFFF0)), 22, le32(0xFFFFFFF0)), "Invalid offset table"},
    };
    for (Case const& test : cases) {
        SCOPED_TRACE(test.what);
        for (long long length : {static_cast<long long>(test.bytes.size()), -1LL}) {
            mdxtest::LogCapture log;
            ContainerFile container("mem://c.kz", memoryReader(test.bytes), length);
            EXPECT_FALSE(container.openMember("a.dcm", 7));
            EXPECT_EQ(log.count(3, test.message), 1);
            EXPECT_EQ(log.count(3), 1);
            EXPECT_EQ(container.initError(), test.message);
            // Later accesses see the stored outcome and say nothing.
            EXPECT_EQ(container.fileLength("a.dcm"), -1);
            EXPECT_FALSE(container.openMemberRange("a.dcm", 0, 1));
            EXPECT_TRUE(container.entries().empty());
            EXPECT_EQ(log.count(3), 1);
            EXPECT_TRUE(container.removeContext(7)); // refused opens record no context
        }
    }
}

// Archives Python's zipfile wrote, without the offset table.
TEST(KzContainer, zipArchivesWithoutTheTableAreRefusedForTheRightReason)
{
    QTemporaryDir dir;
    std::vector<QString> const files =
        mdxtest::writeFiles(dir.path(), {{"a.dcm", "first"}, {"b.dcm", "second"}});
    struct
    {
        char const* kind;
        char const* message;
    } const cases[] = {
        {"plain", "Unexpected filename length"},
        {"deflated", "Excpecting umcompressed data"},
        {"streamed", "Sizes marked invalid"},
        {"fake-table", "Invalid magic number"},
        {"extra-table", "Unexpected extra field length"},
    };
    for (auto const& test : cases) {
        SCOPED_TRACE(test.kind);
        QString const archive = dir.path() + "/" + test.kind + ".zip";
        ASSERT_FALSE(mdxtest::zipOracle({"make", test.kind, archive, files[0], files[1]}).isEmpty());
        std::string error;
        std::shared_ptr<Kz::LocalObject> object = Kz::LocalObject::open(archive.toStdString(), error);
        ASSERT_TRUE(object) << error;
        mdxtest::LogCapture log;
        ContainerFile container(archive.toStdString(), object->reader(), object->length());
        EXPECT_FALSE(container.openMember("a.dcm", -1));
        EXPECT_EQ(log.count(3, test.message), 1);
        EXPECT_EQ(log.count(3), 1);
    }
}

TEST(KzContainer, membersAreFoundByTheirWholeNameAndTheFirstOfTwinsWins)
{
    QByteArray const nul("a\0b", 3);
    QByteArray const bytes =
        containerHead(4, {{nul, 200, 1}, {"a", 201, 2}, {"a", 203, 3}, {"b.dcm", 206, 4}}) +
        QByteArray(150, 'x');
    mdxtest::LogCapture log;
    ContainerFile container("mem://c.kz", memoryReader(bytes), bytes.size());
    ASSERT_TRUE(container.load());
    EXPECT_EQ(container.entries().size(), 4u);
    EXPECT_EQ(container.entries()[0].name, nul.toStdString());
    std::optional<ContainerFile::Range> range = container.openMember("a", -1);
    ASSERT_TRUE(range);
    EXPECT_EQ(range->start, 201);
    EXPECT_EQ(range->length, 2);
    EXPECT_EQ(container.fileLength("b.dcm"), 4);
    range = container.openMemberRange("b.dcm", 1, 2);
    ASSERT_TRUE(range);
    EXPECT_EQ(range->start, 207);
    EXPECT_EQ(range->length, 2);
    EXPECT_EQ(log.count(3), 0);

    EXPECT_FALSE(container.openMember("c.dcm", -1));
    EXPECT_EQ(container.fileLength("c.dcm"), -1);
    EXPECT_EQ(log.count(3, "Container file mem://c.kz does not include c.dcm"), 2);
    EXPECT_EQ(log.count(3), 2);
}

TEST(KzContainer, aMemberRunningPastTheEndOfTheObjectIsRefusedAlone)
{
    QByteArray const bytes =
        containerHead(2, {{"in.dcm", 100, 10}, {"out.dcm", 110, 10}}) + QByteArray(100, 'x');
    QByteArray const object = bytes.left(115); // the second member lacks 5 bytes
    ASSERT_LT(bytes.size() - 100, 100);
    mdxtest::LogCapture log;
    ContainerFile container("mem://c.kz", memoryReader(object), object.size());
    EXPECT_TRUE(container.openMember("in.dcm", -1));
    EXPECT_FALSE(container.openMember("out.dcm", -1));
    EXPECT_EQ(container.fileLength("out.dcm"), -1);
    EXPECT_EQ(log.count(3, "Member out.dcm of container file mem://c.kz runs past the end of the object"), 2);
    EXPECT_EQ(log.count(3), 2);
}

TEST(KzContainer, contextsAreKeptOnceAndForgottenOneByOne)
{
    QByteArray const bytes = containerHead(1, {{"a", 53, 1}}) + "x";
    ContainerFile container("mem://c.kz", memoryReader(bytes), bytes.size());
    EXPECT_TRUE(container.removeContext(3)); // never opened anything
    ASSERT_TRUE(container.openMember("a", 5));
    ASSERT_TRUE(container.openMember("a", 5));
    ASSERT_TRUE(container.openMember("a", 6));
    ASSERT_TRUE(container.openMember("a", -1)); // recorded nowhere
    ASSERT_TRUE(container.openMemberRange("a", 0, 0));
    EXPECT_FALSE(container.removeContext(5));
    EXPECT_FALSE(container.removeContext(-1));
    EXPECT_TRUE(container.removeContext(6));
}

TEST(KzContainer, concurrentFirstOpenersWaitForOneReadOfTheTable)
{
    std::vector<TableEntry> entries;
    for (quint32 i = 0; i < 500; ++i)
        entries.push_back({"m" + QByteArray::number(i), 10000 + i, 1});
    QByteArray const bytes = containerHead(500, entries) + QByteArray(10000, 'x');
    std::atomic<int> reads{0};
    ContainerFile container("mem://c.kz", memoryReader(bytes, &reads), bytes.size());
    auto const before = container.lastAccess();
    std::atomic<int> opened{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int i = t; i < 500; i += 8) {
                std::optional<ContainerFile::Range> range =
                    container.openMember(("m" + std::to_string(i)).c_str(), t);
                opened += range && range->start == 10000 + i;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(opened, 500);
    EXPECT_EQ(reads, 2); // the header and the table, once
    EXPECT_GE(container.lastAccess(), before);
}
