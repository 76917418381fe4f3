#include <mdxlib/platform/McLogFile.h>

#include <mdxlib/platform/ExResource.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <optional>
#include <utility>

namespace {

char const* levelName(int level)
{
    if (level <= McLogFile::LevelDebug) {
        return "DEBUG";
    }
    if (level == McLogFile::LevelInfo) {
        return "INFO";
    }
    if (level == McLogFile::LevelWarning) {
        return "WARN";
    }
    return "ERROR";
}

// Local time as "YYYY-MM-DD hh:mm:ss.zzz".
std::string timestamp()
{
    auto const now = std::chrono::system_clock::now();
    std::time_t const seconds = std::chrono::system_clock::to_time_t(now);
    auto const millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[40];
    size_t const length = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + length, sizeof(text) - length, ".%03d", static_cast<int>(millis));
    return text;
}

std::string formatText(char const* format, va_list args)
{
    if (!format) {
        return std::string();
    }
    // Most messages fit the stack buffer; longer ones are formatted again
    // into a string of the measured size, so nothing is ever cut off.
    char buffer[512];
    va_list measure;
    va_copy(measure, args);
    int const length = std::vsnprintf(buffer, sizeof(buffer), format, measure);
    va_end(measure);
    if (length < 0) {
        // An encoding error; the format itself still tells what was meant.
        return format;
    }
    if (static_cast<size_t>(length) < sizeof(buffer)) {
        return std::string(buffer, static_cast<size_t>(length));
    }
    std::string text(static_cast<size_t>(length), '\0');
    va_list again;
    va_copy(again, args);
    std::vsnprintf(&text[0], text.size() + 1, format, again);
    va_end(again);
    return text;
}

std::string withCategory(char const* category, std::string text)
{
    if (!category || !*category) {
        return text;
    }
    std::string message;
    message.reserve(text.size() + 3 + std::char_traits<char>::length(category));
    message += '[';
    message += category;
    message += "] ";
    message += text;
    return message;
}

std::optional<int> levelFromEnvironment()
{
    std::optional<std::string> const value = ExResource::getParameter("MDX_LOG_LEVEL");
    if (!value || value->size() != 1 || (*value)[0] < '0' || (*value)[0] > '3') {
        return std::nullopt;
    }
    return (*value)[0] - '0';
}

} // namespace

McLogFile::McLogFile()
    : mLevel(LevelInfo)
{
    if (std::optional<int> const level = levelFromEnvironment()) {
        mLevel = *level;
    }
}

void McLogFile::errorf(char const* format, ...)
{
    va_list args;
    va_start(args, format);
    vtracef(LevelError, nullptr, format, args);
    va_end(args);
}

void McLogFile::warnf(char const* format, ...)
{
    va_list args;
    va_start(args, format);
    vtracef(LevelWarning, nullptr, format, args);
    va_end(args);
}

void McLogFile::printf(char const* format, ...)
{
    va_list args;
    va_start(args, format);
    vtracef(LevelInfo, nullptr, format, args);
    va_end(args);
}

void McLogFile::tracef(int level, char const* category, char const* format, ...)
{
    va_list args;
    va_start(args, format);
    vtracef(level, category, format, args);
    va_end(args);
}

void McLogFile::vtracef(int level, char const* category, char const* format, va_list args)
{
    // Filter before formatting: debug traces are frequent and usually off.
    if (level < logLevel()) {
        return;
    }
    write(level, withCategory(category, formatText(format, args)));
}

void McLogFile::trace(int level, char const* category, char const* text)
{
    if (level < logLevel()) {
        return;
    }
    write(level, withCategory(category, text ? text : ""));
}

void McLogFile::setLogLevel(int level)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mLevel = level;
}

int McLogFile::logLevel() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mLevel;
}

bool McLogFile::debugEnabled() const
{
    return logLevel() <= LevelDebug;
}

void McLogFile::setWriteCallback(WriteCallback callback)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mCallback = std::move(callback);
}

void McLogFile::write(int level, std::string const& message)
{
    // The callback runs outside the lock, so a callback that logs, or
    // replaces itself, cannot deadlock.
    WriteCallback callback;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        callback = mCallback;
    }
    if (callback) {
        callback(level, message);
        return;
    }
    // One fwrite per line: stdio locks the stream per call, so lines from
    // different threads do not interleave.
    std::string line = timestamp();
    line += ' ';
    line += levelName(level);
    line += ' ';
    line += message;
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

McLogFile* getTheLogInstance()
{
    // Never destroyed, so logging from other static destructors at exit is safe.
    static McLogFile* instance = new McLogFile();
    return instance;
}
