// The DICOM JSON model value by value, against JSON written by hand from
// the model's rules and parsed by Qt's own JSON reader: every value kind,
// padding, empty values, numbers JSON cannot read as they are, character
// sets (the examples of the standard's character set annex among them),
// bulk-data references, markers and the system's own group. Also the text
// form of bulk-data references, both ways.
#include "support/TagLayer.h"

#include <mdxlib/json/BulkDataUri.h>
#include <mdxlib/json/DicomJsonWriter.h>

#include <QBuffer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <cstring>

namespace {

template <typename T> QByteArray binary(std::initializer_list<T> values)
{
    QByteArray bytes;
    for (T const value : values)
        bytes.append(reinterpret_cast<char const*>(&value), sizeof value);
    return bytes;
}

QJsonObject parse(QByteArray const& text)
{
    QJsonParseError error{};
    QJsonDocument const document = QJsonDocument::fromJson(text, &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError)
        << error.errorString().toStdString() << " in " << text.constData();
    return document.object();
}

QJsonObject datasetJson(Mdx::TagMap const* image)
{
    Mdx::DicomJsonWriter writer(nullptr);
    QByteArray text;
    writer.appendDataset(text, image);
    return parse(text);
}

// charset: (0008,0005), or null for none.
// clang-format off
struct ValueRow { char const* what; DcmTagKey key; Mdx::VR vr; QByteArray value; char const *charset, *expected; };
// clang-format on

// Plain values of the binary kinds (US, SS, SL, UL, FD, OB, AT) are
// DicomJsonOracleTest's, on the samples; here the rules no sample shows.
TEST(DicomJsonValues, everyValueKindAsTheModelWritesIt)
{
    float const nan = std::nanf("");
    ValueRow const rows[] = {
        {"multi-valued text, padding gone", DCM_ImageType, Mdx::VR_CS, "ORIGINAL\\PRIMARY ", nullptr,
         R"({"vr":"CS","Value":["ORIGINAL","PRIMARY"]})"},
        {"empty value in the middle is null", DCM_StudyDescription, Mdx::VR_LO, " a \\\\b", nullptr,
         R"({"vr":"LO","Value":["a",null,"b"]})"},
        {"all padding: no Value", DCM_StudyDescription, Mdx::VR_LO, "  ", nullptr, R"({"vr":"LO"})"},
        {"empty value: no Value", DCM_StudyDescription, Mdx::VR_LO, "", nullptr, R"({"vr":"LO"})"},
        {"LT keeps backslashes and leading spaces", DCM_ImageComments, Mdx::VR_LT, "  a\\b\r\n \"q\" ",
         nullptr, R"({"vr":"LT","Value":["  a\\b\r\n \"q\""]})"},
        {"UI without its NUL padding", DCM_SOPClassUID, Mdx::VR_UI, QByteArray("1.2.3\0", 6), nullptr,
         R"({"vr":"UI","Value":["1.2.3"]})"},
        {"DS in JSON's form where needed", DCM_PixelSpacing, Mdx::VR_DS,
         " 1.50\\+2\\.5\\1.\\-0.25E2\\abc\\1e999", nullptr,
         R"({"vr":"DS","Value":[1.50,2,0.5,1,-25,"abc","1e999"]})"},
        {"IS with leading zeros", DCM_InstanceNumber, Mdx::VR_IS, "007\\-3\\", nullptr,
         R"({"vr":"IS","Value":[7,-3,null]})"},
        {"xs is US", DCM_SmallestImagePixelValue, Mdx::VR_xs, binary<Uint16>({7}), nullptr,
         R"({"vr":"US","Value":[7]})"},
        {"FL, NaN as null", DcmTagKey(0x0018, 0x9089), Mdx::VR_FL, binary<float>({0.5f, nan, -2.0f}), nullptr,
         R"({"vr":"FL","Value":[0.5,null,-2]})"},
        {"UN as Base64", DcmTagKey(0x0029, 0x1011), Mdx::VR_UN, "ab", nullptr,
         R"({"vr":"UN","InlineBinary":"YWI="})"},
        {"person name groups", DCM_PatientName, Mdx::VR_PN,
         "Yamada^Tarou^^=\xe5\xb1\xb1\xe7\x94\xb0^\xe5\xa4\xaa\xe9\x83\x8e\\^^\\=Yamada^ ", "ISO_IR 192",
         R"({"vr":"PN","Value":[{"Alphabetic":"Yamada^Tarou","Ideographic":"山田^太郎"},null,{"Ideographic":"Yamada"}]})"},
        {"ISO_IR 100", DCM_PatientName, Mdx::VR_PN, "M\xfcller^J\xe9r\xf4me", "ISO_IR 100",
         R"({"vr":"PN","Value":[{"Alphabetic":"Müller^Jérôme"}]})"},
        {"ISO_IR 144", DCM_PatientName, Mdx::VR_PN, "\xbf\xe0\xd8\xd2\xd5\xe2", "ISO_IR 144",
         R"({"vr":"PN","Value":[{"Alphabetic":"Привет"}]})"},
        {"Japanese, ISO 2022 IR 87", DCM_PatientName, Mdx::VR_PN,
         "Yamada^Tarou=\x1b$B;3ED\x1b(B^\x1b$BB@O:\x1b(B=\x1b$B$d$^$@\x1b(B^\x1b$B$?$m$&\x1b(B",
         "\\ISO 2022 IR 87",
         R"({"vr":"PN","Value":[{"Alphabetic":"Yamada^Tarou","Ideographic":"山田^太郎","Phonetic":"やまだ^たろう"}]})"},
        {"Japanese Katakana, ISO 2022 IR 13", DCM_PatientName, Mdx::VR_PN, "\xd4\xcf\xc0\xde^\xc0\xdb\xb3",
         "ISO 2022 IR 13\\ISO 2022 IR 87", R"({"vr":"PN","Value":[{"Alphabetic":"ﾔﾏﾀﾞ^ﾀﾛｳ"}]})"},
        {"Korean, ISO 2022 IR 149", DCM_PatientName, Mdx::VR_PN,
         "Hong^Gildong=\x1b$)C\xfb\xf3^\x1b$)C\xd1\xce\xd4\xd7=\x1b$)C\xc8\xab^\x1b$)C\xb1\xe6\xb5\xbf",
         "\\ISO 2022 IR 149",
         R"({"vr":"PN","Value":[{"Alphabetic":"Hong^Gildong","Ideographic":"洪^吉洞","Phonetic":"홍^길동"}]})"},
        {"GB18030", DCM_PatientName, Mdx::VR_PN, "Wang^XiaoDong=\xcd\xf5^\xd0\xa1\xb6\xab", "GB18030",
         R"({"vr":"PN","Value":[{"Alphabetic":"Wang^XiaoDong","Ideographic":"王^小东"}]})"},
        {"invalid UTF-8 is U+FFFD", DCM_StudyDescription, Mdx::VR_LO, "a\xff\xc3", "ISO_IR 192",
         R"({"vr":"LO","Value":["a\ufffd\ufffd"]})"},
        {"no declaration: bytes above 0x7F are U+FFFD", DCM_StudyDescription, Mdx::VR_LO, "M\xfcller",
         nullptr, R"({"vr":"LO","Value":["M\ufffdller"]})"},
        {"unknown escape sequence is U+FFFD", DCM_StudyDescription, Mdx::VR_LO, "a\x1b%Gb",
         "ISO 2022 IR 6\\ISO 2022 IR 87", R"({"vr":"LO","Value":["a\ufffd%Gb"]})"},
        {"control characters escaped", DCM_StudyDescription, Mdx::VR_LO, QByteArray("a\x01\x1f", 3), nullptr,
         R"({"vr":"LO","Value":["a\u0001\u001f"]})"},
    };
    for (ValueRow const& row : rows) {
        SCOPED_TRACE(row.what);
        std::unique_ptr<Mdx::TagMap> image(new Mdx::TagMap);
        if (row.charset)
            image->putAndInsertValue(DCM_SpecificCharacterSet, Mdx::VR_CS, row.charset);
        image->putAndInsertValue(row.key, row.vr, row.value);
        QJsonObject const dataset = datasetJson(image.get());
        char tag[9];
        std::snprintf(tag, sizeof tag, "%04X%04X", row.key.getGroup(), row.key.getElement());
        EXPECT_EQ(dataset.value(tag).toObject(), parse(row.expected))
            << QJsonDocument(dataset.value(tag).toObject()).toJson(QJsonDocument::Compact).constData();
        if (row.charset) {
            EXPECT_EQ(dataset.value("00080005").toObject(), parse(R"({"vr":"CS","Value":["ISO_IR 192"]})"));
        }
    }
}

// A study of one series of two images: the second hides an attribute by a
// missing marker, Pixel Data and a value in a sequence item are omitted.
TEST(DicomJsonValues, treeMarkersAndBulkDataReferences)
{
    Mdx::TagFile file;
    file.setStoreFilePaths(true);
    for (char const* sop : {"1.2.3.1", "1.2.3.2"}) {
        mdxtest::addImage(file, "1.2.3", "1.2.3.0", sop,
                          {{DCM_StudyDescription, std::strcmp(sop, "1.2.3.1") == 0 ? "head" : nullptr},
                           {DCM_BitsAllocated, "16"}},
                          1000,
                          std::strcmp(sop, "1.2.3.1") == 0 ? "/data/a b#c.dcm" : "s3://bucket/x.dcm?QA=2");
    }
    file.optimizeAll();
    Mdx::TagMap* first = file.findImage("1.2.3.1");
    Mdx::TagSequence* sequence = mdxtest::putSequence(*first, DcmTagKey(0x0054, 0x0016), 2);
    sequence->mItems[1]->markAsOmitted(DcmTagKey(0x0018, 0x1072));
    first->markAsOmitted(DcmTagKey(0x0029, 0x1010));

    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    Mdx::DicomJsonWriter writer(&buffer, true);
    ASSERT_TRUE(writer.writeStudy(file));
    QJsonParseError error{};
    QJsonArray const images = QJsonDocument::fromJson(buffer.data(), &error).array();
    ASSERT_EQ(error.error, QJsonParseError::NoError);
    ASSERT_EQ(images.size(), 2);
    QJsonObject const a = images[0].toObject();
    QJsonObject const b = images[1].toObject();

    EXPECT_EQ(a.value("00081030").toObject().value("Value").toArray(), QJsonArray{"head"});
    EXPECT_FALSE(b.contains("00081030")) << "a missing marker hides the attribute";
    for (QString const& key : a.keys())
        EXPECT_FALSE(key.startsWith("0006")) << "the system's own group is left out";
    EXPECT_EQ(a.value("7FE00010").toObject(),
              parse(R"({"vr":"OW","BulkDataURI":"file:///data/a%20b%23c.dcm#bulk=7FE00010"})"));
    EXPECT_EQ(b.value("7FE00010").toObject(),
              parse(R"({"vr":"OW","BulkDataURI":"s3://bucket/x.dcm?QA=2#bulk=7FE00010"})"));
    EXPECT_EQ(a.value("00291010").toObject().value("vr").toString(), "UN");
    QJsonArray const items = a.value("00540016").toObject().value("Value").toArray();
    ASSERT_EQ(items.size(), 2);
    EXPECT_EQ(items[1].toObject().value("00181072").toObject().value("BulkDataURI").toString(),
              "file:///data/a%20b%23c.dcm#bulk=00540016/1/00181072");

    // Without stored paths the instance is named by its UIDs.
    std::unique_ptr<Mdx::TagMap> bare(first->clone());
    bare->deleteElement(Mdx::Tags::DicomFilePath);
    EXPECT_EQ(datasetJson(bare.get()).value("7FE00010").toObject().value("BulkDataURI").toString(),
              "studies/1.2.3/series/1.2.3.0/instances/1.2.3.1#bulk=7FE00010");
}

TEST(DicomJsonValues, bulkDataUrisParseBackToWhatMadeThem)
{
    // clang-format off
    struct { QByteArray object, study, series, sop; std::vector<Mdx::BulkDataUri::Step> path; } const rows[] = {
        {"/data/a b#c?QA=3.dcm", "", "", "", {{DCM_PixelData, -1}}},
        {"s3://bucket/p/x.dcm", "", "", "", {{DcmTagKey(0x0054, 0x0016), 12}, {DcmTagKey(0x0018, 0x1072), -1}}},
        {"relative/dir/ä.dcm", "", "", "", {{DCM_PixelData, -1}}},
        {"studies/a/series/b/instances/c", "", "", "", {{DCM_PixelData, -1}}},
        {"", "1.2", "1.2.3", "1.2.3.4", {{DcmTagKey(0x0029, 0x1010), -1}}}};
    // clang-format on
    auto steps = [](std::vector<Mdx::BulkDataUri::Step> const& path) {
        std::vector<std::pair<DcmTagKey, int>> out;
        for (Mdx::BulkDataUri::Step const& step : path)
            out.emplace_back(step.tag, step.item);
        return out;
    };
    for (auto const& row : rows) {
        Mdx::BulkDataUri uri;
        std::tie(uri.object, uri.studyUID, uri.seriesUID, uri.sopInstanceUID, uri.path) =
            std::tie(row.object, row.study, row.series, row.sop, row.path);
        std::optional<Mdx::BulkDataUri> const back = Mdx::BulkDataUri::parse(uri.toUri());
        ASSERT_TRUE(back) << uri.toUri().constData();
        EXPECT_EQ(std::tie(back->object, back->sopInstanceUID, back->seriesUID),
                  std::tie(row.object, row.sop, row.series))
            << uri.toUri().constData();
        EXPECT_EQ(steps(back->path), steps(row.path)) << uri.toUri().constData();
    }
    for (char const* wrong : {"x.dcm", "x.dcm#bulk=7fe00010", "x.dcm#bulk=7FE00010/0", "x.dcm#bulk=7FE0001",
                              "x.dcm#bulk=00540016/a/00181072", "studies/1/series/2#bulk=7FE00010"})
        EXPECT_FALSE(Mdx::BulkDataUri::parse(wrong)) << wrong;
}

} // namespace
