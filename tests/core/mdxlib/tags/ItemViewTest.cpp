// Item views: the same real files seen as DCMTK datasets (ItemOF) and as
// tag maps of a tag file (ItemTM) give the same answers; what only the tag
// map view does (omitted values from the file, its own range condition).
#include "support/TestSupport.h"

#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/ItemOF.h>
#include <mdxlib/tags/ItemTM.h>
#include <mdxlib/tags/SequenceOfItems.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcfilefo.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using Mdx::Item;
using Mdx::ItemOF;
using Mdx::ItemTM;
using Mdx::SequenceOfItems;

struct Views
{
    Mdx::TagFile file;
    std::shared_ptr<Item> tm;
    std::unique_ptr<ItemOF> of;
};

void open(QString const& path, Views& views)
{
    DcmFileFormat format;
    QByteArray const local = path.toLocal8Bit();
    ASSERT_TRUE(format.loadFile(local.constData()).good());
    views.file.setStoreFilePaths(true);
    std::shared_ptr<DcmDataset> dataset(format.getAndRemoveDataset());
    OFString sop;
    dataset->findAndGetOFString(DCM_SOPInstanceUID, sop);
    views.of.reset(new ItemOF(dataset));
    ASSERT_TRUE(views.file.addDicomFile(local.constData(), local.constData(), false, nullptr));
    views.tm = views.file.findImageEx(QByteArray(sop.c_str()), QByteArray(), 0);
    ASSERT_TRUE(views.tm);
}

// One line per answer, so that a difference names the key and operation.
std::string answers(Item& item, DcmTagKey const& key)
{
    std::string out, value;
    OFCondition status = item.findAndGetOFString(key, value);
    out += "exists=" + std::to_string(item.tagExists(key)) + " string=" + (status.good() ? value : "-");
    status = item.findAndGetOFStringArray(key, value);
    out += " array=" + (status.good() ? value : "-");
    return out;
}

TEST(ItemViews, datasetAndTagMapGiveTheSameAnswers)
{
    MDX_REQUIRE_SAMPLES();
    std::vector<DcmTagKey> const strings = {
        DCM_PatientName,          DCM_StudyInstanceUID,     DCM_Modality,
        DCM_ImagePositionPatient, DCM_PixelSpacing,         DCM_WindowCenter,
        DCM_InstanceNumber,       DCM_SeriesNumber,         DCM_AccessionNumber,
        DCM_RescaleSlope,         DcmTagKey(0x0009, 0x0001)};
    std::vector<DcmTagKey> const words = {DCM_Rows, DCM_Columns, DCM_BitsAllocated, DCM_PixelRepresentation};
    // Integers: the tag map view also reads decimal strings as numbers,
    // which DCMTK does not, so only integer VRs are compared.
    std::vector<DcmTagKey> const integers = {DCM_InstanceNumber, DCM_SeriesNumber, DCM_Rows, DCM_BitsStored};
    for (char const* name : {"CT_small.dcm", "MR_small.dcm", "JPEG-lossy.dcm", "MR_small_RLE.dcm"}) {
        SCOPED_TRACE(name);
        Views views;
        open(mdxtest::samplesDir() + "/pydicom/" + name, views);
        for (DcmTagKey const& key : strings)
            EXPECT_EQ(answers(*views.tm, key), answers(*views.of, key)) << key.toString().c_str();
        for (DcmTagKey const& key : integers) {
            long a = -1, b = -2;
            EXPECT_EQ(views.tm->findAndGetLongInt(key, a).good(), views.of->findAndGetLongInt(key, b).good());
            EXPECT_EQ(a, b) << key.toString().c_str();
        }
        for (DcmTagKey const& key : words) {
            unsigned short a = 0, b = 0;
            EXPECT_TRUE(views.tm->findAndGetUint16(key, a).good());
            EXPECT_TRUE(views.of->findAndGetUint16(key, b).good());
            EXPECT_EQ(a, b) << key.toString().c_str();
        }
        EXPECT_EQ(views.tm->transferSyntax(), views.of->transferSyntax());
        EXPECT_EQ(views.tm->isEncapsulated(), views.of->isEncapsulated());
        EXPECT_TRUE(views.tm->tagExists(DCM_PixelData));
        if (views.of->isEncapsulated())
            continue;
        // Native pixel data is beyond the tag file's size limit: present
        // but omitted.
        EXPECT_TRUE(views.tm->tagOmitted(DCM_PixelData));
        EXPECT_FALSE(views.of->tagOmitted(DCM_PixelData));
        std::string text;
        EXPECT_TRUE(views.tm->findAndGetOFString(DCM_PixelData, text).good());
        EXPECT_TRUE(text.empty());
    }
}

TEST(ItemViews, sequencesAndTheirRangeConditions)
{
    MDX_REQUIRE_SAMPLES();
    Views views;
    open(mdxtest::samplesDir() + "/pydicom/rtplan.dcm", views);
    DcmTagKey const beams = DCM_BeamSequence;
    for (Item* item : {static_cast<Item*>(views.tm.get()), static_cast<Item*>(views.of.get())}) {
        SequenceOfItems* first = nullptr;
        SequenceOfItems* second = nullptr;
        ASSERT_TRUE(item->findAndGetSequence(beams, first).good());
        ASSERT_TRUE(item->findAndGetSequence(beams, second).good());
        EXPECT_EQ(first, second);
        EXPECT_EQ(first->card(), 1u);
        Item* beam = nullptr;
        ASSERT_TRUE(item->findAndGetSequenceItem(beams, beam, 0).good());
        std::string name;
        EXPECT_TRUE(beam->findAndGetOFString(DCM_BeamName, name).good());
        EXPECT_EQ(name, "Field 1");
        EXPECT_EQ(beam, first->getItem(0));
        EXPECT_TRUE(item->findAndGetSequence(DCM_Modality, first).bad());
    }
    Item* none = nullptr;
    EXPECT_EQ(views.of->findAndGetSequenceItem(beams, none, -1), EC_IllegalCall);
    OFCondition const outside = views.tm->findAndGetSequenceItem(beams, none, 1);
    EXPECT_EQ(outside.module(), 1000);
    EXPECT_EQ(outside.code(), 1);
    EXPECT_STREQ(outside.text(), "index out of range");
    EXPECT_EQ(views.tm->findAndGetSequenceItem(beams, none, -1), Mdx::EC_IndexOutOfRange);
}

TEST(ItemViews, omittedValuesComeFromTheFileAndAFailedLoadIsLoggedOnce)
{
    MDX_REQUIRE_SAMPLES();
    Views views;
    open(mdxtest::samplesDir() + "/pydicom/CT_small.dcm", views);
    std::shared_ptr<DcmDataset> dataset = views.tm->obtainDcmDataset();
    ASSERT_TRUE(dataset);
    EXPECT_EQ(views.tm->obtainDcmDataset(), dataset);
    ItemOF fromFile(dataset);
    unsigned long tm = 0, of = 0;
    unsigned short const* pixels = nullptr;
    EXPECT_TRUE(fromFile.findAndGetUint16Array(DCM_PixelData, pixels, &tm).good());
    EXPECT_TRUE(views.of->findAndGetUint16Array(DCM_PixelData, pixels, &of).good());
    EXPECT_EQ(tm, of);

    std::unique_ptr<Mdx::TagMap> map(mdxtest::makeNode("0006,7100=/no/such/file.dcm"));
    ItemTM broken(*map);
    mdxtest::LogCapture log;
    EXPECT_FALSE(broken.obtainDcmDataset());
    EXPECT_FALSE(broken.obtainDcmDataset());
    EXPECT_EQ(log.count(3, "Could not load /no/such/file.dcm"), 1);

    std::unique_ptr<Mdx::TagMap> pathless(mdxtest::makeNode("Modality=CT"));
    EXPECT_FALSE(ItemTM(*pathless).obtainDcmDataset());
    EXPECT_EQ(log.count(3, "MDX_DicomFilePath undefined"), 1);

    // A view of no dataset finds nothing and keeps its shared item empty.
    ItemOF empty{std::shared_ptr<DcmDataset>()};
    EXPECT_TRUE(empty.putAndInsertStringArray(DCM_Modality, "CT").bad());
    EXPECT_FALSE(ItemOF(std::shared_ptr<DcmDataset>()).tagExists(DCM_Modality));
}

TEST(ItemViews, tagMapWritesAndMarkers)
{
    std::unique_ptr<Mdx::TagMap> series(mdxtest::makeNode("Modality=MR|SeriesDescription=a"));
    Mdx::TagMap* image = mdxtest::link(series.get(), mdxtest::makeNode("SeriesDescription=~"));
    ItemTM view(*image);
    EXPECT_FALSE(view.tagExists(DCM_SeriesDescription)); // the missing marker hides the series value
    EXPECT_TRUE(view.putAndInsertStringArray(DCM_Modality, "CT").good());
    std::string value;
    ItemTM(*series).findAndGetOFString(DCM_Modality, value);
    EXPECT_EQ(value, "CT"); // inherited: changed in place, for the siblings too
    EXPECT_TRUE(view.putAndInsertStringArray(DCM_ImageType, "ORIGINAL\\PRIMARY").good());
    EXPECT_TRUE(view.findAndGetOFString(DCM_ImageType, value).good());
    EXPECT_EQ(value, "ORIGINAL");
    DcmEVR vr = EVR_UNKNOWN;
    EXPECT_TRUE(view.tagExists(DCM_ImageType, vr));
    EXPECT_EQ(vr, EVR_CS);
    EXPECT_FALSE(view.isEncapsulated());
}

} // namespace
