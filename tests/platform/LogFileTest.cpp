#include <mdxlib/platform/McLogFile.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Messages = std::vector<std::pair<int, std::string>>;

// Collects what a log writes, for logs that are not shared between threads.
// The level is set explicitly so an MDX_LOG_LEVEL in the environment does not
// change the outcome.
void capture(McLogFile& log, Messages& messages)
{
    log.setLogLevel(McLogFile::LevelInfo);
    log.setWriteCallback(
        [&messages](int level, std::string const& message) { messages.emplace_back(level, message); });
}

} // namespace

TEST(LogFileTest, DropsMessagesBelowTheLevel)
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
    EXPECT_EQ(messages, (Messages{{2, "warn 2"}, {3, "error three"}}));

    messages.clear();
    log.setLogLevel(McLogFile::LevelDebug);
    EXPECT_TRUE(log.debugEnabled());
    log.trace(McLogFile::LevelDebug, nullptr, "now visible");
    EXPECT_EQ(messages, (Messages{{0, "now visible"}}));
}

TEST(LogFileTest, FormatsTheCategory)
{
    McLogFile log;
    Messages messages;
    capture(log, messages);
    log.tracef(McLogFile::LevelInfo, "net", "sent %d bytes", 12);
    log.tracef(McLogFile::LevelInfo, "", "no category");
    log.tracef(McLogFile::LevelInfo, nullptr, "none either");
    log.trace(McLogFile::LevelError, "io", "done");
    EXPECT_EQ(
        messages,
        (Messages{{1, "[net] sent 12 bytes"}, {1, "no category"}, {1, "none either"}, {3, "[io] done"}}));
}

TEST(LogFileTest, LongMessagesAreNotTruncated)
{
    McLogFile log;
    Messages messages;
    capture(log, messages);
    std::string const body(10000, 'x');
    log.tracef(McLogFile::LevelInfo, "big", "%s-end-%d", body.c_str(), 7);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].second, "[big] " + body + "-end-7");
}

TEST(LogFileTest, CallbackThatLogsDoesNotDeadlock)
{
    McLogFile log;
    log.setLogLevel(McLogFile::LevelInfo);
    Messages messages;
    log.setWriteCallback([&](int level, std::string const& message) {
        messages.emplace_back(level, message);
        if (message == "outer") {
            log.tracef(McLogFile::LevelWarning, "cb", "inner");
        }
    });
    log.printf("outer");
    EXPECT_EQ(messages, (Messages{{1, "outer"}, {2, "[cb] inner"}}));
}

TEST(LogFileTest, ConcurrentMessagesArriveExactlyOnce)
{
    McLogFile log;
    log.setLogLevel(McLogFile::LevelInfo);
    std::mutex mutex;
    std::multiset<std::string> received;
    log.setWriteCallback([&](int, std::string const& message) {
        std::lock_guard<std::mutex> lock(mutex);
        received.insert(message);
    });

    int const threadCount = 8;
    int const perThread = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < perThread; ++i) {
                log.tracef(McLogFile::LevelInfo, "t", "%d/%d", t, i);
                // Level changes race with the writers; info stays enabled.
                log.setLogLevel(i % 2 ? McLogFile::LevelInfo : McLogFile::LevelDebug);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    ASSERT_EQ(received.size(), size_t(threadCount * perThread));
    for (int t = 0; t < threadCount; ++t) {
        for (int i = 0; i < perThread; ++i) {
            EXPECT_EQ(received.count("[t] " + std::to_string(t) + "/" + std::to_string(i)), 1u);
        }
    }
}

TEST(LogFileTest, WritesOneStampedLineToStandardError)
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
}

TEST(LogFileTest, InitialLevelComesFromTheEnvironment)
{
    char const* old = std::getenv("MDX_LOG_LEVEL");
    std::optional<std::string> const saved = old ? std::optional<std::string>(old) : std::nullopt;

    setenv("MDX_LOG_LEVEL", "0", 1);
    EXPECT_TRUE(McLogFile().debugEnabled());
    setenv("MDX_LOG_LEVEL", "3", 1);
    EXPECT_EQ(McLogFile().logLevel(), McLogFile::LevelError);
    setenv("MDX_LOG_LEVEL", "loud", 1);
    EXPECT_EQ(McLogFile().logLevel(), McLogFile::LevelInfo);
    unsetenv("MDX_LOG_LEVEL");
    EXPECT_EQ(McLogFile().logLevel(), McLogFile::LevelInfo);

    if (saved) {
        setenv("MDX_LOG_LEVEL", saved->c_str(), 1);
    }
}

TEST(LogFileTest, TheInstanceIsShared)
{
    ASSERT_NE(getTheLogInstance(), nullptr);
    EXPECT_EQ(getTheLogInstance(), getTheLogInstance());
}
