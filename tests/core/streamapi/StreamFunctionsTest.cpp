// The exported stream and copy functions: handles over nginx and the fault
// peer, copies at the 1 MiB pump's boundaries and across a broken transfer,
// the facts of DICOM video and PDF objects that DCMTK made.
#include "support/PeerRequests.h"
#include "support/TestSupport.h"

#include <mdxlib/streamapi/StreamFunctions.h>
#include <mdxlib/tagfile/TagFileFunctions.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcpxitem.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>
#include <tuple>

using mdxtest::fileContents;
using mdxtest::LogCapture;
using mdxtest::peerPort;
using mdxtest::writeFile;

namespace {

constexpr int kMiB = 1 << 20;

std::string nginx(std::string const& name)
{
    return "http://127.0.0.1:" + peerPort("MDX_NGINX_HTTP_PORT") + "/" + name;
}

std::string faulty(std::string const& query)
{
    return "http://127.0.0.1:" + peerPort("MDX_FAULT_PORT") + "/o?" + query;
}

QString served(QString const& name)
{
    return QString::fromStdString(peerPort("MDX_PEER_DATA")) + "/" + name;
}

QByteArray randomBytes(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(static_cast<quint32>(size));
    for (char& byte : bytes)
        byte = static_cast<char>(generator.bounded(256));
    return bytes;
}

// Everything a handle gives, read into the middle of a buffer.
QByteArray readAll(void* handle, long long& last)
{
    QByteArray all;
    std::vector<char> buffer(70000);
    while ((last = ReadBytes(handle, buffer.data(), 100, 65536)) > 0)
        all.append(buffer.data() + 100, static_cast<int>(last));
    return all;
}

class StreamFunctionsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (peerPort("MDX_NGINX_HTTP_PORT").empty())
            GTEST_SKIP() << "run through run_with_peers.py";
        ASSERT_TRUE(dir.isValid());
    }
    QString path(char const* name) const { return dir.filePath(name); }
    QTemporaryDir dir;
};

TEST_F(StreamFunctionsTest, RefusesWhatIsNoHandle)
{
    unsigned long long bogus[4] = {0xFEDCBA9876540003ULL, 1, 2, 3};
    char buffer[8] = "unset";
    EXPECT_EQ(ReadBytes(bogus, buffer, 0, 8), -1);
    EXPECT_EQ(ReadBytes(nullptr, buffer, 0, 8), -1);
    EXPECT_STREQ(buffer, "unset");
    EXPECT_EQ(StreamContentLength(bogus), 0);
    CloseStream(bogus);
    CloseStream(nullptr);
    EXPECT_EQ(bogus[0], 0xFEDCBA9876540003ULL);
    for (auto const& [text, url] : std::vector<std::pair<char const*, bool>>{{"s3://b/k", true},
                                                                             {"http://h/x.dcm", true},
                                                                             {"/data/a.kz/m.dcm", true},
                                                                             {"/data/x.dcm", false},
                                                                             {"C:/data/x.dcm", false},
                                                                             {nullptr, false}})
        EXPECT_EQ(StringIsUrl(text), url) << (text ? text : "null");
}

TEST_F(StreamFunctionsTest, ReadsObjectsAndRanges)
{
    QByteArray const medium = fileContents(served("medium.bin"));
    ASSERT_EQ(medium.size(), 5 * kMiB);
    // The range asked for (none: the whole object), its first byte and length.
    for (auto const& [range, first, count] : std::vector<std::tuple<char const*, int, int>>{
             {nullptr, 0, 5 * kMiB}, {"100-199", 100, 100}, {"5242000-", 5242000, 880}}) {
        void* handle = nullptr;
        int const opened = range ? OpenStreamRange(nginx("medium.bin").c_str(), range, &handle)
                                 : OpenStream(nginx("medium.bin").c_str(), &handle);
        ASSERT_EQ(opened, 0) << (range ? range : "whole");
        EXPECT_EQ(StreamContentLength(handle), 5 * kMiB);
        long long last = 0;
        EXPECT_EQ(readAll(handle, last), medium.mid(first, count));
        EXPECT_EQ(last, 0);
        CloseStream(handle);
    }
    void* handle = reinterpret_cast<void*>(&handle);
    EXPECT_EQ(OpenStream(nginx("missing.bin").c_str(), &handle), -1);
    EXPECT_EQ(OpenStreamRange(nginx("medium.bin").c_str(), nullptr, &handle), -1);
    EXPECT_EQ(handle, reinterpret_cast<void*>(&handle)) << "a failed open wrote the handle";
}

TEST_F(StreamFunctionsTest, DeleteGivesTheClientsAnswer)
{
    // The client deletes cloud objects only: a plain URL is refused, untouched.
    ASSERT_TRUE(writeFile(served("upload/kept.bin"), "bytes"));
    EXPECT_FALSE(SendDeleteRequest(nginx("upload/kept.bin").c_str()));
    EXPECT_TRUE(QFileInfo::exists(served("upload/kept.bin")));
    EXPECT_FALSE(SendDeleteRequest(nullptr));
}

TEST_F(StreamFunctionsTest, BrokenTransferIsNoEnd)
{
    void* handle = nullptr;
    ASSERT_EQ(OpenStream(faulty("id=cut&size=3000000&close_after=1200000").c_str(), &handle), 0);
    long long last = 0;
    EXPECT_LT(readAll(handle, last).size(), 3000000);
    EXPECT_EQ(last, -1);
    CloseStream(handle);
}

// Copies to a local file; the object's bytes are what the source holds.
TEST_F(StreamFunctionsTest, Copies)
{
    QByteArray const one = randomBytes(kMiB);
    QByteArray const two = randomBytes(2 * kMiB);
    ASSERT_TRUE(writeFile(served("one.bin"), one) && writeFile(served("two.bin"), two));
    ASSERT_TRUE(writeFile(path("one.bin"), one) && writeFile(path("two.bin"), two));
    QByteArray const oneMd5 = QCryptographicHash::hash(one, QCryptographicHash::Md5).toHex();
    struct Case
    {
        std::string source;
        QByteArray expected; // empty: the copy must fail
        QByteArray hash;
        long long size;
    };
    std::string const local = path("one.bin").toStdString();
    QByteArray const wrongMd5(32, 'a');
    std::vector<Case> const cases{
        {local, one, {}, 0},
        {path("two.bin").toStdString(), two, {}, 0},
        {nginx("one.bin"), one, {}, 0},
        {nginx("two.bin"), two, {}, 0},
        {local, one, oneMd5, kMiB},
        {local, {}, wrongMd5, 0},
        {local, {}, {}, kMiB + 1},
        {faulty("id=cut2&size=2097152&close_after=1500000"), {}, {}, 0},
        {faulty("id=gone&status=404"), {}, {}, 0},
        {path("missing.bin").toStdString(), {}, {}, 0},
    };
    QString const target = path("target.bin");
    for (Case const& c : cases) {
        SCOPED_TRACE(c.source + " " + c.hash.toStdString() + " " + std::to_string(c.size));
        QFile::remove(target);
        int const result = CopyWithHashAndSize(c.source.c_str(), target.toLocal8Bit().constData(),
                                               c.hash.isEmpty() ? nullptr : c.hash.constData(), c.size);
        EXPECT_EQ(result, c.expected.isEmpty() ? 1 : 0);
        if (c.expected.isEmpty())
            EXPECT_FALSE(QFileInfo::exists(target));
        else
            EXPECT_TRUE(fileContents(target) == c.expected);
    }
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files).size(), 2) << "a temporary file stayed behind";
}

TEST_F(StreamFunctionsTest, FailedCopyKeepsTheOldTargetAndSaysWhy)
{
    ASSERT_TRUE(writeFile(path("old.bin"), "old contents"));
    LogCapture log;
    std::string const missing = path("missing.bin").toStdString();
    EXPECT_EQ(Copy(missing.c_str(), path("old.bin").toLocal8Bit().constData()), 1);
    EXPECT_EQ(fileContents(path("old.bin")), "old contents");
    EXPECT_EQ(log.count(3, "Error reading " + missing), 1);
    EXPECT_EQ(log.count(3, "Could not copy " + missing), 1);
    EXPECT_EQ(Copy(faulty("id=cut3&size=3000000&close_after=2500000").c_str(),
                   path("old.bin").toLocal8Bit().constData()),
              1);
    EXPECT_EQ(fileContents(path("old.bin")), "old contents");
}

// ---- DICOM objects

// A video object as a camera would write it: an empty offset table, then
// the stream in one fragment.
QByteArray writeVideo(QString const& file, char const* sopUid, QByteArray const& stream)
{
    DcmFileFormat format;
    DcmDataset* dataset = format.getDataset();
    dataset->putAndInsertString(DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.77.1.1.1");
    dataset->putAndInsertString(DCM_SOPInstanceUID, sopUid);
    dataset->putAndInsertString(DCM_NumberOfFrames, "240");
    dataset->putAndInsertString(DCM_CineRate, "30");
    dataset->putAndInsertUint16(DCM_Rows, 480);
    dataset->putAndInsertUint16(DCM_Columns, 640);
    auto* sequence = new DcmPixelSequence(DCM_PixelSequenceTag);
    sequence->insert(new DcmPixelItem(DcmTag(DCM_Item, EVR_OB)));
    auto* fragment = new DcmPixelItem(DcmTag(DCM_Item, EVR_OB));
    fragment->putUint8Array(reinterpret_cast<Uint8 const*>(stream.constData()), stream.size());
    sequence->insert(fragment);
    auto* pixels = new DcmPixelData(DCM_PixelData);
    pixels->putOriginalRepresentation(EXS_MPEG4HighProfileLevel4_1, nullptr, sequence);
    dataset->insert(pixels);
    EXPECT_TRUE(format.saveFile(file.toLocal8Bit().constData(), EXS_MPEG4HighProfileLevel4_1).good());
    return fileContents(file);
}

TEST_F(StreamFunctionsTest, VideoFactsWithoutPixelData)
{
    QByteArray const stream = randomBytes(3 * kMiB + 11);
    std::string const longUid(65, '7');
    // Where the stream starts in each file, found by its bytes.
    long long const offset = writeVideo(served("video.dcm"), "1.2.3.4.5", stream).indexOf(stream.left(64));
    long long const longOffset =
        writeVideo(served("longuid.dcm"), longUid.c_str(), stream).indexOf(stream.left(64));
    ASSERT_GT(offset, 0);
    struct Case
    {
        std::string path;
        char const* uid;
        long long offset;
    };
    for (Case const& c :
         {Case{served("video.dcm").toStdString(), "1.2.3.4.5", offset},
          Case{nginx("video.dcm"), "1.2.3.4.5", offset}, Case{nginx("longuid.dcm"), "", longOffset}}) {
        SCOPED_TRACE(c.path);
        char uid[65] = "x";
        unsigned long long frames = 0, rate = 0, dataOffset = 0;
        unsigned int dataLength = 0;
        ASSERT_EQ(GetVideoMetaInfo(c.path.c_str(), uid, &frames, &rate, &dataOffset, &dataLength), 0);
        EXPECT_STREQ(uid, c.uid);
        EXPECT_EQ(frames, 240u);
        EXPECT_EQ(rate, 30u);
        EXPECT_EQ(dataOffset, static_cast<unsigned long long>(c.offset));
        EXPECT_EQ(dataLength, static_cast<unsigned int>(stream.size() + 1)); // padded to even length
    }
    char uid[65];
    unsigned long long frames = 1, rate = 1, dataOffset = 0;
    unsigned int dataLength = 1;
    EXPECT_EQ(GetVideoMetaInfo(path("none.dcm").toLocal8Bit().constData(), uid, &frames, &rate, &dataOffset,
                               &dataLength),
              1);
    EXPECT_EQ(dataOffset, ~0ULL);
    EXPECT_EQ(frames + rate + dataLength, 0u);
}

TEST_F(StreamFunctionsTest, EncapsulatedPdf)
{
    if (!mdxtest::haveProgram("pdf2dcm"))
        GTEST_SKIP() << "pdf2dcm (dcmtk) not installed";
    QByteArray const body = "%PDF-1.4\n1 0 obj << /Type /Catalog >> endobj\ntrailer << /Root 1 0 R >>\n";
    struct Case
    {
        char const* name;
        QByteArray document;
    };
    for (Case const& c : {Case{"odd.pdf", body + "%%EOF\n"}, Case{"even.pdf", body + "%%EOF\r\n"},
                          Case{"nonewline.pdf", body + "%%EOF"}, Case{"nonewline2.pdf", body + " %%EOF"}}) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(writeFile(path(c.name), c.document));
        QString const dicom = path(c.name) + ".dcm";
        ASSERT_EQ(mdxtest::runProgram("pdf2dcm", {path(c.name), dicom}), 0);
        unsigned int length = 1;
        char const* data = nullptr;
        void* handle = GetEncapsulatedPDF(dicom.toLocal8Bit().constData(), &length, &data);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(QByteArray(data, static_cast<int>(length)), c.document);
        FreeTagFileData(handle);
    }
    ASSERT_TRUE(writeFile(path("plain.bin"), "no DICOM"));
    LogCapture log;
    unsigned int length = 1;
    char const* data = "x";
    EXPECT_EQ(GetEncapsulatedPDF(path("plain.bin").toLocal8Bit().constData(), &length, &data), nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(log.count(3, "Cannot open "), 1);
}

TEST_F(StreamFunctionsTest, CopyQAWritesTheObjectAnew)
{
    QByteArray const stream = randomBytes(100001);
    writeVideo(path("video.dcm"), "1.2.3.4.6", stream);
    QString const target = path("copy.dcm");
    ASSERT_EQ(CopyQA(path("video.dcm").toLocal8Bit().constData(), target.toLocal8Bit().constData()), 0);
    QByteArray dump;
    ASSERT_EQ(mdxtest::runProgram("dcmdump", {"+P", "0008,0018", target}, &dump), 0);
    EXPECT_TRUE(dump.contains("1.2.3.4.6")) << dump.constData();
    EXPECT_GE(fileContents(target).indexOf(stream), 0);
    EXPECT_EQ(
        CopyQA(path("none.dcm").toLocal8Bit().constData(), path("none-copy.dcm").toLocal8Bit().constData()),
        1);
    EXPECT_FALSE(QFileInfo::exists(path("none-copy.dcm")));
}

} // namespace
