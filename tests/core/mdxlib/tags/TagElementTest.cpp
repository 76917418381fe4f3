// Values, text forms and DCMTK round trips of single tag elements, sequences
// and the overlay element class.
#include "support/TagLayer.h"

#include <mdxlib/tags/DcmOverlayData.h>

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
    return (field + '\\').repeated(n).chopped(1);
}

QByteArray dcmBytes(DcmElement* element)
{
    QByteArray bytes(static_cast<int>(element->getLength()), '\0');
    element->getPartialValue(bytes.data(), 0, element->getLength());
    return bytes;
}

std::initializer_list<VR> const kStringVRs = {VR_AE, VR_AS, VR_CS, VR_DA, VR_DS, VR_DT, VR_IS, VR_LO,
                                              VR_LT, VR_PN, VR_SH, VR_ST, VR_TM, VR_UI, VR_UT};

} // namespace

TEST(TagElementTest, TextFormByVR)
{
    QByteArray const word = pack<Uint16>({0xABCD}), hex = QByteArray("\x01\xff", 2);
    // clang-format off
    struct { VR vr; QByteArray value, text; } const cases[] = {
        {VR_AT, pack<Uint16>({0x0010, 0x0020, 0x7FE0, 0x0010}), "(0010,0020)\\(7fe0,0010)"},
        {VR_AT, pack<Uint16>({0x0010, 0x0020, 0x0028}), "(0010,0020)"}, {VR_AT, QByteArray(3, '\1'), ""},
        {VR_FL, pack<Float32>({1.5f, -0.1f, 1e6f}), "1.5\\-0.1\\1e+06"},
        {VR_FD, pack<Float64>({3.14159265358979, -1e-5}), "3.14159\\-1e-05"},
        {VR_SL, pack<Sint32>({-5, 70000}), "-5\\70000"}, {VR_UL, pack<Uint32>({4294967295u, 0}), "4294967295\\0"},
        {VR_xs, pack<Uint16>({65535}), "65535"}, {VR_OB, "", ""},
        {VR_OW, word.repeated(12) + "x", fields("abcd", 12)}, {VR_OW, word.repeated(13), fields("abcd", 13) + "..."},
        {VR_OB, QByteArray(21, '\x0f'), fields("0f", 21)}, {VR_OB, QByteArray(30, '\xA0'), fields("a0", 22) + "..."}};
    // clang-format on
    for (auto const& c : cases)
        EXPECT_EQ(text(c.vr, c.value), c.text) << c.vr << " " << c.value.size();
    for (VR vr : {VR_SQ, VR_UN, VR_ox, VR_lt, VR_na, VR_up, VR_Omitted})
        EXPECT_EQ(text(vr, hex), "01\\ff") << vr;
    QByteArray out;
    make(VR_LO, pack<Uint16>({0x1234}))->getValueAsString(out, VR_US); // the given VR wins
    EXPECT_EQ(out, "4660");
}

TEST(TagElementTest, ValueAsIntByVR)
{
    // clang-format off
    struct { VR vr; QByteArray value; int index, result; bool ok; } const cases[] = {
        {VR_IS, "12\\34", 1, 34, true}, {VR_IS, "12\\34", 2, 0, false}, {VR_DS, "1.5", 0, 0, false},
        {VR_DA, "20010203", 0, 20010203, true}, {VR_LO, "12", 0, 0, false}, {VR_OB, "\x01\xff", 1, 255, true},
        {VR_OW, pack<Uint16>({1, 0xFFFF}), 1, 65535, true}, {VR_US, pack<Uint16>({1}) + "x", 1, 0, false},
        {VR_SS, pack<Sint16>({-3}), 0, -3, true}, {VR_UL, pack<Uint32>({0xFFFFFFFFu}), 0, -1, true}};
    // clang-format on
    for (auto const& c : cases) {
        auto element = make(c.vr, c.value);
        bool wasTrue = true, wasFalse = false; // ok is set whatever it held
        EXPECT_EQ(element->valueAsInt(&wasTrue, c.index), c.result) << c.vr << "[" << c.index << "]";
        element->valueAsInt(&wasFalse, c.index);
        EXPECT_TRUE(wasTrue == c.ok && wasFalse == c.ok) << c.vr << "[" << c.index << "]";
    }
    EXPECT_EQ(make(VR_AS, "042")->valueAsInt(nullptr, 0), 42);
}

// Writing through maps (putAndInsertString, putAndInsertInt) is checked in
// TagMapTest; here the VR an integer picks by its range, and the VRs that
// take no text.
TEST(TagElementTest, PutValueAndPutValueAsString)
{
    TagElement element;
    // clang-format off
    std::tuple<int, VR, QByteArray> const ints[] = {{255, VR_OB, QByteArray(1, '\xff')}, {256, VR_US, pack<Uint16>({256})},
        {65535, VR_US, pack<Uint16>({65535})}, {65536, VR_SL, pack<Sint32>({65536})}, {-1, VR_SL, pack<Sint32>({-1})}};
    std::tuple<VR, char const*, int, char const*> const texts[] = {{VR_FL, "1.5\\-2.25\\1e+06", 12, nullptr},
        {VR_FD, "3.14159\\-1e-05", 16, nullptr}, {VR_UL, "4294967295\\0", 8, nullptr}, {VR_US, " 1 \\\\ 2 ", 4, "1\\2"}};
    // clang-format on
    for (auto const& [value, vr, bytes] : ints) {
        element.putValue(value);
        EXPECT_EQ(std::make_pair(element.mVR, element.mValue.toByteArray()), std::make_pair(vr, bytes))
            << value;
    }
    for (auto const& [vr, value, size, shown] : texts) {
        auto e = make(vr, "old");
        EXPECT_TRUE(e->putValueAsString(value) && e->mValue.size() == size) << value;
        EXPECT_EQ(text(vr, e->mValue), shown ? shown : value);
    }
    for (VR vr : {VR_OB, VR_OW, VR_AT, VR_SQ, VR_ox, VR_xs, VR_UN, VR_na, VR_Omitted}) {
        auto other = make(vr, "\x01\x02");
        EXPECT_FALSE(other->putValueAsString("3")) << vr;
        EXPECT_EQ(std::make_pair(other->mVR, other->mValue.toByteArray()),
                  std::make_pair(vr, QByteArray("\x01\x02")));
    }
}

TEST(TagElementTest, CreateDcmElementByVRAndKey)
{
    DcmTagKey const key(0x0011, 0x1001), overlay(0x6000, 0x3000), lut = DCM_RedPaletteColorLookupTableData;
    QByteArray const bytes("\x01\x02\x03\x04", 4), ul = pack<Uint32>({4000000000u}),
                                                   us = pack<Uint16>({9, 2});
    std::type_info const *pixels = &typeid(DcmPixelData), *ours = &typeid(Mdx::DcmOverlayData),
                         *obow = &typeid(DcmOtherByteOtherWord);
    // clang-format off
    std::vector<std::tuple<VR, DcmTagKey, QByteArray, std::type_info const*>> cases = {
        {VR_AT, key, pack<Uint16>({0x0010, 0x0020}), &typeid(DcmAttributeTag)},
        {VR_OF, key, pack<Float32>({1.5f, -2}), &typeid(DcmOtherFloat)},
        {VR_FD, key, pack<Float64>({2.5}), &typeid(DcmFloatingPointDouble)},
        {VR_SS, key, pack<Sint16>({-3}), &typeid(DcmSignedShort)}, {VR_up, key, ul, &typeid(DcmUnsignedLong)},
        {VR_xs, key, us, &typeid(DcmUnsignedShort)}, {VR_ox, DCM_PixelData, bytes, pixels},
        {VR_OW, overlay, bytes, ours}, {VR_OW, {0x601E, 0x3000}, bytes, ours},
        {VR_OB, DCM_EncapsulatedDocument, bytes, obow}, {VR_OW, lut, bytes, obow},
        {VR_UN, {0x0009, 0x1001}, bytes, obow}};
    // clang-format on
    for (VR vr : kStringVRs)
        cases.emplace_back(vr, key, "VALUE1", nullptr);
    for (auto const& [vr, tag, value, type] : cases) {
        std::unique_ptr<DcmElement> element(make(vr, value)->createDcmElement(tag));
        ASSERT_NE(element, nullptr) << vr;
        DcmElement const& e = *element;
        EXPECT_TRUE(type ? typeid(e) == *type : e.ident() == toDcmEVR(vr)) << vr << " " << tag;
        EXPECT_EQ(element->getTag().getXTag(), tag);
        QByteArray const stored = dcmBytes(element.get());
        EXPECT_EQ(stored, value) << vr << " " << tag;
    }
    for (VR vr : {VR_na, VR_Omitted, VR_SQ, VR_UNKNOWN, VR_OverlayData})
        EXPECT_EQ(make(vr, "x")->createDcmElement(key), nullptr) << vr;
}

TEST(TagSequenceTest, RebuildAndCloneSeeInheritedValuesButNoMarkers)
{
    // Two items; the first inherits from an upper item, as after a merge, and
    // hides or omits some of what it would show.
    TagSequence upper, lower;
    auto* upperItem = new TagMap;
    auto* lowerItem = new TagMap;
    upper.addItem(upperItem);
    lower.addItem(lowerItem);
    lower.addItem(new TagMap);
    upperItem->putAndInsertValue(DCM_ReferencedSOPClassUID, VR_UI, "1.2");
    upperItem->putAndInsertValue(DCM_CodeValue, VR_SH, "CODE");
    lowerItem->mParent = upperItem;
    upperItem->mChildren.append(lowerItem);
    lowerItem->putAndInsertValue(DCM_ReferencedSOPInstanceUID, VR_UI, "9.9");
    lowerItem->markAsMissing(DCM_CodeValue);
    lowerItem->markAsOmitted(DCM_CodeMeaning);
    lower.mItems[1]->putAndInsertValue(DCM_CodeValue, VR_SH, "TWO");
    for (TagMap* item : {upperItem, lowerItem, lower.mItems[1]})
        item->mIsItem = true;

    std::unique_ptr<DcmElement> element(lower.createDcmElement(DCM_ReferencedImageSequence));
    auto* sequence = dynamic_cast<DcmSequenceOfItems*>(element.get());
    ASSERT_TRUE(sequence && sequence->card() == 2u);
    EXPECT_EQ(sequence->getItem(0)->card(), 2u); // no marker became an attribute
    OFString a, b, c;
    sequence->getItem(0)->findAndGetOFString(DCM_ReferencedSOPClassUID, a);
    sequence->getItem(0)->findAndGetOFString(DCM_ReferencedSOPInstanceUID, b);
    sequence->getItem(1)->findAndGetOFString(DCM_CodeValue, c);
    EXPECT_EQ(a + "|" + b + "|" + c, "1.2|9.9|TWO");

    // A clone is a flat copy of the items: inherited values become their own,
    // markers stay markers.
    std::unique_ptr<TagElement> copy(lower.clone());
    auto* clone = dynamic_cast<TagSequence*>(copy.get());
    ASSERT_TRUE(clone && clone->mItems.size() == 2);
    TagMap* item = clone->mItems[0];
    EXPECT_TRUE(item != lowerItem && item->isItem() && item->parent() == nullptr);
    EXPECT_EQ(item->ownElement(DCM_ReferencedSOPClassUID)->mValue, "1.2");
    EXPECT_EQ(item->ownElement(DCM_CodeValue), nullptr);
    EXPECT_TRUE(item->ownElement(DCM_CodeMeaning)->isOmittedMarker());
    EXPECT_TRUE(clone->compare(lower, true, nullptr));
}

// Values up to 15 bytes sit in the element, longer ones share a QByteArray;
// either way a value reads, compares, hashes and copies as the QByteArray it
// stands for, and what a caller takes out outlives the element.
TEST(TagValueTest, InlineAndSharedValuesReadAsTheirBytes)
{
    for (int size : {0, 1, 15, 16, 64}) {
        QByteArray const bytes(size, 'x');
        TagValue value(bytes);
        EXPECT_TRUE(value == bytes && bytes == value && !value.isNull()) << size;
        EXPECT_EQ(value.constData()[size], '\0') << size; // a C string, as QByteArray's
        EXPECT_EQ(qHash(value, 7), qHash(bytes, 7)) << size;
        // Longer values share the caller's bytes instead of copying them
        // (every empty QByteArray shares one block).
        bool const shared = value.toByteArray().constData() == bytes.constData();
        EXPECT_EQ(shared, size == 0 || size > TagValue::kInlineCapacity) << size;
        TagValue copy(value);
        value = QByteArray("other");
        QByteArray const taken = copy.toByteArray();
        copy.clear();
        EXPECT_TRUE(taken == bytes && copy.isNull() && value == QByteArray("other")) << size;
    }
    TagValue value(QByteArray(40, 'y'));
    value = value;               // self-assignment keeps the bytes
    value = value.toByteArray(); // so does assigning its own QByteArray form
    EXPECT_EQ(value, QByteArray(40, 'y'));
    EXPECT_TRUE(TagValue().isNull() && TagValue(nullptr, 3).isNull() && !TagValue("", 0).isNull());
    EXPECT_TRUE(TagValue().toByteArray().isNull() && !TagValue("", 0).toByteArray().isNull());
    EXPECT_NE(TagValue("abc", 3), QByteArray("abd"));
}
