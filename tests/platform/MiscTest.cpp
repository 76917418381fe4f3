#include <mdxlib/platform/McResult.h>
#include <mdxlib/platform/McStringTokenizer.h>
#include <mdxlib/platform/McWatch.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> tokens(char const* text)
{
    std::vector<std::string> result;
    McStringTokenizer tokenizer(text);
    while (tokenizer.hasMoreTokens()) {
        result.push_back(tokenizer.nextToken());
    }
    EXPECT_EQ(tokenizer.nextToken(), "");
    return result;
}

using Tokens = std::vector<std::string>;

} // namespace

TEST(StringTokenizerTest, SplitsOnBackslashAndWhiteSpace)
{
    EXPECT_EQ(tokens("1\\2"), (Tokens{"1", "2"}));
    EXPECT_EQ(tokens("  1.5 \\ -2 "), (Tokens{"1.5", "-2"}));
    EXPECT_EQ(tokens("a\\\\b\t\nc"), (Tokens{"a", "b", "c"}));
    EXPECT_EQ(tokens("single"), (Tokens{"single"}));
    EXPECT_EQ(tokens(""), Tokens{});
    EXPECT_EQ(tokens("\\\\"), Tokens{});
    EXPECT_EQ(tokens(nullptr), Tokens{});
}

TEST(ResultTest, CarriesTheFailureMessage)
{
    EXPECT_TRUE(McResult().ok());
    EXPECT_TRUE(McResult::success());
    McResult const failed = McResult::failure("no such file");
    EXPECT_FALSE(failed);
    EXPECT_EQ(failed.message(), "no such file");
}

TEST(WatchTest, MeasuresElapsedTime)
{
    McWatch watch;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(watch.elapsedMsec(), 20);
    EXPECT_GE(watch.elapsedSeconds(), 0.02);
}
