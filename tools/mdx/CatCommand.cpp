// mdx cat: a remote object (a plain, S3, Google, Azure or WADO URL) or a
// member of a local or remote .kz container to standard output through the
// cloud reader.
#include "Commands.h"
#include "Exit.h"
#include "FirstLibraryError.h"
#include "Options.h"
#include "Progress.h"

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/platform/McFilename.h>

#include <cstdio>
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
        "URL|CONTAINER.kz/MEMBER",
        "Writes the object at URL to standard output, read through the cloud reader in\n"
        "chunks with read-ahead, as the library reads DICOM objects. URL is http(s)://,\n"
        "s3://bucket/key, gs://bucket/key, az://account/container/blob or a WADO form.\n"
        "A path or URL with a \".kz/\" element names a member of a container, local or\n"
        "remote: the container's offset table is read once, and the member as its range.\n"
        "The reader's settings come from cloud-reader.xml below DICOMWEB_PATH.",
        {helpOption(), progress}};
    return syntax;
}

} // namespace

int catCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(catSyntax(), args, parsed))
        return *done;
    if (parsed.positional.size() != 1)
        return usageError(catSyntax(), "give one URL");
    std::string const url = parsed.positional.front();
    if (!McFilename::isUrl(url.c_str()) && !McFilename::isInContainer(url.c_str()))
        return usageError(catSyntax(), "give a URL or a container member (a path with a .kz/ element)");
    FirstLibraryError error;
    Kz::CloudReader& reader = Kz::CloudReader::instance();
    std::shared_ptr<Kz::File> file = reader.openFile(url, kNoSessionContext);
    // No file at all: a member the container doesn't hold (the library's
    // "does not include" line), or a container that can't be read.
    if (!file)
        return fail(error.text().find("does not include") != std::string::npos ? ExitCode::NothingFound
                                                                               : ExitCode::UnreadableInput,
                    "cannot read %s: %s", url.c_str(), error.text().c_str());
    if (file->state() == Kz::File::FILE_BAD)
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
