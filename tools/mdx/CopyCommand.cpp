// mdx cp: copies a local file to a cloud object through the library's upload
// stream, and a member of a local or remote .kz container (read through the
// cloud reader) to a local file or a cloud object. The direction is decided
// by which side is a URL, so that copying from a cloud URL to a local file
// can join as another branch.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Progress.h"

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McFilename.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McWatch.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
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
        "SOURCE may also be a member of a local or remote container (a path or URL with a\n"
        "\".kz/\" element), copied to a local file or a cloud object.\n"
        "The object is complete only when the whole file went up; a failed copy leaves no\n"
        "partial object, and a local DESTINATION appears only when complete. Credentials are the library's: "
        "AWS_CONFIG_FILE or the instance\n"
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
            // The cloud reader logs from its own thread.
            std::lock_guard<std::mutex> lock(mMutex);
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
        std::lock_guard<std::mutex> lock(mMutex);
        std::string const line = mText.substr(0, mText.find('\n'));
        return line.empty() ? std::string("the upload did not complete") : line;
    }

private:
    int mPreviousLevel;
    bool mEcho;
    mutable std::mutex mMutex;
    std::string mText;
};

// What is copied: a local file, or a container member read through the
// cloud reader. read gives the count, 0 at the end, negative on failure.
struct Source
{
    int64_t size = -1;
    std::function<int64_t(char*, int64_t)> read;
    std::function<std::string()> error;
};

// Opens SOURCE or says in one line why not (the exit status in failure).
std::optional<Source> openSource(std::string const& source, LastLibraryMessage& library, int& failure)
{
    Source opened;
    if (McFilename::isInContainer(source.c_str())) {
        std::shared_ptr<Kz::File> file = Kz::CloudReader::instance().openFile(source, kNoSessionContext);
        if (!file || file->state() == Kz::File::FILE_BAD) {
            failure = fail(file ? ExitCode::UnreadableInput : ExitCode::NothingFound, "cannot read %s: %s",
                           source.c_str(), library.text().c_str());
            return std::nullopt;
        }
        opened.size = file->length();
        opened.read = [file](char* data, int64_t size) { return file->read(data, size); };
        opened.error = [&library] { return library.text(); };
        return opened;
    }
    auto file = std::make_shared<QFile>(QString::fromLocal8Bit(source.c_str()));
    if (!QFileInfo::exists(file->fileName())) {
        failure = fail(ExitCode::NoInput, "%s: no such file", source.c_str());
        return std::nullopt;
    }
    if (!QFileInfo(file->fileName()).isFile()) {
        failure = fail(ExitCode::NoInput, "%s: not a regular file", source.c_str());
        return std::nullopt;
    }
    if (!file->open(QIODevice::ReadOnly)) {
        failure = fail(ExitCode::UnreadableInput, "cannot read %s: %s", source.c_str(),
                       file->errorString().toLocal8Bit().constData());
        return std::nullopt;
    }
    opened.size = file->size();
    opened.read = [file](char* data, int64_t size) { return static_cast<int64_t>(file->read(data, size)); };
    opened.error = [file] { return file->errorString().toLocal8Bit().toStdString(); };
    return opened;
}

// Where the bytes go: an upload stream, or a local file that appears only
// when complete (a failed copy leaves an older file as it was).
class Sink
{
public:
    Sink(std::string const& destination, int64_t size)
        : mUrl(LmCurlClient::isUrl(destination.c_str()))
    {
        if (mUrl) {
            mStream = std::make_unique<LmCurlUploadStream>(LmCurlClient::instance()->write(destination));
            // The size is checked before the last chunk goes: a source that
            // shrinks while it is read gives a failed copy, not a short object.
            if (mStream->isOpen() && size >= 0)
                mStream->setExpectedHashAndSize("", size);
        } else {
            mFile = std::make_unique<QSaveFile>(QString::fromLocal8Bit(destination.c_str()));
            mFile->open(QIODevice::WriteOnly);
        }
    }
    bool isOpen() const { return mUrl ? mStream->isOpen() : mFile->isOpen(); }
    bool good() { return mUrl ? mStream->good() : mFile->error() == QFileDevice::NoError; }
    void write(char const* data, int64_t size)
    {
        if (mUrl)
            mStream->write(data, size);
        else
            mFile->write(data, size);
    }
    void cancel()
    {
        if (mUrl)
            mStream->cancel();
        else
            mFile->cancelWriting();
    }
    bool close()
    {
        if (!mUrl)
            return mFile->commit();
        mStream->close();
        return mStream->good();
    }
    // The local file's reason; an upload's is in the library's log.
    std::string error() const { return mFile ? mFile->errorString().toLocal8Bit().toStdString() : ""; }

private:
    bool mUrl;
    std::unique_ptr<LmCurlUploadStream> mStream;
    std::unique_ptr<QSaveFile> mFile;
};

int copy(std::string const& source, std::string const& destination, bool json, bool quiet)
{
    LastLibraryMessage library;
    int failure = 0;
    std::optional<Source> input = openSource(source, library, failure);
    if (!input)
        return failure;
    bool const toUrl = LmCurlClient::isUrl(destination.c_str());
    McWatch watch;
    Sink sink(destination, input->size);
    auto const why = [&] { return toUrl ? library.text() : sink.error(); };
    if (!sink.isOpen())
        return fail(ExitCode::OutputError, "cannot %s %s: %s", toUrl ? "upload to" : "write",
                    destination.c_str(), why().c_str());
    Progress progress(!quiet);
    progress.phase(toUrl ? "upload" : "copy", input->size > 0 ? (input->size + kBlock - 1) / kBlock : 0,
                   "MiB");
    std::vector<char> block(kBlock);
    int64_t done = 0;
    while (sink.good()) {
        int64_t const got = input->read(block.data(), kBlock);
        if (got < 0) {
            sink.cancel();
            progress.finish();
            return fail(ExitCode::UnreadableInput, "cannot read %s: %s", source.c_str(),
                        input->error().c_str());
        }
        if (got == 0)
            break;
        sink.write(block.data(), got);
        done += got;
        progress.update((done + kBlock - 1) / kBlock);
    }
    bool const ok = sink.good() && sink.close();
    progress.finish();
    if (!ok) {
        if (!toUrl)
            sink.cancel();
        return fail(ExitCode::OutputError, "%s of %s to %s failed: %s", toUrl ? "upload" : "copy",
                    source.c_str(), destination.c_str(), why().c_str());
    }
    double const seconds = watch.elapsedSeconds();
    if (json) {
        QJsonObject const document{{"source", QString::fromLocal8Bit(source.c_str())},
                                   {"destination", QString::fromStdString(destination)},
                                   {"bytes", qint64(done)},
                                   {"seconds", seconds}};
        std::fputs(QJsonDocument(document).toJson(QJsonDocument::Indented).constData(), stdout);
    } else if (!quiet) {
        std::printf("%s -> %s: %lld bytes in %.2f s\n", source.c_str(), destination.c_str(),
                    static_cast<long long>(done), seconds);
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
    bool const member = McFilename::isInContainer(source.c_str());
    bool const fromUrl = LmCurlClient::isUrl(source.c_str());
    bool const toUrl = LmCurlClient::isUrl(destination.c_str());
    if (fromUrl && !member && !toUrl)
        return fail(ExitCode::Usage, "copying from a URL to a local file is not supported yet");
    if (!member && fromUrl == toUrl)
        return usageError(cpSyntax(), "one of SOURCE and DESTINATION must be a local file, the other a URL");
    return copy(source, destination, parsed.has("--json"), parsed.has("--quiet"));
}

} // namespace mdxtool
