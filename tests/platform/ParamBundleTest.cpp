// Parameter bundles, private tags in DCMTK datasets, and the file cache.
#include "support/TestSupport.h"

#include <mdxlib/platform/ExDicomUtilities.h>
#include <mdxlib/platform/ExFileCache.h>
#include <mdxlib/platform/HxParamBundle.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

namespace {

TEST(ParamBundle, orderedTypedAndNested)
{
    HxParamBundle bundle("top");
    bundle.set("b", std::string("text"));
    bundle.set("a", std::vector<double>{1.5, 2.5});
    bundle.setNum("c", 7);
    bundle.set("b", std::string("again")); // replaced in its place
    ASSERT_EQ(bundle.nParameters(), 3);
    EXPECT_EQ(bundle.parameter(0)->name(), "b");
    EXPECT_EQ(bundle.parameter(0)->getString(), "again");
    double reals[2] = {};
    EXPECT_TRUE(bundle.findReal("a", 2, reals));
    EXPECT_EQ(reals[1], 2.5);
    EXPECT_FALSE(bundle.findReal("a", 3, reals));
    int number = 0;
    EXPECT_TRUE(bundle.findNum("c", 1, &number));
    EXPECT_EQ(number, 7);
    EXPECT_EQ(bundle.find("a")->getString(), "1.5\\2.5");

    HxParamBundle* sub = bundle.bundle("SUV", true);
    sub->setReal("Slope", 2.0);
    HxParamBundle copy = bundle; // deep
    sub->setReal("Slope", 3.0);
    EXPECT_EQ(copy.bundle("SUV")->find("Slope")->getReal(), 2.0);
    EXPECT_TRUE(bundle.remove("b"));
    EXPECT_TRUE(bundle.remove("SUV"));
    EXPECT_FALSE(bundle.remove("SUV"));
    EXPECT_EQ(bundle.find("c")->getNum(), 7); // found after the index was rebuilt
    EXPECT_EQ(bundle.nBundles(), 0);
}

TEST(ParamBundle, privateTagsByCreatorAndTheDicomBundle)
{
    HxParamBundle parameters("volume");
    // Without a DICOM bundle the ...InAll calls work on the bundle itself.
    parameters.setTagInAll(0x0010, 0x0010, "Doe^John");
    EXPECT_STREQ(parameters.findTag(0x0010, 0x0010), "Doe^John");
    HxParamBundle* all = parameters.dicomAllCreate();
    parameters.setTagInAll(0x0008, 0x0060, "PT");
    EXPECT_STREQ(all->findTag(0x0008, 0x0060), "PT");
    EXPECT_FALSE(parameters.findTagInAll(0x0010, 0x0010));

    EXPECT_TRUE(all->setPrivateTag("First", 0x0029, 0x0010, "one"));
    EXPECT_TRUE(all->setPrivateTag("Second", 0x0029, 0x1010, "two"));
    EXPECT_TRUE(all->setPrivateTag("First", 0x0029, 0x1111, "three"));
    EXPECT_STREQ(all->findTag(0x0029, 0x0010), "First");
    EXPECT_STREQ(all->findTag(0x0029, 0x0011), "Second");
    EXPECT_STREQ(all->findTag(0x0029, 0x1110), "two");
    EXPECT_STREQ(all->findPrivateTag("First", "G0029-xx11"), "three");
    EXPECT_STREQ(all->findPrivateTag("Second", "G0029-XX10"), "two");
    EXPECT_STREQ(parameters.findPrivateTagInAll("First", 0x0029, 0x0010), "one");
    for (char const* bad : {"G0029-1010", "G0029-xx1", "0029-xx10", "G00Z9-xx10"})
        EXPECT_STREQ(all->findPrivateTag("Second", bad, "none"), "none") << bad;
    EXPECT_FALSE(all->setPrivateTag("Even", 0x0028, 0x0010, "x"));
}

TEST(ParamBundle, copiedFromADatasetWithSequenceItems)
{
    DcmDataset dataset;
    dataset.putAndInsertString(DCM_Modality, "PT");
    dataset.putAndInsertUint16(DCM_Rows, 128);
    DcmItem* item = nullptr;
    ASSERT_TRUE(
        dataset.findOrCreateSequenceItem(DCM_RadiopharmaceuticalInformationSequence, item, -2).good());
    item->putAndInsertString(DCM_RadionuclideTotalDose, "370000000");
    ASSERT_TRUE(
        dataset.findOrCreateSequenceItem(DCM_RadiopharmaceuticalInformationSequence, item, -2).good());
    item->putAndInsertString(DCM_RadionuclideTotalDose, "1");
    Uint8 const bytes[4] = {1, 2, 3, 4};
    dataset.putAndInsertUint8Array(DCM_PixelData, bytes, 4);

    HxParamBundle bundle;
    ExDicomUtilities::copyToParamBundle(&dataset, bundle);
    EXPECT_STREQ(bundle.findTag(0x0008, 0x0060), "PT");
    EXPECT_STREQ(bundle.findTag(0x0028, 0x0010), "128");
    EXPECT_FALSE(bundle.findTag(0x7FE0, 0x0010));
    ASSERT_TRUE(bundle.sequenceItem(0x0054, 0x0016, 1));
    EXPECT_STREQ(bundle.sequenceItem(0x0054, 0x0016, 0)->findTag(0x0018, 0x1074), "370000000");
    EXPECT_STREQ(bundle.sequenceItem(0x0054, 0x0016, 1)->findTag(0x0018, 0x1074), "1");
    EXPECT_FALSE(bundle.sequenceItem(0x0054, 0x0016, 2));
}

TEST(PrivateTags, blockReusedElseFirstFreeElseRefused)
{
    DcmDataset dataset;
    dataset.putAndInsertString(DcmTag(DcmTagKey(0x0071, 0x0010), EVR_LO), "Other");
    ASSERT_TRUE(ExDicomUtilities::setPrivateTag(&dataset, 0x0071, 0x1021, "Lumora", "a", EVR_UT).good());
    ASSERT_TRUE(ExDicomUtilities::setPrivateTag(&dataset, 0x0071, 0x0022, "Lumora", "b", EVR_LO).good());
    char const* value = nullptr;
    EXPECT_TRUE(dataset.findAndGetString(DcmTagKey(0x0071, 0x0011), value).good());
    EXPECT_STREQ(value, "Lumora");
    DcmElement* element = nullptr;
    ASSERT_TRUE(dataset.findAndGetElement(DcmTagKey(0x0071, 0x1121), element).good());
    EXPECT_EQ(element->getVR(), EVR_UT);
    EXPECT_TRUE(dataset.findAndGetString(DcmTagKey(0x0071, 0x1122), value).good());
    EXPECT_STREQ(value, "b");
    EXPECT_FALSE(ExDicomUtilities::setPrivateTag(&dataset, 0x0070, 0x1021, "Lumora", "a", EVR_UT).good());
    for (int block = 0x12; block <= 0xFF; ++block)
        dataset.putAndInsertString(DcmTag(DcmTagKey(0x0071, static_cast<Uint16>(block)), EVR_LO), "Full");
    EXPECT_FALSE(ExDicomUtilities::setPrivateTag(&dataset, 0x0071, 0x0010, "New", "x", EVR_LO).good());
}

TEST(FileCache, entriesNamedByTheMd5OfTheirKey)
{
    mdxtest::ScopedEnv env;
    env.unset("MDX_FILE_CACHE_FOLDER");
    ExFileCache cache;
    EXPECT_FALSE(cache.init(0));
    QTemporaryDir dir;
    env.set("MDX_FILE_CACHE_FOLDER", dir.filePath("cache").toStdString());
    ASSERT_TRUE(cache.init(0));
    char const key[] = "s3://bucket/Level1/1.2.3_x.dcm";
    ASSERT_TRUE(cache.putBuffer(key, "bytes"));
    QProcess md5;
    md5.start("md5sum", QStringList());
    md5.write(key);
    md5.closeWriteChannel();
    ASSERT_TRUE(md5.waitForFinished(10000));
    QByteArray const digest = md5.readAllStandardOutput().left(32);
    EXPECT_EQ(QFileInfo(cache.entryPath(key)).fileName().toLatin1(), digest);
    QByteArray bytes;
    EXPECT_TRUE(cache.getBuffer(key, bytes));
    EXPECT_EQ(bytes, "bytes");
    EXPECT_TRUE(cache.removeBuffer(key));
    EXPECT_TRUE(cache.removeBuffer(key)); // gone already
    EXPECT_FALSE(cache.hasBuffer(key));
}

} // namespace
