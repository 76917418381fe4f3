// The DICOM JSON model written from tag maps, one image at a time.
#include <mdxlib/json/BulkDataUri.h>
#include <mdxlib/json/DicomJsonWriter.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/tags/TransferSyntax.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcxfer.h"

#include <QIODevice>
#include <QList>
#include <QVarLengthArray>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

namespace Mdx {

namespace {

// A datasets's JSON is handed to the device once this much has gathered.
constexpr int kFlushSize = 256 * 1024;

// JSON text with optional indentation. Values and keys are separated and
// indented by the nesting they are written at.
class JsonText
{
public:
    JsonText(QByteArray& out, bool pretty, int depth)
        : mOut(out)
        , mPretty(pretty)
        , mDepth(depth)
    {
    }

    void beginObject() { open('{'); }
    void endObject() { close('}'); }
    void beginArray() { open('['); }
    void endArray() { close(']'); }
    void key(char const* name)
    {
        separate();
        mOut += '"';
        mOut += name;
        mOut += mPretty ? "\": " : "\":";
        mAfterKey = true;
    }
    void raw(char const* text, int size)
    {
        separate();
        mOut.append(text, size);
    }
    void raw(QByteArray const& text) { raw(text.constData(), text.size()); }
    void null() { raw("null", 4); }
    void string(char const* text, int size);
    void string(QByteArray const& text) { string(text.constData(), text.size()); }

private:
    void open(char bracket)
    {
        separate();
        mOut += bracket;
        mFirst.push_back(true);
    }
    void close(char bracket)
    {
        bool const empty = mFirst.back();
        mFirst.pop_back();
        if (mPretty && !empty)
            newline();
        mOut += bracket;
    }
    void separate()
    {
        if (mAfterKey) {
            mAfterKey = false;
            return;
        }
        if (mFirst.empty())
            return;
        if (!mFirst.back())
            mOut += ',';
        mFirst.back() = false;
        if (mPretty)
            newline();
    }
    void newline()
    {
        mOut += '\n';
        mOut.append(2 * (mDepth + static_cast<int>(mFirst.size())), ' ');
    }

    QByteArray& mOut;
    bool mPretty;
    int mDepth;
    bool mAfterKey = false;
    std::vector<bool> mFirst;
};

void JsonText::string(char const* text, int size)
{
    separate();
    mOut += '"';
    int run = 0; // characters copied as they are, in one go
    for (int i = 0; i < size; ++i) {
        auto const c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\')
            continue;
        mOut.append(text + run, i - run);
        run = i + 1;
        switch (c) {
        case '"':
            mOut += "\\\"";
            break;
        case '\\':
            mOut += "\\\\";
            break;
        case '\n':
            mOut += "\\n";
            break;
        case '\r':
            mOut += "\\r";
            break;
        case '\t':
            mOut += "\\t";
            break;
        case '\b':
            mOut += "\\b";
            break;
        case '\f':
            mOut += "\\f";
            break;
        default: {
            char escaped[7];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            mOut.append(escaped, 6);
        }
        }
    }
    mOut.append(text + run, size - run);
    mOut += '"';
}

// How the JSON model writes a VR's value.
enum class Kind
{
    Strings,     // multi-valued text
    Text,        // one value, backslashes are text (LT, ST, UT, UR)
    Decimal,     // DS and IS: text that is a number
    PersonName,  // PN: objects of component groups
    Tags,        // AT
    Binary,      // numbers in binary form
    InlineBinary // bytes in Base64
};

struct JsonVR
{
    char const* name;
    Kind kind;
};

// The VR name the JSON model knows, for every code a tag map may hold. The
// internal VRs of the data dictionary resolve as DCMTK's valid VR does
// (xs to US, ox to OB, lt to OW, up to UL).
JsonVR jsonVR(VR vr)
{
    switch (vr) {
    case VR_AE:
        return {"AE", Kind::Strings};
    case VR_AS:
        return {"AS", Kind::Strings};
    case VR_AT:
        return {"AT", Kind::Tags};
    case VR_CS:
        return {"CS", Kind::Strings};
    case VR_DA:
        return {"DA", Kind::Strings};
    case VR_DS:
        return {"DS", Kind::Decimal};
    case VR_DT:
        return {"DT", Kind::Strings};
    case VR_FL:
        return {"FL", Kind::Binary};
    case VR_FD:
        return {"FD", Kind::Binary};
    case VR_IS:
        return {"IS", Kind::Decimal};
    case VR_LO:
        return {"LO", Kind::Strings};
    case VR_LT:
        return {"LT", Kind::Text};
    case VR_OB:
    case VR_ox:
    case VR_px:
        return {"OB", Kind::InlineBinary};
    case VR_OD:
        return {"OD", Kind::InlineBinary};
    case VR_OF:
        return {"OF", Kind::InlineBinary};
    case VR_OL:
        return {"OL", Kind::InlineBinary};
    case VR_OV:
        return {"OV", Kind::InlineBinary};
    case VR_OW:
    case VR_lt:
    case VR_OverlayData:
        return {"OW", Kind::InlineBinary};
    case VR_PN:
        return {"PN", Kind::PersonName};
    case VR_SH:
        return {"SH", Kind::Strings};
    case VR_SL:
        return {"SL", Kind::Binary};
    case VR_SQ:
        return {"SQ", Kind::InlineBinary}; // sequences are written apart
    case VR_SS:
        return {"SS", Kind::Binary};
    case VR_ST:
        return {"ST", Kind::Text};
    case VR_SV:
        return {"SV", Kind::Binary};
    case VR_TM:
        return {"TM", Kind::Strings};
    case VR_UC:
        return {"UC", Kind::Strings};
    case VR_UI:
        return {"UI", Kind::Strings};
    case VR_UL:
    case VR_up:
        return {"UL", Kind::Binary};
    case VR_UR:
        return {"UR", Kind::Text};
    case VR_US:
    case VR_xs:
        return {"US", Kind::Binary};
    case VR_UT:
        return {"UT", Kind::Text};
    case VR_UV:
        return {"UV", Kind::Binary};
    default:
        return {"UN", Kind::InlineBinary};
    }
}

// "GGGGEEEE" into text, which holds 9 characters.
void tagText(DcmTagKey const& key, char* text)
{
    static char const kHex[] = "0123456789ABCDEF";
    unsigned const value = unsigned(key.getGroup()) << 16 | key.getElement();
    for (int i = 0; i < 8; ++i)
        text[i] = kHex[(value >> (28 - 4 * i)) & 0xf];
    text[8] = '\0';
}

bool isSpace(char c)
{
    return c == ' ';
}

// Padding and insignificant spaces go: trailing spaces (and the NUL that
// pads UIDs) always, leading spaces where the VR says they mean nothing.
// A piece of a value, not copied.
struct Span
{
    char const* data;
    int size;
};

Span trimmed(Span text, VR vr)
{
    int end = text.size;
    while (end > 0 && (isSpace(text.data[end - 1]) || text.data[end - 1] == '\0'))
        --end;
    int begin = 0;
    bool const leading = vr == VR_AE || vr == VR_CS || vr == VR_DS || vr == VR_IS || vr == VR_LO ||
                         vr == VR_SH || vr == VR_DA || vr == VR_TM || vr == VR_DT || vr == VR_AS ||
                         vr == VR_UI || vr == VR_UC;
    while (leading && begin < end && isSpace(text.data[begin]))
        ++begin;
    return {text.data + begin, end - begin};
}

QByteArray trimmed(QByteArray const& value, VR vr)
{
    Span const span = trimmed(Span{value.constData(), value.size()}, vr);
    return QByteArray(span.data, span.size);
}

// Whether text is a number as JSON writes one:
// -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
bool isJsonNumber(QByteArray const& text)
{
    char const* p = text.constData();
    char const* const end = p + text.size();
    auto digits = [&] {
        char const* const start = p;
        while (p < end && *p >= '0' && *p <= '9')
            ++p;
        return p > start;
    };
    if (p < end && *p == '-')
        ++p;
    if (p < end && *p == '0')
        ++p;
    else if (!digits())
        return false;
    if (p < end && *p == '.') {
        ++p;
        if (!digits())
            return false;
    }
    if (p < end && (*p == 'e' || *p == 'E')) {
        ++p;
        if (p < end && (*p == '+' || *p == '-'))
            ++p;
        if (!digits())
            return false;
    }
    return p == end;
}

template <typename T> void appendShortest(QByteArray& out, T value)
{
    char text[32];
    std::to_chars_result const result = std::to_chars(text, text + sizeof text, value);
    out.append(text, static_cast<int>(result.ptr - text));
}

// A DS or IS value as a JSON number. Text that JSON reads as it is stays
// unchanged (a decimal string keeps its digits); other numbers ("+5",
// ".5", "1.", "007") are written in JSON's form; text that is no number at
// all, or one beyond what a double holds, is written as a string, so that
// nothing is lost and every JSON reader can read the document.
void writeDecimal(JsonText& json, QByteArray const& value)
{
    char const* begin = value.constData();
    char const* const end = begin + value.size();
    if (begin < end && *begin == '+')
        ++begin;
    double number = 0;
    std::from_chars_result const result = std::from_chars(begin, end, number);
    if (result.ec != std::errc() || result.ptr != end || begin == end || !std::isfinite(number)) {
        json.string(value); // no number, or none a reader could hold ("1e999")
    } else if (isJsonNumber(value)) {
        json.raw(value);
    } else {
        QByteArray text;
        appendShortest(text, number);
        json.raw(text);
    }
}

template <typename T> T load(char const* bytes)
{
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

// Binary numbers in the byte order of the machine, which is how tag maps
// hold them. JSON has no NaN or infinity: those are written as null, the
// model's empty value, which every reader of the model already handles.
void writeBinary(JsonText& json, VR vr, QByteArray const& value)
{
    int size = 0;
    switch (vr) {
    case VR_US:
    case VR_SS:
    case VR_xs:
        size = 2;
        break;
    case VR_UL:
    case VR_SL:
    case VR_FL:
    case VR_up:
        size = 4;
        break;
    default:
        size = 8;
        break;
    }
    char const* bytes = value.constData();
    QByteArray text;
    for (int at = 0; at + size <= value.size(); at += size) {
        text.clear();
        char const* const p = bytes + at;
        switch (vr) {
        case VR_US:
        case VR_xs:
            appendShortest(text, load<uint16_t>(p));
            break;
        case VR_SS:
            appendShortest(text, load<int16_t>(p));
            break;
        case VR_UL:
        case VR_up:
            appendShortest(text, load<uint32_t>(p));
            break;
        case VR_SL:
            appendShortest(text, load<int32_t>(p));
            break;
        case VR_UV:
            appendShortest(text, load<uint64_t>(p));
            break;
        case VR_SV:
            appendShortest(text, load<int64_t>(p));
            break;
        case VR_FL: {
            float const number = load<float>(p);
            if (std::isfinite(number))
                appendShortest(text, number);
            break;
        }
        default: {
            double const number = load<double>(p);
            if (std::isfinite(number))
                appendShortest(text, number);
            break;
        }
        }
        if (text.isEmpty())
            json.null();
        else
            json.raw(text);
    }
}

using Decoders = std::map<QByteArray, CharacterSetDecoder>;

// One decoder per declaration met, kept for the writer's life: a study
// nearly always declares one character set for all its images.
CharacterSetDecoder const& decoderFor(Decoders& decoders, QByteArray const& specificCharacterSet)
{
    auto it = decoders.find(specificCharacterSet);
    if (it == decoders.end())
        it = decoders.emplace(specificCharacterSet, CharacterSetDecoder(specificCharacterSet)).first;
    return it->second;
}

// Everything the attributes of one image need beyond themselves.
struct DatasetContext
{
    Decoders* decoders;
    TagMap const* image;
    BulkDataUri place; // the image, and the sequence items walked into
};

// The VR of an attribute that the tag file keeps only as a marker: what the
// data dictionary says, with Pixel Data's "OB or OW" decided as a reader of
// the file would see it (OB when encapsulated or 8-bit, else OW). Omitted
// sequences are served as the raw bytes they are, hence UN.
char const* omittedVR(TagMap const* node, TagMap const* image, DcmTagKey const& key)
{
    VR const vr =
        dictionaryVR(key, TagMap::isPrivateGroup(key.getGroup()) ? node->privateCreator(key) : nullptr);
    if (vr == VR_SQ)
        return "UN";
    if (key == DCM_PixelData && (vr == VR_ox || vr == VR_px)) {
        TagElement const* syntax = image->findElement(Tags::TransferSyntax);
        if (syntax && syntax->mValue.size() == 1) {
            DcmXfer const xfer(MdxToDcmtk(static_cast<TransferSyntax>(syntax->mValue[0])));
            if (xfer.getXfer() != EXS_Unknown && xfer.isEncapsulated())
                return "OB";
        }
        int bitsAllocated = 0;
        image->findAndGetInt(DCM_BitsAllocated, bitsAllocated);
        return bitsAllocated > 8 ? "OW" : "OB";
    }
    if (vr == VR_ox)
        return "OW";
    return jsonVR(vr).name;
}

class DatasetWriter
{
public:
    static void write(JsonText& json, TagMap const* node, CharacterSetDecoder const& decoder,
                      DatasetContext& context);

private:
    static void writeElement(JsonText& json, TagMap const* node, DcmTagKey const& key,
                             TagElement const* element, CharacterSetDecoder const& decoder,
                             DatasetContext& context);
    static void writeStrings(JsonText& json, VR vr, Kind kind, QByteArray const& utf8);
    static void writePersonNames(JsonText& json, QByteArray const& utf8);
};

void DatasetWriter::write(JsonText& json, TagMap const* node, CharacterSetDecoder const& decoder,
                          DatasetContext& context)
{
    json.beginObject();
    for (TagMap::iterator it = node->begin(), end = node->end(); it != end; ++it) {
        if (it.key().getGroup() == 0x0006)
            continue; // the system's own attributes
        writeElement(json, node, it.key(), it.element(), decoder, context);
    }
    json.endObject();
}

void DatasetWriter::writeElement(JsonText& json, TagMap const* node, DcmTagKey const& key,
                                 TagElement const* element, CharacterSetDecoder const& decoder,
                                 DatasetContext& context)
{
    char tag[9];
    tagText(key, tag);
    json.key(tag);
    json.beginObject();
    // Encapsulated Pixel Data has no flat value to keep, and the tag file
    // holds it as an empty element: the pixels are in the file all the same.
    bool const pixelsInFile = key == DCM_PixelData && element->mValue.isEmpty();
    if (element->isOmittedMarker() || pixelsInFile) {
        json.key("vr");
        char const* const omitted = omittedVR(node, context.image, key);
        json.string(omitted, static_cast<int>(std::strlen(omitted)));
        BulkDataUri uri = context.place;
        uri.path.push_back({key, -1});
        json.key("BulkDataURI");
        json.string(uri.toUri());
        json.endObject();
        return;
    }
    auto const* sequence = element->mVR == VR_SQ ? dynamic_cast<TagSequence const*>(element) : nullptr;
    if (sequence) {
        json.key("vr");
        json.string("SQ", 2);
        if (!sequence->mItems.isEmpty()) {
            json.key("Value");
            json.beginArray();
            context.place.path.push_back({key, 0});
            for (int i = 0; i < sequence->mItems.size(); ++i) {
                TagMap const* item = sequence->mItems[i];
                context.place.path.back().item = i;
                // An item may declare a character set of its own.
                TagElement const* charset = item->findElement(DCM_SpecificCharacterSet);
                CharacterSetDecoder const& itemDecoder = charset && !charset->isMarker()
                                                             ? decoderFor(*context.decoders, charset->mValue)
                                                             : decoder;
                write(json, item, itemDecoder, context);
            }
            context.place.path.pop_back();
            json.endArray();
        }
        json.endObject();
        return;
    }
    JsonVR const vr = jsonVR(element->mVR);
    json.key("vr");
    json.string(vr.name, 2);
    QByteArray const& value = element->mValue;
    if (!value.isEmpty()) {
        switch (vr.kind) {
        case Kind::Strings:
        case Kind::Text:
        case Kind::Decimal:
        case Kind::PersonName: {
            QByteArray utf8 = decoder.toUtf8(value);
            // The text is UTF-8 now, and says so.
            if (key == DCM_SpecificCharacterSet && !trimmed(value, VR_CS).isEmpty())
                utf8 = "ISO_IR 192";
            if (vr.kind == Kind::PersonName && trimmed(Span{utf8.constData(), utf8.size()}, VR_PN).size == 0)
                break;
            if (vr.kind == Kind::PersonName)
                writePersonNames(json, utf8);
            else
                writeStrings(json, element->mVR, vr.kind, utf8);
            break;
        }
        case Kind::Tags:
            json.key("Value");
            json.beginArray();
            for (int at = 0; at + 4 <= value.size(); at += 4) {
                char text[9];
                std::snprintf(text, sizeof text, "%04X%04X", load<uint16_t>(value.constData() + at),
                              load<uint16_t>(value.constData() + at + 2));
                json.string(text, 8);
            }
            json.endArray();
            break;
        case Kind::Binary:
            json.key("Value");
            json.beginArray();
            writeBinary(json, element->mVR == VR_xs ? VR_US : element->mVR, value);
            json.endArray();
            break;
        case Kind::InlineBinary:
            json.key("InlineBinary");
            json.string(value.toBase64());
            break;
        }
    }
    json.endObject();
}

// Text VRs: values split at backslashes (but for LT, ST, UT and UR, whose
// backslashes are text), each trimmed of its padding; an empty value is
// null, and a text that is all padding has no "Value" at all.
void DatasetWriter::writeStrings(JsonText& json, VR vr, Kind kind, QByteArray const& utf8)
{
    QVarLengthArray<Span, 16> values;
    char const* const text = utf8.constData();
    int const size = utf8.size();
    if (kind == Kind::Text) {
        values.append(trimmed(Span{text, size}, vr));
    } else {
        int start = 0;
        for (int i = 0; i <= size; ++i) {
            if (i == size || text[i] == '\\') {
                values.append(trimmed(Span{text + start, i - start}, vr));
                start = i + 1;
            }
        }
    }
    if (values.size() == 1 && values[0].size == 0)
        return;
    json.key("Value");
    json.beginArray();
    for (Span const& value : values) {
        if (value.size == 0)
            json.null();
        else if (kind == Kind::Decimal)
            writeDecimal(json, QByteArray::fromRawData(value.data, value.size));
        else
            json.string(value.data, value.size);
    }
    json.endArray();
}

// Person names: each value an object of its component groups (alphabetic,
// ideographic, phonetic, separated by "="), empty groups left out; a value
// with no group at all is null.
void DatasetWriter::writePersonNames(JsonText& json, QByteArray const& utf8)
{
    static char const* const kGroups[] = {"Alphabetic", "Ideographic", "Phonetic"};
    QList<QByteArray> const values = utf8.split('\\');
    QList<QList<QByteArray>> names;
    bool any = false;
    for (QByteArray const& value : values) {
        QList<QByteArray> groups = value.split('=');
        for (QByteArray& group : groups) {
            // Trailing empty components are insignificant: "Doe^John^^"
            // is "Doe^John", and "^^^^" no name at all.
            group = trimmed(group, VR_PN);
            while (group.endsWith('^'))
                group.chop(1);
            group = trimmed(group, VR_PN);
            any = any || !group.isEmpty();
        }
        names.append(groups);
    }
    if (!any)
        return;
    json.key("Value");
    json.beginArray();
    for (QList<QByteArray> const& groups : names) {
        bool empty = true;
        for (QByteArray const& group : groups)
            empty = empty && group.isEmpty();
        if (empty) {
            json.null();
            continue;
        }
        json.beginObject();
        for (int i = 0; i < groups.size() && i < 3; ++i) {
            if (groups[i].isEmpty())
                continue;
            json.key(kGroups[i]);
            json.string(groups[i]);
        }
        json.endObject();
    }
    json.endArray();
}

} // namespace

DicomJsonWriter::DicomJsonWriter(QIODevice* out, bool pretty)
    : mOut(out)
    , mPretty(pretty)
{
}

void DicomJsonWriter::appendDataset(QByteArray& out, TagMap const* image, int depth)
{
    DatasetContext context{&mDecoders, image, {}};
    TagElement const* path = image->findElement(Tags::DicomFilePath);
    if (path && !path->isMarker() && !path->mValue.isEmpty()) {
        context.place.object = path->mValue;
    } else {
        context.place.studyUID = TagFile::uidOf(image, DCM_StudyInstanceUID);
        context.place.seriesUID = TagFile::uidOf(image, DCM_SeriesInstanceUID);
        context.place.sopInstanceUID = TagFile::uidOf(image, DCM_SOPInstanceUID);
    }
    TagElement const* charset = image->findElement(DCM_SpecificCharacterSet);
    QByteArray const declared =
        charset && !charset->isMarker() ? charset->mValue.toByteArray() : QByteArray();
    JsonText json(out, mPretty, depth);
    DatasetWriter::write(json, image, decoderFor(mDecoders, declared), context);
}

bool DicomJsonWriter::begin()
{
    mFirst = true;
    mBuffer.clear();
    mBuffer += '[';
    return true;
}

bool DicomJsonWriter::add(TagMap const* image)
{
    if (!mFirst)
        mBuffer += ',';
    mFirst = false;
    if (mPretty)
        mBuffer += "\n  ";
    appendDataset(mBuffer, image, 1);
    return mBuffer.size() < kFlushSize || flush();
}

bool DicomJsonWriter::end()
{
    if (mPretty && !mFirst)
        mBuffer += '\n';
    mBuffer += mPretty ? "]\n" : "]";
    return flush();
}

bool DicomJsonWriter::flush()
{
    if (!mError.isEmpty())
        return false;
    qint64 const written = mOut->write(mBuffer);
    if (written != mBuffer.size()) {
        mError = mOut->errorString().isEmpty() ? QStringLiteral("could not write") : mOut->errorString();
        return false;
    }
    mWritten += written;
    mBuffer.clear();
    return true;
}

bool DicomJsonWriter::writeStudy(TagFile const& file)
{
    begin();
    if (TagMap const* study = file.study()) {
        for (TagMap const* series : study->children()) {
            for (TagMap const* image : series->children()) {
                if (!add(image))
                    return false;
            }
        }
    }
    return end();
}

bool DicomJsonWriter::writeSeries(TagMap const* series)
{
    begin();
    for (TagMap const* image : series->children()) {
        if (!add(image))
            return false;
    }
    return end();
}

bool DicomJsonWriter::writeImage(TagMap const* image)
{
    begin();
    return add(image) && end();
}

} // namespace Mdx
