// Specific Character Set to UTF-8, with the ISO 2022 code extensions that
// multi-byte Asian text uses.
#include <mdxlib/json/CharacterSetDecoder.h>

#include <QList>
#include <QTextCodec>

#include <cstring>

namespace Mdx {

namespace {

using Set = CharacterSetDecoder::Set;
using Designation = CharacterSetDecoder::Designation;

QTextCodec* codec(char const* name)
{
    return QTextCodec::codecForName(name);
}

// A defined term of (0008,0005) and what it designates. Terms of the form
// "ISO 2022 ..." switch on escape sequences; the others name one encoding
// for every byte.
struct Term
{
    char const* name;
    Set set;
    char const* codecName;
    bool g1; // designated into G1 (upper half), else G0
};

constexpr Term kTerms[] = {
    {"ISO_IR 6", Set::Ascii, nullptr, false},
    {"ISO_IR 100", Set::WholeCodec, "ISO-8859-1", false},
    {"ISO_IR 101", Set::WholeCodec, "ISO-8859-2", false},
    {"ISO_IR 109", Set::WholeCodec, "ISO-8859-3", false},
    {"ISO_IR 110", Set::WholeCodec, "ISO-8859-4", false},
    {"ISO_IR 144", Set::WholeCodec, "ISO-8859-5", false},
    {"ISO_IR 127", Set::WholeCodec, "ISO-8859-6", false},
    {"ISO_IR 126", Set::WholeCodec, "ISO-8859-7", false},
    {"ISO_IR 138", Set::WholeCodec, "ISO-8859-8", false},
    {"ISO_IR 148", Set::WholeCodec, "ISO-8859-9", false},
    {"ISO_IR 203", Set::WholeCodec, "ISO-8859-15", false},
    {"ISO_IR 166", Set::WholeCodec, "TIS-620", false},
    // JIS X 0201: Roman in the lower half, Katakana in the upper, which is
    // what the single bytes of Shift_JIS are.
    {"ISO_IR 13", Set::WholeCodec, "Shift_JIS", false},
    {"ISO_IR 192", Set::WholeCodec, "UTF-8", false},
    {"GB18030", Set::WholeCodec, "GB18030", false},
    {"GBK", Set::WholeCodec, "GBK", false},
    {"ISO 2022 IR 6", Set::Ascii, nullptr, false},
    {"ISO 2022 IR 100", Set::SingleByte, "ISO-8859-1", true},
    {"ISO 2022 IR 101", Set::SingleByte, "ISO-8859-2", true},
    {"ISO 2022 IR 109", Set::SingleByte, "ISO-8859-3", true},
    {"ISO 2022 IR 110", Set::SingleByte, "ISO-8859-4", true},
    {"ISO 2022 IR 144", Set::SingleByte, "ISO-8859-5", true},
    {"ISO 2022 IR 127", Set::SingleByte, "ISO-8859-6", true},
    {"ISO 2022 IR 126", Set::SingleByte, "ISO-8859-7", true},
    {"ISO 2022 IR 138", Set::SingleByte, "ISO-8859-8", true},
    {"ISO 2022 IR 148", Set::SingleByte, "ISO-8859-9", true},
    {"ISO 2022 IR 203", Set::SingleByte, "ISO-8859-15", true},
    {"ISO 2022 IR 166", Set::SingleByte, "TIS-620", true},
    {"ISO 2022 IR 13", Set::Katakana, nullptr, true},
    {"ISO 2022 IR 87", Set::JisX0208, nullptr, false},
    {"ISO 2022 IR 159", Set::JisX0212, nullptr, false},
    {"ISO 2022 IR 149", Set::KsX1001, nullptr, true},
    {"ISO 2022 IR 58", Set::Gb2312, nullptr, true},
};

// Escape sequences (the bytes after ESC) and what they designate.
struct Escape
{
    char const* bytes;
    Set set;
    char const* codecName;
    bool g1;
};

constexpr Escape kEscapes[] = {
    {"(B", Set::Ascii, nullptr, false},          {"(J", Set::Ascii, nullptr, false},
    {"$B", Set::JisX0208, nullptr, false},       {"$@", Set::JisX0208, nullptr, false},
    {"$(D", Set::JisX0212, nullptr, false},      {")I", Set::Katakana, nullptr, true},
    {"$)C", Set::KsX1001, nullptr, true},        {"$)A", Set::Gb2312, nullptr, true},
    {"-A", Set::SingleByte, "ISO-8859-1", true}, {"-B", Set::SingleByte, "ISO-8859-2", true},
    {"-C", Set::SingleByte, "ISO-8859-3", true}, {"-D", Set::SingleByte, "ISO-8859-4", true},
    {"-L", Set::SingleByte, "ISO-8859-5", true}, {"-G", Set::SingleByte, "ISO-8859-6", true},
    {"-F", Set::SingleByte, "ISO-8859-7", true}, {"-H", Set::SingleByte, "ISO-8859-8", true},
    {"-M", Set::SingleByte, "ISO-8859-9", true}, {"-b", Set::SingleByte, "ISO-8859-15", true},
    {"-T", Set::SingleByte, "TIS-620", true},
};

constexpr char kReplacement[] = "\xEF\xBF\xBD"; // U+FFFD

bool isAscii(QByteArray const& text)
{
    for (char const c : text) {
        if (static_cast<unsigned char>(c) >= 0x80)
            return false;
    }
    return true;
}

// Text in codec as UTF-8; what the codec cannot decode becomes U+FFFD. A
// leading byte-order mark is text like any other.
QByteArray decodeWith(QTextCodec* codec, char const* bytes, int size)
{
    if (!codec) {
        QByteArray out;
        for (int i = 0; i < size; ++i)
            out += static_cast<unsigned char>(bytes[i]) < 0x80 ? QByteArray(1, bytes[i])
                                                               : QByteArray(kReplacement);
        return out;
    }
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    QString const text = codec->toUnicode(bytes, size, &state);
    QByteArray out = text.toUtf8();
    // A sequence cut off at the end stays in the state; it is invalid too.
    if (state.remainingChars > 0)
        out += kReplacement;
    return out;
}

bool inRange(unsigned char c, unsigned char low, unsigned char high)
{
    return c >= low && c <= high;
}

} // namespace

CharacterSetDecoder::CharacterSetDecoder(QByteArray const& specificCharacterSet)
{
    QList<QByteArray> terms = specificCharacterSet.split('\\');
    for (int i = 0; i < terms.size(); ++i) {
        QByteArray const term = terms[i].trimmed();
        if (term.isEmpty())
            continue; // an empty first value means the default repertoire
        Term const* found = nullptr;
        for (Term const& candidate : kTerms) {
            if (term == candidate.name)
                found = &candidate;
        }
        if (!found) {
            mKnown = false;
            continue;
        }
        if (term.startsWith("ISO 2022"))
            mIso2022 = true;
        if (found->set != Set::Ascii && qstrcmp(found->codecName, "UTF-8") != 0)
            mConverts = true;
        // Only the first value is in effect at the start of a value; the
        // others are reached by escape sequences.
        if (i > 0)
            continue;
        Designation const designation{found->set, found->codecName ? codec(found->codecName) : nullptr};
        if (found->set == Set::WholeCodec || !found->g1)
            mInitialG0 = designation;
        else
            mInitialG1 = designation;
    }
    if (mIso2022 && mInitialG0.set == Set::WholeCodec)
        mInitialG0 = Designation{}; // a single-byte term with extensions after it: G0 stays ASCII
}

QByteArray CharacterSetDecoder::toUtf8(QByteArray const& text) const
{
    bool const ascii = isAscii(text);
    if (ascii && (!mIso2022 || !text.contains('\x1b')))
        return text;
    if (mIso2022)
        return decodeExtended(text);
    if (mInitialG0.set == Set::WholeCodec)
        return decodeWith(mInitialG0.codec, text.constData(), text.size());
    return decodeWith(nullptr, text.constData(), text.size());
}

// ISO 2022: escape sequences switch the sets of the lower (G0) and upper
// (G1) half. Each value starts with the sets of the first term.
QByteArray CharacterSetDecoder::decodeExtended(QByteArray const& text) const
{
    static QTextCodec* const eucJp = codec("EUC-JP");
    static QTextCodec* const eucKr = codec("EUC-KR");
    static QTextCodec* const gb = codec("GB18030");
    static QTextCodec* const shiftJis = codec("Shift_JIS");

    Designation g0 = mInitialG0;
    Designation g1 = mInitialG1;
    QByteArray out;
    out.reserve(text.size() * 2);
    auto const* bytes = reinterpret_cast<unsigned char const*>(text.constData());
    int const size = text.size();
    auto put = [&](QTextCodec* with, std::initializer_list<unsigned char> sequence) {
        char buffer[4];
        int n = 0;
        for (unsigned char const c : sequence)
            buffer[n++] = static_cast<char>(c);
        out += decodeWith(with, buffer, n);
    };
    for (int i = 0; i < size;) {
        unsigned char const c = bytes[i];
        if (c == 0x1b) {
            Escape const* found = nullptr;
            for (Escape const& escape : kEscapes) {
                int const length = static_cast<int>(std::strlen(escape.bytes));
                if (i + 1 + length <= size && std::memcmp(bytes + i + 1, escape.bytes, size_t(length)) == 0)
                    found = &escape;
            }
            if (!found) {
                out += kReplacement;
                ++i;
                continue;
            }
            Designation const designation{found->set, found->codecName ? codec(found->codecName) : nullptr};
            (found->g1 ? g1 : g0) = designation;
            i += 1 + static_cast<int>(std::strlen(found->bytes));
            continue;
        }
        bool const hasNext = i + 1 < size;
        unsigned char const next = hasNext ? bytes[i + 1] : 0;
        if (c < 0x80) {
            if (g0.set == Set::JisX0208 && inRange(c, 0x21, 0x7e) && hasNext && inRange(next, 0x21, 0x7e)) {
                put(eucJp, {static_cast<unsigned char>(c | 0x80), static_cast<unsigned char>(next | 0x80)});
                i += 2;
            } else if (g0.set == Set::JisX0212 && inRange(c, 0x21, 0x7e) && hasNext &&
                       inRange(next, 0x21, 0x7e)) {
                put(eucJp,
                    {0x8f, static_cast<unsigned char>(c | 0x80), static_cast<unsigned char>(next | 0x80)});
                i += 2;
            } else if (g0.set == Set::JisX0208 || g0.set == Set::JisX0212) {
                // A lone byte of a two-byte set: only controls and space
                // are characters on their own.
                out += c <= 0x20 ? QByteArray(1, char(c)) : QByteArray(kReplacement);
                ++i;
            } else {
                out += static_cast<char>(c);
                ++i;
            }
            continue;
        }
        switch (g1.set) {
        case Set::SingleByte:
            put(g1.codec, {c});
            ++i;
            break;
        case Set::Katakana:
            if (inRange(c, 0xa1, 0xdf))
                put(shiftJis, {c});
            else
                out += kReplacement;
            ++i;
            break;
        case Set::KsX1001:
        case Set::Gb2312:
            if (inRange(c, 0xa1, 0xfe) && hasNext && inRange(next, 0xa1, 0xfe)) {
                put(g1.set == Set::KsX1001 ? eucKr : gb, {c, next});
                i += 2;
            } else {
                out += kReplacement;
                ++i;
            }
            break;
        default:
            out += kReplacement; // nothing designated to the upper half
            ++i;
            break;
        }
    }
    return out;
}

} // namespace Mdx
