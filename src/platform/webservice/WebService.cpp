#include <mdxlib/platform/WebService.h>

#include <QDateTime>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

namespace {

std::mutex& serverMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::string& serverConnection()
{
    static std::string* connection = new std::string; // outlives static destructors
    return *connection;
}

std::atomic<MdxTraceFunction> traceFunction{nullptr};

char const* levelName(int level)
{
    switch (level) {
    case 0:
        return "DEBUG";
    case 1:
        return "INFO";
    case 2:
        return "WARN";
    default:
        return "ERROR";
    }
}

} // namespace

void SetDatabaseServer(char const* connection)
{
    std::lock_guard<std::mutex> lock(serverMutex());
    serverConnection() = connection ? connection : "";
}

std::string GetDatabaseServer()
{
    std::lock_guard<std::mutex> lock(serverMutex());
    return serverConnection();
}

void SetTraceFunction(MdxTraceFunction function)
{
    traceFunction.store(function);
}

void WriteTrace(int level, char const* category, char const* format, ...)
{
    if (!format)
        return;
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int const length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::vector<char> text(static_cast<size_t>(length > 0 ? length : 0) + 1);
    std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);

    if (MdxTraceFunction function = traceFunction.load()) {
        function(level, category ? category : "", text.data());
        return;
    }
    QByteArray const time = QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss.zzz").toLatin1();
    std::string line = time.toStdString() + " " + levelName(level) + " ";
    if (category && *category)
        line += std::string("[") + category + "] ";
    line += text.data();
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}
