// The study tree: adding, replacing, refusing, finding and removing images,
// and the static options of tag files.
#include "support/TestSupport.h"

#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Loader.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;

QByteArray text(TagMap const* node, DcmTagKey const& key)
{
    QByteArray value;
    node->findAndGetString(key, value);
    return value;
}

// Adds one image built in memory; extra attributes as "key=value" pairs.
TagMap* addImage(TagFile& file, char const* study, char const* series, char const* sop, bool replace = false,
                 char const* fileName = nullptr, std::map<DcmTagKey, char const*> extra = {})
{
    std::unique_ptr<DcmDataset> dataset(mdxtest::makeImageDataset(study, series, sop));
    for (auto const& [key, value] : extra)
        dataset->putAndInsertString(key, value);
    return file.addDataset(dataset.get(), fileName, replace);
}

TEST(StudyTree, imagesJoinOneStudyOnceAndAreReplacedOnlyWhenAsked)
{
    TagFile file;
    TagMap* image = addImage(file, "1.2", "1.2.3", "1.2.3.4", false, nullptr, {{DCM_PatientID, "first"}});
    ASSERT_NE(image, nullptr);
    TagMap* series = file.findSeries("1.2.3");
    ASSERT_TRUE(image->parent() == series && series->parent() == file.study());
    // Each node keeps its own UID; everything else went to the top.
    EXPECT_EQ(image->elements().keys(), QList<DcmTagKey>({DCM_SOPInstanceUID}));
    EXPECT_EQ(series->elements().keys(), QList<DcmTagKey>({DCM_SeriesInstanceUID}));
    EXPECT_EQ(text(image, DCM_PatientName), "Doe^Jane");

    // A known image without replace, or one of another study, is refused.
    EXPECT_EQ(addImage(file, "1.2", "1.2.3", "1.2.3.4", false, nullptr, {{DCM_PatientID, "second"}}),
              nullptr);
    EXPECT_EQ(addImage(file, "9.9", "9.9.9", "9.9.9.9"), nullptr);
    EXPECT_EQ(text(file.findImage("1.2.3.4"), DCM_PatientID), "first");
    EXPECT_EQ(std::make_tuple(file.studies().size(), file.series().size(), file.images().size()),
              std::make_tuple(1, 1, 1));

    // Replacing the only image of a series makes the series anew; replacing
    // one of several keeps the others as they were.
    TagMap* replaced = addImage(file, "1.2", "1.2.3", "1.2.3.4", true, nullptr, {{DCM_PatientID, "changed"}});
    ASSERT_EQ(file.findImage("1.2.3.4"), replaced);
    EXPECT_EQ(text(replaced, DCM_PatientID) + text(replaced, DCM_PatientName), "changedDoe^Jane");
    addImage(file, "1.2", "1.2.3", "1.2.3.5", false, nullptr, {{DCM_PatientID, "changed"}});
    addImage(file, "1.2", "1.2.3", "1.2.3.5", true, nullptr,
             {{DCM_PatientID, "changed"}, {DCM_ImageComments, "new"}});
    EXPECT_EQ(file.study()->children().size(), 1);
    EXPECT_EQ(file.findSeries("1.2.3")->children().size(), 2);
    EXPECT_EQ(text(file.findImage("1.2.3.5"), DCM_ImageComments), "new");
    EXPECT_EQ(file.findImage("1.2.3.4")->findElement(DCM_ImageComments), nullptr);
}

TEST(StudyTree, fileNamesGiveSuffixesAndOptionallyPaths)
{
    TagFile file;
    TagMap* image = addImage(file, "1.2", "1.2.3", "1.2.3.4", false, "/data/1.2/1.2.3.4_abc.dcm");
    EXPECT_EQ(text(image, Mdx::Tags::FileSuffix), "abc");
    EXPECT_EQ(image->findElement(Mdx::Tags::DicomFilePath), nullptr);

    file.setStoreFilePaths(true);
    image = addImage(file, "1.2", "1.2.3", "1.2.3.5", false, "/data/1.2/1.2.3.5_abc.dcm");
    EXPECT_EQ(text(image, Mdx::Tags::DicomFilePath), "/data/1.2/1.2.3.5_abc.dcm");
}

TEST(StudyTree, takeImageGivesAFlatCopyAndLeavesAnEmptySeriesUntilCleanup)
{
    TagFile file;
    addImage(file, "1.2", "1.2.3", "1.2.3.4");
    std::unique_ptr<TagMap> taken(file.takeImage("1.2.3.4"));
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(taken->parent(), nullptr);
    EXPECT_NE(taken->ownElement(DCM_PatientName), nullptr);
    EXPECT_NE(taken->ownElement(DCM_SeriesInstanceUID), nullptr);
    EXPECT_EQ(file.takeImage("1.2.3.4"), nullptr);

    EXPECT_EQ(file.images().size(), 0);
    EXPECT_EQ(file.series().size(), 1);
    file.deleteEmptyNodes();
    EXPECT_EQ(file.series().size(), 0);
    EXPECT_TRUE(file.studies().isEmpty());
}

TEST(StudyTree, removingImagesAndSeriesCountsWhatWasRemoved)
{
    TagFile file;
    addImage(file, "1.2", "1.2.3", "1.2.3.1");
    addImage(file, "1.2", "1.2.3", "1.2.3.2");
    addImage(file, "1.2", "1.2.4", "1.2.4.1");

    char const* images[] = {"1.2.3.1", "unknown", "1.2.3.1"};
    EXPECT_EQ(file.removeImages(3, images), 1);
    EXPECT_EQ(file.images().size(), 2);

    char const* series[] = {"1.2.3", "nope"};
    EXPECT_EQ(file.removeSeries(2, series), 1);
    EXPECT_EQ(file.findImage("1.2.3.2"), nullptr);
    EXPECT_EQ(file.series().size(), 1);

    char const* last[] = {"1.2.4.1"};
    EXPECT_EQ(file.removeImages(1, last), 1);
    EXPECT_TRUE(file.series().isEmpty());
    EXPECT_TRUE(file.studies().isEmpty());

    // An emptied file accepts another study.
    EXPECT_NE(addImage(file, "7.7", "7.7.7", "7.7.7.7"), nullptr);
}

TEST(StudyTree, findImagesFiltersInUIDOrder)
{
    TagFile file;
    addImage(file, "1.2", "1.2.3", "1.2.3.9", false, nullptr, {{DCM_InstanceNumber, "9"}});
    addImage(file, "1.2", "1.2.3", "1.2.3.1", false, nullptr, {{DCM_InstanceNumber, "1"}});
    addImage(file, "1.2", "1.2.4", "1.2.4.5", false, nullptr, {{DCM_InstanceNumber, "5"}});
    auto const found = file.findImages([](TagMap const* image) {
        int number = 0;
        return image->findAndGetInt(DCM_InstanceNumber, number) && number >= 5;
    });
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(text(found[0], DCM_SOPInstanceUID), "1.2.3.9");
    EXPECT_EQ(text(found[1], DCM_SOPInstanceUID), "1.2.4.5");
    EXPECT_THROW(file.findImages(nullptr), std::bad_function_call);
}

TEST(StudyTree, addSeriesRefusesNothingToAddAndForeignOrKnownSeries)
{
    TagFile file;
    EXPECT_FALSE(file.addSeries(0, nullptr, nullptr));
    EXPECT_TRUE(file.studies().isEmpty());

    // A finished series node joins a known study only, and only once.
    auto makeSeries = [](char const* study, char const* uid) {
        auto* series = new TagMap;
        series->putAndInsertValue(DCM_StudyInstanceUID, Mdx::VR_UI, study);
        series->putAndInsertValue(DCM_SeriesInstanceUID, Mdx::VR_UI, uid);
        series->putAndInsertValue(DCM_Modality, Mdx::VR_CS, "MR");
        return series;
    };
    std::unique_ptr<TagMap> orphan(makeSeries("1.2", "1.2.8"));
    EXPECT_FALSE(file.addSeries(orphan.get()));

    addImage(file, "1.2", "1.2.3", "1.2.3.1");
    std::unique_ptr<TagMap> known(makeSeries("1.2", "1.2.3"));
    EXPECT_FALSE(file.addSeries(known.get()));
    TagMap* fresh = makeSeries("1.2", "1.2.9");
    ASSERT_TRUE(file.addSeries(fresh));
    EXPECT_EQ(file.findSeries("1.2.9"), fresh);
    EXPECT_EQ(fresh->parent(), file.study());
    EXPECT_EQ(text(fresh, DCM_Modality), "MR");
}

TEST(StudyTree, addSeriesOfDatasetsOptimisesTheSeries)
{
    std::vector<std::unique_ptr<DcmDataset>> owned;
    std::vector<DcmDataset*> datasets;
    for (int i = 0; i < 4; ++i) {
        std::string const sop = "1.2.3." + std::to_string(i);
        owned.emplace_back(mdxtest::makeImageDataset("1.2", "1.2.3", sop.c_str()));
        owned.back()->putAndInsertString(DCM_InstanceNumber, std::to_string(i).c_str());
        // Three images share a window centre, one differs.
        owned.back()->putAndInsertString(DCM_WindowCenter, i == 3 ? "400" : "40");
        datasets.push_back(owned.back().get());
    }
    char const* names[] = {"a_x.dcm", "b_x.dcm", "c_x.dcm", "d_y.dcm"};
    TagFile file;
    ASSERT_TRUE(file.addSeries(4, datasets.data(), names));
    TagMap* series = file.findSeries("1.2.3");
    ASSERT_NE(series, nullptr);
    EXPECT_EQ(file.study()->elements().size(), 1);
    // The commonest value moved up to the series; the one that differs stays.
    ASSERT_NE(series->ownElement(DCM_WindowCenter), nullptr);
    EXPECT_EQ(series->ownElement(DCM_WindowCenter)->mValue, "40");
    EXPECT_EQ(file.findImage("1.2.3.0")->ownElement(DCM_WindowCenter), nullptr);
    EXPECT_EQ(text(file.findImage("1.2.3.3"), DCM_WindowCenter), "400");
    EXPECT_EQ(text(file.findImage("1.2.3.3"), Mdx::Tags::FileSuffix), "y");
    EXPECT_EQ(text(file.findImage("1.2.3.0"), Mdx::Tags::FileSuffix), "x");
}

TEST(StudyTree, moveConstructionTakesTheTreeAndTheStudyNodeCanOutliveIt)
{
    std::shared_ptr<TagMap> study;
    {
        TagFile file;
        addImage(file, "1.2", "1.2.3", "1.2.3.1");
        TagFile moved(std::move(file));
        EXPECT_TRUE(file.images().isEmpty() && file.studies().isEmpty());
        int series, images, volumes, previews, optimizeMsec, readMsec, writeMsec, compressed, uncompressed,
            unoptimized, previewBytes;
        moved.getStatistics(series, images, volumes, previews, optimizeMsec, readMsec, writeMsec, compressed,
                            uncompressed, unoptimized, previewBytes);
        EXPECT_EQ(std::make_tuple(series, images, volumes), std::make_tuple(1, 1, 0));
        study = moved.studies().first();
    }
    ASSERT_EQ(study->children().size(), 1);
    EXPECT_EQ(text(study->children().first()->children().first(), DCM_PatientName), "Doe^Jane");
}

TEST(StudyTree, unreadableFilesAreLoggedAndRefused)
{
    mdxtest::LogCapture log;
    TagFile file;
    EXPECT_EQ(file.addDicomFile("/nonexistent/file.dcm", nullptr, false), nullptr);
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.count(McLogFile::LevelError, "Could not load /nonexistent/file.dcm: "), 1);
}

TEST(StudyTree, addDicomFileReadsARealFile)
{
    MDX_REQUIRE_SAMPLES();
    QByteArray const path = (mdxtest::samplesDir() + "/pydicom/CT_small.dcm").toLocal8Bit();
    TagFile file;
    TagMap* image = file.addDicomFile(path.constData(), "CT_small.dcm", false);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(text(image, DCM_Modality), "CT");
    // The pixel data is larger than 1 KB: it is known to exist, not kept.
    ASSERT_NE(image->findElement(DCM_PixelData), nullptr);
    EXPECT_TRUE(image->findElement(DCM_PixelData)->isOmittedMarker());
    // Explicit little endian is stored code 2.
    ASSERT_NE(image->findElement(Mdx::Tags::TransferSyntax), nullptr);
    EXPECT_EQ(image->findElement(Mdx::Tags::TransferSyntax)->mValue, QByteArray(1, 2));
    EXPECT_EQ(text(image, Mdx::Tags::FileSuffix), "small");
}

TEST(Suffix, extractSuffixCutsNameQueryAndExtension)
{
    auto suffix = [](char const* path) { return Mdx::Loader::extractSuffix(path, nullptr).toStdString(); };
    EXPECT_EQ(suffix("/data/1.2.3/1.2.3.4_abc.dcm"), "abc");
    EXPECT_EQ(suffix("C:\\data\\1.2_3_x.dcm"), "x");
    EXPECT_EQ(suffix("/data/plain.dcm"), "plain");
    EXPECT_EQ(suffix("/data/1.2.3.4_abc.dcm?QA=7"), "abc");
    EXPECT_EQ(suffix("/data/1.2.3.4_abc.jpg"), "");
    EXPECT_EQ(suffix("a.dcm"), ""); // the name ends below position 6
    EXPECT_EQ(suffix("ab.dcm"), "ab");
    EXPECT_EQ(suffix("/dir_x/name.dcm"), "name"); // never past the file name's start
    EXPECT_EQ(suffix("/data/_.dcm"), "");
    EXPECT_EQ(suffix(""), "");

    int qa = -1;
    EXPECT_EQ(Mdx::Loader::extractSuffix("s3://bucket/1.2_v2.dcm?QA=42", &qa), "v2");
    EXPECT_EQ(qa, 42);
    qa = -1;
    Mdx::Loader::extractSuffix("/data/1.2_v2.dcm?x=1", &qa);
    EXPECT_EQ(qa, -1);
}

TEST(MetaFolder, setMetaFolderNormalisesAndFallsBackToConfiguration)
{
    TagFile::setMetaFolder("");
    EXPECT_STREQ(TagFile::metaFolder(), "./");
    TagFile::setMetaFolder("C:\\meta\\tags");
    EXPECT_STREQ(TagFile::metaFolder(), "C:/meta/tags/");
    TagFile::setMetaFolder("/srv/meta/");
    EXPECT_STREQ(TagFile::metaFolder(), "/srv/meta/");

    TagFile::sMetaFolder.clear();
    setenv("MDX_META_FOLDER", "/configured/meta", 1);
    EXPECT_STREQ(TagFile::metaFolder(), "/configured/meta/");
    unsetenv("MDX_META_FOLDER");
    TagFile::sMetaFolder.clear();
    EXPECT_STREQ(TagFile::metaFolder(), "./meta/");
    TagFile::sMetaFolder.clear();
}

} // namespace
