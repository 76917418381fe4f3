// The QA cache: the record text, the escapes, the tolerances of changed,
// the history, and applying records to the three stores.
#include "support/TagLayer.h"

#include <mdxlib/platform/ExDicomUtilities.h>
#include <mdxlib/platform/HxParamBundle.h>
#include <mdxlib/qa/QACache.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

using mdxtest::decodeHistory;
using Tags = std::map<DcmTagKey, std::string>;

DcmTagKey const kIssuer(0x0010, 0x0021);
DcmTagKey const kHistory(0x0071, 0x1021);

// A cache over records held in memory, counting its queries.
struct Records
{
    std::map<int, std::string> texts;
    std::map<int, int> queries;

    QACache::Query query()
    {
        return [this](int id, std::string& text) {
            ++queries[id];
            auto const found = texts.find(id);
            text = found == texts.end() ? std::string() : found->second;
            return McResult();
        };
    }
};

TEST(QACacheParse, recordTextByTheTable)
{
    // Name, text, step ids, and P, I and the tags of the last step.
    // clang-format off
    struct { char const* name; std::string text; std::vector<std::string> ids; std::string patient, issuer; Tags tags; }
    const cases[] = {
        {"one step", "20240102030405 admin\nP=PID1\nI=ISS\n0010,0010=Doe^John\n0008,103e=a``b`nc\n\n",
         {"20240102030405 admin"}, "PID1", "ISS", {{DCM_PatientName, "Doe^John"}, {DCM_SeriesDescription, "a`b\nc"}}},
        {"last line without newline", "id\n0010,0010=X", {"id"}, "", "", {}},
        {"zero byte ends the text", std::string("id\n0010,0010=X\n\0" "0010,0020=Y\n", 29), {"id"}, "", "",
         {{DCM_PatientName, "X"}}},
        {"only P and I of one-letter lines", "id\nX=1\nP=2\nI=3\nA=4\n", {"id"}, "2", "3", {}},
        {"first value of a key stays", "id\n0010,0010=A\n0010,0010=B\n", {"id"}, "", "", {{DCM_PatientName, "A"}}},
        {"unescaped once", "id\n0010,0010=````n\n", {"id"}, "", "", {{DCM_PatientName, "``n"}}},
        {"P and I as they stand", "id\nP=a``b\nI=c`nd\n", {"id"}, "a``b", "c`nd", {}},
        {"bad keys and lines without = ignored", "id\nzz,10=1\n0010=5\nplain\n0010,0020=ok\n", {"id"}, "", "",
         {{DCM_PatientID, "ok"}}},
        {"an empty line between steps is an id", "a\n\n\n0010,0010=X\n\n", {"a", ""}, "", "", {{DCM_PatientName, "X"}}},
        {"empty record", "", {}, "", "", {}}};
    // clang-format on
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        QACache::Entry entry;
        QACache::parse(entry, c.text);
        std::vector<std::string> ids;
        for (QACache::Change const& change : entry.changes)
            ids.push_back(change.id);
        EXPECT_EQ(ids, c.ids);
        if (entry.changes.empty())
            continue;
        EXPECT_EQ(entry.changes.back().expectedPatientID, c.patient);
        EXPECT_EQ(entry.changes.back().expectedIssuer, c.issuer);
        EXPECT_EQ(entry.changes.back().tags, c.tags);
    }
}

TEST(QACacheParse, escapesBothWays)
{
    std::vector<std::pair<std::string, std::string>> const unescaped = {
        {"``", "`"},        {"`n", "\n"},    {"`x", "`x"},      {"`", "`"},
        {"a````b", "a``b"}, {"```n", "`\n"}, {"plain", "plain"}};
    for (auto const& [text, expected] : unescaped) {
        std::string value = text;
        QACache::unescape(value);
        EXPECT_EQ(value, expected) << text;
        // What appendEscaped writes, unescape reads back.
        QByteArray written;
        QACache::appendEscaped(written, expected.c_str());
        std::string back = written.toStdString();
        QACache::unescape(back);
        EXPECT_EQ(back, expected) << text;
    }
}

TEST(QACacheParse, changedWithItsTolerances)
{
    // clang-format off
    struct { DcmTagKey key; char const *oldValue, *newValue; bool changed; } const cases[] = {
        {DCM_PatientName, "Smith^John^^", "Smith^John", false}, {DCM_PatientName, "A^B", "A^B^C", true},
        {DCM_ReferringPhysicianName, "X^", "X", false}, {DCM_PatientWeight, "70", "70.0005", false},
        {DCM_PatientWeight, "70", "70.01", true}, {DCM_PatientSize, "1.8", "1.8001", false},
        {DCM_PatientID, "A^", "A", true}, {DCM_StudyDescription, "70", "70.0005", true},
        {DCM_PatientID, nullptr, "", false}, {DCM_PatientID, nullptr, "x", true}};
    // clang-format on
    for (auto const& c : cases)
        EXPECT_EQ(QACache::changed(c.key, c.oldValue, c.newValue), c.changed)
            << c.key.toString().c_str() << " " << (c.oldValue ? c.oldValue : "null") << " -> " << c.newValue;
}

class QACacheApply : public ::testing::Test
{
protected:
    void SetUp() override
    {
        image.reset(mdxtest::makeNode("PatientName:PN=Smith^John|PatientID=PID1|0010,0021=ISS|"
                                      "SeriesDescription=old`desc"));
    }

    std::string value(DcmTagKey const& key)
    {
        QByteArray text;
        image->findAndGetString(key, text);
        return text.toStdString();
    }

    QByteArray history()
    {
        QByteArray text;
        image->findAndGetString(kHistory, "Lumora", text);
        return text;
    }

    Records records;
    QACache cache{records.query()};
    std::unique_ptr<Mdx::TagMap> image;
};

TEST_F(QACacheApply, appliesOnceAndWritesTheHistory)
{
    records.texts[7] = "20240102030405 admin\nP=PID1\n0010,0010=Doe^Jane\n0008,103e=new`nline\n\n"
                       "20240102030406\n0010,1030=80\n\n";
    cache.applyQA(*image, 7);
    EXPECT_EQ(value(DCM_PatientName), "Doe^Jane");
    EXPECT_EQ(value(DCM_SeriesDescription), "new\nline");
    EXPECT_EQ(value(DCM_PatientWeight), "80");
    std::vector<mdxtest::HistoryBlock> const blocks = decodeHistory(history());
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[0].id, "20240102030405 admin");
    // Keys are ordered: (0008,103E) before (0010,0010); a newline travels as "`n".
    std::vector<std::vector<std::string>> const first = {{"0008-103e", "old``desc", "new`nline"},
                                                         {"0010-0010", "Smith^John", "Doe^Jane"}};
    EXPECT_EQ(blocks[0].changes, first);
    std::vector<std::vector<std::string>> const second = {{"0010-1030", "", "80"}};
    EXPECT_EQ(blocks[1].changes, second); // an empty old value does not end the block

    // Applied again: nothing changes, the history stays as it is.
    QByteArray const before = history();
    image->putAndInsertString(DCM_PatientName, "Changed^Later");
    cache.applyQA(*image, 7);
    EXPECT_EQ(history(), before);
    EXPECT_EQ(value(DCM_PatientName), "Changed^Later");
    EXPECT_EQ(records.queries[7], 1);
}

TEST_F(QACacheApply, conditionsOnPatientAndIssuer)
{
    // clang-format off
    struct { char const *name, *record; bool applied; } const cases[] = {
        {"other patient", "s1\nP=OTHER\n0010,0010=X\n\n", false},
        {"the patient", "s2\nP=PID1\nI=ISS\n0010,0010=X\n\n", true},
        {"store holds the result already", "s3\nP=NEWID\n0010,0020=PID1\n0010,0010=Y\n\n", true},
        {"issuer - applies whatever the issuer", "s4\nI=-\n0010,0010=Z\n\n", true},
        {"other issuer", "s5\nI=OTHER\n0010,0010=W\n\n", false}};
    // clang-format on
    int id = 100;
    for (auto const& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        records.texts[++id] = c.record;
        cache.applyQA(*image, id);
        EXPECT_EQ(value(DCM_PatientName) != "Smith^John", c.applied);
        // A skipped step leaves no trace and is tried again later.
        EXPECT_EQ(history().isEmpty(), !c.applied);
    }
    // "-" passes even where the store has no issuer at all.
    image->deleteElement(kIssuer);
    records.texts[200] = "s6\nI=-\n0010,0010=Q\n\n";
    cache.applyQA(*image, 200);
    EXPECT_EQ(value(DCM_PatientName), "Q");
}

TEST_F(QACacheApply, aTimestampInTheHistoryMatchesAStepWithAUser)
{
    QByteArray const old = QByteArray("20240102030405\n0010-0010\nA\nB\n\n").toBase64();
    image->putAndInsertValue(kHistory, "Lumora", Mdx::VR_UT, old);
    records.texts[8] = "20240102030405 admin\n0010,0010=Doe^Jane\n\n2024010203040 admin\n0010,0020=NEW\n\n";
    cache.applyQA(*image, 8);
    EXPECT_EQ(value(DCM_PatientName), "Smith^John"); // taken as applied
    EXPECT_EQ(value(DCM_PatientID), "NEW");          // 13 digits: no time stamp, a step of its own
    ASSERT_EQ(decodeHistory(history()).size(), 2u);
}

TEST_F(QACacheApply, sequencesAndBinaryValuesAreSkipped)
{
    mdxtest::putSequence(*image, DCM_ReferencedImageSequence, 2, true);
    records.texts[9] = "s\n0008,1140=text\n7fe0,0010=AAAA\n0028,1201=1\\2\n\n";
    cache.applyQA(*image, 9);
    EXPECT_TRUE(dynamic_cast<Mdx::TagSequence*>(image->findElement(DCM_ReferencedImageSequence)));
    EXPECT_FALSE(image->findElement(DCM_PixelData));
    EXPECT_FALSE(image->findElement(DCM_RedPaletteColorLookupTableData));
    EXPECT_TRUE(history().isEmpty());
}

TEST_F(QACacheApply, leastRecentlyUsedOf200)
{
    for (int id = 1; id <= QACache::kCapacity; ++id)
        cache.find(id);
    cache.find(1); // now the most recent: 2 is the oldest
    cache.find(QACache::kCapacity + 1);
    EXPECT_EQ(cache.size(), QACache::kCapacity);
    cache.find(1);
    EXPECT_EQ(records.queries[1], 1);
    cache.find(2); // evicted, asked for again
    EXPECT_EQ(records.queries[2], 2);
}

// A real file: the corrections go into the dataset, the history into the
// block of its creator, next to another creator's block; DCMTK's dcm2json
// reads the file back.
TEST(QACacheStores, datasetOfASampleFileWithAnotherPrivateBlock)
{
    MDX_REQUIRE_SAMPLES();
    QString const sample = mdxtest::samplesDir() + "/pydicom/CT_small.dcm";
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(sample.toLocal8Bit().constData()).good());
    DcmDataset* dataset = file.getDataset();
    ASSERT_TRUE(dataset->putAndInsertString(DcmTag(DcmTagKey(0x0071, 0x0010), EVR_LO), "Other").good());

    Records records;
    records.texts[3] = "20240102030405\n0010,0010=Doe^Jane\n0008,1030=Corrected\n\n";
    QACache cache(records.query());
    cache.applyQA(*dataset, 3);
    cache.applyQA(*dataset, 3);

    QTemporaryDir dir;
    QString const out = dir.filePath("out.dcm");
    ASSERT_TRUE(file.saveFile(out.toLocal8Bit().constData()).good());
    QByteArray json;
    ASSERT_EQ(mdxtest::runProgram("dcm2json", {out}, &json), 0);
    QJsonObject const root = QJsonDocument::fromJson(json).object();
    auto first = [&](char const* key) { return root.value(key).toObject().value("Value").toArray().first(); };
    auto text = [&](char const* key) { return first(key).toVariant().toString().toStdString(); };
    EXPECT_EQ(first("00100010").toObject().value("Alphabetic").toString(), "Doe^Jane");
    EXPECT_EQ(text("00081030"), "Corrected");
    EXPECT_EQ(text("00710010"), "Other");
    EXPECT_EQ(text("00710011"), "Lumora");
    EXPECT_EQ(root.value("00711121").toObject().value("vr").toString(), "UT");
    std::vector<mdxtest::HistoryBlock> const blocks =
        decodeHistory(QByteArray::fromStdString(text("00711121")));
    ASSERT_EQ(blocks.size(), 1u); // the second application found it in block 0x11
    EXPECT_EQ(blocks[0].changes.size(), 2u);
}

TEST(QACacheStores, parameterBundleOfASampleFile)
{
    MDX_REQUIRE_SAMPLES();
    DcmFileFormat file;
    ASSERT_TRUE(
        file.loadFile((mdxtest::samplesDir() + "/pydicom/CT_small.dcm").toLocal8Bit().constData()).good());
    HxParamBundle parameters("volume");
    ExDicomUtilities::copyToParamBundle(file.getDataset(), *parameters.dicomAllCreate());
    char const* weight = parameters.findTagInAll(0x0010, 0x1030);
    ASSERT_TRUE(weight);

    Records records;
    records.texts[4] = "20240102030405\n0010,1030=" + std::string(weight) + ".0005\n0008,0060=MR\n\n";
    QACache cache(records.query());
    cache.applyQA(*parameters.dicomAll(), 4);
    EXPECT_STREQ(parameters.findTagInAll(0x0008, 0x0060), "MR");
    EXPECT_STREQ(parameters.dicomAll()->findTag(0x0071, 0x0010), "Lumora");
    std::vector<mdxtest::HistoryBlock> const blocks =
        decodeHistory(parameters.findPrivateTagInAll("Lumora", 0x0071, 0x0021));
    ASSERT_EQ(blocks.size(), 1u);
    ASSERT_EQ(blocks[0].changes.size(), 1u); // the weight is within 0.001
    EXPECT_EQ(blocks[0].changes[0][0], "0008-0060");
    EXPECT_STREQ(parameters.dicomAll()->findPrivateTag("Lumora", "G0071-XX21"),
                 parameters.dicomAll()->findTag(0x0071, 0x1021));
}

} // namespace
