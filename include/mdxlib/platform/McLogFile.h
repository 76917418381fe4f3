// The library's log.
//
// One process-wide log object, reached through getTheLogInstance(). Messages
// carry a level (0 debug, 1 information, 2 warning, 3 error) and, where the
// caller names one, a category; they are formatted as "[category] text". A
// caller (a server process) may install a write callback that receives every
// message that passes the level filter; without one, messages go to standard
// error as one line each: time, level and the message. All operations are
// thread-safe.
#pragma once

#include <mdxlib/Export.h>

#include <cstdarg>
#include <functional>
#include <mutex>
#include <string>

class MDX_EXPORT McLogFile
{
public:
    enum Level
    {
        LevelDebug = 0,
        LevelInfo = 1,
        LevelWarning = 2,
        LevelError = 3
    };

    // Receives (level, message); the message has no trailing newline.
    using WriteCallback = std::function<void(int level, std::string const& message)>;

    McLogFile();

    void errorf(char const* format, ...) __attribute__((format(printf, 2, 3)));
    void warnf(char const* format, ...) __attribute__((format(printf, 2, 3)));
    // Information level.
    void printf(char const* format, ...) __attribute__((format(printf, 2, 3)));
    void tracef(int level, char const* category, char const* format, ...)
        __attribute__((format(printf, 4, 5)));
    void vtracef(int level, char const* category, char const* format, va_list args);
    // A finished text, no formatting; category may be null.
    void trace(int level, char const* category, char const* text);

    // Messages below this level are dropped. Default: information.
    void setLogLevel(int level);
    int logLevel() const;
    bool debugEnabled() const;

    // An empty callback restores the default sink (standard error).
    void setWriteCallback(WriteCallback callback);

private:
    void write(int level, std::string const& message);

    mutable std::mutex mMutex;
    int mLevel;
    WriteCallback mCallback;
};

MDX_EXPORT McLogFile* getTheLogInstance();
