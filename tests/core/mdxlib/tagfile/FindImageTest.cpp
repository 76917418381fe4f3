// The versioned lookup of an image: its stored suffix, and QA versions
// applied once, read with inheritance; the item view that shares the tree.
#include "support/TestSupport.h"

#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/Item.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

namespace {

using Mdx::TagFile;
using Mdx::TagMap;

TEST(FindImage, suffixRules)
{
    // clang-format off
    struct { char const *stored, *asked; bool found; } const cases[] = {
        {"abc", "", true}, {"abc", "abc", true}, {"abc.dcm", "abc", true}, {"abcd", "abc", false},
        {"abcd.dcm", "abc", true}, {"xabc.dcm", "abc", false}, {"", "abc", true}, {"0", "abc", false},
        {"abc.dcm", "abd", false}};
    // clang-format on
    for (auto const& c : cases) {
        TagFile file;
        TagMap* image = mdxtest::addImage(file, "1.2", "1.2.1", "1.2.1.1");
        image->putAndInsertValue(Mdx::Tags::FileSuffix, Mdx::VR_LO, c.stored);
        mdxtest::LogCapture log;
        EXPECT_EQ(file.findImage("1.2.1.1", c.asked, 0) != nullptr, c.found) << c.stored << " / " << c.asked;
        EXPECT_EQ(log.count(2, "Invalid suffix, image 1.2.1.1 not loaded from tag file"), c.found ? 0 : 1);
    }
    TagFile empty;
    EXPECT_FALSE(empty.findImage("9.9", "", 0));
    EXPECT_FALSE(empty.findImageEx("9.9", "", 0));
}

TEST(FindImage, qaVersionIsAppliedOncePerVersion)
{
    QTemporaryDir dir;
    std::string const connection = "sqlite:" + dir.filePath("catalog.sqlite").toStdString();
    McResult result;
    std::unique_ptr<Lmg::Catalog> catalog = Lmg::Catalog::open(connection, result);
    ASSERT_TRUE(catalog) << result.message();
    ASSERT_TRUE(catalog->setQAText(71, "step71\n0008,103e=corrected\n\n").ok());
    ASSERT_TRUE(catalog->setQAText(72, "step72\n0008,103e=again\n\n").ok());
    SetDatabaseServer(connection.c_str());

    TagFile file;
    TagMap* image = mdxtest::addImage(file, "1.2", "1.2.1", "1.2.1.1", {{DCM_SeriesDescription, "raw"}});
    QByteArray value;
    auto description = [&] {
        image->findAndGetString(DCM_SeriesDescription, value);
        return value;
    };
    ASSERT_EQ(file.findImage("1.2.1.1", "", 0), image);
    EXPECT_EQ(description(), "raw");
    EXPECT_FALSE(image->ownElement(Mdx::Tags::QAVersion));

    ASSERT_EQ(file.findImage("1.2.1.1", "", 71), image);
    EXPECT_EQ(description(), "corrected");
    int version = 0;
    EXPECT_TRUE(image->findAndGetInt(Mdx::Tags::QAVersion, version));
    EXPECT_EQ(version, 71);
    // The same version again finds it recorded and leaves the value alone.
    image->putAndInsertValue(DCM_SeriesDescription, Mdx::VR_LO, "edited since");
    file.findImage("1.2.1.1", "", 71);
    EXPECT_EQ(description(), "edited since");

    // A version on the series counts for its images.
    image->deleteElement(Mdx::Tags::QAVersion);
    image->parent()->putAndInsertInt(Mdx::Tags::QAVersion, 72);
    file.findImage("1.2.1.1", "", 72);
    EXPECT_EQ(description(), "edited since");
    EXPECT_FALSE(image->ownElement(Mdx::Tags::QAVersion));

    // The item view shares the study and outlives the tag file.
    std::shared_ptr<Mdx::Item> item = file.findImageEx("1.2.1.1", "", 0);
    ASSERT_TRUE(item);
    file.clear();
    std::string text;
    EXPECT_TRUE(item->findAndGetOFString(DCM_SeriesDescription, text).good());
    EXPECT_EQ(text, "edited since");
}

} // namespace
