// mdx qa put, mdx qa show and mdx update: QA records in the study catalog,
// and the tag-file update job from the command line.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"

#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/qa/QACache.h>
#include <mdxlib/qa/UpdateTagFile.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace mdxtool {

namespace {

using Lmg::Catalog;

CommandSyntax const& putSyntax()
{
    static CommandSyntax const syntax{
        "qa put",
        "ID FILE",
        "Stores the text of FILE as QA record ID in the catalog, replacing a record of the\n"
        "same number. The text is kept as it is; a record is applied to a file path that ends\n"
        "in \"?QA=ID\". FILE - reads standard input.",
        {helpOption(), catalogOption()}};
    return syntax;
}

CommandSyntax const& showSyntax()
{
    static CommandSyntax const syntax{
        "qa show",
        "ID",
        "Prints QA record ID as the library reads it: each step's id, its conditions on\n"
        "Patient ID and Issuer, and its new values by tag.",
        {helpOption(), jsonOption(), catalogOption()}};
    return syntax;
}

CommandSyntax const& updateSyntax()
{
    static CommandSyntax const syntax{
        "update",
        "STUDYUID JOB.xml",
        "Runs the update job of JOB.xml (an edit, a move into STUDYUID, or a suffix update) on\n"
        "the tag files of the meta folder, as a server process does through UpdateTagFile. The\n"
        "images are named with --images, or all images of the study's tag file with --all.",
        {helpOption(),
         jsonOption(),
         metaOption(),
         catalogOption(),
         {"--images", 0, "UID", "the SOP Instance UIDs of the images to change", true},
         {"--all", 0, nullptr, "every image of the tag file (of the source study for a move)"},
         {"--from", 0, "STUDYUID", "with --all: take the images of this study's tag file"}}};
    return syntax;
}

std::unique_ptr<Catalog> openCatalog(ParsedArguments const& parsed, ExitCode onFailure, int& exitStatus)
{
    std::string connection = parsed.value("--catalog");
    if (connection.empty())
        connection = Catalog::configuredConnection();
    McResult result;
    std::unique_ptr<Catalog> catalog = Catalog::open(connection, result);
    if (!catalog)
        exitStatus = fail(onFailure, "cannot open the catalog: %s", result.message().c_str());
    return catalog;
}

QByteArray readInput(std::string const& path, bool& ok)
{
    QFile file;
    ok = path == "-" ? file.open(stdin, QIODevice::ReadOnly)
                     : (file.setFileName(QString::fromStdString(path)), file.open(QIODevice::ReadOnly));
    if (!ok)
        return QByteArray();
    QByteArray const bytes = file.readAll();
    ok = file.error() == QFileDevice::NoError;
    return bytes;
}

char const* keyText(DcmTagKey const& key, char* buffer, size_t size)
{
    std::snprintf(buffer, size, "(%04x,%04x)", key.getGroup(), key.getElement());
    return buffer;
}

int putCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (auto const done = parseCommand(putSyntax(), args, parsed))
        return *done;
    int id = 0;
    if (parsed.positional.size() != 2)
        return usageError(putSyntax(), "give ID and FILE");
    if (!parsePositive(parsed.positional[0], id))
        return usageError(putSyntax(), "ID must be a number from 1");
    bool ok = false;
    QByteArray const text = readInput(parsed.positional[1], ok);
    if (!ok)
        return fail(ExitCode::NoInput, "cannot read %s: %s", parsed.positional[1].c_str(), osError().c_str());
    int exitStatus = status(ExitCode::Ok);
    std::unique_ptr<Catalog> catalog = openCatalog(parsed, ExitCode::OutputError, exitStatus);
    if (!catalog)
        return exitStatus;
    McResult const result = catalog->setQAText(id, text.toStdString());
    if (!result.ok())
        return fail(ExitCode::OutputError, "cannot store QA record %d: %s", id, result.message().c_str());
    return status(ExitCode::Ok);
}

int showCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (auto const done = parseCommand(showSyntax(), args, parsed))
        return *done;
    int id = 0;
    if (parsed.positional.size() != 1)
        return usageError(showSyntax(), "give one ID");
    if (!parsePositive(parsed.positional[0], id))
        return usageError(showSyntax(), "ID must be a number from 1");
    int exitStatus = status(ExitCode::Ok);
    std::unique_ptr<Catalog> catalog = openCatalog(parsed, ExitCode::UnreadableInput, exitStatus);
    if (!catalog)
        return exitStatus;
    std::string text;
    McResult const result = catalog->qaText(id, text);
    if (!result.ok())
        return fail(ExitCode::UnreadableInput, "cannot read QA record %d: %s", id, result.message().c_str());
    if (text.empty())
        return fail(ExitCode::NoInput, "QA record %d is not in the catalog", id);
    QACache::Entry entry;
    entry.qaId = id;
    QACache::parse(entry, text);

    char key[16];
    if (parsed.has("--json")) {
        QJsonArray steps;
        for (QACache::Change const& change : entry.changes) {
            QJsonObject tags;
            for (auto const& [tag, value] : change.tags)
                tags.insert(QString::fromLatin1(keyText(tag, key, sizeof key)),
                            QString::fromStdString(value));
            steps.append(QJsonObject{{"id", QString::fromStdString(change.id)},
                                     {"expectedPatientID", QString::fromStdString(change.expectedPatientID)},
                                     {"expectedIssuer", QString::fromStdString(change.expectedIssuer)},
                                     {"tags", tags}});
        }
        QJsonObject const out{{"id", id}, {"steps", steps}};
        std::fputs(QJsonDocument(out).toJson(QJsonDocument::Indented).constData(), stdout);
        return status(ExitCode::Ok);
    }
    std::printf("QA record %d: %zu step(s)\n", id, entry.changes.size());
    for (QACache::Change const& change : entry.changes) {
        std::printf("step %s\n", change.id.c_str());
        if (!change.expectedPatientID.empty())
            std::printf("  if Patient ID is %s\n", change.expectedPatientID.c_str());
        if (!change.expectedIssuer.empty())
            std::printf("  if Issuer of Patient ID is %s\n", change.expectedIssuer.c_str());
        for (auto const& [tag, value] : change.tags)
            std::printf("  %s = %s\n", keyText(tag, key, sizeof key), value.c_str());
    }
    return status(ExitCode::Ok);
}

} // namespace

int qaCommand(Arguments const& args)
{
    if (args.empty() || args.front() == "--help" || args.front() == "-h") {
        std::FILE* out = args.empty() ? stderr : stdout;
        std::fputs("usage: mdx qa put ID FILE | mdx qa show ID  (mdx qa put --help for options)\n", out);
        return status(args.empty() ? ExitCode::Usage : ExitCode::Ok);
    }
    Arguments const rest(args.begin() + 1, args.end());
    if (args.front() == "put")
        return putCommand(rest);
    if (args.front() == "show")
        return showCommand(rest);
    return fail(ExitCode::Usage, "unknown qa command '%s' (try 'mdx qa --help')", args.front().c_str());
}

int updateCommand(Arguments const& args)
{
    CommandSyntax const& syntax = updateSyntax();
    ParsedArguments parsed;
    if (auto const done = parseCommand(syntax, args, parsed))
        return *done;
    if (parsed.positional.size() != 2)
        return usageError(syntax, "give STUDYUID and JOB.xml");
    std::string const studyUID = parsed.positional[0];
    if (!parsed.value("--meta").empty())
        Mdx::TagFile::setMetaFolder(parsed.value("--meta").c_str());
    bool ok = false;
    QByteArray const job = readInput(parsed.positional[1], ok);
    if (!ok)
        return fail(ExitCode::NoInput, "cannot read %s: %s", parsed.positional[1].c_str(), osError().c_str());

    std::vector<std::string> uids;
    auto const named = parsed.values.find("--images");
    if (named != parsed.values.end())
        uids = named->second;
    std::vector<std::string> paths(uids.size());
    if (parsed.has("--all")) {
        std::string const from = parsed.value("--from").empty() ? studyUID : parsed.value("--from");
        Mdx::TagFile file;
        if (!file.readCacheFileForStudy(from.c_str(), false))
            return fail(ExitCode::NoInput, "no readable tag file for study %s", from.c_str());
        for (auto it = file.images().cbegin(); it != file.images().cend(); ++it) {
            uids.push_back(it.key().toStdString());
            QByteArray path;
            it.value()->findAndGetString(Mdx::Tags::DicomFilePath, path);
            paths.push_back(path.toStdString());
        }
    }
    std::vector<char const*> uidPointers;
    std::vector<char const*> pathPointers;
    for (size_t i = 0; i < uids.size(); ++i) {
        uidPointers.push_back(uids[i].c_str());
        pathPointers.push_back(paths[i].empty() ? nullptr : paths[i].c_str());
    }
    // The job says why it failed in the log: its error line becomes the
    // tool's one line.
    std::string reason;
    McLogFile* log = getTheLogInstance();
    int const level = log->logLevel();
    log->setLogLevel(McLogFile::LevelError);
    log->setWriteCallback([&reason](int, std::string const& message) {
        if (reason.empty())
            reason = message;
    });
    int const done = UpdateTagFile(job.constData(), studyUID.c_str(), static_cast<int>(uids.size()),
                                   uidPointers.data(), pathPointers.data());
    log->setWriteCallback(nullptr);
    log->setLogLevel(level);
    if (parsed.has("--json")) {
        QJsonObject const out{{"study", QString::fromStdString(studyUID)},
                              {"images", static_cast<int>(uids.size())},
                              {"done", done == 1}};
        std::fputs(QJsonDocument(out).toJson(QJsonDocument::Indented).constData(), stdout);
    }
    if (done != 1)
        return fail(ExitCode::ProcessingError, "the update job on study %s failed: %s", studyUID.c_str(),
                    reason.empty() ? "no reason given" : reason.c_str());
    if (!parsed.has("--json"))
        std::printf("%s: job applied to %zu image(s)\n", studyUID.c_str(), uids.size());
    return status(ExitCode::Ok);
}

} // namespace mdxtool
