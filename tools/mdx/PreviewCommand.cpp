// mdx preview: the preview images of DICOM files, media files and studies,
// written where a user can look at them.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Progress.h"

#include <mdxlib/pixels/PreviewGenerator.h>
#include <mdxlib/platform/LmVolumeInfo.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcfilefo.h"
#include "dcmtk/oflog/oflog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace mdxtool {

namespace {

CommandSyntax const& previewSyntax()
{
    static CommandSyntax const syntax{
        "preview",
        "STUDYUID|FILE...",
        "Writes preview images into a folder. A DICOM file gives the preview of its first\n"
        "frame as the tag file would store it (windowed, fitted into 256 x 256, JPEG); an\n"
        "image file (JPEG, PNG, GIF, BMP) its representative picture. A study UID exports\n"
        "the previews stored in its tag file; with --add, the previews its images lack are\n"
        "first made from their files (paths stored by 'mdx build --store-paths') and the\n"
        "tag file is written back.",
        {helpOption(),
         quietOption(),
         jsonOption(),
         metaOption(),
         {"--out", 0, "DIR", "folder to write into (default: the current folder)"},
         {"--add", 0, nullptr, "make a study's missing previews from its files first"},
         {"--png", 0, nullptr, "write the previews of files as PNG (the stored JPEG, decoded)"}}};
    return syntax;
}

struct Outcome
{
    QJsonArray written;
    int failures = 0;
    ExitCode firstFailure = ExitCode::Ok;

    void failed(ExitCode code, std::string const& line)
    {
        warn("%s", line.c_str());
        if (failures++ == 0)
            firstFailure = code;
    }
};

QImage mediaPreview(QString const& path)
{
    McTypedData2D const picture = Mdx::PreviewGenerator::createPreviewImage(
        path, Mdx::TagFile::sPreviewSize[0], Mdx::TagFile::sPreviewSize[1]);
    std::unique_ptr<LmVolumeInfo> info = LmVolumeInfo::fromTypedData(picture);
    return Mdx::PreviewGenerator::convertToQImage(info.get(), Mdx::TagFile::sPreviewSize[0],
                                                  Mdx::TagFile::sPreviewSize[1]);
}

// A DICOM file by its mark: a file that has one but does not load is damaged.
bool hasDicomMark(QString const& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && file.read(132).mid(128) == "DICM";
}

void previewFile(QString const& path, QDir const& out, bool png, Outcome& outcome)
{
    QByteArray const local = path.toLocal8Bit();
    DcmFileFormat fileFormat;
    QImage image;
    OFCondition const loaded = fileFormat.loadFile(OFFilename(local.constData()));
    bool const dicom = loaded.good();
    if (!dicom && hasDicomMark(path))
        return outcome.failed(ExitCode::UnreadableInput, "cannot read " + local.toStdString() +
                                                             ": damaged DICOM file (" + loaded.text() + ")");
    if (dicom)
        image = Mdx::PreviewGenerator::createPreviewImage(
            fileFormat.getDataset(), static_cast<unsigned long>(Mdx::TagFile::sPreviewSize[0]),
            static_cast<unsigned long>(Mdx::TagFile::sPreviewSize[1]), path);
    else
        image = mediaPreview(path);
    if (image.isNull())
        return outcome.failed(ExitCode::NothingFound,
                              "no preview of " + local.toStdString() +
                                  (dicom ? ": its pixels are missing, damaged or of a kind without decoder"
                                         : ": neither DICOM nor a readable image"));
    // The bytes a tag file would store, so that what is seen is what is kept.
    QByteArray const jpeg = Mdx::PreviewGenerator::createPreviewData(image);
    QString const target = out.filePath(QFileInfo(path).completeBaseName() + (png ? ".png" : ".jpg"));
    QFile file(target);
    bool const saved =
        png ? QImage::fromData(jpeg, "JPEG").save(&file, "PNG")
            : file.open(QIODevice::WriteOnly) && file.write(jpeg) == jpeg.size() && file.flush();
    if (jpeg.isEmpty() || !saved)
        return outcome.failed(ExitCode::OutputError, "cannot write " + target.toLocal8Bit().toStdString());
    outcome.written.append(QJsonObject{
        {"input", path}, {"output", target}, {"width", image.width()}, {"height", image.height()}});
}

int countPreviews(Mdx::TagFile const& file)
{
    int count = 0;
    for (Mdx::TagMap const* image : file.images())
        count += image && image->findElement(Mdx::Tags::PreviewData) ? 1 : 0;
    for (Mdx::TagMap const* series : file.series())
        for (Mdx::Volume const* volume : series->volumes())
            count += volume->hasPreview() ? 1 : 0;
    return count;
}

void previewStudy(std::string const& study, QDir const& out, bool add, Outcome& outcome)
{
    Mdx::TagFile file;
    QString const path = Mdx::TagFile::cacheFilePathForStudy(study.c_str());
    if (!QFileInfo::exists(path))
        return outcome.failed(ExitCode::NoInput, "no such file, and no tag file for study " + study + " in " +
                                                     Mdx::TagFile::metaFolder());
    if (!file.readCacheFile(path, nullptr, add))
        return outcome.failed(ExitCode::UnreadableInput,
                              "cannot read tag file " + path.toLocal8Bit().toStdString() + ": damaged");
    if (add) {
        int made = 0;
        for (auto it = file.images().begin(); it != file.images().end(); ++it) {
            QByteArray dicomPath;
            if (!it.value() || it.value()->findElement(Mdx::Tags::PreviewData) ||
                !it.value()->findAndGetString(Mdx::Tags::DicomFilePath, dicomPath))
                continue;
            if (file.addPreview(it.key(), QString::fromLocal8Bit(dicomPath)))
                ++made;
            else
                outcome.failed(ExitCode::ProcessingError, "no preview of " + dicomPath.toStdString());
        }
        if (made > 0 && !file.writeCacheFile())
            return outcome.failed(ExitCode::OutputError,
                                  "cannot write tag file " + path.toLocal8Bit().toStdString());
    }
    int const stored = countPreviews(file);
    if (stored == 0)
        return outcome.failed(ExitCode::NothingFound, "study " + study + " has no stored preview");
    file.exportPreviews(out.path());
    outcome.written.append(
        QJsonObject{{"input", QString::fromStdString(study)}, {"output", out.path()}, {"previews", stored}});
}

} // namespace

int previewCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(previewSyntax(), args, parsed))
        return *done;
    if (parsed.positional.empty())
        return usageError(previewSyntax(), "give at least one STUDYUID or FILE");
    if (!parsed.value("--meta").empty())
        Mdx::TagFile::setMetaFolder(parsed.value("--meta").c_str());
    QString const folder =
        parsed.value("--out").empty() ? QStringLiteral(".") : QString::fromStdString(parsed.value("--out"));
    if (!QDir().mkpath(folder))
        return fail(ExitCode::OutputError, "cannot create folder %s: %s", folder.toLocal8Bit().constData(),
                    osError().c_str());
    QDir const out(folder);
    // Failures are reported here, one line each, not in DCMTK's words.
    OFLog::configure(OFLogger::OFF_LOG_LEVEL);

    Outcome outcome;
    Progress progress(!parsed.has("--quiet") && !parsed.has("--json"));
    progress.phase("preview", static_cast<int64_t>(parsed.positional.size()), "inputs");
    int64_t done = 0;
    for (std::string const& what : parsed.positional) {
        QFileInfo const info(QString::fromStdString(what));
        if (info.isFile())
            previewFile(info.filePath(), out, parsed.has("--png"), outcome);
        else if (info.exists() || what.find('/') != std::string::npos)
            outcome.failed(ExitCode::NoInput, "cannot make a preview of '" + what + "': not a regular file");
        else
            previewStudy(what, out, parsed.has("--add"), outcome);
        progress.update(++done);
    }
    progress.finish();

    if (parsed.has("--json")) {
        QJsonObject const document{
            {"folder", out.path()}, {"written", outcome.written}, {"failures", outcome.failures}};
        std::fputs(QJsonDocument(document).toJson(QJsonDocument::Indented).constData(), stdout);
    } else if (!parsed.has("--quiet")) {
        for (QJsonValue const& entry : outcome.written)
            std::printf("%s -> %s\n", entry["input"].toString().toLocal8Bit().constData(),
                        entry["output"].toString().toLocal8Bit().constData());
    }
    return status(outcome.failures > 0 ? outcome.firstFailure : ExitCode::Ok);
}

} // namespace mdxtool
