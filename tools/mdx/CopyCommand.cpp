// mdx cp: copies a local file to a cloud object through the library's upload
// stream. The direction is decided by which side is a URL, so that copying
// from a cloud URL to a local file can join as the other branch.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Progress.h"

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McWatch.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <vector>

namespace mdxtool {

namespace {

constexpr int64_t kBlock = 1 << 20;

CommandSyntax const& cpSyntax()
{
    static CommandSyntax const syntax{
        "cp",
        "SOURCE DESTINATION",
        "Copies the local file SOURCE to the cloud object DESTINATION, a URL of the form\n"
        "s3://bucket/key, az://account/container/blob or gs://bucket/key, in chunks of 8 MiB.\n"
        "The object is complete only when the whole file went up; a failed copy leaves no\n"
        "partial object. Credentials are the library's: AWS_CONFIG_FILE or the instance\n"
        "metadata for S3, AZURE_APPLICATION_CREDENTIALS or the managed identity for Azure,\n"
        "GOOGLE_APPLICATION_CREDENTIALS or the Compute Engine metadata server for Google.",
        {helpOption(), quietOption(), jsonOption()}};
    return syntax;
}

// Keeps the library's last warning or error, to say in one line why a copy
// failed; the lines reach standard error only when MDX_LOG_LEVEL asks for them.
class LastLibraryMessage
{
public:
    LastLibraryMessage()
        : mPreviousLevel(getTheLogInstance()->logLevel())
        , mEcho(ExResource::getParameter("MDX_LOG_LEVEL").has_value())
    {
        if (!mEcho)
            getTheLogInstance()->setLogLevel(McLogFile::LevelWarning);
        getTheLogInstance()->setWriteCallback([this](int level, std::string const& message) {
            if (level >= McLogFile::LevelWarning)
                mText = message;
            if (mEcho)
                std::fprintf(stderr, "%s\n", message.c_str());
        });
    }
    ~LastLibraryMessage()
    {
        getTheLogInstance()->setWriteCallback(nullptr);
        getTheLogInstance()->setLogLevel(mPreviousLevel);
    }
    LastLibraryMessage(LastLibraryMessage const&) = delete;
    LastLibraryMessage& operator=(LastLibraryMessage const&) = delete;

    // The first line of the last message, or a stand-in.
    std::string text() const
    {
        std::string const line = mText.substr(0, mText.find('\n'));
        return line.empty() ? std::string("the upload did not complete") : line;
    }

private:
    int mPreviousLevel;
    bool mEcho;
    std::string mText;
};

int uploadFile(std::string const& source, std::string const& destination, bool json, bool quiet)
{
    QFile file(QString::fromLocal8Bit(source.c_str()));
    if (!QFileInfo::exists(file.fileName()))
        return fail(ExitCode::NoInput, "%s: no such file", source.c_str());
    if (!QFileInfo(file.fileName()).isFile())
        return fail(ExitCode::NoInput, "%s: not a regular file", source.c_str());
    if (!file.open(QIODevice::ReadOnly))
        return fail(ExitCode::UnreadableInput, "cannot read %s: %s", source.c_str(),
                    file.errorString().toLocal8Bit().constData());
    int64_t const size = file.size();

    LastLibraryMessage library;
    McWatch watch;
    LmCurlUploadStream stream = LmCurlClient::instance()->write(destination);
    if (!stream.isOpen())
        return fail(ExitCode::OutputError, "cannot upload to %s: %s", destination.c_str(),
                    library.text().c_str());
    // The size is checked before the last chunk goes: a file that shrinks
    // while it is read gives a failed copy, not a short object.
    stream.setExpectedHashAndSize("", size);
    Progress progress(!quiet);
    progress.phase("upload", (size + kBlock - 1) / kBlock, "MiB");
    std::vector<char> block(kBlock);
    int64_t done = 0;
    while (stream.good()) {
        qint64 const got = file.read(block.data(), kBlock);
        if (got < 0) {
            stream.cancel();
            return fail(ExitCode::UnreadableInput, "cannot read %s: %s", source.c_str(),
                        file.errorString().toLocal8Bit().constData());
        }
        if (got == 0)
            break;
        stream.write(block.data(), got);
        done += got;
        progress.update((done + kBlock - 1) / kBlock);
    }
    stream.close();
    progress.finish();
    if (!stream.good())
        return fail(ExitCode::OutputError, "upload of %s to %s failed: %s", source.c_str(),
                    destination.c_str(), library.text().c_str());
    double const seconds = watch.elapsedSeconds();
    if (json) {
        QJsonObject const document{{"source", QString::fromLocal8Bit(source.c_str())},
                                   {"destination", QString::fromStdString(destination)},
                                   {"bytes", qint64(size)},
                                   {"seconds", seconds}};
        std::fputs(QJsonDocument(document).toJson(QJsonDocument::Indented).constData(), stdout);
    } else if (!quiet) {
        std::printf("%s -> %s: %lld bytes in %.2f s\n", source.c_str(), destination.c_str(),
                    static_cast<long long>(size), seconds);
    }
    return status(ExitCode::Ok);
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
    bool const fromUrl = LmCurlClient::isUrl(source.c_str());
    bool const toUrl = LmCurlClient::isUrl(destination.c_str());
    if (fromUrl && !toUrl)
        return fail(ExitCode::Usage, "copying from a URL to a local file is not supported yet");
    if (fromUrl == toUrl)
        return usageError(cpSyntax(), "one of SOURCE and DESTINATION must be a local file, the other a URL");
    return uploadFile(source, destination, parsed.has("--json"), parsed.has("--quiet"));
}

} // namespace mdxtool
