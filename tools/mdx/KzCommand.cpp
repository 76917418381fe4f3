// mdx kz create, ls, cat and name: writing .kz containers, listing their
// offset tables and reading their members.
#include "Commands.h"
#include "Exit.h"
#include "FirstLibraryError.h"
#include "Options.h"
#include "Progress.h"

#include <mdxlib/cloudreader/CloudContainer.h>
#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/ContainerFile.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/cloudreader/LocalObject.h>
#include <mdxlib/cloudreader/Writer.h>
#include <mdxlib/platform/McFilename.h>

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <vector>

namespace mdxtool {

namespace {

CommandSyntax const& createSyntax()
{
    static CommandSyntax const syntax{
        "kz create",
        "OUT.kz FILE...",
        "Writes the files, in the order given, as the members of a new container OUT.kz, each\n"
        "under its file name without folders. A container holds fewer than 65,536 members and\n"
        "less than 4 GB; member names must differ. OUT.kz is replaced only when the new\n"
        "container is complete.",
        {helpOption(), quietOption(), jsonOption()}};
    return syntax;
}

CommandSyntax const& lsSyntax()
{
    static CommandSyntax const syntax{
        "kz ls",
        "CONTAINER",
        "Lists the members of a container as its offset table gives them: data offset,\n"
        "size and name, in table order. CONTAINER is a local file or a URL (http(s)://,\n"
        "s3://, gs://, az://), read through the cloud reader.",
        {helpOption(), jsonOption()}};
    return syntax;
}

CommandSyntax const& catSyntax()
{
    static CommandSyntax const syntax{"kz cat",
                                      "CONTAINER MEMBER",
                                      "Writes the bytes of one member of a container to standard output.",
                                      {helpOption()}};
    return syntax;
}

CommandSyntax const& nameSyntax()
{
    static CommandSyntax const syntax{
        "kz name",
        "KEY [INDEX]",
        "Prints the file name of the container numbered INDEX (0 unless given) among\n"
        "those made for KEY: ten hex digits of the MD5 of KEY, letters of INDEX, \".kz\".",
        {helpOption()}};
    return syntax;
}

// A container and what serves its bytes: a local file read directly, or a
// URL read through the cloud reader.
struct OpenContainer
{
    std::shared_ptr<Kz::LocalObject> object;
    std::unique_ptr<Kz::ContainerFile> local;
    std::shared_ptr<Kz::CloudContainer> remote;

    std::vector<Kz::ContainerFile::Entry> entries() const
    {
        return local ? local->entries() : remote->entries();
    }
};

// Opens and loads a container, or says in one line why not.
std::optional<OpenContainer> openContainer(std::string const& location, FirstLibraryError& library,
                                           int& exitStatus)
{
    OpenContainer opened;
    std::string reason;
    if (McFilename::isUrl(location.c_str())) {
        opened.remote = std::make_shared<Kz::CloudContainer>(Kz::CloudReader::instance(), location);
        if (opened.remote->load())
            return opened;
        reason = opened.remote->initError();
        // A transfer that failed says why in the library's log.
        if (reason.empty() || reason == "cannot be read")
            reason = "cannot be read: " + library.text();
    } else {
        std::string error;
        opened.object = Kz::LocalObject::open(location, error);
        if (!opened.object) {
            exitStatus = fail(ExitCode::NoInput, "cannot open %s: %s", location.c_str(), error.c_str());
            return std::nullopt;
        }
        opened.local =
            std::make_unique<Kz::ContainerFile>(location, opened.object->reader(), opened.object->length());
        if (opened.local->load())
            return opened;
        reason = opened.local->initError();
        if (reason.empty())
            reason = "cannot be read";
    }
    exitStatus =
        fail(ExitCode::UnreadableInput, "%s is not a container: %s", location.c_str(), reason.c_str());
    return std::nullopt;
}

// The writer's report, which may span lines, as one line.
std::string oneLine(std::string const& text)
{
    std::string line;
    std::istringstream lines(text);
    for (std::string part; std::getline(lines, part);)
        if (!part.empty())
            line += (line.empty() ? "" : "; ") + part;
    return line;
}

int kzCreateCommand(Arguments const& args)
{
    CommandSyntax const& syntax = createSyntax();
    ParsedArguments parsed;
    if (auto const done = parseCommand(syntax, args, parsed))
        return *done;
    if (parsed.positional.size() < 2)
        return usageError(syntax, parsed.positional.empty() ? "missing OUT.kz and FILE" : "missing FILE");
    std::string const out = parsed.positional[0];
    std::vector<QString> inputs;
    for (size_t i = 1; i < parsed.positional.size(); ++i) {
        QString const path = QString::fromStdString(parsed.positional[i]);
        if (!QFileInfo::exists(path))
            return fail(ExitCode::NoInput, "no such file: %s", parsed.positional[i].c_str());
        inputs.push_back(path);
    }

    Progress progress(!parsed.has("--quiet"));
    std::ostringstream messages;
    Kz::Writer writer;
    writer.setMessageStream(messages);
    writer.setProgressCallback([&](std::size_t written, std::size_t total) {
        if (written == 0)
            progress.phase("write", static_cast<int64_t>(total), "files");
        progress.update(static_cast<int64_t>(written));
    });
    bool const ok = writer.write(QString::fromStdString(out), inputs);
    progress.finish();
    if (!ok)
        return fail(ExitCode::OutputError, "cannot write %s: %s", out.c_str(),
                    oneLine(messages.str()).c_str());
    if (parsed.has("--json"))
        std::fputs(QJsonDocument(QJsonObject{{"container", QString::fromStdString(out)},
                                             {"members", qint64(inputs.size())},
                                             {"bytes", qint64(writer.size())},
                                             {"md5", QString::fromLatin1(writer.hash())}})
                       .toJson(QJsonDocument::Indented)
                       .constData(),
                   stdout);
    else if (!parsed.has("--quiet"))
        std::printf("wrote %s: %zu members, %lld bytes, MD5 %s\n", out.c_str(), inputs.size(),
                    static_cast<long long>(writer.size()), writer.hash().constData());
    return status(ExitCode::Ok);
}

int kzLsCommand(Arguments const& args)
{
    CommandSyntax const& syntax = lsSyntax();
    ParsedArguments parsed;
    if (auto const done = parseCommand(syntax, args, parsed))
        return *done;
    if (parsed.positional.size() != 1)
        return usageError(syntax, parsed.positional.empty() ? "missing CONTAINER" : "one CONTAINER only");
    int exitStatus = status(ExitCode::Ok);
    FirstLibraryError library;
    std::optional<OpenContainer> const opened = openContainer(parsed.positional[0], library, exitStatus);
    if (!opened)
        return exitStatus;
    std::vector<Kz::ContainerFile::Entry> const entries = opened->entries();
    if (parsed.has("--json")) {
        QJsonArray members;
        for (Kz::ContainerFile::Entry const& entry : entries)
            members.append(QJsonObject{{"name", QString::fromUtf8(entry.name.data(), int(entry.name.size()))},
                                       {"offset", qint64(entry.offset)},
                                       {"size", qint64(entry.size)}});
        std::fputs(QJsonDocument(QJsonObject{{"container", QString::fromStdString(parsed.positional[0])},
                                             {"members", members}})
                       .toJson(QJsonDocument::Indented)
                       .constData(),
                   stdout);
        return status(ExitCode::Ok);
    }
    long long total = 0;
    std::printf("%10s %10s  %s\n", "OFFSET", "SIZE", "NAME");
    for (Kz::ContainerFile::Entry const& entry : entries) {
        std::printf("%10u %10u  %s\n", entry.offset, entry.size, entry.name.c_str());
        total += entry.size;
    }
    std::printf("%zu %s, %lld bytes\n", entries.size(), entries.size() == 1 ? "member" : "members", total);
    return status(ExitCode::Ok);
}

int kzCatCommand(Arguments const& args)
{
    CommandSyntax const& syntax = catSyntax();
    ParsedArguments parsed;
    if (auto const done = parseCommand(syntax, args, parsed))
        return *done;
    if (parsed.positional.size() != 2)
        return usageError(syntax, "needs CONTAINER and MEMBER");
    std::string const& location = parsed.positional[0];
    std::string const& member = parsed.positional[1];
    int exitStatus = status(ExitCode::Ok);
    FirstLibraryError library;
    std::optional<OpenContainer> const opened = openContainer(location, library, exitStatus);
    if (!opened)
        return exitStatus;
    std::function<long long(long long, char*, long long)> read;
    long long start = 0;
    long long length = 0;
    if (opened->local) {
        std::optional<Kz::ContainerFile::Range> const range = opened->local->openMember(member.c_str(), -1);
        if (range) {
            start = range->start;
            length = range->length;
            read = [&opened](long long at, char* data, long long n) {
                return opened->object->read(at, data, n);
            };
        }
    } else if (std::shared_ptr<Kz::File> file = opened->remote->open(member.c_str(), -1)) {
        length = file->length();
        read = [file](long long, char* data, long long n) { return file->read(data, n); };
    }
    if (!read) {
        std::vector<Kz::ContainerFile::Entry> const entries = opened->entries();
        bool const listed =
            std::any_of(entries.begin(), entries.end(),
                        [&](Kz::ContainerFile::Entry const& entry) { return entry.name == member; });
        if (listed)
            return fail(ExitCode::UnreadableInput, "member %s of %s runs past the end of the container",
                        member.c_str(), location.c_str());
        return fail(ExitCode::NothingFound, "no member %s in %s", member.c_str(), location.c_str());
    }
    std::vector<char> block(1 << 20);
    for (long long done = 0; done < length;) {
        long long const want = std::min<long long>(static_cast<long long>(block.size()), length - done);
        long long const got = read(start + done, block.data(), want);
        if (got <= 0)
            return fail(ExitCode::UnreadableInput, "cannot read member %s of %s: %s", member.c_str(),
                        location.c_str(),
                        got < 0 ? (opened->local ? osError() : library.text()).c_str()
                                : "the container ended early");
        if (std::fwrite(block.data(), 1, static_cast<size_t>(got), stdout) != static_cast<size_t>(got))
            return fail(ExitCode::OutputError, "cannot write to standard output: %s", osError().c_str());
        done += got;
    }
    if (std::fflush(stdout) != 0)
        return fail(ExitCode::OutputError, "cannot write to standard output: %s", osError().c_str());
    return status(ExitCode::Ok);
}

int kzNameCommand(Arguments const& args)
{
    CommandSyntax const& syntax = nameSyntax();
    ParsedArguments parsed;
    if (auto const done = parseCommand(syntax, args, parsed))
        return *done;
    if (parsed.positional.empty() || parsed.positional.size() > 2)
        return usageError(syntax, "needs KEY and at most one INDEX");
    int index = 0;
    if (parsed.positional.size() == 2) {
        std::string const& text = parsed.positional[1];
        char* end = nullptr;
        long const value = std::strtol(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || value < 0 || value > 65535)
            return usageError(syntax, "INDEX must be a number from 0 to 65535");
        index = static_cast<int>(value);
    }
    std::printf("%s\n", Kz::Writer::containerFileName(parsed.positional[0].c_str(), index).c_str());
    return status(ExitCode::Ok);
}

} // namespace

int kzCommand(Arguments const& args)
{
    std::string const sub = args.empty() ? std::string() : args[0];
    Arguments const rest(args.empty() ? args.end() : args.begin() + 1, args.end());
    if (sub == "create")
        return kzCreateCommand(rest);
    if (sub == "ls")
        return kzLsCommand(rest);
    if (sub == "cat")
        return kzCatCommand(rest);
    if (sub == "name")
        return kzNameCommand(rest);
    if (sub == "--help" || sub == "-h") {
        std::printf("usage: mdx kz create [OPTION]... OUT.kz FILE...\n"
                    "       mdx kz ls [OPTION]... CONTAINER\n"
                    "       mdx kz cat CONTAINER MEMBER\n"
                    "       mdx kz name KEY [INDEX]\n"
                    "'mdx kz SUB-COMMAND --help' shows the options of each.\n");
        return status(ExitCode::Ok);
    }
    return fail(ExitCode::Usage, "kz: %s (try 'mdx kz --help')",
                sub.empty() ? "missing create, ls, cat or name"
                            : ("unknown sub-command '" + sub + "'").c_str());
}

} // namespace mdxtool
