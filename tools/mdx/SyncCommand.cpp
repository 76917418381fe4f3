// mdx sync: makes a study's tag file agree with the study catalog, and says
// what that changed.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "TagFileLookup.h"

#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/ReplyFacade.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/platform/WsRequest.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace mdxtool {

namespace {

CommandSyntax const& syncSyntax()
{
    static CommandSyntax const syntax{
        "sync",
        "STUDYUID",
        "Makes the study's tag file agree with the catalog: every image gets the path the\n"
        "catalog has for it, every volume its file, and series the catalog does not list are\n"
        "removed. Without a tag file, a skeleton study is built from the catalog alone. The\n"
        "tag file is written back; the counts before and after are printed.",
        {helpOption(), jsonOption(), metaOption(), catalogOption()}};
    return syntax;
}

struct Counts
{
    int series = 0;
    int images = 0;
    int withPath = 0;
};

Counts countsOf(Mdx::TagFile const& file)
{
    Counts counts{file.series().size(), file.images().size(), 0};
    for (Mdx::TagMap const* image : file.images())
        counts.withPath += image->findElement(Mdx::Tags::DicomFilePath) ? 1 : 0;
    return counts;
}

QJsonObject countsJson(Counts const& counts)
{
    return QJsonObject{
        {"series", counts.series}, {"images", counts.images}, {"imagesWithPath", counts.withPath}};
}

} // namespace

int syncCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(syncSyntax(), args, parsed))
        return *done;
    if (parsed.positional.size() != 1)
        return usageError(syncSyntax(), "give one STUDYUID");
    std::string const studyUID = parsed.positional.front();
    applyMeta(parsed);
    applyCatalog(parsed);

    Lmg::WsRequest request;
    request.requester = "mdx";
    request.studyUID = studyUID;
    Lmg::ReplyFacade reply;
    McResult result = GetStudy(request.requester, studyUID, &reply, request, false, true, 1000);
    if (result.ok() && !reply.entries.empty())
        result = GetSeries(reply.entries.front()->id, &reply, request, 4, 0, 2);
    if (!result.ok())
        return fail(ExitCode::UnreadableInput, "cannot query the catalog: %s", result.message().c_str());
    if (reply.entries.empty())
        return fail(ExitCode::NoInput, "study %s is not in the catalog", studyUID.c_str());

    Mdx::TagFile file;
    QString const path = Mdx::TagFile::cacheFilePathForStudy(studyUID.c_str());
    bool const existed = QFile::exists(path);
    if (existed && !file.readCacheFileForStudy(studyUID.c_str(), true))
        return fail(ExitCode::UnreadableInput, "cannot read the tag file %s", path.toLocal8Bit().constData());
    Counts const before = countsOf(file);
    bool const allFound = file.syncWithDatabase(reply.entries.front());
    Counts const after = countsOf(file);
    if (!file.writeCacheFile())
        return fail(ExitCode::OutputError, "cannot write the tag file %s", path.toLocal8Bit().constData());

    if (parsed.has("--json")) {
        QJsonObject const out{{"study", QString::fromStdString(studyUID)},
                              {"tagFile", path},
                              {"skeleton", !existed || before.images == 0},
                              {"allFound", allFound},
                              {"before", countsJson(before)},
                              {"after", countsJson(after)}};
        std::fputs(QJsonDocument(out).toJson(QJsonDocument::Indented).constData(), stdout);
        return status(ExitCode::Ok);
    }
    std::printf("%s  %s\n", studyUID.c_str(), path.toLocal8Bit().constData());
    if (!existed || before.images == 0)
        std::printf("  no tag file content: a skeleton study was built from the catalog\n");
    std::printf("  series %d -> %d, images %d -> %d, images with a path %d -> %d\n", before.series,
                after.series, before.images, after.images, before.withPath, after.withPath);
    std::printf("  %s\n", allFound ? "everything the catalog lists is in the tag file"
                                   : "the catalog lists images or series the tag file lacks");
    return status(ExitCode::Ok);
}

} // namespace mdxtool
