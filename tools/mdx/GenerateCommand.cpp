// mdx generate: a study's tag file built from the files the catalog lists.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Progress.h"
#include "Scanner.h"
#include "TagFileLookup.h"

#include <mdxlib/generator/TagFileGenerator.h>
#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McWatch.h>
#include <mdxlib/platform/ReplyFacade.h>
#include <mdxlib/platform/WsRequest.h>
#include <mdxlib/tagfile/TagFile.h>

#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace mdxtool {

namespace {

CommandSyntax const& generateSyntax()
{
    static CommandSyntax const syntax{
        "generate",
        "STUDYUID",
        "Builds the study's tag file from the files the catalog lists for it: every DICOM\n"
        "file is read (local paths, file-server paths and URLs alike), every volume file\n"
        "becomes a volume of its series with its preview, images outside volumes get 2D\n"
        "previews, and the series the catalog marks carry the generator mark. Files that\n"
        "cannot be read are skipped with a line each; the tag file is written with the rest.",
        {helpOption(), quietOption(), jsonOption(), metaOption(), catalogOption()}};
    return syntax;
}

// The library's warnings and errors of a run, each to become one line.
class LogCollector
{
public:
    LogCollector()
        : mPreviousLevel(getTheLogInstance()->logLevel())
    {
        getTheLogInstance()->setLogLevel(McLogFile::LevelWarning);
        getTheLogInstance()->setWriteCallback(
            [this](int, std::string const& message) { mMessages.push_back(message); });
    }
    ~LogCollector()
    {
        getTheLogInstance()->setWriteCallback(nullptr);
        getTheLogInstance()->setLogLevel(mPreviousLevel);
    }
    std::vector<std::string> const& messages() const { return mMessages; }

private:
    int mPreviousLevel;
    std::vector<std::string> mMessages;
};

} // namespace

int generateCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(generateSyntax(), args, parsed))
        return *done;
    if (parsed.positional.size() != 1)
        return usageError(generateSyntax(), "give one STUDYUID");
    std::string const studyUID = parsed.positional.front();
    applyMeta(parsed);
    applyCatalog(parsed);
    quietDicomLog();

    Lmg::WsRequest request;
    request.requester = "mdx";
    request.studyUID = studyUID;
    Lmg::ReplyFacade reply;
    McResult const result = GetStudy(request.requester, studyUID, &reply, request, false, true, 1);
    if (!result.ok())
        return fail(ExitCode::UnreadableInput, "cannot query the catalog: %s", result.message().c_str());
    if (reply.entries.empty())
        return fail(ExitCode::NoInput, "study %s is not in the catalog", studyUID.c_str());

    Progress progress(!parsed.has("--quiet"));
    Mdx::TagFileGenerator generator;
    std::string currentPhase;
    generator.setProgressCallback([&](char const* phase, int done, int total) {
        if (currentPhase != phase) {
            currentPhase = phase;
            progress.phase(phase, total, "files");
        }
        progress.update(done);
    });
    Mdx::TagFile tagFile;
    McWatch watch;
    bool written = false;
    std::vector<std::string> messages;
    {
        LogCollector collector;
        written =
            generator.createTagFile(tagFile, static_cast<int>(reply.entries.front()->id), studyUID.c_str());
        messages = collector.messages();
    }
    progress.finish();
    for (std::string const& message : messages)
        warn("%s", message.c_str());

    Mdx::TagFileGenerator::Counts const& counts = generator.counts();
    QString const path = Mdx::TagFile::cacheFilePathForStudy(studyUID.c_str());
    int loadMs = 0, volumeMs = 0, previewMs = 0;
    generator.getTimings(loadMs, volumeMs, previewMs);
    if (parsed.has("--json")) {
        QJsonObject const out{{"studyUID", QString::fromStdString(studyUID)},
                              {"tagFile", path},
                              {"written", written},
                              {"dicomFiles", counts.dicomFiles},
                              {"images", counts.images},
                              {"skipped", counts.skipped},
                              {"series", tagFile.series().size()},
                              {"volumeFiles", counts.volumeFiles},
                              {"volumes", counts.volumes},
                              {"previews", counts.previews},
                              {"loadMsec", loadMs},
                              {"volumeMsec", volumeMs},
                              {"previewMsec", previewMs},
                              {"totalMsec", static_cast<qint64>(watch.elapsedMsec())}};
        std::fputs(QJsonDocument(out).toJson(QJsonDocument::Indented).constData(), stdout);
    } else if (!parsed.has("--quiet")) {
        std::printf("%s  %s\n", studyUID.c_str(), path.toLocal8Bit().constData());
        std::printf("  %d of %d DICOM files read into %d series (%d skipped), %d of %d volume files, "
                    "%d 2D previews\n",
                    counts.images, counts.dicomFiles, tagFile.series().size(), counts.skipped, counts.volumes,
                    counts.volumeFiles, counts.previews);
        std::printf("  reading %d ms, volume files %d ms, previews %d ms, total %lld ms\n", loadMs, volumeMs,
                    previewMs, static_cast<long long>(watch.elapsedMsec()));
    }
    if (counts.images == 0)
        return fail(ExitCode::NothingFound, "no DICOM image of study %s could be read", studyUID.c_str());
    if (!written)
        return fail(ExitCode::OutputError, "cannot write the tag file %s", path.toLocal8Bit().constData());
    return status(ExitCode::Ok);
}

} // namespace mdxtool
