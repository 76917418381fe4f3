// The study tree: adding, replacing, refusing, finding and removing images,
// and the static options of tag files.
#include "support/TagLayer.h"

#include <mdxlib/volumes/Loader.h>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;
using mdxtest::addImage;

QByteArray text(TagMap const* node, DcmTagKey const& key)
{
    QByteArray value;
    node->findAndGetString(key, value);
    return value;
}

TEST(StudyTree, imagesJoinOneStudyOnceAndAreReplacedOnlyWhenAsked)
{
    TagFile file;
    TagMap* image = addImage(file, "1.2", "1.2.3", "1.2.3.4", {{DCM_PatientID, "first"}});
    ASSERT_NE(image, nullptr);
    TagMap* series = file.findSeries("1.2.3");
    ASSERT_TRUE(image->parent() == series && series->parent() == file.study());
    // Each node keeps its own UID; everything else went to the top.
    EXPECT_EQ(image->elements().keys(), QList<DcmTagKey>({DCM_SOPInstanceUID}));
    EXPECT_EQ(series->elements().keys(), QList<DcmTagKey>({DCM_SeriesInstanceUID}));
    // A known image without replace, or one of another study, is refused.
    EXPECT_EQ(addImage(file, "1.2", "1.2.3", "1.2.3.4", {{DCM_PatientID, "second"}}), nullptr);
    EXPECT_EQ(addImage(file, "9.9", "9.9.9", "9.9.9.9"), nullptr);
    EXPECT_EQ(text(file.findImage("1.2.3.4"), DCM_PatientID), "first");
    EXPECT_EQ(std::make_tuple(file.studies().size(), file.series().size(), file.images().size()),
              std::make_tuple(1, 1, 1));
    // Replacing the only image of a series makes the series anew; replacing
    // one of several keeps the others as they were.
    TagMap* replaced =
        addImage(file, "1.2", "1.2.3", "1.2.3.4", {{DCM_PatientID, "changed"}}, 0, nullptr, true);
    ASSERT_EQ(file.findImage("1.2.3.4"), replaced);
    EXPECT_EQ(text(replaced, DCM_PatientID) + text(replaced, DCM_PatientName), "changedDoe^Jane");
    addImage(file, "1.2", "1.2.3", "1.2.3.5", {{DCM_PatientID, "changed"}});
    addImage(file, "1.2", "1.2.3", "1.2.3.5", {{DCM_PatientID, "changed"}, {DCM_ImageComments, "new"}}, 0,
             nullptr, true);
    EXPECT_EQ(file.findSeries("1.2.3")->children().size(), 2);
    EXPECT_EQ(text(file.findImage("1.2.3.5"), DCM_ImageComments), "new");
    EXPECT_EQ(file.findImage("1.2.3.4")->findElement(DCM_ImageComments), nullptr);
}

TEST(StudyTree, takingAndRemovingImagesAndSeries)
{
    TagFile file;
    for (char const* sop : {"1.2.3.1", "1.2.3.2", "1.2.3.3"})
        addImage(file, "1.2", "1.2.3", sop, {{DCM_InstanceNumber, sop + 6}});
    addImage(file, "1.2", "1.2.4", "1.2.4.1");
    // A taken image is a flat copy.
    std::unique_ptr<TagMap> taken(file.takeImage("1.2.3.3"));
    ASSERT_NE(taken, nullptr);
    EXPECT_TRUE(taken->parent() == nullptr && taken->ownElement(DCM_PatientName) &&
                taken->ownElement(DCM_SeriesInstanceUID));
    EXPECT_EQ(file.takeImage("1.2.3.3"), nullptr);
    // findImages filters in UID order.
    auto const found = file.findImages(
        [](TagMap const* image) { return image->findElement(DCM_InstanceNumber) != nullptr; });
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(text(found[1], DCM_SOPInstanceUID), "1.2.3.2");
    // Removals count what was removed.
    char const* images[] = {"1.2.3.1", "unknown", "1.2.3.1"};
    EXPECT_EQ(file.removeImages(3, images), 1);
    char const* series[] = {"1.2.3", "nope"};
    EXPECT_EQ(file.removeSeries(2, series), 1);
    EXPECT_EQ(std::make_pair(file.series().size(), file.images().size()), std::make_pair(1, 1));
    char const* last[] = {"1.2.4.1"};
    EXPECT_EQ(file.removeImages(1, last), 1);
    EXPECT_TRUE(file.series().isEmpty() && file.studies().isEmpty());
    EXPECT_NE(addImage(file, "7.7", "7.7.7", "7.7.7.7"), nullptr); // an emptied file takes another study
    // Taking the last image leaves an empty series until the cleanup.
    taken.reset(file.takeImage("7.7.7.7"));
    EXPECT_EQ(file.series().size(), 1);
    file.deleteEmptyNodes();
    EXPECT_TRUE(file.series().isEmpty() && file.studies().isEmpty());
}

TEST(StudyTree, addSeriesOptimisesItAndRefusesNothingToAddAndForeignOrKnownSeries)
{
    TagFile file;
    EXPECT_FALSE(file.addSeries(0, nullptr, nullptr));
    EXPECT_TRUE(file.studies().isEmpty());
    auto makeSeries = [](char const* uid) {
        auto* series = new TagMap;
        series->putAndInsertValue(DCM_StudyInstanceUID, Mdx::VR_UI, "1.2");
        series->putAndInsertValue(DCM_SeriesInstanceUID, Mdx::VR_UI, uid);
        return series;
    };
    std::unique_ptr<TagMap> orphan(makeSeries("1.2.8")); // no study yet
    EXPECT_FALSE(file.addSeries(orphan.get()));

    std::vector<std::unique_ptr<DcmDataset>> owned;
    std::vector<DcmDataset*> datasets;
    for (int i = 0; i < 4; ++i) {
        owned.emplace_back(mdxtest::makeImageDataset("1.2", "1.2.3", ("1.2.3." + std::to_string(i)).c_str()));
        owned.back()->putAndInsertString(DCM_WindowCenter, i == 3 ? "400" : "40");
        datasets.push_back(owned.back().get());
    }
    char const* names[] = {"a_x.dcm", "b_x.dcm", "c_x.dcm", "d_y.dcm"};
    ASSERT_TRUE(file.addSeries(4, datasets.data(), names));
    // The commonest value moved up to the series; the one that differs stays.
    EXPECT_EQ(file.study()->elements().size(), 1);
    EXPECT_EQ(file.findSeries("1.2.3")->ownElement(DCM_WindowCenter)->mValue, "40");
    EXPECT_EQ(file.findImage("1.2.3.0")->ownElement(DCM_WindowCenter), nullptr);
    EXPECT_EQ(text(file.findImage("1.2.3.3"), DCM_WindowCenter) +
                  text(file.findImage("1.2.3.3"), Mdx::Tags::FileSuffix),
              "400y");

    std::unique_ptr<TagMap> known(makeSeries("1.2.3"));
    EXPECT_FALSE(file.addSeries(known.get()));
    TagMap* fresh = makeSeries("1.2.9");
    ASSERT_TRUE(file.addSeries(fresh));
    EXPECT_EQ(file.findSeries("1.2.9"), fresh);
    EXPECT_EQ(fresh->parent(), file.study());
}

TEST(Suffix, extractSuffixCutsNameQueryAndExtension)
{
    // clang-format off
    std::pair<char const*, char const*> const cases[] = {
        {"/data/1.2.3/1.2.3.4_abc.dcm", "abc"}, {"C:\\data\\1.2_3_x.dcm", "x"}, {"/data/plain.dcm", "plain"},
        {"/data/1.2.3.4_abc.dcm?QA=7", "abc"}, {"/data/1.2.3.4_abc.jpg", ""},
        {"a.dcm", ""}, {"ab.dcm", "ab"}, // the name ends below position 6
        {"/dir_x/name.dcm", "name"}, {"/data/_.dcm", ""}, {"", ""}}; // never past the file name's start
    // clang-format on
    for (auto const& [path, suffix] : cases)
        EXPECT_EQ(Mdx::Loader::extractSuffix(path, nullptr), suffix) << path;
    int qa = -1;
    EXPECT_EQ(Mdx::Loader::extractSuffix("s3://bucket/1.2_v2.dcm?QA=42", &qa), "v2");
    EXPECT_EQ(qa, 42);
    qa = -1;
    Mdx::Loader::extractSuffix("/data/1.2_v2.dcm?x=1", &qa);
    EXPECT_EQ(qa, -1);
}

} // namespace
