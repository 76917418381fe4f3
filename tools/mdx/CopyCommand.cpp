// mdx cp: copies an object from wherever the library reads (a local file, a
// plain, S3, Google, Azure or WADO URL, a member of a .kz container) to a
// local file or an s3://, az:// or gs:// object, through LmStreamCopy, the
// copy behind the exported CopyWithHashAndSize.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Progress.h"

#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McWatch.h>
#include <mdxlib/streamapi/LmStreamCopy.h>
#include <mdxlib/streamapi/StreamFunctions.h>

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <regex>

namespace mdxtool {

namespace {

CommandSyntax const& cpSyntax()
{
    static OptionSyntax const md5{"--md5", 0, "HEX", "the MD5 the object must have (32 hexadecimal digits)"};
    static OptionSyntax const size{"--size", 0, "BYTES", "the size the object must have"};
    static CommandSyntax const syntax{
        "cp",
        "SOURCE DESTINATION",
        "Copies the object SOURCE to DESTINATION, 1 MiB at a time. SOURCE is a local file,\n"
        "an http(s)://, s3://bucket/key, gs://bucket/key, az://account/container/blob or\n"
        "WADO URL, or a member of a .kz container (a path with a .kz/ element).\n"
        "DESTINATION is a local file or an s3://, az:// or gs:// object. The copy is\n"
        "complete only when the whole object came: a transfer that breaks off, or an\n"
        "object whose MD5 or size differs from --md5 or --size, leaves no destination\n"
        "(an older local file stays as it was; a local SOURCE's size is always checked).\n"
        "Exit statuses: 2 no such SOURCE, 3 SOURCE unreadable or broken off, 4 no such\n"
        "member in the container, 5 DESTINATION not written, 6 MD5 or size differ.\n"
        "Credentials are the library's: AWS_CONFIG_FILE or the instance metadata for S3,\n"
        "AZURE_APPLICATION_CREDENTIALS or the managed identity for Azure,\n"
        "GOOGLE_APPLICATION_CREDENTIALS or the Compute Engine metadata server for Google.",
        {helpOption(), quietOption(), jsonOption(), md5, size}};
    return syntax;
}

// Keeps the library's first error and its last warning or error but the
// closing "Could not copy", to say in one line why a copy failed: the first
// error is the cause of a failed read, the last message that of a failed
// upload. The lines reach standard error only when MDX_LOG_LEVEL asks.
class LibraryMessages
{
public:
    LibraryMessages()
        : mPreviousLevel(getTheLogInstance()->logLevel())
        , mEcho(ExResource::getParameter("MDX_LOG_LEVEL").has_value())
    {
        if (!mEcho)
            getTheLogInstance()->setLogLevel(McLogFile::LevelWarning);
        getTheLogInstance()->setWriteCallback([this](int level, std::string const& message) {
            // The cloud reader logs from its own thread.
            std::lock_guard<std::mutex> lock(mMutex);
            std::string const line = message.substr(0, message.find('\n'));
            if (level >= McLogFile::LevelError && mFirstError.empty())
                mFirstError = line;
            if (level >= McLogFile::LevelWarning && message.rfind("Could not copy ", 0) != 0)
                mLast = line;
            if (mEcho)
                std::fprintf(stderr, "%s\n", message.c_str());
        });
    }
    ~LibraryMessages()
    {
        getTheLogInstance()->setWriteCallback(nullptr);
        getTheLogInstance()->setLogLevel(mPreviousLevel);
    }
    LibraryMessages(LibraryMessages const&) = delete;
    LibraryMessages& operator=(LibraryMessages const&) = delete;

    std::string firstError()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFirstError;
    }
    std::string last()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mLast;
    }

private:
    int mPreviousLevel;
    bool mEcho;
    std::mutex mMutex;
    std::string mFirstError;
    std::string mLast;
};

// "reason: cause", or the reason alone.
std::string withCause(std::string const& reason, std::string const& cause)
{
    return cause.empty() || reason.find(cause) != std::string::npos ? reason : reason + ": " + cause;
}

bool uploadTarget(std::string const& target)
{
    return target.rfind("s3://", 0) == 0 || target.rfind("gs://", 0) == 0 || target.rfind("az://", 0) == 0;
}

} // namespace

int cpCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(cpSyntax(), args, parsed))
        return *done;
    if (parsed.positional.size() != 2)
        return usageError(cpSyntax(), "give SOURCE and DESTINATION");
    std::string const& source = parsed.positional[0];
    std::string const& destination = parsed.positional[1];
    if (StringIsUrl(destination.c_str()) && !uploadTarget(destination))
        return usageError(cpSyntax(), "DESTINATION must be a local file or an s3://, az:// or gs:// URL");
    std::string const md5 = QString::fromStdString(parsed.value("--md5")).toLower().toStdString();
    if (parsed.values.count("--md5") && !std::regex_match(md5, std::regex("[0-9a-f]{32}")))
        return usageError(cpSyntax(), "--md5 wants 32 hexadecimal digits");
    long long size = 0;
    if (parsed.values.count("--size")) {
        std::string const text = parsed.value("--size");
        if (!std::regex_match(text, std::regex("[0-9]{1,18}")) || (size = std::atoll(text.c_str())) <= 0)
            return usageError(cpSyntax(), "--size wants a number of bytes above 0");
    }
    if (!StringIsUrl(source.c_str())) {
        QFileInfo const info(QString::fromLocal8Bit(source.c_str()));
        if (!info.exists())
            return fail(ExitCode::NoInput, "%s: no such file", source.c_str());
        if (!info.isFile())
            return fail(ExitCode::NoInput, "%s: not a regular file", source.c_str());
        // A file that shrinks or grows while it is read gives a failed copy,
        // not an object of another size.
        if (size == 0)
            size = info.size();
        else if (size != info.size())
            return fail(ExitCode::ProcessingError, "%s has %lld bytes, not %lld", source.c_str(),
                        static_cast<long long>(info.size()), size);
    }

    bool const quiet = parsed.has("--quiet");
    LibraryMessages library;
    McWatch watch;
    Progress progress(!quiet);
    progress.phase("copy", size, "bytes");
    LmStreamCopy copy(source, destination);
    copy.setExpectedHashAndSize(md5.c_str(), size);
    bool totalKnown = size > 0;
    copy.setProgress([&](long long done, long long total) {
        if (!totalKnown && total > 0) {
            progress.phase("copy", total, "bytes");
            totalKnown = true;
        }
        progress.update(done);
    });
    LmStreamCopy::Outcome const outcome = copy.run();
    progress.finish();
    switch (outcome) {
    case LmStreamCopy::Copied:
        break;
    case LmStreamCopy::SourceFailed: {
        // A member the container doesn't hold: the library's "does not include" line.
        std::string const cause = library.firstError();
        return fail(cause.find("does not include") != std::string::npos ? ExitCode::NothingFound
                                                                        : ExitCode::UnreadableInput,
                    "%s", withCause(copy.reason(), cause).c_str());
    }
    case LmStreamCopy::CheckFailed:
        return fail(ExitCode::ProcessingError, "copy of %s to %s failed: %s", source.c_str(),
                    destination.c_str(), copy.reason().c_str());
    case LmStreamCopy::TargetFailed:
        return fail(ExitCode::OutputError, "%s", withCause(copy.reason(), library.last()).c_str());
    }
    double const seconds = watch.elapsedSeconds();
    if (parsed.has("--json")) {
        QJsonObject const document{{"source", QString::fromLocal8Bit(source.c_str())},
                                   {"destination", QString::fromLocal8Bit(destination.c_str())},
                                   {"bytes", qint64(copy.bytesCopied())},
                                   {"seconds", seconds}};
        std::fputs(QJsonDocument(document).toJson(QJsonDocument::Indented).constData(), stdout);
    } else if (!quiet) {
        std::printf("%s -> %s: %lld bytes in %.2f s\n", source.c_str(), destination.c_str(),
                    copy.bytesCopied(), seconds);
    }
    return status(ExitCode::Ok);
}

} // namespace mdxtool
