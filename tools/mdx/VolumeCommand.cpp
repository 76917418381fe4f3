// mdx volume: a volume file (or several part files) from a series of
// DICOM images.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Progress.h"

#include <mdxlib/platform/volumefile/OndraMesh.h>
#include <mdxlib/platform/volumefile/OndraMeshBuilder.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcfilefo.h"
#include "dcmtk/oflog/oflog.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace mdxtool {

namespace {

CommandSyntax const& volumeSyntax()
{
    static CommandSyntax const syntax{
        "volume",
        "SERIES_PATH OUT",
        "Reads the DICOM images of one series (a folder, searched recursively, or\n"
        "single files) and writes the volume file OUT: slices sorted along their\n"
        "normal, geometry from Image Position and Orientation (Patient), the voxels at\n"
        "full and at half resolution, and a histogram. With --split N the volume is\n"
        "cut into N slabs of consecutive slices, written as OUT with _part001 (the\n"
        "first slab) to _partNNN put before its extension. Files that are no DICOM\n"
        "image are skipped with a warning; an image that does not fit the series\n"
        "(another series, size or orientation) ends the command.",
        {helpOption(),
         quietOption(),
         jsonOption(),
         {"--split", 0, "N", "write N files of consecutive slices (default 1)"}}};
    return syntax;
}

QStringList inputFiles(QString const& path)
{
    QFileInfo const info(path);
    if (!info.isDir())
        return {path};
    QStringList files;
    QDirIterator it(path, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << it.next();
    files.sort();
    return files;
}

// OUT with "_partNNN" before its extension (the first dot of its base name).
QString partPath(QString const& out, int part)
{
    QFileInfo const info(out);
    QString const name = info.fileName();
    int const dot = name.indexOf('.');
    QString const tag = QString::asprintf("_part%03d", part + 1);
    QString const partName = dot < 0 ? name + tag : name.left(dot) + tag + name.mid(dot);
    return info.dir().filePath(partName);
}

} // namespace

int volumeCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(volumeSyntax(), args, parsed))
        return *done;
    if (parsed.positional.size() != 2)
        return usageError(volumeSyntax(), "give SERIES_PATH and OUT");
    int parts = 1;
    if (parsed.values.count("--split")) {
        std::string const text = parsed.value("--split");
        char* end = nullptr;
        long const n = std::strtol(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || n < 1 || n > 999)
            return fail(ExitCode::Usage, "--split takes a number from 1 to 999, not '%s'", text.c_str());
        parts = static_cast<int>(n);
    }
    QString const input = QString::fromLocal8Bit(parsed.positional[0].c_str());
    QString const out = QString::fromLocal8Bit(parsed.positional[1].c_str());
    if (!QFileInfo::exists(input))
        return fail(ExitCode::NoInput, "%s: no such file or folder", parsed.positional[0].c_str());

    // DCMTK's own warnings (thousands for a file with padding after its
    // pixels) would drown the tool's lines; a file that fails is reported
    // by the tool.
    OFLog::configure(OFLogger::OFF_LOG_LEVEL);
    QStringList const files = inputFiles(input);
    Progress progress(!parsed.has("--quiet"));
    progress.phase("read", files.size(), "files");
    OndraMeshBuilder builder;
    int skipped = 0;
    for (int i = 0; i < files.size(); ++i) {
        QByteArray const path = files[i].toLocal8Bit();
        DcmFileFormat file;
        OFCondition const status = file.loadFile(path.constData());
        progress.update(i + 1);
        if (status.bad()) {
            warn("%s: skipped, no DICOM file (%s)", path.constData(), status.text());
            ++skipped;
            continue;
        }
        McResult const added = builder.addImage(*file.getDataset());
        if (!added) {
            progress.finish();
            return fail(ExitCode::ProcessingError, "%s: %s", path.constData(), added.message().c_str());
        }
    }
    progress.finish();
    if (builder.numImages() == 0)
        return fail(ExitCode::NothingFound, "no DICOM image in %s", parsed.positional[0].c_str());
    if (parts > builder.numImages())
        return fail(ExitCode::Usage, "--split %d is more than the %d images", parts, builder.numImages());

    std::vector<std::unique_ptr<OndraMesh>> meshes;
    McResult const built = builder.build(parts, meshes);
    if (!built)
        return fail(ExitCode::ProcessingError, "%s", built.message().c_str());
    if (!QDir().mkpath(QFileInfo(out).absolutePath()))
        return fail(ExitCode::OutputError, "cannot create the folder of %s", parsed.positional[1].c_str());
    progress.phase("write", static_cast<int64_t>(meshes.size()), "files");
    QJsonArray written;
    for (size_t i = 0; i < meshes.size(); ++i) {
        QString const path = parts == 1 ? out : partPath(out, static_cast<int>(i));
        McResult const result = meshes[i]->write(path.toLocal8Bit().constData());
        progress.update(static_cast<int64_t>(i + 1));
        if (!result) {
            progress.finish();
            return fail(ExitCode::OutputError, "%s", result.message().c_str());
        }
        OndraMesh::Location const* lattice = meshes[i]->findLocation("Lattice1");
        QJsonArray dims;
        for (int d : lattice->dims)
            dims.append(d);
        int range[2] = {0, 0};
        meshes[i]->findNum("DataMinMax", 2, range);
        written.append(QJsonObject{{"file", path},
                                   {"dims", dims},
                                   {"slices", lattice->dims[2]},
                                   {"min", range[0]},
                                   {"max", range[1]},
                                   {"bytes", QFileInfo(path).size()}});
    }
    progress.finish();
    if (parsed.has("--json")) {
        QJsonObject const summary{{"images", builder.numImages()}, {"skipped", skipped}, {"files", written}};
        std::fputs(QJsonDocument(summary).toJson(QJsonDocument::Indented).constData(), stdout);
    } else {
        for (QJsonValue const& entry : written) {
            QJsonObject const o = entry.toObject();
            QJsonArray const d = o["dims"].toArray();
            std::printf("%s: %d x %d x %d, values %d..%d\n", o["file"].toString().toLocal8Bit().constData(),
                        d[0].toInt(), d[1].toInt(), d[2].toInt(), o["min"].toInt(), o["max"].toInt());
        }
    }
    return status(ExitCode::Ok);
}

} // namespace mdxtool
