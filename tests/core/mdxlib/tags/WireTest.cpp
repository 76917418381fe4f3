// The wire form of tag maps: exact bytes where the layout matters, and the
// round trip of sequences, markers and previews. Whole real studies go
// through it in SampleStudiesTest; damaged bodies are in the fuzz replay.
#include "support/TestSupport.h"

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagMapSerializer.h>
#include <mdxlib/tags/TagSequence.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

namespace {

using Mdx::TagMap;
using Mdx::TagMapSerializer;

QByteArray bytesOf(LmMsg const& msg)
{
    return QByteArray(msg.dataPtr(), static_cast<int>(msg.size()));
}

// Reads one length-prefixed body from in into node.
void readNode(LmMsg& in, TagMap* node, TagMap* parent, QList<QByteArray> const& previews)
{
    int const length = TagMap::readLength(in);
    char const* bytes = in.readRawBytes(static_cast<size_t>(length));
    ASSERT_NE(bytes, nullptr);
    LmMsg body(bytes, static_cast<size_t>(length));
    node->deserialize(body, parent, previews);
    EXPECT_FALSE(body.failed());
}

// Every attribute of every image, markers and omitted values included, is
// what it was; and the stored (own) attributes of every node are the same.
void expectSameTree(TagMap const* expected, TagMap const* actual)
{
    std::string difference;
    EXPECT_TRUE(expected->compare(*actual, true, &difference)) << difference;
    ASSERT_EQ(expected->elements().keys(), actual->elements().keys());
    for (auto it = expected->elements().cbegin(); it != expected->elements().cend(); ++it) {
        Mdx::TagElement const* other = actual->ownElement(it.key());
        EXPECT_EQ(it.value()->mVR, other->mVR);
        if (!it.value()->isMarker() && !dynamic_cast<Mdx::TagSequence const*>(it.value())) {
            EXPECT_EQ(it.value()->mValue, other->mValue);
        }
    }
    ASSERT_EQ(expected->children().size(), actual->children().size());
    for (int i = 0; i < expected->children().size(); ++i)
        expectSameTree(expected->children()[i], actual->children()[i]);
}

TEST(LengthForm, shortAndLongLengths)
{
    LmMsg msg;
    TagMapSerializer::writeLength(msg, 65534);
    EXPECT_EQ(msg.size(), 2u);
    TagMapSerializer::writeLength(msg, 65535);
    EXPECT_EQ(msg.size(), 8u);
    TagMapSerializer::writeLength(msg, 0x12345678);
    LmMsg in(msg.dataPtr(), msg.size());
    EXPECT_EQ(TagMap::readLength(in), 65534);
    EXPECT_EQ(TagMap::readLength(in), 65535);
    EXPECT_EQ(TagMap::readLength(in), 0x12345678);
}

TEST(TagMapWire, entryLayoutAndSizes)
{
    TagMapSerializer serializer;
    QList<QByteArray> previews;

    TagMap empty;
    LmMsg out;
    serializer.serialize(&empty, out, previews);
    EXPECT_EQ(bytesOf(out), QByteArray(2, '\0'));

    // A marker costs 5 bytes; an attribute 7 plus its value, the sizes the
    // optimiser assumes.
    TagMap node;
    node.markAsMissing(DCM_PatientName);
    node.putAndInsertValue(DCM_Modality, Mdx::VR_CS, "CT");
    out.reset();
    serializer.serialize(&node, out, previews);
    EXPECT_EQ(bytesOf(out).toHex(), QByteArray("0e00"           // body length 14
                                               "08006000030200" // (0008,0060) CS, 2 bytes
                                               "4354"           // "CT"
                                               "100010001d"));  // (0010,0010) missing

    // A missing marker that kept its old bytes (left by option A) is
    // written without them.
    TagMap optionA;
    optionA.putAndInsertValue(DCM_PatientID, Mdx::VR_LO, "old bytes");
    optionA.ownElement(DCM_PatientID)->mVR = Mdx::VR_Missing;
    out.reset();
    serializer.serialize(&optionA, out, previews);
    EXPECT_EQ(out.size(), 2u + 5u);
}

TEST(TagMapWire, sequencesPreviewsAndMarkersRoundTrip)
{
    TagMap node;
    node.putAndInsertValue(DCM_PatientName, Mdx::VR_PN, "Doe^Jane");
    node.markAsOmitted(DCM_PixelData);
    node.markAsMissing(DCM_PatientID);
    auto* emptySequence = new Mdx::TagSequence;
    node.mElements.insert(DCM_ReferencedImageSequence, emptySequence);
    auto* sequence = new Mdx::TagSequence;
    for (int i = 0; i < 2; ++i) {
        auto* item = new TagMap;
        item->mIsItem = true;
        item->putAndInsertValue(DCM_ReferencedSOPInstanceUID, Mdx::VR_UI, QByteArray::number(i));
        auto* inner = new Mdx::TagSequence;
        auto* innerItem = new TagMap;
        innerItem->mIsItem = true;
        innerItem->putAndInsertValue(DCM_CodeValue, Mdx::VR_SH, "X");
        inner->addItem(innerItem);
        item->mElements.insert(DCM_ConceptNameCodeSequence, inner);
        sequence->addItem(item);
    }
    node.mElements.insert(DCM_SourceImageSequence, sequence);
    node.putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB, "JPEGBYTES");

    TagMapSerializer serializer;
    QList<QByteArray> previews;
    LmMsg out;
    serializer.serialize(&node, out, previews);
    ASSERT_EQ(previews, QList<QByteArray>({"JPEGBYTES"}));

    LmMsg in(out.dataPtr(), out.size());
    TagMap read;
    readNode(in, &read, nullptr, previews);
    expectSameTree(&node, &read);
    EXPECT_EQ(read.ownElement(Mdx::Tags::PreviewDataIndex), nullptr);
    EXPECT_TRUE(read.ownElement(DCM_PatientID)->isMissingMarker());
    EXPECT_TRUE(read.ownElement(DCM_PixelData)->isOmittedMarker());
    auto const* readEmpty =
        dynamic_cast<Mdx::TagSequence const*>(read.ownElement(DCM_ReferencedImageSequence));
    ASSERT_NE(readEmpty, nullptr);
    EXPECT_TRUE(readEmpty->mItems.isEmpty());
}

TEST(TagMapWire, equalPreviewsOfTwoImagesGetTwoEntriesAndABadIndexIsDropped)
{
    TagMap a;
    TagMap b;
    a.putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB, "same");
    b.putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB, "same");
    TagMapSerializer serializer;
    QList<QByteArray> previews;
    LmMsg out;
    serializer.serialize(&a, out, previews);
    serializer.serialize(&b, out, previews);
    EXPECT_EQ(previews.size(), 2);

    // An index beyond the list drops that attribute and nothing else.
    TagMap withBadIndex;
    withBadIndex.putAndInsertValue(Mdx::Tags::PreviewDataIndex, Mdx::VR_IS, "5");
    withBadIndex.putAndInsertValue(DCM_Modality, Mdx::VR_CS, "MR");
    out.reset();
    serializer.serialize(&withBadIndex, out, previews);
    LmMsg in(out.dataPtr(), out.size());
    TagMap read;
    readNode(in, &read, nullptr, QList<QByteArray>({"0", "1", "2"}));
    EXPECT_EQ(read.elements().keys(), QList<DcmTagKey>({DCM_Modality}));
}

} // namespace
