// The wire form of tag maps: exact bytes where the layout matters, and whole
// trees of real studies written and read back.
#include "support/TestSupport.h"

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagMapSerializer.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

#include <memory>

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

// A whole study in the order a reader needs it: study, then each series
// followed by its images (counts in front) and its volumes.
void writeTree(TagMap const* study, LmMsg& out, QList<QByteArray>& previews)
{
    TagMapSerializer serializer;
    serializer.serialize(study, out, previews);
    out << static_cast<unsigned int>(study->children().size());
    for (TagMap const* series : study->children()) {
        serializer.serialize(series, out, previews);
        out << static_cast<unsigned int>(series->children().size());
        for (TagMap const* image : series->children())
            serializer.serialize(image, out, previews);
        serializer.serializeVolumes(series, out, previews);
    }
}

std::unique_ptr<TagMap> readTree(LmMsg& in, QList<QByteArray> const& previews)
{
    auto study = std::make_unique<TagMap>();
    readNode(in, study.get(), nullptr, previews);
    unsigned int numSeries = 0;
    in >> numSeries;
    for (unsigned int s = 0; s < numSeries; ++s) {
        auto* series = new TagMap;
        readNode(in, series, study.get(), previews);
        unsigned int numImages = 0;
        in >> numImages;
        for (unsigned int i = 0; i < numImages; ++i)
            readNode(in, new TagMap, series, previews);
        int const length = TagMap::readLength(in);
        LmMsg volumes(in.readRawBytes(static_cast<size_t>(length)), static_cast<size_t>(length));
        series->deserializeVolumes(volumes, previews);
    }
    EXPECT_FALSE(in.failed());
    EXPECT_EQ(in.bytesAvailable(), 0u);
    return study;
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

TEST(TagMapWire, corruptBodiesFailWithoutCrashing)
{
    TagMap node;
    node.putAndInsertValue(DCM_PatientName, Mdx::VR_PN, "Doe^Jane");
    TagMapSerializer serializer;
    QList<QByteArray> previews;
    LmMsg out;
    serializer.serialize(&node, out, previews);
    QByteArray const whole = bytesOf(out).mid(2);
    for (int cut = 1; cut < whole.size(); ++cut) {
        LmMsg in(whole.constData(), static_cast<size_t>(cut));
        TagMap read;
        read.deserialize(in, nullptr, previews);
        EXPECT_TRUE(in.failed()) << "cut at " << cut;
    }

    // Sequences nested far deeper than any real data are refused.
    QByteArray deep;
    for (int level = 0; level < 200; ++level) {
        QByteArray item;
        LmMsg header;
        header << static_cast<unsigned short>(0x0008) << static_cast<unsigned short>(0x1140)
               << static_cast<unsigned char>(Mdx::VR_SQ) << static_cast<unsigned short>(1)
               << static_cast<unsigned short>(deep.size());
        deep = bytesOf(header) + deep;
    }
    LmMsg in(deep.constData(), static_cast<size_t>(deep.size()));
    TagMap read;
    read.deserialize(in, nullptr, previews);
    EXPECT_TRUE(in.failed());
}

TEST(TagMapWire, realStudiesRoundTripBeforeAndAfterOptimising)
{
    MDX_REQUIRE_SAMPLES();
    int studies = 0;
    for (auto const& [studyUID, files] : mdxtest::sampleStudies()) {
        SCOPED_TRACE("study " + studyUID);
        Mdx::TagFile tagFile;
        for (QString const& file : files)
            tagFile.addDicomFile(file.toLocal8Bit().constData(), file.toLocal8Bit().constData(), false);
        for (bool optimised : {false, true}) {
            if (optimised)
                tagFile.optimizeAll();
            QList<QByteArray> previews;
            LmMsg out;
            writeTree(tagFile.study(), out, previews);
            LmMsg in(out.dataPtr(), out.size());
            std::unique_ptr<TagMap> study = readTree(in, previews);
            expectSameTree(tagFile.study(), study.get());
            // Item links are rebuilt: what an image shows inside its
            // sequences equals what it showed before.
            for (int s = 0; s < study->children().size(); ++s) {
                for (int i = 0; i < study->children()[s]->children().size(); ++i) {
                    std::string difference;
                    EXPECT_TRUE(tagFile.study()->children()[s]->children()[i]->compare(
                        *study->children()[s]->children()[i], true, &difference))
                        << difference;
                }
            }
        }
        ++studies;
    }
    EXPECT_GT(studies, 10);
}

} // namespace
