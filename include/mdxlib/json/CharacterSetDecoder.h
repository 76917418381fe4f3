// Text of a DICOM dataset turned into UTF-8 by the Specific Character Set
// (0008,0005) the dataset declares.
//
// Handles the single-byte sets (ISO_IR 100 ... 203, 13, 166), UTF-8
// (ISO_IR 192), GB18030 and GBK, and the ISO 2022 code extensions with their
// escape sequences (Latin, Cyrillic, Greek, Arabic, Hebrew, Thai, Japanese
// JIS X 0201/0208/0212, Korean KS X 1001, Chinese GB 2312). Bytes that are
// not valid in the declared set become U+FFFD: text is never passed on raw,
// and no character is guessed, since a wrong letter in a patient's name is
// worse than a visibly unreadable one. A dataset without a declaration uses
// the default repertoire (ASCII), so any byte above 0x7F is such a byte.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>

#include <vector>

class QTextCodec;

namespace Mdx {

class MDX_EXPORT CharacterSetDecoder
{
public:
    // The value of (0008,0005) as stored, values separated by backslashes;
    // empty for the default repertoire.
    explicit CharacterSetDecoder(QByteArray const& specificCharacterSet = QByteArray());

    // UTF-8 of text. Plain ASCII without escape sequences is returned as it
    // is (the common case, and the fast one).
    QByteArray toUtf8(QByteArray const& text) const;

    // Whether every term of the declaration was understood; unknown terms
    // decode as the default repertoire.
    bool isKnown() const { return mKnown; }
    // Whether the declaration asks for anything but ASCII or UTF-8, that is,
    // whether the text changes on the way to UTF-8.
    bool converts() const { return mConverts; }

    // One graphic set that can be designated: how its bytes become
    // characters. Public for the table in the source only.
    enum class Set
    {
        Ascii,      // ISO-IR 6 (and JIS X 0201 Roman, which differs in two glyphs only)
        SingleByte, // an 8-bit set whose upper half a codec decodes
        Katakana,   // JIS X 0201 Katakana in the upper half
        JisX0208,   // two-byte kanji in G0 (ESC $ B)
        JisX0212,   // supplementary kanji in G0 (ESC $ ( D)
        KsX1001,    // Korean in G1 (ESC $ ) C)
        Gb2312,     // Chinese in G1 (ESC $ ) A)
        WholeCodec  // no code extensions: the codec decodes every byte
    };
    struct Designation
    {
        Set set = Set::Ascii;
        QTextCodec* codec = nullptr; // for SingleByte and WholeCodec
    };

private:
    QByteArray decodeExtended(QByteArray const& text) const;

    Designation mInitialG0;
    Designation mInitialG1;
    bool mIso2022 = false;
    bool mKnown = true;
    bool mConverts = false;
};

} // namespace Mdx
