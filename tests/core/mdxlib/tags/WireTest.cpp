// The wire form of tag maps where the samples do not reach: long lengths and
// previews. Whole real studies go through it in SampleStudiesTest, whose tag
// files are pinned byte for byte by the fuzz replay's digests; damaged
// bodies are in the fuzz replay too.
#include "support/TestSupport.h"

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagMapSerializer.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

namespace {

using Mdx::TagMap;
using Mdx::TagMapSerializer;

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

// A preview leaves the body for the list of previews, one entry per image
// even for equal bytes, and comes back from it; an index beyond the list
// drops that attribute and nothing else. A missing marker that kept its old
// bytes (left by the optimiser) is written without them.
TEST(TagMapWire, previewsTravelInTheirListAndMarkersWithoutBytes)
{
    TagMap a, b;
    a.putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB, "same");
    a.putAndInsertValue(DCM_PatientID, Mdx::VR_LO, "old bytes");
    a.ownElement(DCM_PatientID)->mVR = Mdx::VR_Missing;
    b.putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB, "same");
    TagMap bad;
    bad.putAndInsertValue(Mdx::Tags::PreviewDataIndex, Mdx::VR_IS, "5");
    bad.putAndInsertValue(DCM_Modality, Mdx::VR_CS, "MR");
    TagMapSerializer serializer;
    QList<QByteArray> previews;
    LmMsg out;
    for (TagMap* node : {&a, &b, &bad})
        serializer.serialize(node, out, previews);
    EXPECT_EQ(previews, QList<QByteArray>({"same", "same"}));

    LmMsg in(out.dataPtr(), out.size());
    std::vector<std::unique_ptr<TagMap>> read;
    for (int i = 0; i < 3; ++i) {
        int const length = TagMap::readLength(in);
        LmMsg body(in.readRawBytes(static_cast<size_t>(length)), static_cast<size_t>(length));
        read.push_back(std::make_unique<TagMap>());
        read.back()->deserialize(body, nullptr, previews);
        EXPECT_FALSE(body.failed());
        if (i == 0) {
            EXPECT_EQ(length, 5 + 7 + 1); // the marker, and the index of the preview
        }
    }
    for (int i : {0, 1}) {
        EXPECT_EQ(read[i]->elements().size(), 2 - i);
        EXPECT_EQ(read[i]->ownElement(Mdx::Tags::PreviewData)->mValue, "same");
    }
    EXPECT_TRUE(read[0]->ownElement(DCM_PatientID)->isMissingMarker());
    EXPECT_EQ(read[2]->elements().keys(), QList<DcmTagKey>({DCM_Modality}));
}

} // namespace
