#include <mdxlib/tags/TagElement.h>

#include "ElementPool.h"

#include <mdxlib/platform/McStringTokenizer.h>
#include <mdxlib/tags/DcmOverlayData.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QDate>
#include <QDateTime>
#include <QTime>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace Mdx {

namespace {

// Binary values live in byte arrays without alignment guarantees.
template <typename T> T unitAt(TagValue const& bytes, int index)
{
    T value;
    std::memcpy(&value, bytes.constData() + static_cast<size_t>(index) * sizeof(T), sizeof(T));
    return value;
}

template <typename T> int unitCount(TagValue const& bytes)
{
    return bytes.size() / static_cast<int>(sizeof(T));
}

template <typename T> void appendUnit(QByteArray& bytes, T value)
{
    bytes.append(reinterpret_cast<char const*>(&value), sizeof(T));
}

void appendSeparator(QByteArray& out, int index)
{
    if (index > 0)
        out.append('\\');
}

template <typename T> void formatFloats(QByteArray& out, TagValue const& value)
{
    int const n = unitCount<T>(value);
    for (int i = 0; i < n; ++i) {
        appendSeparator(out, i);
        out.append(QByteArray::number(static_cast<double>(unitAt<T>(value, i)), 'g', 6));
    }
}

template <typename T> void formatIntegers(QByteArray& out, TagValue const& value)
{
    int const n = unitCount<T>(value);
    for (int i = 0; i < n; ++i) {
        appendSeparator(out, i);
        out.append(
            QByteArray::number(static_cast<std::conditional_t<std::is_signed_v<T>, qlonglong, qulonglong>>(
                unitAt<T>(value, i))));
    }
}

void formatAttributeTags(QByteArray& out, TagValue const& value)
{
    int const n = value.size() / 4;
    char text[16];
    for (int i = 0; i < n; ++i) {
        appendSeparator(out, i);
        std::snprintf(text, sizeof text, "(%04x,%04x)", unitAt<Uint16>(value, 2 * i),
                      unitAt<Uint16>(value, 2 * i + 1));
        out.append(text);
    }
}

// Long binary values are cut: at most the first 13 words, then "..." once
// the value is 26 bytes or longer.
void formatWords(QByteArray& out, TagValue const& value)
{
    int const n = qMin(unitCount<Uint16>(value), 13);
    char text[8];
    for (int i = 0; i < n; ++i) {
        appendSeparator(out, i);
        std::snprintf(text, sizeof text, "%04x", unitAt<Uint16>(value, i));
        out.append(text);
    }
    if (value.size() >= 26)
        out.append("...");
}

// At most the first 22 bytes, then "..." once the value is 22 bytes or longer.
void formatBytes(QByteArray& out, TagValue const& value)
{
    int const n = qMin(value.size(), 22);
    char text[4];
    for (int i = 0; i < n; ++i) {
        appendSeparator(out, i);
        std::snprintf(text, sizeof text, "%02x", static_cast<unsigned char>(value[i]));
        out.append(text);
    }
    if (value.size() >= 22)
        out.append("...");
}

QList<QByteArray> splitFields(QByteArray const& value)
{
    return value.split('\\');
}

// A QByteArray over a value's bytes, for QByteArray's parsers; valid while
// the value is unchanged.
QByteArray view(TagValue const& value)
{
    return QByteArray::fromRawData(value.constData(), value.size());
}

} // namespace

// ---------------------------------------------------------------- TagElement

void* TagElement::operator new(std::size_t size)
{
    return ElementPool::allocate(size);
}

void TagElement::operator delete(void* block, std::size_t size) noexcept
{
    ElementPool::release(block, size);
}

std::size_t TagElement::pooledBytesInUse()
{
    return ElementPool::bytesInUse();
}

std::size_t TagElement::pooledBytesReserved()
{
    return ElementPool::bytesReserved();
}

TagElement::~TagElement() = default;

void TagElement::getValueAsString(QByteArray& out) const
{
    getValueAsString(out, mVR);
}

void TagElement::getValueAsString(QByteArray& out, VR vr) const
{
    out.clear();
    if (isStringVR(vr)) {
        out = mValue;
        return;
    }
    switch (vr) {
    case VR_AT:
        formatAttributeTags(out, mValue);
        break;
    case VR_FL:
    case VR_OF:
        formatFloats<Float32>(out, mValue);
        break;
    case VR_FD:
    case VR_OD:
        formatFloats<Float64>(out, mValue);
        break;
    case VR_OW:
        formatWords(out, mValue);
        break;
    case VR_SL:
        formatIntegers<Sint32>(out, mValue);
        break;
    case VR_SS:
        formatIntegers<Sint16>(out, mValue);
        break;
    case VR_UL:
    case VR_OL:
        formatIntegers<Uint32>(out, mValue);
        break;
    case VR_US:
    case VR_xs:
        formatIntegers<Uint16>(out, mValue);
        break;
    case VR_SV:
        formatIntegers<Sint64>(out, mValue);
        break;
    case VR_UV:
    case VR_OV:
        formatIntegers<Uint64>(out, mValue);
        break;
    default:
        formatBytes(out, mValue);
        break;
    }
}

bool TagElement::getValueAsString(QByteArray& out, DcmTagKey const& key, char const* privateCreator) const
{
    VR vr = mVR;
    if (vr == VR_UN)
        vr = dictionaryVR(key, privateCreator);
    getValueAsString(out, vr);
    return vr != VR_UN;
}

int TagElement::valueAsInt(bool* ok, int index) const
{
    bool localOk = false;
    int result = 0;
    auto binary = [&](auto tag) {
        using T = decltype(tag);
        localOk = index >= 0 && index < unitCount<T>(mValue);
        result = localOk ? static_cast<int>(unitAt<T>(mValue, index)) : 0;
    };
    switch (mVR) {
    case VR_AS:
    case VR_DA:
    case VR_DS:
    case VR_IS:
        if (index == 0) {
            result = view(mValue).toInt(&localOk, 10);
        } else {
            QList<QByteArray> const parts = splitFields(view(mValue));
            if (index > 0 && parts.size() > index)
                result = parts[index].toInt(&localOk, 10);
        }
        break;
    case VR_OB:
        binary(Uint8());
        break;
    case VR_OW:
    case VR_US:
        binary(Uint16());
        break;
    case VR_SL:
        binary(Sint32());
        break;
    case VR_UL:
    case VR_OL:
        binary(Uint32());
        break;
    case VR_SS:
        binary(Sint16());
        break;
    default:
        break;
    }
    if (!localOk)
        result = 0;
    if (ok)
        *ok = localOk;
    return result;
}

int TagElement::numFields() const
{
    switch (mVR) {
    case VR_AS:
    case VR_DA:
    case VR_DS:
    case VR_IS:
        return view(mValue).count('\\') + 1;
    case VR_FL:
    case VR_OF:
    case VR_SL:
    case VR_UL:
    case VR_OL:
        return mValue.size() / 4;
    case VR_FD:
    case VR_OD:
    case VR_SV:
    case VR_UV:
    case VR_OV:
        return mValue.size() / 8;
    case VR_OB:
        return mValue.size();
    case VR_OW:
    case VR_SS:
    case VR_US:
        return mValue.size() / 2;
    default:
        return 0;
    }
}

QVariant TagElement::valueAsVariant() const
{
    QByteArray text;
    getValueAsString(text);
    if (!text.contains('\\'))
        return fieldToVariant(mVR, text);
    QVariantList list;
    for (QByteArray const& part : splitFields(text))
        list.append(fieldToVariant(mVR, part));
    return list;
}

void TagElement::getValueAsStringFromOBOW(QByteArray& out, int mode) const
{
    auto append = [&](auto tag, bool isFloat) {
        using T = decltype(tag);
        int const n = unitCount<T>(mValue);
        for (int i = 0; i < n; ++i) {
            if (i > 0)
                out.append('\\');
            if (isFloat)
                out.append(QByteArray::number(static_cast<double>(unitAt<T>(mValue, i)), 'g', 6));
            else
                out.append(QByteArray::number(static_cast<qlonglong>(unitAt<T>(mValue, i))));
        }
    };
    switch (mode) {
    case 0:
        append(Uint16(), false);
        break;
    case 1:
        append(Sint16(), false);
        break;
    case 2:
        append(Float32(), true);
        break;
    case 3:
        append(Float64(), true);
        break;
    case 4:
        append(Sint32(), false);
        break;
    default:
        break;
    }
}

void TagElement::putValue(QByteArray const& value)
{
    mValue = value;
}

void TagElement::putValue(int value)
{
    unsigned int const u = static_cast<unsigned int>(value);
    auto store = [this](auto unit, VR vr) {
        mValue.assign(reinterpret_cast<char const*>(&unit), sizeof unit);
        mVR = vr;
    };
    if (u < 256)
        store(static_cast<Uint8>(u), VR_OB);
    else if (u > 65535)
        store(static_cast<Sint32>(value), VR_SL);
    else
        store(static_cast<Uint16>(u), VR_US);
}

bool TagElement::putValueAsString(QByteArray const& text)
{
    if (isStringVR(mVR)) {
        mValue = text;
        return true;
    }
    switch (mVR) {
    case VR_FL:
    case VR_OF:
    case VR_FD:
    case VR_OD:
    case VR_SL:
    case VR_SS:
    case VR_UL:
    case VR_OL:
    case VR_US:
        break;
    default:
        return false;
    }
    QByteArray const nulTerminated(text.constData(), text.size());
    McStringTokenizer tokens(nulTerminated.constData());
    QByteArray bytes;
    while (tokens.hasMoreTokens()) {
        std::string const token = tokens.nextToken();
        char const* t = token.c_str();
        switch (mVR) {
        case VR_FL:
        case VR_OF:
            appendUnit<Float32>(bytes, static_cast<Float32>(std::atof(t)));
            break;
        case VR_FD:
        case VR_OD:
            appendUnit<Float64>(bytes, std::atof(t));
            break;
        case VR_SL:
            appendUnit<Sint32>(bytes, static_cast<Sint32>(std::atoi(t)));
            break;
        case VR_SS:
            appendUnit<Sint16>(bytes, static_cast<Sint16>(std::atoi(t)));
            break;
        case VR_UL:
        case VR_OL:
            appendUnit<Uint32>(bytes, static_cast<Uint32>(std::strtoul(t, nullptr, 10)));
            break;
        default: // VR_US
            appendUnit<Uint16>(bytes, static_cast<Uint16>(std::strtoul(t, nullptr, 10)));
            break;
        }
    }
    mValue = bytes;
    return true;
}

bool TagElement::compare(TagElement const& other, bool checkVR, std::string* difference) const
{
    bool const equal = (!checkVR || mVR == other.mVR) && mValue == other.mValue;
    if (equal || !difference)
        return equal;
    QByteArray mine;
    QByteArray theirs;
    getValueAsString(mine);
    other.getValueAsString(theirs);
    // DCMTK's name, so that the text reads as in any DICOM tool; the omitted
    // marker has no DCMTK VR and prints as DCMTK's unknown ("??").
    char const* name = DcmVR(toDcmEVR(mVR)).getVRName();
    *difference = std::string(name) + " [" + mine.toStdString() + "] <> [" + theirs.toStdString() + "]\n";
    return false;
}

DcmElement* TagElement::createDcmElement(DcmTagKey const& key) const
{
    DcmTag const tag(key);
    char const* text = mValue.constData(); // the value keeps a terminating NUL
    int const size = mValue.size();
    auto withString = [&](DcmElement* element) {
        element->putString(text);
        return element;
    };
    switch (mVR) {
    case VR_AE:
        return withString(new DcmApplicationEntity(tag));
    case VR_AS:
        return withString(new DcmAgeString(tag));
    case VR_CS:
        return withString(new DcmCodeString(tag));
    case VR_DA:
        return withString(new DcmDate(tag));
    case VR_DS:
        return withString(new DcmDecimalString(tag));
    case VR_DT:
        return withString(new DcmDateTime(tag));
    case VR_IS:
        return withString(new DcmIntegerString(tag));
    case VR_LO:
        return withString(new DcmLongString(tag));
    case VR_LT:
        return withString(new DcmLongText(tag));
    case VR_PN:
        return withString(new DcmPersonName(tag));
    case VR_SH:
        return withString(new DcmShortString(tag));
    case VR_ST:
        return withString(new DcmShortText(tag));
    case VR_TM:
        return withString(new DcmTime(tag));
    case VR_UI:
        return withString(new DcmUniqueIdentifier(tag));
    case VR_UT:
        return withString(new DcmUnlimitedText(tag));
    case VR_UC:
        return withString(new DcmUnlimitedCharacters(tag));
    case VR_UR:
        return withString(new DcmUniversalResourceIdentifierOrLocator(tag));
    case VR_AT: {
        // DCMTK counts attribute tags here (two words each), not words.
        auto* e = new DcmAttributeTag(tag);
        e->putUint16Array(reinterpret_cast<Uint16 const*>(text), static_cast<unsigned long>(size / 4));
        return e;
    }
    case VR_FL:
    case VR_OF: {
        DcmElement* e = mVR == VR_FL ? static_cast<DcmElement*>(new DcmFloatingPointSingle(tag))
                                     : static_cast<DcmElement*>(new DcmOtherFloat(tag));
        e->putFloat32Array(reinterpret_cast<Float32 const*>(text), static_cast<unsigned long>(size / 4));
        return e;
    }
    case VR_FD:
    case VR_OD: {
        DcmElement* e = mVR == VR_FD ? static_cast<DcmElement*>(new DcmFloatingPointDouble(tag))
                                     : static_cast<DcmElement*>(new DcmOtherDouble(tag));
        e->putFloat64Array(reinterpret_cast<Float64 const*>(text), static_cast<unsigned long>(size / 8));
        return e;
    }
    case VR_SL: {
        auto* e = new DcmSignedLong(tag);
        e->putSint32Array(reinterpret_cast<Sint32 const*>(text), static_cast<unsigned long>(size / 4));
        return e;
    }
    case VR_SS: {
        auto* e = new DcmSignedShort(tag);
        e->putSint16Array(reinterpret_cast<Sint16 const*>(text), static_cast<unsigned long>(size / 2));
        return e;
    }
    case VR_UL:
    case VR_up:
    case VR_OL: {
        DcmElement* e = mVR == VR_OL ? static_cast<DcmElement*>(new DcmOtherLong(tag))
                                     : static_cast<DcmElement*>(new DcmUnsignedLong(tag));
        e->putUint32Array(reinterpret_cast<Uint32 const*>(text), static_cast<unsigned long>(size / 4));
        return e;
    }
    case VR_US:
    case VR_xs: {
        auto* e = new DcmUnsignedShort(tag);
        e->putUint16Array(reinterpret_cast<Uint16 const*>(text), static_cast<unsigned long>(size / 2));
        return e;
    }
    case VR_SV: {
        auto* e = new DcmSigned64bitVeryLong(tag);
        e->putSint64Array(reinterpret_cast<Sint64 const*>(text), static_cast<unsigned long>(size / 8));
        return e;
    }
    case VR_UV:
    case VR_OV: {
        DcmUnsigned64bitVeryLong* e =
            mVR == VR_OV ? new DcmOther64bitVeryLong(tag) : new DcmUnsigned64bitVeryLong(tag);
        e->putUint64Array(reinterpret_cast<Uint64 const*>(text), static_cast<unsigned long>(size / 8));
        return e;
    }
    case VR_OB:
    case VR_OW:
    case VR_ox:
    case VR_lt:
    case VR_UN:
    case VR_px:
        break;
    default:
        return nullptr;
    }

    Uint8 const* bytes = reinterpret_cast<Uint8 const*>(text);
    if (key == DCM_PixelData) {
        auto* e = new DcmPixelData(tag);
        e->putUint8Array(bytes, static_cast<unsigned long>(size));
        return e;
    }
    if (tag.getBaseTag() == DcmTagKey(0x6000, 0x3000)) {
        auto* e = new DcmOverlayData(tag);
        e->putUint8Array(bytes, static_cast<unsigned long>(size));
        return e;
    }
    auto* e = new DcmOtherByteOtherWord(tag);
    if (mVR == VR_OW)
        e->putUint16Array(reinterpret_cast<Uint16 const*>(text), static_cast<unsigned long>(size / 2));
    else
        e->putUint8Array(bytes, static_cast<unsigned long>(size));
    return e;
}

TagElement* TagElement::clone() const
{
    auto* copy = new TagElement;
    copy->mValue = mValue;
    copy->mVR = mVR;
    return copy;
}

// --------------------------------------------------------------- fieldToVariant

QVariant fieldToVariant(VR vr, QByteArray const& field)
{
    auto number = [](QByteArray const& text, int from, int length) { return text.mid(from, length).toInt(); };
    switch (vr) {
    case VR_DA: {
        QByteArray const t = field.trimmed();
        if (t.size() != 8)
            return QVariant();
        return QDate(number(t, 0, 4), number(t, 4, 2), number(t, 6, 2));
    }
    case VR_DT: {
        QByteArray const t = field.trimmed().left(14);
        if (t.size() < 14)
            return QVariant();
        return QDateTime(QDate(number(t, 0, 4), number(t, 4, 2), number(t, 6, 2)),
                         QTime(number(t, 8, 2), number(t, 10, 2), number(t, 12, 2), 0), Qt::LocalTime);
    }
    case VR_TM: {
        QByteArray const t = field.trimmed().left(6);
        if (t.size() < 6)
            return QVariant();
        return QTime(number(t, 0, 2), number(t, 2, 2), number(t, 4, 2), 0);
    }
    case VR_DS:
        return field.toDouble();
    case VR_IS:
        return field.toInt(nullptr, 10);
    default:
        if (field.isNull())
            return QString();
        return QString::fromLatin1(field.constData(),
                                   static_cast<int>(qstrnlen(field.constData(), field.size())));
    }
}

} // namespace Mdx
