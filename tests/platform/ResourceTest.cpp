#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/StorageManager.h>

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

namespace {

// Sets (or, with a null value, unsets) an environment variable for the scope
// of a test and puts the old value back afterwards.
class ScopedEnv
{
public:
    ScopedEnv(char const* name, char const* value)
        : mName(name)
    {
        if (char const* old = std::getenv(name)) {
            mOld = old;
        }
        value ? setenv(name, value, 1) : unsetenv(name);
    }
    ~ScopedEnv() { mOld ? setenv(mName.c_str(), mOld->c_str(), 1) : unsetenv(mName.c_str()); }

private:
    std::string mName;
    std::optional<std::string> mOld;
};

class ResourceTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(mDir.isValid());
        ExResource::reloadConfiguration();
    }
    void TearDown() override { ExResource::reloadConfiguration(); }

    std::string writeIni(char const* name, std::string const& text)
    {
        std::string const path = mDir.filePath(name).toStdString();
        std::ofstream(path) << text;
        return path;
    }

    QTemporaryDir mDir;
};

} // namespace

TEST_F(ResourceTest, EnvironmentWinsOverFileWinsOverNothing)
{
    std::string const ini = writeIni("a.ini", "[General]\n"
                                              "MDX_TEST_BOTH=from-file\n"
                                              "MDX_TEST_FILE_ONLY=file value\n"
                                              "MDX_TEST_LIST=a,b\n"
                                              "MDX_TEST_UTF8=/data/B\xc3\xa4r\n"
                                              "[server]\n"
                                              "port=11112\n");
    ScopedEnv config("MDX_CONFIG", ini.c_str());
    ScopedEnv both("MDX_TEST_BOTH", "from-env");
    ScopedEnv empty("MDX_TEST_EMPTY", "");
    ScopedEnv missing("MDX_TEST_MISSING", nullptr);

    EXPECT_EQ(ExResource::getParameter("MDX_TEST_BOTH"), "from-env");
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_FILE_ONLY"), "file value");
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_LIST"), "a,b");
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_UTF8"), "/data/B\xc3\xa4r");
    EXPECT_EQ(ExResource::getParameter("server/port"), "11112");
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_EMPTY"), "");
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_MISSING"), std::nullopt);
    EXPECT_EQ(ExResource::getParameter(""), std::nullopt);
    EXPECT_EQ(ExResource::getParameter(nullptr), std::nullopt);
}

TEST_F(ResourceTest, NoConfigurationFile)
{
    ScopedEnv config("MDX_CONFIG", nullptr);
    ScopedEnv missing("MDX_TEST_MISSING", nullptr);
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_MISSING"), std::nullopt);

    ScopedEnv absent("MDX_CONFIG", mDir.filePath("absent.ini").toStdString().c_str());
    ExResource::reloadConfiguration();
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_MISSING"), std::nullopt);
}

TEST_F(ResourceTest, ReloadReadsTheFileAgain)
{
    std::string const first = writeIni("first.ini", "MDX_TEST_VALUE=1\n");
    std::string const second = writeIni("second.ini", "MDX_TEST_VALUE=2\n");
    ScopedEnv unset("MDX_TEST_VALUE", nullptr);
    {
        ScopedEnv config("MDX_CONFIG", first.c_str());
        EXPECT_EQ(ExResource::getParameter("MDX_TEST_VALUE"), "1");
    }
    ScopedEnv config("MDX_CONFIG", second.c_str());
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_VALUE"), "2");

    // QSettings keeps parsed files and notices a change by size and time
    // stamp, so the new content differs in size as any real edit would.
    writeIni("second.ini", "MDX_TEST_VALUE=three\n");
    ExResource::reloadConfiguration();
    EXPECT_EQ(ExResource::getParameter("MDX_TEST_VALUE"), "three");
}

TEST_F(ResourceTest, MetaFolder)
{
    ScopedEnv config("MDX_CONFIG", nullptr);
    std::string folder;
    {
        ScopedEnv unset("MDX_META_FOLDER", nullptr);
        EXPECT_TRUE(Lmg::StorageManager::getMetaFolder(folder));
        EXPECT_EQ(folder, "./meta/");
    }
    {
        ScopedEnv empty("MDX_META_FOLDER", "");
        EXPECT_TRUE(Lmg::StorageManager::getMetaFolder(folder));
        EXPECT_EQ(folder, "./meta/");
    }
    {
        ScopedEnv set("MDX_META_FOLDER", "/data/tags/");
        EXPECT_TRUE(Lmg::StorageManager::getMetaFolder(folder));
        EXPECT_EQ(folder, "/data/tags/");
    }
    ScopedEnv unset("MDX_META_FOLDER", nullptr);
    ScopedEnv fromFile("MDX_CONFIG", writeIni("meta.ini", "MDX_META_FOLDER=/srv/meta\n").c_str());
    EXPECT_TRUE(Lmg::StorageManager::getMetaFolder(folder));
    EXPECT_EQ(folder, "/srv/meta/");
}
