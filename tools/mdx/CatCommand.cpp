// mdx cat: a remote object (a plain, S3, Google, Azure or WADO URL) to
// standard output through the cloud reader.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Progress.h"

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <vector>

namespace mdxtool {

namespace {

constexpr long long kBlock = 1 << 20;

CommandSyntax const& catSyntax()
{
    static OptionSyntax const progress{"--progress", 'p', nullptr,
                                       "a progress line with the bytes done of the total on standard error"};
    static CommandSyntax const syntax{
        "cat",
        "URL",
        "Writes the object at URL to standard output, read through the cloud reader in\n"
        "chunks with read-ahead, as the library reads DICOM objects. URL is http(s)://,\n"
        "s3://bucket/key, gs://bucket/key, az://account/container/blob or a WADO form.\n"
        "The reader's settings come from cloud-reader.xml below DICOMWEB_PATH.",
        {helpOption(), progress}};
    return syntax;
}

// The first error the library logged: the reason of a failed read. The log
// itself still reaches standard error when it was asked for (MDX_LOG_LEVEL).
class FirstError
{
public:
    FirstError()
    {
        bool const echo = ExResource::getParameter("MDX_LOG_LEVEL").has_value();
        getTheLogInstance()->setWriteCallback([this, echo](int level, std::string const& message) {
            if (echo)
                std::fprintf(stderr, "%s\n", message.c_str());
            std::lock_guard<std::mutex> lock(mMutex);
            if (level >= McLogFile::LevelError && mText.empty())
                mText = message;
        });
    }
    ~FirstError() { getTheLogInstance()->setWriteCallback(nullptr); }
    std::string text()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mText.empty() ? std::string("no reason given") : mText;
    }

private:
    std::mutex mMutex;
    std::string mText;
};

} // namespace

int catCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(catSyntax(), args, parsed))
        return *done;
    if (parsed.positional.size() != 1)
        return usageError(catSyntax(), "give one URL");
    std::string const url = parsed.positional.front();
    FirstError error;
    if (!ExResource::getParameter("MDX_LOG_LEVEL"))
        getTheLogInstance()->setLogLevel(McLogFile::LevelError); // to hear the reason of a failure
    Kz::CloudReader& reader = Kz::CloudReader::instance();
    std::shared_ptr<Kz::File> file = reader.openFile(url, kNoSessionContext);
    if (!file || file->state() == Kz::File::FILE_BAD)
        return fail(ExitCode::UnreadableInput, "cannot read %s: %s", url.c_str(), error.text().c_str());
    Progress progress(parsed.has("--progress"));
    progress.phase("cat", file->length() > 0 ? file->length() : 0, "bytes");
    std::vector<char> buffer(kBlock);
    long long total = 0;
    for (;;) {
        long long const n = file->read(buffer.data(), kBlock);
        if (n < 0) {
            progress.finish();
            return fail(ExitCode::UnreadableInput, "reading %s failed after %lld bytes: %s", url.c_str(),
                        total, error.text().c_str());
        }
        if (n == 0)
            break;
        if (std::fwrite(buffer.data(), 1, static_cast<size_t>(n), stdout) != static_cast<size_t>(n)) {
            progress.finish();
            return fail(ExitCode::OutputError, "cannot write to standard output: %s", osError().c_str());
        }
        total += n;
        progress.update(total);
    }
    progress.finish();
    if (std::fflush(stdout) != 0)
        return fail(ExitCode::OutputError, "cannot write to standard output: %s", osError().c_str());
    return status(ExitCode::Ok);
}

} // namespace mdxtool
