// mdx scan and mdx build: files to study trees; what the trees cost, and
// the tag files they make.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Progress.h"
#include "Scanner.h"

#include <mdxlib/platform/McWatch.h>
#include <mdxlib/tagfile/OrderedImageLoader.h>
#include <mdxlib/tagfile/TagFile.h>

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace mdxtool {

namespace {

// Parsing is spread over the cores; the trees still take the images in
// file order, so the tag files do not depend on the number of jobs.
OptionSyntax const& jobsOption()
{
    static OptionSyntax const option{"--jobs", 'j', "N",
                                     "read files on N threads (default: the number of cores)"};
    return option;
}

CommandSyntax const& scanSyntax()
{
    static CommandSyntax const syntax{
        "scan",
        "PATH...",
        "Reads every DICOM file in the given files and folders (recursively) into one study\n"
        "tree per study, optimises the trees and prints for each study its series and image\n"
        "counts and the number of stored attributes: flat (every image on its own), after\n"
        "merging, and after optimisation. Files that cannot be read, damaged DICOM files, files\n"
        "that are not DICOM, images without UIDs and repeated SOP Instance UIDs are counted apart\n"
        "and skipped.",
        {helpOption(), quietOption(), verboseOption(), jsonOption(), jobsOption()}};
    return syntax;
}

CommandSyntax const& buildSyntax()
{
    static CommandSyntax const syntax{
        "build",
        "PATH...",
        "Scans as `mdx scan` does and writes one tag file per study into the meta folder, which\n"
        "is created if missing and checked to be writable before the scan. A study whose tag\n"
        "file already holds more images than the new tree is kept as it is, with a warning.",
        {helpOption(),
         quietOption(),
         verboseOption(),
         jsonOption(),
         metaOption(),
         jobsOption(),
         {"--store-paths", 0, nullptr, "record each image's file path in its tag file"},
         {"--force", 0, nullptr, "replace tag files even when they hold more images"}}};
    return syntax;
}

long long ll(int64_t value)
{
    return static_cast<long long>(value);
}

QJsonObject skippedJson(SkipCounts const& skipped)
{
    return QJsonObject{{"unreadable", qint64(skipped.unreadable)},
                       {"damaged", qint64(skipped.damaged)},
                       {"notDicom", qint64(skipped.notDicom)},
                       {"withoutUIDs", qint64(skipped.withoutUIDs)},
                       {"duplicates", qint64(skipped.duplicates)}};
}

QJsonObject scanJson(ScanResult const& result)
{
    QJsonArray missing;
    for (std::string const& path : result.missing)
        missing.append(QString::fromStdString(path));
    return QJsonObject{{"files", qint64(result.files)},
                       {"images", qint64(result.images)},
                       {"skipped", skippedJson(result.skipped)},
                       {"missing", missing},
                       {"scanSeconds", result.seconds}};
}

void printJson(QJsonObject const& document)
{
    std::fputs(QJsonDocument(document).toJson(QJsonDocument::Indented).constData(), stdout);
}

void printSkipped(ScanResult const& result)
{
    SkipCounts const& skipped = result.skipped;
    std::printf("%lld files: %lld images in %zu %s; skipped %lld unreadable, %lld damaged, %lld not DICOM, "
                "%lld without UIDs, %lld duplicate SOP Instance UIDs\n",
                ll(result.files), ll(result.images), result.studies.size(),
                result.studies.size() == 1 ? "study" : "studies", ll(skipped.unreadable), ll(skipped.damaged),
                ll(skipped.notDicom), ll(skipped.withoutUIDs), ll(skipped.duplicates));
}

// The status of a scan that found no image, else nothing: the paths that
// do not exist were named already; existing ones without images get a line.
std::optional<int> emptyScan(ScanResult const& result, std::vector<std::string> const& paths)
{
    if (result.images > 0)
        return std::nullopt;
    if (result.files == 0 && result.missing.size() == paths.size())
        return status(ExitCode::NoInput);
    std::string names;
    for (std::string const& path : paths)
        names += (names.empty() ? "" : " ") + path;
    return fail(ExitCode::NothingFound, "no DICOM image found in %s (%lld files read)", names.c_str(),
                ll(result.files));
}

// The command line of scan and build: parsed, with at least one PATH and a
// --jobs that is a count. Otherwise the exit status (after --help, or an
// error line and the usage status).
std::optional<int> parseScan(CommandSyntax const& syntax, Arguments const& args, ParsedArguments& parsed,
                             ScanOptions& options)
{
    if (std::optional<int> const done = parseCommand(syntax, args, parsed))
        return done;
    if (parsed.positional.empty())
        return usageError(syntax, "no PATH given");
    options.verbose = parsed.has("--verbose");
    options.storeFilePaths = parsed.has("--store-paths");
    options.jobs = Mdx::defaultLoadJobs();
    if (!parsed.value("--jobs").empty() && !parsePositive(parsed.value("--jobs"), options.jobs, 256))
        return usageError(syntax, "--jobs takes a count from 1 to 256");
    return std::nullopt;
}

// Creates the folder and its parents as needed, and proves it writable by
// making and removing a file in it, so that a build fails before a long
// scan rather than after it. Empty on success, else the system's reason.
std::string prepareFolder(std::string const& folder, bool& created)
{
    struct stat status;
    created = stat(folder.c_str(), &status) != 0;
    if (!created && !S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return osError();
    }
    for (size_t slash = folder.find('/', 1); created; slash = folder.find('/', slash + 1)) {
        std::string const part = folder.substr(0, slash);
        if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST)
            return osError();
        if (slash == std::string::npos)
            break;
    }
    std::string probe = folder + "/.mdx-write-check-XXXXXX";
    int const fd = mkstemp(&probe[0]);
    if (fd < 0)
        return osError();
    close(fd);
    unlink(probe.c_str());
    return std::string();
}

} // namespace

int scanCommand(Arguments const& args)
{
    ParsedArguments parsed;
    ScanOptions options;
    if (std::optional<int> const done = parseScan(scanSyntax(), args, parsed, options))
        return *done;
    bool const json = parsed.has("--json");
    Progress progress(!parsed.has("--quiet"));
    ScanResult const result = scanPaths(parsed.positional, options, progress);
    if (std::optional<int> const empty = emptyScan(result, parsed.positional))
        return *empty;

    QJsonObject document = scanJson(result);
    QJsonArray studies;
    int64_t flat = 0, merged = 0, optimized = 0;
    for (auto const& [uid, study] : result.studies) {
        flat += study->flatAttributes;
        merged += study->mergedAttributes;
        optimized += study->optimizedAttributes;
        if (json) {
            studies.append(QJsonObject{{"studyUID", QString::fromLatin1(uid)},
                                       {"series", study->tagFile.series().size()},
                                       {"images", study->tagFile.images().size()},
                                       {"flatAttributes", qint64(study->flatAttributes)},
                                       {"mergedAttributes", qint64(study->mergedAttributes)},
                                       {"optimisedAttributes", qint64(study->optimizedAttributes)},
                                       {"optimiseMsec", qint64(study->optimizeMsec)}});
            continue;
        }
        std::printf("study %s\n  series %d, images %d\n", uid.constData(), study->tagFile.series().size(),
                    study->tagFile.images().size());
        std::printf("  attributes stored: flat %lld, merged %lld, optimised %lld (optimised in %lld ms)\n",
                    ll(study->flatAttributes), ll(study->mergedAttributes), ll(study->optimizedAttributes),
                    ll(study->optimizeMsec));
    }
    if (json) {
        document["studies"] = studies;
        printJson(document);
    } else {
        std::printf("\n");
        printSkipped(result);
        std::printf("attributes stored: flat %lld, merged %lld, optimised %lld; total time %.2f s\n",
                    ll(flat), ll(merged), ll(optimized), result.seconds);
    }
    return status(result.missing.empty() ? ExitCode::Ok : ExitCode::NoInput);
}

int buildCommand(Arguments const& args)
{
    ParsedArguments parsed;
    ScanOptions options;
    if (std::optional<int> const done = parseScan(buildSyntax(), args, parsed, options))
        return *done;
    if (!parsed.value("--meta").empty())
        Mdx::TagFile::setMetaFolder(parsed.value("--meta").c_str());
    std::string const meta = Mdx::TagFile::metaFolder();
    bool created = false;
    std::string const problem = prepareFolder(meta, created);
    if (!problem.empty())
        return fail(ExitCode::OutputError, "cannot write to meta folder %s: %s", meta.c_str(),
                    problem.c_str());

    bool const json = parsed.has("--json");
    Progress progress(!parsed.has("--quiet"));
    ScanResult const result = scanPaths(parsed.positional, options, progress);
    if (std::optional<int> const empty = emptyScan(result, parsed.positional)) {
        if (created)
            rmdir(meta.c_str()); // leave no trace of a build that wrote nothing
        return *empty;
    }

    McWatch writing;
    int written = 0, failures = 0, kept = 0, series = 0;
    int64_t bytes = 0;
    QJsonArray studies;
    progress.phase("write", static_cast<int64_t>(result.studies.size()), "tag files");
    for (auto const& [uid, study] : result.studies) {
        progress.update(written + failures + kept);
        Mdx::TagFile& file = study->tagFile;
        QString const path = Mdx::TagFile::cacheFilePathForStudy(uid.constData());
        QJsonObject entry{{"studyUID", QString::fromLatin1(uid)},
                          {"series", file.series().size()},
                          {"images", file.images().size()},
                          {"path", path}};
        // A rebuild from part of a study's files must not quietly replace
        // a fuller tag file.
        Mdx::TagFile existing;
        if (!parsed.has("--force") && existing.readCacheFile(path, uid.constData(), false) &&
            existing.images().size() > file.images().size()) {
            progress.finish();
            warn("kept %s: it holds %d images of study %s, the new tree only %d (--force replaces it)",
                 path.toLocal8Bit().constData(), existing.images().size(), uid.constData(),
                 file.images().size());
            ++kept;
            entry["status"] = "kept";
            entry["existingImages"] = existing.images().size();
        } else if (!file.writeCacheFile()) {
            progress.finish();
            warn("cannot write tag file %s", path.toLocal8Bit().constData());
            ++failures;
            entry["status"] = "failed";
        } else {
            ++written;
            int64_t const size = QFileInfo(path).size();
            bytes += size;
            series += file.series().size();
            entry["status"] = "written";
            entry["bytes"] = qint64(size);
            if (!json)
                std::printf("%s  %d series, %d images, %lld bytes  %s\n", uid.constData(),
                            file.series().size(), file.images().size(), ll(size),
                            path.toLocal8Bit().constData());
        }
        studies.append(entry);
    }
    progress.finish();

    if (json) {
        QJsonObject document = scanJson(result);
        document["metaFolder"] = QString::fromStdString(meta);
        document["studies"] = studies;
        document["writeSeconds"] = writing.elapsedSeconds();
        printJson(document);
    } else {
        std::printf("\n");
        printSkipped(result);
        if (written > 0)
            std::printf("wrote %d tag %s in %s: %d series, %lld bytes on disk; scan %.2f s, write %.2f s\n",
                        written, written == 1 ? "file" : "files", meta.c_str(), series, ll(bytes),
                        result.seconds, writing.elapsedSeconds());
        else
            std::printf("wrote no tag file\n");
    }
    if (failures > 0)
        return status(ExitCode::OutputError);
    if (!result.missing.empty())
        return status(ExitCode::NoInput);
    return status(kept > 0 ? ExitCode::Kept : ExitCode::Ok);
}

} // namespace mdxtool
