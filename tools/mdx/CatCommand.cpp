// mdx cat: any object the library reads (a local file, a plain, S3, Google,
// Azure or WADO URL, a member of a .kz container), or a byte range of it,
// to standard output through the exported stream functions.
#include "Commands.h"
#include "Exit.h"
#include "FirstLibraryError.h"
#include "Options.h"
#include "Progress.h"

#include <mdxlib/streamapi/StreamFunctions.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <vector>

namespace mdxtool {

namespace {

constexpr int kBlock = 1 << 20;

CommandSyntax const& catSyntax()
{
    static OptionSyntax const progress{"--progress", 'p', nullptr,
                                       "a progress line with the bytes done of the total on standard error"};
    static OptionSyntax const range{"--range", 'r', "A-B",
                                    "only bytes A to B (inclusive) of the object; \"A-\" reads to its end"};
    static CommandSyntax const syntax{
        "cat",
        "PATH|URL",
        "Writes the object at PATH or URL to standard output. URL is http(s)://,\n"
        "s3://bucket/key, gs://bucket/key, az://account/container/blob or a WADO form;\n"
        "a path with a .kz/ element names a member of a container, read through the\n"
        "cloud reader (settings from cloud-reader.xml below DICOMWEB_PATH). A transfer\n"
        "that breaks off is a failure, never a short object.",
        {helpOption(), progress, range}};
    return syntax;
}

// The bytes of a local file in the same terms as a stream handle.
class LocalReader
{
public:
    ~LocalReader()
    {
        if (mFile)
            std::fclose(mFile);
    }
    bool open(std::string const& path, long long first, long long last)
    {
        mFile = std::fopen(path.c_str(), "rb");
        if (!mFile || std::fseek(mFile, 0, SEEK_END) != 0)
            return false;
        long long const size = std::ftell(mFile);
        mEnd = last >= 0 && last < size ? last + 1 : size;
        mPosition = std::min(first, mEnd);
        return std::fseek(mFile, mPosition, SEEK_SET) == 0;
    }
    long long length() const { return mEnd - mPosition; }
    long long read(char* buffer, int count)
    {
        size_t const want = static_cast<size_t>(std::min<long long>(count, mEnd - mPosition));
        size_t const got = std::fread(buffer, 1, want, mFile);
        if (got < want && std::ferror(mFile))
            return -1;
        mPosition += static_cast<long long>(got);
        return static_cast<long long>(got);
    }

private:
    FILE* mFile = nullptr;
    long long mPosition = 0;
    long long mEnd = 0;
};

} // namespace

int catCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(catSyntax(), args, parsed))
        return *done;
    if (parsed.positional.size() != 1)
        return usageError(catSyntax(), "give one PATH or URL");
    std::string const path = parsed.positional.front();
    std::string const range = parsed.value("--range");
    long long first = 0;
    long long last = -1;
    if (parsed.values.count("--range")) {
        std::smatch match;
        if (!std::regex_match(range, match, std::regex("([0-9]+)-([0-9]*)")))
            return usageError(catSyntax(), "--range wants A-B or A-");
        first = std::atoll(match[1].str().c_str());
        last = match[2].length() ? std::atoll(match[2].str().c_str()) : -1;
        if (last >= 0 && last < first)
            return usageError(catSyntax(), "--range wants A no greater than B");
    }
    FirstLibraryError error;

    void* handle = nullptr;
    LocalReader local;
    bool const remote = StringIsUrl(path.c_str());
    if (remote) {
        int const opened = range.empty() ? OpenStream(path.c_str(), &handle)
                                         : OpenStreamRange(path.c_str(), range.c_str(), &handle);
        // A member the container doesn't hold is told by the library's
        // "does not include" line.
        if (opened != 0)
            return fail(error.text().find("does not include") != std::string::npos
                            ? ExitCode::NothingFound
                            : ExitCode::UnreadableInput,
                        "cannot read %s: %s", path.c_str(), error.text().c_str());
    } else if (!local.open(path, first, last)) {
        return fail(errno == ENOENT ? ExitCode::NoInput : ExitCode::UnreadableInput, "cannot read %s: %s",
                    path.c_str(), osError().c_str());
    }
    struct Closer
    {
        void* handle;
        ~Closer() { CloseStream(handle); }
    } const closer{handle};

    long long const length = remote ? StreamContentLength(handle) : local.length();
    Progress progress(parsed.has("--progress"));
    progress.phase("cat", range.empty() && length > 0 ? length : 0, "bytes");
    std::vector<char> buffer(kBlock);
    long long total = 0;
    for (;;) {
        long long const n =
            remote ? ReadBytes(handle, buffer.data(), 0, kBlock) : local.read(buffer.data(), kBlock);
        if (n < 0) {
            progress.finish();
            return fail(ExitCode::UnreadableInput, "reading %s failed after %lld bytes: %s", path.c_str(),
                        total, remote ? error.text().c_str() : osError().c_str());
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
