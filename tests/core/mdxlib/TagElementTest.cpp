// Values, text forms and DCMTK round trips of single tag elements, sequences
// and the overlay element class.
#include <mdxlib/DcmOverlayData.h>
#include <mdxlib/TagElement.h>
#include <mdxlib/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QDate>
#include <QDateTime>
#include <QTime>

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <utility>

using namespace Mdx;

namespace {

template <typename T> QByteArray pack(std::initializer_list<T> values)
{
    QByteArray bytes;
    for (T value : values)
        bytes.append(reinterpret_cast<char const*>(&value), sizeof value);
    return bytes;
}

std::unique_ptr<TagElement> make(VR vr, QByteArray const& value)
{
    auto element = std::make_unique<TagElement>();
    element->mVR = vr;
    element->mValue = value;
    return element;
}

QByteArray text(VR vr, QByteArray const& value)
{
    QByteArray out = "stale";
    make(vr, value)->getValueAsString(out);
    return out;
}

// n copies of field joined by backslashes.
QByteArray fields(QByteArray const& field, int n)
{
    QByteArray out;
    for (int i = 0; i < n; ++i)
        out += (i ? "\\" : "") + field;
    return out;
}

template <typename T> bool isExactly(DcmObject const* object)
{
    return object && typeid(*object) == typeid(T);
}

QByteArray dcmBytes(DcmElement* element)
{
    Uint8* bytes = nullptr;
    element->getUint8Array(bytes);
    return QByteArray(reinterpret_cast<char const*>(bytes), static_cast<int>(element->getLength()));
}

} // namespace

TEST(VRTest, StoredCodesAreFixedAndConvertBothWays)
{
    EXPECT_EQ(VR_AE, 0);
    EXPECT_EQ(VR_SQ, 18);
    EXPECT_EQ(VR_UT, 25);
    EXPECT_EQ(VR_na, 29);
    EXPECT_EQ(VR_Missing, VR_na);
    EXPECT_EQ(VR_UN, 40);
    EXPECT_EQ(VR_OverlayData, 42);
    EXPECT_EQ(VR_Omitted, 255);
    for (int code : {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20,
                     21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 39, 40, 42, 43, 44, 45, 46, 47, 48, 49, 50})
        EXPECT_EQ(fromDcmEVR(toDcmEVR(static_cast<VR>(code))), code) << code;
    EXPECT_EQ(toDcmEVR(VR_UC), EVR_UC);
    EXPECT_EQ(toDcmEVR(VR_Omitted), EVR_UNKNOWN);
    EXPECT_STREQ(vrName(VR_na), "na");
    EXPECT_STREQ(vrName(VR_US), "US");
}

TEST(TagElementTest, DefaultElementIsEmptyUnknown)
{
    TagElement element;
    EXPECT_EQ(element.mVR, VR_UN);
    EXPECT_TRUE(element.mValue.isEmpty());
    EXPECT_EQ(element.mDifferentCount, 0);
    EXPECT_EQ(element.mMissingCount, 0);
    QByteArray out = "stale";
    element.getValueAsString(out);
    EXPECT_TRUE(out.isEmpty());
    EXPECT_EQ(element.numFields(), 0);
    EXPECT_FALSE(element.isMarker());
}

TEST(TagElementTest, TextFormOfNumericVRs)
{
    EXPECT_EQ(text(VR_AT, pack<Uint16>({0x0010, 0x0020, 0x7FE0, 0x0010})), "(0010,0020)\\(7fe0,0010)");
    EXPECT_EQ(text(VR_AT, pack<Uint16>({0x0010, 0x0020, 0x0028})), "(0010,0020)");
    EXPECT_EQ(text(VR_AT, QByteArray(3, '\1')), "");
    EXPECT_EQ(text(VR_FL, pack<Float32>({1.5f, -0.1f, 1e6f})), "1.5\\-0.1\\1e+06");
    EXPECT_EQ(text(VR_OF, pack<Float32>({2.0f}) + "xy"), "2");
    EXPECT_EQ(text(VR_FD, pack<Float64>({3.14159265358979, -1e-5})), "3.14159\\-1e-05");
    EXPECT_EQ(text(VR_SL, pack<Sint32>({-5, 70000})), "-5\\70000");
    EXPECT_EQ(text(VR_SS, pack<Sint16>({-2, 32767})), "-2\\32767");
    EXPECT_EQ(text(VR_UL, pack<Uint32>({4294967295u, 0})), "4294967295\\0");
    EXPECT_EQ(text(VR_US, pack<Uint16>({65535, 7})), "65535\\7");
    EXPECT_EQ(text(VR_xs, pack<Uint16>({65535})), "65535");
}

TEST(TagElementTest, TextFormOfStringVRsIsTheValue)
{
    for (VR vr : {VR_AE, VR_AS, VR_CS, VR_DA, VR_DS, VR_DT, VR_IS, VR_LO, VR_LT, VR_PN, VR_SH, VR_ST, VR_TM,
                  VR_UI, VR_UT})
        EXPECT_EQ(text(vr, "A\\b c"), "A\\b c") << vr;
    // The two-argument form ignores the element's own VR.
    auto element = make(VR_LO, pack<Uint16>({0x1234}));
    QByteArray out;
    element->getValueAsString(out, VR_US);
    EXPECT_EQ(out, "4660");
}

TEST(TagElementTest, LongWordValuesAreCutAfterThirteenWords)
{
    QByteArray const word = pack<Uint16>({0xABCD});
    EXPECT_EQ(text(VR_OW, word.repeated(12)), fields("abcd", 12));
    EXPECT_EQ(text(VR_OW, word.repeated(13)), fields("abcd", 13) + "...");
    EXPECT_EQ(text(VR_OW, word.repeated(40)), fields("abcd", 13) + "...");
    EXPECT_EQ(text(VR_OW, word + "x"), "abcd");
}

TEST(TagElementTest, OtherVRsPrintHexBytesCutAfterTwentyTwo)
{
    EXPECT_EQ(text(VR_OB, QByteArray(21, '\x0f')), fields("0f", 21));
    EXPECT_EQ(text(VR_OB, QByteArray(22, '\x0f')), fields("0f", 22) + "...");
    EXPECT_EQ(text(VR_OB, QByteArray(30, '\xA0')), fields("a0", 22) + "...");
    EXPECT_EQ(text(VR_OB, QByteArray()), "");
    for (VR vr : {VR_SQ, VR_UN, VR_ox, VR_lt, VR_na, VR_up, VR_Omitted})
        EXPECT_EQ(text(vr, QByteArray("\x01\xff", 2)), "01\\ff") << vr;
}

TEST(TagElementTest, UnknownVRIsResolvedThroughTheDictionary)
{
    ASSERT_TRUE(dcmDataDict.isDictionaryLoaded());
    auto element = make(VR_UN, pack<Uint16>({512}));
    QByteArray out;
    EXPECT_TRUE(element->getValueAsString(out, DCM_Rows, nullptr));
    EXPECT_EQ(out, "512");
    EXPECT_FALSE(element->getValueAsString(out, DcmTagKey(0x0009, 0x1234), nullptr));
    EXPECT_EQ(out, "00\\02");
    auto csa = make(VR_UN, "IMAGE NUM 4");
    EXPECT_TRUE(csa->getValueAsString(out, DcmTagKey(0x0029, 0x1008), "SIEMENS CSA HEADER"));
    EXPECT_EQ(out, "IMAGE NUM 4");
    // A known VR is never replaced by the dictionary's.
    auto lo = make(VR_LO, "512");
    EXPECT_TRUE(lo->getValueAsString(out, DCM_Rows, nullptr));
    EXPECT_EQ(out, "512");
}

TEST(TagElementTest, ValueAsIntByVR)
{
    // The result and ok, which must be set whatever it held before.
    auto asInt = [](VR vr, QByteArray const& value, int index) {
        auto element = make(vr, value);
        bool wasTrue = true;
        bool wasFalse = false;
        int const result = element->valueAsInt(&wasTrue, index);
        element->valueAsInt(&wasFalse, index);
        EXPECT_EQ(wasTrue, wasFalse);
        return std::make_pair(result, wasTrue);
    };
    using R = std::pair<int, bool>;
    EXPECT_EQ(asInt(VR_IS, "12\\34", 0), R(0, false));
    EXPECT_EQ(asInt(VR_IS, "12\\34", 1), R(34, true));
    EXPECT_EQ(asInt(VR_IS, "12\\34", 2), R(0, false));
    EXPECT_EQ(asInt(VR_DS, "1.5", 0), R(0, false));
    EXPECT_EQ(asInt(VR_DA, "20010203", 0), R(20010203, true));
    EXPECT_EQ(asInt(VR_OB, "\x01\xff", 1), R(255, true));
    EXPECT_EQ(asInt(VR_OB, "\x01\xff", 2), R(0, false));
    EXPECT_EQ(asInt(VR_OW, pack<Uint16>({1, 0xFFFF}), 1), R(65535, true));
    EXPECT_EQ(asInt(VR_US, pack<Uint16>({0xFFFF}), 0), R(65535, true));
    EXPECT_EQ(asInt(VR_US, pack<Uint16>({1}) + "x", 1), R(0, false));
    EXPECT_EQ(asInt(VR_SS, pack<Sint16>({-3}), 0), R(-3, true));
    EXPECT_EQ(asInt(VR_SL, pack<Sint32>({1, -70000}), 1), R(-70000, true));
    EXPECT_EQ(asInt(VR_UL, pack<Uint32>({0xFFFFFFFFu}), 0), R(-1, true));
    EXPECT_EQ(asInt(VR_LO, "12", 0), R(0, false));
    EXPECT_EQ(make(VR_AS, "042")->valueAsInt(nullptr, 0), 42);
}

TEST(TagElementTest, NumFieldsByVR)
{
    EXPECT_EQ(make(VR_IS, "1\\2\\3")->numFields(), 3);
    EXPECT_EQ(make(VR_DS, "")->numFields(), 1);
    EXPECT_EQ(make(VR_LO, "a\\b")->numFields(), 0);
    EXPECT_EQ(make(VR_CS, "A")->numFields(), 0);
    EXPECT_EQ(make(VR_FL, QByteArray(9, '\0'))->numFields(), 2);
    EXPECT_EQ(make(VR_SL, QByteArray(8, '\0'))->numFields(), 2);
    EXPECT_EQ(make(VR_FD, QByteArray(17, '\0'))->numFields(), 2);
    EXPECT_EQ(make(VR_OB, QByteArray(5, '\0'))->numFields(), 5);
    EXPECT_EQ(make(VR_OW, QByteArray(5, '\0'))->numFields(), 2);
    EXPECT_EQ(make(VR_US, QByteArray(4, '\0'))->numFields(), 2);
    EXPECT_EQ(make(VR_AT, QByteArray(4, '\0'))->numFields(), 0);
}

TEST(TagElementTest, FieldToVariantParsesDatesTimesAndNumbers)
{
    EXPECT_EQ(fieldToVariant(VR_DA, " 20010203 ").toDate(), QDate(2001, 2, 3));
    EXPECT_FALSE(fieldToVariant(VR_DA, "2001011").isValid());
    EXPECT_FALSE(fieldToVariant(VR_DA, "200102031").isValid());
    QVariant const dt = fieldToVariant(VR_DT, "20010203040506.123+0100");
    EXPECT_EQ(dt.toDateTime(), QDateTime(QDate(2001, 2, 3), QTime(4, 5, 6), Qt::LocalTime));
    EXPECT_EQ(dt.toDateTime().toString(Qt::ISODate), "2001-02-03T04:05:06"); // local, no offset
    EXPECT_FALSE(fieldToVariant(VR_DT, "2001020304050").isValid());
    EXPECT_EQ(fieldToVariant(VR_TM, "123456.789").toTime(), QTime(12, 34, 56));
    EXPECT_FALSE(fieldToVariant(VR_TM, "1200").isValid());
    QVariant const ds = fieldToVariant(VR_DS, "-1.25");
    EXPECT_EQ(ds.type(), QVariant::Double);
    EXPECT_DOUBLE_EQ(ds.toDouble(), -1.25);
    QVariant const is = fieldToVariant(VR_IS, "42");
    EXPECT_EQ(is.type(), QVariant::Int);
    EXPECT_EQ(is.toInt(), 42);
    EXPECT_EQ(fieldToVariant(VR_LO, QByteArray("ab\0cd", 5)).toString(), "ab");
    EXPECT_TRUE(fieldToVariant(VR_LO, QByteArray()).toString().isNull());
    EXPECT_EQ(fieldToVariant(VR_LO, QByteArray()).type(), QVariant::String);
}

TEST(TagElementTest, ValueAsVariantSplitsMultipleValues)
{
    EXPECT_EQ(make(VR_DA, "20010203")->valueAsVariant().toDate(), QDate(2001, 2, 3));
    EXPECT_EQ(make(VR_TM, "101112")->valueAsVariant().toTime(), QTime(10, 11, 12));
    EXPECT_EQ(make(VR_DT, "20010203040506")->valueAsVariant().toDateTime().date(), QDate(2001, 2, 3));
    EXPECT_EQ(make(VR_IS, "7")->valueAsVariant(), QVariant(7));
    EXPECT_EQ(make(VR_DS, "1.5\\-2")->valueAsVariant(), QVariant(QVariantList{1.5, -2.0}));
    EXPECT_EQ(make(VR_DA, "20010203\\19991231")->valueAsVariant(),
              QVariant(QVariantList{QDate(2001, 2, 3), QDate(1999, 12, 31)}));
    // Binary numbers go through their text form and come out as strings.
    EXPECT_EQ(make(VR_US, pack<Uint16>({7}))->valueAsVariant(), QVariant(QString("7")));
    EXPECT_EQ(make(VR_US, pack<Uint16>({1, 2}))->valueAsVariant(),
              QVariant(QVariantList{QString("1"), QString("2")}));
}

TEST(TagElementTest, ValueReadAsOtherArrayTypes)
{
    auto element = make(VR_OB, pack<Uint16>({1, 0xFFFF}));
    auto read = [&](int mode) {
        QByteArray out = "x:";
        element->getValueAsStringFromOBOW(out, mode);
        return out;
    };
    EXPECT_EQ(read(0), "x:1\\65535");
    EXPECT_EQ(read(1), "x:1\\-1");
    EXPECT_EQ(read(4), "x:-65535");
    EXPECT_EQ(read(5), "x:");
    EXPECT_EQ(read(-1), "x:");
    element->mValue = pack<Float32>({1.5f, 2.0f});
    EXPECT_EQ(read(2), "x:1.5\\2");
    element->mValue = pack<Float64>({0.25, 2});
    EXPECT_EQ(read(3), "x:0.25\\2");
    element->mValue = "abc";
    EXPECT_EQ(read(2), "x:");
}

TEST(TagElementTest, PutValueIntPicksTheSmallestUnsignedForm)
{
    TagElement element;
    auto put = [&](int value) {
        element.putValue(value);
        return std::make_pair(element.mVR, element.mValue);
    };
    EXPECT_EQ(put(255), std::make_pair(VR_OB, QByteArray(1, '\xff')));
    EXPECT_EQ(put(256), std::make_pair(VR_US, pack<Uint16>({256})));
    EXPECT_EQ(put(65535), std::make_pair(VR_US, pack<Uint16>({65535})));
    EXPECT_EQ(put(65536), std::make_pair(VR_SL, pack<Sint32>({65536})));
    EXPECT_EQ(put(-1), std::make_pair(VR_SL, pack<Sint32>({-1})));
    element.putValue(QByteArray("raw"));
    EXPECT_EQ(std::make_pair(element.mVR, element.mValue), std::make_pair(VR_SL, QByteArray("raw")));
}

TEST(TagElementTest, PutValueAsStringRoundTripsBinaryVRs)
{
    struct Case
    {
        VR vr;
        char const* text;
        int bytes;
    };
    for (Case const& c :
         {Case{VR_FL, "1.5\\-2.25\\1e+06", 12}, Case{VR_OF, "0.1", 4}, Case{VR_FD, "3.14159\\-1e-05", 16},
          Case{VR_SL, "-7\\70000\\2147483647", 12}, Case{VR_SS, "-3\\32767", 4},
          Case{VR_UL, "4294967295\\0", 8}, Case{VR_US, "65535\\1", 4}}) {
        auto element = make(c.vr, "old");
        EXPECT_TRUE(element->putValueAsString(c.text)) << c.text;
        EXPECT_EQ(element->mValue.size(), c.bytes) << c.text;
        QByteArray out;
        element->getValueAsString(out);
        EXPECT_EQ(out, c.text);
    }
    auto us = make(VR_US, "");
    EXPECT_TRUE(us->putValueAsString(" 1 \\\\ 2 "));
    EXPECT_EQ(us->mValue, pack<Uint16>({1, 2}));
    EXPECT_TRUE(us->putValueAsString(""));
    EXPECT_TRUE(us->mValue.isEmpty());
    auto lo = make(VR_LO, "old");
    EXPECT_TRUE(lo->putValueAsString("a\\b"));
    EXPECT_EQ(lo->mValue, "a\\b");
    for (VR vr : {VR_OB, VR_OW, VR_AT, VR_SQ, VR_ox, VR_xs, VR_UN, VR_na, VR_Omitted}) {
        auto other = make(vr, "\x01\x02");
        EXPECT_FALSE(other->putValueAsString("3")) << vr;
        EXPECT_EQ(other->mValue, "\x01\x02");
        EXPECT_EQ(other->mVR, vr);
    }
}

TEST(TagElementTest, CompareAndItsDifferenceLine)
{
    auto lo = make(VR_LO, "abc");
    auto sh = make(VR_SH, "abc");
    EXPECT_TRUE(lo->compare(*sh, false, nullptr));
    EXPECT_FALSE(lo->compare(*sh, true, nullptr));
    std::string difference = "untouched";
    EXPECT_TRUE(lo->compare(*make(VR_LO, "abc"), true, &difference));
    EXPECT_EQ(difference, "untouched");
    EXPECT_FALSE(lo->compare(*make(VR_SH, "abd"), false, &difference));
    EXPECT_EQ(difference, "LO [abc] <> [abd]\n");
    EXPECT_FALSE(lo->compare(*make(VR_LO, "ab"), false, nullptr));
    // Each side prints under its own VR.
    EXPECT_FALSE(make(VR_US, pack<Uint16>({258}))->compare(*make(VR_OB, "\x02\x01"), true, &difference));
    EXPECT_EQ(difference, "US [258] <> [02\\01]\n");
    // Markers are named as DCMTK names their codes.
    EXPECT_FALSE(make(VR_Omitted, "")->compare(*lo, false, &difference));
    EXPECT_EQ(difference, "?? [] <> [abc]\n");
    EXPECT_FALSE(make(VR_na, "")->compare(*lo, false, &difference));
    EXPECT_EQ(difference, "na [] <> [abc]\n");
}

TEST(TagElementTest, CreateDcmElementForStringVRs)
{
    DcmTagKey const key(0x0011, 0x1001);
    for (VR vr : {VR_AE, VR_AS, VR_CS, VR_DA, VR_DS, VR_DT, VR_IS, VR_LO, VR_LT, VR_PN, VR_SH, VR_ST, VR_TM,
                  VR_UI, VR_UT}) {
        std::unique_ptr<DcmElement> element(make(vr, "VALUE1")->createDcmElement(key));
        ASSERT_NE(element, nullptr) << vr;
        EXPECT_EQ(element->ident(), toDcmEVR(vr));
        EXPECT_EQ(element->getTag().getXTag(), key);
        OFString value;
        element->getOFStringArray(value);
        EXPECT_EQ(value, "VALUE1");
    }
}

TEST(TagElementTest, CreateDcmElementForBinaryVRs)
{
    DcmTagKey const key(0x0011, 0x1002);
    auto create = [&](VR vr, QByteArray const& value, DcmEVR ident) {
        DcmElement* element = make(vr, value)->createDcmElement(key);
        EXPECT_TRUE(element && element->ident() == ident) << vr;
        return std::unique_ptr<DcmElement>(element);
    };
    DcmTagKey tagValue;
    EXPECT_TRUE(static_cast<DcmAttributeTag*>(create(VR_AT, pack<Uint16>({0x0010, 0x0020}), EVR_AT).get())
                    ->getTagVal(tagValue, 0)
                    .good());
    EXPECT_EQ(tagValue, DCM_PatientID);
    Float32 f = 0;
    Float64 d = 0;
    Sint32 sl = 0;
    Sint16 ss = 0;
    Uint32 ul = 0;
    Uint16 us = 0;
    for (VR vr : {VR_FL, VR_OF}) {
        auto element = create(vr, pack<Float32>({1.5f, -2.0f}), vr == VR_FL ? EVR_FL : EVR_OF);
        element->getFloat32(f, 1);
        EXPECT_EQ(f, -2.0f);
    }
    auto fd = create(VR_FD, pack<Float64>({2.5}), EVR_FD);
    fd->getFloat64(d, 0);
    EXPECT_EQ(d, 2.5);
    auto slElement = create(VR_SL, pack<Sint32>({-5, 7}), EVR_SL);
    EXPECT_EQ(slElement->getVM(), 2u);
    slElement->getSint32(sl, 0);
    EXPECT_EQ(sl, -5);
    create(VR_SS, pack<Sint16>({-3}), EVR_SS)->getSint16(ss, 0);
    EXPECT_EQ(ss, -3);
    for (VR vr : {VR_UL, VR_up}) {
        create(vr, pack<Uint32>({4000000000u}), EVR_UL)->getUint32(ul, 0);
        EXPECT_EQ(ul, 4000000000u);
    }
    for (VR vr : {VR_US, VR_xs}) {
        create(vr, pack<Uint16>({65535, 2}), EVR_US)->getUint16(us, 1);
        EXPECT_EQ(us, 2);
    }
    for (VR vr : {VR_na, VR_Omitted, VR_SQ, VR_UNKNOWN, VR_OverlayData})
        EXPECT_EQ(make(vr, "x")->createDcmElement(key), nullptr) << vr;
}

TEST(TagElementTest, CreateDcmElementForOtherVRsDependsOnTheKey)
{
    QByteArray const bytes("\x01\x02\x03\x04", 4);
    for (VR vr : {VR_OB, VR_OW, VR_ox}) {
        std::unique_ptr<DcmElement> pixels(make(vr, bytes)->createDcmElement(DCM_PixelData));
        ASSERT_TRUE(dynamic_cast<DcmPixelData*>(pixels.get())) << vr;
        EXPECT_EQ(dcmBytes(pixels.get()), bytes);
    }
    for (Uint16 group : {0x6000, 0x6002, 0x601E}) {
        std::unique_ptr<DcmElement> overlay(make(VR_OW, bytes)->createDcmElement(DcmTagKey(group, 0x3000)));
        ASSERT_TRUE(dynamic_cast<Mdx::DcmOverlayData*>(overlay.get())) << group;
        EXPECT_EQ(overlay->ident(), EVR_OverlayData);
        EXPECT_EQ(dcmBytes(overlay.get()), bytes);
    }
    std::unique_ptr<DcmElement> ob(make(VR_OB, bytes)->createDcmElement(DCM_EncapsulatedDocument));
    ASSERT_TRUE(isExactly<DcmOtherByteOtherWord>(ob.get()));
    EXPECT_EQ(dcmBytes(ob.get()), bytes);
    std::unique_ptr<DcmElement> ow(
        make(VR_OW, pack<Uint16>({1, 0x0203}))->createDcmElement(DCM_RedPaletteColorLookupTableData));
    ASSERT_TRUE(isExactly<DcmOtherByteOtherWord>(ow.get()));
    Uint16* words = nullptr;
    ow->getUint16Array(words);
    ASSERT_NE(words, nullptr);
    EXPECT_EQ(words[1], 0x0203);
    std::unique_ptr<DcmElement> un(make(VR_UN, bytes)->createDcmElement(DcmTagKey(0x0009, 0x1001)));
    ASSERT_TRUE(isExactly<DcmOtherByteOtherWord>(un.get()));
    EXPECT_EQ(dcmBytes(un.get()), bytes);
}

TEST(TagElementTest, CloneSharesTheValueAndResetsCounters)
{
    auto element = make(VR_LO, "shared");
    element->mDifferentCount = 3;
    element->mMissingCount = 4;
    std::unique_ptr<TagElement> copy(element->clone());
    TagElement const* raw = copy.get();
    EXPECT_EQ(typeid(*raw), typeid(TagElement));
    EXPECT_EQ(copy->mVR, VR_LO);
    EXPECT_EQ(copy->mValue.constData(), element->mValue.constData());
    EXPECT_EQ(copy->mDifferentCount, 0);
    EXPECT_EQ(copy->mMissingCount, 0);
}

namespace {

// A sequence of two items whose first item inherits from an upper item, as
// after a merge, and hides or omits some of what it would show.
struct LinkedSequence
{
    TagSequence upper;
    TagSequence lower;
    TagMap* upperItem = new TagMap;
    TagMap* lowerItem = new TagMap;

    LinkedSequence()
    {
        upperItem->mIsItem = lowerItem->mIsItem = true;
        upper.addItem(upperItem);
        lower.addItem(lowerItem);
        upperItem->putAndInsertValue(DCM_ReferencedSOPClassUID, VR_UI, "1.2");
        upperItem->putAndInsertValue(DCM_CodeValue, VR_SH, "CODE");
        lowerItem->mParent = upperItem;
        upperItem->mChildren.append(lowerItem);
        lowerItem->putAndInsertValue(DCM_ReferencedSOPInstanceUID, VR_UI, "9.9");
        lowerItem->markAsMissing(DCM_CodeValue);
        lowerItem->markAsOmitted(DCM_CodeMeaning);
        auto* second = new TagMap;
        second->mIsItem = true;
        second->putAndInsertValue(DCM_CodeValue, VR_SH, "TWO");
        lower.addItem(second);
    }
};

} // namespace

TEST(TagSequenceTest, RebuildsItemsWithInheritedValuesAndWithoutMarkers)
{
    LinkedSequence s;
    EXPECT_EQ(s.lower.mVR, VR_SQ);
    std::unique_ptr<DcmElement> element(s.lower.createDcmElement(DCM_ReferencedImageSequence));
    auto* sequence = dynamic_cast<DcmSequenceOfItems*>(element.get());
    ASSERT_NE(sequence, nullptr);
    EXPECT_EQ(sequence->getTag().getXTag(), DCM_ReferencedImageSequence);
    ASSERT_EQ(sequence->card(), 2u);
    DcmItem* first = sequence->getItem(0);
    EXPECT_EQ(first->card(), 2u);
    OFString value;
    EXPECT_TRUE(first->findAndGetOFString(DCM_ReferencedSOPClassUID, value).good());
    EXPECT_EQ(value, "1.2");
    EXPECT_TRUE(first->findAndGetOFString(DCM_ReferencedSOPInstanceUID, value).good());
    EXPECT_EQ(value, "9.9");
    EXPECT_FALSE(first->tagExists(DCM_CodeValue));
    EXPECT_FALSE(first->tagExists(DCM_CodeMeaning));
    EXPECT_TRUE(sequence->getItem(1)->findAndGetOFString(DCM_CodeValue, value).good());
    EXPECT_EQ(value, "TWO");
}

TEST(TagSequenceTest, CloneFlattensItems)
{
    LinkedSequence s;
    std::unique_ptr<TagElement> copy(s.lower.clone());
    auto* sequence = dynamic_cast<TagSequence*>(copy.get());
    ASSERT_NE(sequence, nullptr);
    ASSERT_EQ(sequence->mItems.size(), 2);
    TagMap const* item = sequence->mItems[0];
    EXPECT_NE(item, s.lowerItem);
    EXPECT_TRUE(item->isItem());
    EXPECT_EQ(item->parent(), nullptr);
    ASSERT_NE(item->ownElement(DCM_ReferencedSOPClassUID), nullptr);
    EXPECT_EQ(item->ownElement(DCM_ReferencedSOPClassUID)->mValue, "1.2");
    EXPECT_EQ(item->ownElement(DCM_CodeValue), nullptr);
    ASSERT_NE(item->ownElement(DCM_CodeMeaning), nullptr);
    EXPECT_TRUE(item->ownElement(DCM_CodeMeaning)->isOmittedMarker());
    EXPECT_TRUE(sequence->compare(s.lower, true, nullptr));
}

TEST(TagSequenceTest, CompareItemByItem)
{
    LinkedSequence s;
    TagSequence empty1;
    TagSequence empty2;
    EXPECT_TRUE(empty1.compare(empty2, true, nullptr));
    EXPECT_FALSE(empty1.compare(*make(VR_SQ, ""), true, nullptr));
    EXPECT_FALSE(s.lower.compare(s.upper, true, nullptr));
    std::unique_ptr<TagElement> copy(s.lower.clone());
    auto& items = static_cast<TagSequence*>(copy.get())->mItems;
    items[0]->putAndInsertValue(DCM_ReferencedSOPInstanceUID, VR_UI, "9.8");
    std::string difference;
    EXPECT_FALSE(s.lower.compare(*copy, true, &difference));
    EXPECT_EQ(difference, "(0008,1155) UI [9.9] <> [9.8]\n");
    TagSequence withNull;
    withNull.addItem(nullptr);
    withNull.addItem(nullptr);
    EXPECT_FALSE(s.lower.compare(withNull, true, nullptr));
    EXPECT_FALSE(withNull.compare(s.lower, true, nullptr));
}

TEST(DcmOverlayDataTest, IdentCloneAndCopyFrom)
{
    Uint8 const bytes[] = {1, 2, 3, 4};
    Mdx::DcmOverlayData overlay(DcmTag(0x6000, 0x3000));
    overlay.putUint8Array(bytes, 4);
    EXPECT_EQ(overlay.ident(), EVR_OverlayData);

    std::unique_ptr<DcmObject> clone(overlay.clone());
    ASSERT_TRUE(isExactly<Mdx::DcmOverlayData>(clone.get()));
    EXPECT_EQ(dcmBytes(static_cast<DcmElement*>(clone.get())), QByteArray("\x01\x02\x03\x04", 4));

    EXPECT_TRUE(overlay.copyFrom(overlay).good());
    EXPECT_EQ(overlay.getLength(), 4u);
    DcmOtherByteOtherWord ob(DcmTag(0x6000, 0x3000, EVR_OB));
    EXPECT_EQ(overlay.copyFrom(ob), EC_IllegalCall);

    Mdx::DcmOverlayData target(DcmTag(0x6002, 0x3000));
    EXPECT_TRUE(target.copyFrom(overlay).good());
    EXPECT_EQ(dcmBytes(&target), QByteArray("\x01\x02\x03\x04", 4));
    // DCMTK's own overlay class has the same ident and must copy as well.
    ::DcmOverlayData dcmtkOverlay(DcmTag(0x6004, 0x3000));
    Uint8 const other[] = {9, 8};
    dcmtkOverlay.putUint8Array(other, 2);
    EXPECT_TRUE(target.copyFrom(dcmtkOverlay).good());
    EXPECT_EQ(dcmBytes(&target), QByteArray("\x09\x08", 2));
}
