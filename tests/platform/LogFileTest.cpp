#include "support/TestSupport.h"

#include <mdxlib/platform/McLogFile.h>

#include <gtest/gtest.h>

#include <mutex>
#include <regex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Messages = std::vector<std::pair<int, std::string>>;

// Collects what a log writes. The level is set explicitly so that an MDX_LOG_LEVEL in the
// environment does not change the outcome.
void capture(McLogFile& log, Messages& messages)
{
    log.setLogLevel(McLogFile::LevelInfo);
    log.setWriteCallback(
        [&messages](int level, std::string const& message) { messages.emplace_back(level, message); });
}

} // namespace

TEST(LogFile, levelsCategoriesAndLongMessages)
{
    McLogFile log;
    Messages messages;
    capture(log, messages);
    log.setLogLevel(McLogFile::LevelWarning);
    log.tracef(McLogFile::LevelDebug, "c", "debug");
    log.printf("info");
    log.warnf("warn %d", 2);
    log.errorf("error %s", "three");
    EXPECT_FALSE(log.debugEnabled());
    log.setLogLevel(McLogFile::LevelDebug);
    log.trace(McLogFile::LevelDebug, nullptr, "now visible");
    log.tracef(McLogFile::LevelInfo, "net", "sent %d bytes", 12);
    log.tracef(McLogFile::LevelInfo, "", "no category");
    std::string const body(10000, 'x');
    log.tracef(McLogFile::LevelInfo, "big", "%s-end-%d", body.c_str(), 7); // not truncated
    EXPECT_EQ(messages, (Messages{{2, "warn 2"},
                                  {3, "error three"},
                                  {0, "now visible"},
                                  {1, "[net] sent 12 bytes"},
                                  {1, "no category"},
                                  {1, "[big] " + body + "-end-7"}}));
}

TEST(LogFile, aCallbackThatLogsAndConcurrentWritersEachArriveOnce)
{
    McLogFile log;
    Messages messages;
    capture(log, messages);
    log.setWriteCallback([&](int level, std::string const& message) {
        messages.emplace_back(level, message);
        if (message == "outer")
            log.tracef(McLogFile::LevelWarning, "cb", "inner"); // no deadlock
    });
    log.printf("outer");
    EXPECT_EQ(messages, (Messages{{1, "outer"}, {2, "[cb] inner"}}));

    std::mutex mutex;
    std::multiset<std::string> received;
    log.setWriteCallback([&](int, std::string const& message) {
        std::lock_guard<std::mutex> lock(mutex);
        received.insert(message);
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < 500; ++i) {
                log.tracef(McLogFile::LevelInfo, "t", "%d/%d", t, i);
                // Level changes race with the writers; info stays enabled.
                log.setLogLevel(i % 2 ? McLogFile::LevelInfo : McLogFile::LevelDebug);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(received.size(), 4000u);
    EXPECT_EQ(std::set<std::string>(received.begin(), received.end()).size(), 4000u);
}

TEST(LogFile, oneStampedLineOnStandardErrorAndTheLevelFromTheEnvironment)
{
    McLogFile log;
    log.setLogLevel(McLogFile::LevelInfo);
    testing::internal::CaptureStderr();
    log.warnf("disk %s", "full");
    log.tracef(McLogFile::LevelDebug, "x", "dropped");
    std::string const output = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(
        std::regex_match(output, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} WARN disk full\n)")))
        << output;

    mdxtest::ScopedEnv env;
    for (auto const& [value, level] :
         std::vector<std::pair<std::optional<std::string>, int>>{{"0", McLogFile::LevelDebug},
                                                                 {"3", McLogFile::LevelError},
                                                                 {"loud", McLogFile::LevelInfo},
                                                                 {std::nullopt, McLogFile::LevelInfo}}) {
        env.set("MDX_LOG_LEVEL", value);
        EXPECT_EQ(McLogFile().logLevel(), level);
    }
}
