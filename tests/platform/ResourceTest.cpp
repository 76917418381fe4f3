#include "support/TestSupport.h"

#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/StorageManager.h>

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <fstream>

namespace {

class Resource : public testing::Test
{
protected:
    std::string writeIni(char const* name, std::string const& text)
    {
        std::string const path = dir.filePath(name).toStdString();
        std::ofstream(path) << text;
        return path;
    }

    QTemporaryDir dir;
    mdxtest::ScopedEnv env; // rereads the configuration at every change
};

} // namespace

TEST_F(Resource, environmentWinsOverTheFileExceptForTheStoredParameter)
{
    env.set("MDX_CONFIG", writeIni("a.ini", "MDX_TEST_BOTH=from-file\nMDX_TEST_LIST=a,b\n"
                                            "MDX_TEST_UTF8=/data/B\xc3\xa4r\n[server]\nport=11112\n"));
    env.set("MDX_TEST_BOTH", "from-env").set("MDX_TEST_EMPTY", "").unset("MDX_TEST_MISSING");
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_BOTH"), "from-env");
    EXPECT_EQ(ExResource::getStoredParameter("MDX_TEST_BOTH"), "from-file");
    EXPECT_EQ(ExResource::getStoredParameter("MDX_TEST_EMPTY"), std::nullopt);
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_LIST"), "a,b");
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_UTF8"), "/data/B\xc3\xa4r");
    EXPECT_EQ(ExResource::getParameter("server/port"), "11112");
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_EMPTY"), "");
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_MISSING"), std::nullopt);
    EXPECT_EQ(ExResource::getParameter(nullptr), std::nullopt);
    env.set("MDX_CONFIG", dir.filePath("absent.ini").toStdString());
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_LIST"), std::nullopt);
}

TEST_F(Resource, reloadReadsTheFileAgain)
{
    env.unset("MDX_TEST_VALUE").set("MDX_CONFIG", writeIni("first.ini", "MDX_TEST_VALUE=1\n"));
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_VALUE"), "1");
    // QSettings notices a change by size and time stamp: the new content differs in size.
    writeIni("first.ini", "MDX_TEST_VALUE=three\n");
    ExResource::reloadConfiguration();
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_VALUE"), "three");
}

TEST_F(Resource, metaFolder)
{
    env.unset("MDX_CONFIG");
    std::string folder;
    for (auto const& [value, expected] : std::vector<std::pair<std::optional<std::string>, std::string>>{
             {std::nullopt, "./meta/"}, {"", "./meta/"}, {"/data/tags/", "/data/tags/"}}) {
        env.set("MDX_META_FOLDER", value);
        EXPECT_TRUE(Lmg::StorageManager::getMetaFolder(folder));
        EXPECT_EQ(folder, expected);
    }
    env.unset("MDX_META_FOLDER").set("MDX_CONFIG", writeIni("meta.ini", "MDX_META_FOLDER=/srv/meta\n"));
    EXPECT_TRUE(Lmg::StorageManager::getMetaFolder(folder));
    EXPECT_EQ(folder, "/srv/meta/");
}
