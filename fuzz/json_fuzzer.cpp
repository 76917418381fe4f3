// Fuzz target for the DICOM JSON writer's handling of untrusted values.
//
// An input is one attribute of one image: its first byte picks a Specific
// Character Set declaration, its second the VR, the rest is the value as a
// file would hold it. Whatever the bytes, the image's JSON must be one valid
// JSON object (so valid UTF-8 too) holding the attribute with the VR asked
// for. Bulk data references made from arbitrary stored paths must read back
// as the path they were made from.
//
// The same function runs in the normal test build (json_fuzz_replay_test)
// over generated inputs.
#include <mdxlib/json/BulkDataUri.h>
#include <mdxlib/json/DicomJsonWriter.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

// Ends the run, showing the text concerned with its odd bytes escaped.
[[noreturn]] void fail(char const* what, QByteArray const& text)
{
    std::fprintf(stderr, "json_fuzzer: %s: %s\n", what, text.toPercentEncoding(" {}[]:,\"/").constData());
    std::abort();
}

char const* const kCharsets[] = {
    "",
    "ISO_IR 100",
    "ISO_IR 192",
    "ISO_IR 144",
    "ISO_IR 13",
    "GB18030",
    "ISO 2022 IR 6\\ISO 2022 IR 87",
    "ISO 2022 IR 13\\ISO 2022 IR 87\\ISO 2022 IR 159",
    "\\ISO 2022 IR 149",
    "\\ISO 2022 IR 58",
    "ISO 2022 IR 100\\ISO 2022 IR 126",
    "NOT A CHARSET",
};

struct Attribute
{
    DcmTagKey key;
    Mdx::VR vr;
    char const* json;
};

Attribute const kAttributes[] = {
    {DCM_PatientName, Mdx::VR_PN, "PN"},
    {DCM_StudyDescription, Mdx::VR_LO, "LO"},
    {DCM_ImageComments, Mdx::VR_LT, "LT"},
    {DCM_PixelSpacing, Mdx::VR_DS, "DS"},
    {DCM_InstanceNumber, Mdx::VR_IS, "IS"},
    {DCM_FrameIncrementPointer, Mdx::VR_AT, "AT"},
    {DCM_Rows, Mdx::VR_US, "US"},
    {DcmTagKey(0x0018, 0x9089), Mdx::VR_FL, "FL"},
    {DcmTagKey(0x0018, 0x9087), Mdx::VR_FD, "FD"},
    {DcmTagKey(0x0029, 0x1010), Mdx::VR_UN, "UN"},
    {DCM_ImageType, Mdx::VR_CS, "CS"},
    {DcmTagKey(0x0018, 0x6020), Mdx::VR_SL, "SL"},
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    if (size < 2 || size > 1 << 20)
        return 0;
    char const* const charset = kCharsets[data[0] % (sizeof kCharsets / sizeof *kCharsets)];
    Attribute const& attribute = kAttributes[data[1] % (sizeof kAttributes / sizeof *kAttributes)];
    QByteArray const value(reinterpret_cast<char const*>(data + 2), static_cast<int>(size - 2));

    Mdx::TagMap image;
    image.putAndInsertValue(DCM_SpecificCharacterSet, Mdx::VR_CS, charset);
    image.putAndInsertValue(attribute.key, attribute.vr, value);
    // The same bytes as a stored path make a bulk data reference.
    image.putAndInsertValue(Mdx::Tags::DicomFilePath, Mdx::VR_LO, value);
    image.markAsOmitted(DCM_PixelData);

    Mdx::DicomJsonWriter writer(nullptr);
    QByteArray text;
    writer.appendDataset(text, &image);
    QJsonParseError error{};
    QJsonObject const object = QJsonDocument::fromJson(text, &error).object();
    if (error.error != QJsonParseError::NoError)
        fail("the JSON of an image is not valid JSON", text);
    char tag[9];
    std::snprintf(tag, sizeof tag, "%04X%04X", attribute.key.getGroup(), attribute.key.getElement());
    if (object.value(tag).toObject().value("vr").toString() != attribute.json)
        fail("the attribute is not written with its VR", text);

    QByteArray const uri = object.value("7FE00010").toObject().value("BulkDataURI").toString().toUtf8();
    std::optional<Mdx::BulkDataUri> const parsed = Mdx::BulkDataUri::parse(uri);
    // A path that is not valid UTF-8 does not survive the trip through JSON
    // text, and a URL comes back with its odd bytes percent-encoded.
    bool const utf8 = QString::fromUtf8(value.constData(), value.size()).toUtf8() == value;
    bool printable = true;
    for (char const c : value)
        printable = printable && c > 0x20 && c < 0x7f;
    bool const exact = value.contains("://") ? printable : utf8 && !value.contains('\0');
    if (!value.isEmpty() && (!parsed || (exact && parsed->object != value))) {
        fail("a bulk data reference does not read back as its stored path", value + " -> " + uri);
    }
    return 0;
}
