// mdx merge: folds partial tag files into their studies' tag files, as the
// receiving processes of a server do.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Progress.h"

#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tagfile/TagFile.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <string>

namespace mdxtool {

namespace {

CommandSyntax const& mergeSyntax()
{
    static CommandSyntax const syntax{
        "merge",
        "TAGFILE...",
        "Folds each tag file given (one study, usually a few series just received) into its\n"
        "study's tag file in the meta folder, which is made when there is none. A series\n"
        "that is there already is replaced whole, with a warning for the images it loses.\n"
        "The study's file is locked while it changes, so several merges may run at once.\n"
        "A TAGFILE that could not be merged is left as it is.",
        {helpOption(),
         jsonOption(),
         quietOption(),
         metaOption(),
         {"--remove", 0, nullptr, "delete each TAGFILE once it is merged"}}};
    return syntax;
}

// The library's reason for a failed merge, in place of its log, which the
// tool keeps quiet unless MDX_LOG_LEVEL asks for it.
class ReasonCapture
{
public:
    ReasonCapture()
    {
        if (ExResource::getParameter("MDX_LOG_LEVEL"))
            return;
        mActive = true;
        McLogFile* log = getTheLogInstance();
        log->setLogLevel(McLogFile::LevelWarning);
        log->setWriteCallback([this](int, std::string const& message) {
            size_t const close = message.find("] ");
            mReasons.push_back(close == std::string::npos ? message : message.substr(close + 2));
        });
    }
    ~ReasonCapture()
    {
        if (mActive)
            getTheLogInstance()->setWriteCallback(nullptr);
    }
    // What was logged since the last call, joined; warnings included.
    std::string take()
    {
        std::string text;
        for (std::string const& reason : mReasons)
            text += (text.empty() ? "" : "; ") + reason;
        mReasons.clear();
        return text;
    }

private:
    bool mActive = false;
    std::vector<std::string> mReasons;
};

} // namespace

int mergeCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(mergeSyntax(), args, parsed))
        return *done;
    if (parsed.positional.empty())
        return usageError(mergeSyntax(), "give at least one TAGFILE");
    if (!parsed.value("--meta").empty())
        Mdx::TagFile::setMetaFolder(parsed.value("--meta").c_str());
    bool const json = parsed.has("--json");
    bool const remove = parsed.has("--remove");

    ReasonCapture reasons;
    Progress progress(!parsed.has("--quiet"));
    progress.phase("merge", static_cast<int64_t>(parsed.positional.size()), "files");
    QJsonArray results;
    ExitCode worst = ExitCode::Ok;
    auto failed = [&](ExitCode code) {
        if (worst == ExitCode::Ok)
            worst = code;
    };
    int done = 0;
    for (std::string const& name : parsed.positional) {
        QString const path = QString::fromLocal8Bit(name.c_str());
        QJsonObject result{{"file", path}};
        Mdx::TagFile part;
        part.setStoreFilePaths(true); // so that lost images are reported
        if (!QFileInfo(path).isFile()) {
            warn("cannot access '%s': No such file", name.c_str());
            failed(ExitCode::NoInput);
            result["error"] = "no such file";
        } else if (!part.readCacheFile(path, nullptr, false)) {
            reasons.take();
            warn("cannot read tag file %s: not a tag file, or damaged", name.c_str());
            failed(ExitCode::UnreadableInput);
            result["error"] = "not a tag file, or damaged";
        } else {
            QByteArray const study = part.studies().firstKey();
            int const series = part.series().size();
            int const images = part.images().size();
            result["study"] = QString::fromLatin1(study);
            result["series"] = series;
            result["images"] = images;
            result["tagFile"] = Mdx::TagFile::cacheFilePathForStudy(study.constData());
            reasons.take();
            if (part.mergeIntoCacheFile()) {
                std::string const warnings = reasons.take();
                if (!warnings.empty()) {
                    warn("%s: %s", name.c_str(), warnings.c_str());
                    result["warning"] = QString::fromStdString(warnings);
                }
                if (!json && !parsed.has("--quiet"))
                    std::printf("%s: %d series, %d images merged into %s (now %d series, %d images)\n",
                                name.c_str(), series, images, QFile::encodeName(part.path()).constData(),
                                static_cast<int>(part.series().size()),
                                static_cast<int>(part.images().size()));
                result["seriesAfter"] = static_cast<int>(part.series().size());
                result["imagesAfter"] = static_cast<int>(part.images().size());
                if (remove && !QFile::remove(path)) {
                    warn("merged, but cannot delete %s", name.c_str());
                    failed(ExitCode::OutputError);
                }
            } else {
                std::string const reason = reasons.take();
                warn("cannot merge %s: %s", name.c_str(), reason.empty() ? "see the log" : reason.c_str());
                failed(ExitCode::OutputError);
                result["error"] = QString::fromStdString(reason);
            }
        }
        results.append(result);
        progress.update(++done);
    }
    progress.finish();
    if (json)
        std::fputs(QJsonDocument(results).toJson(QJsonDocument::Indented).constData(), stdout);
    return status(worst);
}

} // namespace mdxtool
