// mdx ls, dump and rm: looking into tag files and removing from them.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Scanner.h"
#include "TagFileLookup.h"

#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tagfile/TagFileFunctions.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QDirIterator>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>

#include <algorithm>
#include <cstdio>

namespace mdxtool {

namespace {

CommandSyntax const& lsSyntax()
{
    static CommandSyntax const syntax{
        "ls",
        "[FOLDER | TAGFILE | STUDYUID]",
        "Without an argument, or with a folder, lists the studies of the tag files in it\n"
        "(the meta folder by default): study UID, patient, date, series, images, bytes.\n"
        "With a .tc file or a Study Instance UID (looked up in the meta folder), lists that\n"
        "study: its series with display numbers and localizer counts, volumes (and with\n"
        "--images every image), and the file's statistics.",
        {helpOption(),
         jsonOption(),
         metaOption(),
         {"--images", 0, nullptr, "list every image of a study too"},
         {"--content", 0, nullptr, "print the study's table of contents: series, images, volumes"},
         {"--detailed", 0, nullptr, "with --content: what each node stores, and volume values"}}};
    return syntax;
}

CommandSyntax const& dumpSyntax()
{
    static CommandSyntax const syntax{
        "dump",
        "TAGFILE|STUDYUID [SOPUID]",
        "With a SOP Instance UID: every attribute that image shows, inherited ones included,\n"
        "found as a viewer asks for it: --suffix names the file suffix the caller expects (an\n"
        "image stored with another is not found), --qa the QA record whose corrections the\n"
        "image is shown with (read from the catalog, applied to the tree in memory only).\n"
        "Without: what each node of the tree stores itself (study, series, images), with\n"
        "missing (--) and omitted (..) markers. Values of 61 characters and more are cut.",
        {helpOption(),
         metaOption(),
         catalogOption(),
         {"--full", 0, nullptr, "show long values whole"},
         {"--suffix", 0, "SUFFIX", "with SOPUID: only an image stored with this file suffix"},
         {"--qa", 0, "ID", "with SOPUID: show the image with QA record ID applied"}}};
    return syntax;
}

CommandSyntax const& rmSyntax()
{
    static CommandSyntax const syntax{
        "rm",
        "STUDYUID",
        "Deletes the study's tag file, or only the given series or images from it.",
        {helpOption(),
         metaOption(),
         {"--series", 0, "UID", "remove these series", true},
         {"--images", 0, "UID", "remove these images", true}}};
    return syntax;
}

} // namespace

void applyMeta(ParsedArguments const& parsed)
{
    if (!parsed.value("--meta").empty())
        Mdx::TagFile::setMetaFolder(parsed.value("--meta").c_str());
}

QByteArray local(QString const& text)
{
    return text.toLocal8Bit();
}

// A .tc path or a study UID into file. A UID holds no '/', so anything
// with one is a path.
std::optional<int> openTagFile(std::string const& what, Mdx::TagFile& file)
{
    QFileInfo const info(QString::fromStdString(what));
    bool const isPath = info.exists() || what.find('/') != std::string::npos;
    QString const path = isPath ? info.filePath() : Mdx::TagFile::cacheFilePathForStudy(what.c_str());
    if (!QFileInfo::exists(path)) {
        if (isPath)
            return fail(ExitCode::NoInput, "cannot access '%s': No such file or directory", what.c_str());
        return fail(ExitCode::NoInput, "no tag file for study %s in %s", what.c_str(),
                    Mdx::TagFile::metaFolder());
    }
    if (!file.readCacheFile(path, nullptr, false))
        return fail(ExitCode::UnreadableInput, "cannot read tag file %s: not a tag file, or damaged",
                    local(path).constData());
    return std::nullopt;
}

namespace {

QByteArray text(Mdx::TagMap const* node, DcmTagKey const& key)
{
    QByteArray value;
    node->findAndGetString(key, value);
    return value;
}

// UIDs as the tag file indexes them: text, also where a file stored them
// as UN, which findAndGetString would show in hex.
QByteArray uid(Mdx::TagMap const* node, DcmTagKey const& key)
{
    return Mdx::TagFile::uidOf(node, key);
}

QString qtext(Mdx::TagMap const* node, DcmTagKey const& key)
{
    return QString::fromLatin1(text(node, key));
}

int number(Mdx::TagMap const* node, DcmTagKey const& key)
{
    int value = 0;
    node->findAndGetInt(key, value);
    return value;
}

void printJson(QJsonObject const& document)
{
    std::fputs(QJsonDocument(document).toJson(QJsonDocument::Indented).constData(), stdout);
}

void printVolume(Mdx::Volume const* volume)
{
    if (volume->isBareVolume()) {
        std::printf("      volume %d: bare (no volume file)\n", volume->mIndex);
        return;
    }
    std::printf("      volume %d: %dx%dx%d, %d slices of %d images%s%s, hash %s\n", volume->mIndex,
                volume->mDims.x, volume->mDims.y, volume->mDims.z, volume->numSlices(), volume->numImages(),
                volume->isMultiFrame() ? " (multi-frame)" : "", volume->hasPreview() ? ", preview" : "",
                volume->volumeHash().constData());
}

// ---- ls of a folder: one line per study

struct StudyRow
{
    QByteArray uid, patient, date;
    int series = 0, images = 0;
    qint64 bytes = 0;
    QString path;
};

int listFolder(QString const& folder, bool json)
{
    QStringList paths;
    QDirIterator it(folder, {"*.tc"}, QDir::Files,
                    QDirIterator::Subdirectories | QDirIterator::FollowSymlinks);
    while (it.hasNext())
        paths.append(it.next());
    std::vector<StudyRow> rows;
    int unreadable = 0;
    for (QString const& path : paths) {
        Mdx::TagFile file;
        if (!file.readCacheFile(path, nullptr, false)) {
            warn("cannot read tag file %s: not a tag file, or damaged", local(path).constData());
            ++unreadable;
            continue;
        }
        Mdx::TagMap const* study = file.study();
        rows.push_back({file.studies().firstKey(), text(study, DCM_PatientName), text(study, DCM_StudyDate),
                        file.series().size(), file.images().size(), QFileInfo(path).size(), path});
    }
    std::sort(rows.begin(), rows.end(), [](StudyRow const& a, StudyRow const& b) { return a.uid < b.uid; });
    if (json) {
        QJsonArray studies;
        for (StudyRow const& row : rows)
            studies.append(QJsonObject{{"studyUID", QString::fromLatin1(row.uid)},
                                       {"patientName", QString::fromLatin1(row.patient)},
                                       {"studyDate", QString::fromLatin1(row.date)},
                                       {"series", row.series},
                                       {"images", row.images},
                                       {"bytes", row.bytes},
                                       {"path", row.path}});
        printJson(QJsonObject{{"folder", folder}, {"studies", studies}});
    } else {
        // Columns as wide as their longest entry: UIDs vary, and dates are
        // not always the eight digits DICOM asks for.
        int uidWidth = 9;
        int dateWidth = 8;
        for (StudyRow const& row : rows) {
            uidWidth = std::max(uidWidth, static_cast<int>(row.uid.size()));
            dateWidth = std::max(dateWidth, static_cast<int>(row.date.size()));
        }
        std::printf("%-*s  %-24s  %-*s  %6s  %6s  %10s\n", uidWidth, "STUDY UID", "PATIENT", dateWidth,
                    "DATE", "SERIES", "IMAGES", "BYTES");
        qint64 images = 0, bytes = 0;
        for (StudyRow const& row : rows) {
            std::printf("%-*s  %-24s  %-*s  %6d  %6d  %10lld\n", uidWidth, row.uid.constData(),
                        row.patient.left(24).constData(), dateWidth, row.date.constData(), row.series,
                        row.images, static_cast<long long>(row.bytes));
            images += row.images;
            bytes += row.bytes;
        }
        std::printf("%zu %s, %lld images, %lld bytes in %s\n", rows.size(),
                    rows.size() == 1 ? "study" : "studies", static_cast<long long>(images),
                    static_cast<long long>(bytes), local(folder).constData());
    }
    return status(unreadable > 0 ? ExitCode::UnreadableInput : ExitCode::Ok);
}

// ---- ls of one study

QJsonObject studyJson(Mdx::TagFile const& file, bool withImages)
{
    Mdx::TagMap const* study = file.study();
    QJsonArray seriesList;
    for (Mdx::TagMap const* node : study->children()) {
        QJsonArray images;
        for (Mdx::TagMap const* image : node->children()) {
            if (withImages)
                images.append(QJsonObject{{"sopUID", QString::fromLatin1(uid(image, DCM_SOPInstanceUID))},
                                          {"instanceNumber", qtext(image, DCM_InstanceNumber)},
                                          {"localizer", number(image, Mdx::Tags::AbstractLocalizer) == 1}});
        }
        QJsonObject entry{{"seriesUID", QString::fromLatin1(uid(node, DCM_SeriesInstanceUID))},
                          {"seriesNumber", qtext(node, DCM_SeriesNumber)},
                          {"modality", qtext(node, DCM_Modality)},
                          {"description", qtext(node, DCM_SeriesDescription)},
                          {"display", qtext(node, Mdx::Tags::AbstractSeriesNumber)},
                          {"images", node->children().size()},
                          {"volumes", node->volumes().size()}};
        if (withImages)
            entry["imageList"] = images;
        seriesList.append(entry);
    }
    return QJsonObject{{"path", file.path()},
                       {"bytes", QFileInfo(file.path()).size()},
                       {"studyUID", QString::fromLatin1(file.studies().firstKey())},
                       {"patientName", qtext(study, DCM_PatientName)},
                       {"patientID", qtext(study, DCM_PatientID)},
                       {"studyDate", qtext(study, DCM_StudyDate)},
                       {"description", qtext(study, DCM_StudyDescription)},
                       {"images", file.images().size()},
                       {"series", seriesList}};
}

void printStudy(Mdx::TagFile const& file, bool withImages)
{
    int numSeries, numImages, numVolumes, numPreviews, optimizeMsec, readMsec, writeMsec, compressed,
        uncompressed, unoptimized, previewBytes;
    file.getStatistics(numSeries, numImages, numVolumes, numPreviews, optimizeMsec, readMsec, writeMsec,
                       compressed, uncompressed, unoptimized, previewBytes);

    Mdx::TagMap const* study = file.study();
    std::printf("tag file %s\n", local(file.path()).constData());
    std::printf("  %d bytes stored, %d unpacked; %d previews (%d bytes); read in %d ms\n", compressed,
                uncompressed, numPreviews, previewBytes, readMsec);
    std::printf("study %s\n", file.studies().firstKey().constData());
    std::printf("  patient \"%s\" (%s), date %s, \"%s\"\n", text(study, DCM_PatientName).constData(),
                text(study, DCM_PatientID).constData(), text(study, DCM_StudyDate).constData(),
                text(study, DCM_StudyDescription).constData());
    std::printf("  %d series, %d images, %d volumes, %lld attributes stored\n", numSeries, numImages,
                numVolumes, static_cast<long long>(countStored(study)));

    QList<Mdx::TagMap*> series = study->children();
    std::stable_sort(series.begin(), series.end(), [](Mdx::TagMap const* a, Mdx::TagMap const* b) {
        return number(a, DCM_SeriesNumber) < number(b, DCM_SeriesNumber);
    });
    for (Mdx::TagMap const* node : series) {
        QByteArray display = text(node, Mdx::Tags::AbstractSeriesNumber);
        if (display.isEmpty())
            display = "-"; // a series without pixels has no display number
        int localizers = 0;
        for (Mdx::TagMap const* image : node->children())
            localizers += number(image, Mdx::Tags::AbstractLocalizer) == 1 ? 1 : 0;
        std::printf("  series %s\n", uid(node, DCM_SeriesInstanceUID).constData());
        std::printf("    #%s %s \"%s\", %d images, %d volumes, display %s, %d localizers\n",
                    text(node, DCM_SeriesNumber).constData(), text(node, DCM_Modality).constData(),
                    text(node, DCM_SeriesDescription).constData(), node->children().size(),
                    node->volumes().size(), display.constData(), localizers);
        for (Mdx::Volume const* volume : node->volumes())
            printVolume(volume);
        if (!withImages)
            continue;
        for (Mdx::TagMap const* image : node->children()) {
            std::printf("      image %s  #%s%s%s\n", uid(image, DCM_SOPInstanceUID).constData(),
                        text(image, DCM_InstanceNumber).constData(),
                        image->findElement(Mdx::Tags::PreviewData) ? "  preview" : "",
                        number(image, Mdx::Tags::AbstractLocalizer) == 1 ? "  localizer" : "");
        }
    }
}

} // namespace

int lsCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(lsSyntax(), args, parsed))
        return *done;
    if (parsed.positional.size() > 1)
        return usageError(lsSyntax(), "one FOLDER, TAGFILE or STUDYUID at most");
    applyMeta(parsed);
    bool const json = parsed.has("--json");

    std::string const what = parsed.positional.empty() ? Mdx::TagFile::metaFolder() : parsed.positional[0];
    QFileInfo const info(QString::fromStdString(what));
    if (info.isDir())
        return listFolder(info.filePath(), json);
    if (parsed.positional.empty())
        return fail(ExitCode::NoInput, "cannot access meta folder %s: No such file or directory",
                    what.c_str());

    Mdx::TagFile file;
    if (std::optional<int> const failed = openTagFile(what, file))
        return *failed;
    if (parsed.has("--content")) {
        file.listContent(parsed.has("--detailed"));
        return status(ExitCode::Ok);
    }
    // Display numbers and localizer marks are derived, not stored by every
    // writer of tag files; derive them afresh for what is shown.
    file.createAbstractTags();
    if (json)
        printJson(studyJson(file, parsed.has("--images")));
    else
        printStudy(file, parsed.has("--images"));
    return status(ExitCode::Ok);
}

int dumpCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(dumpSyntax(), args, parsed))
        return *done;
    if (parsed.positional.empty() || parsed.positional.size() > 2)
        return usageError(dumpSyntax(), "a TAGFILE or STUDYUID, and at most one SOPUID");
    QByteArray const suffix = QByteArray::fromStdString(parsed.value("--suffix"));
    int qaVersion = 0;
    if (!parsed.value("--qa").empty() && !parsePositive(parsed.value("--qa"), qaVersion))
        return usageError(dumpSyntax(), "--qa takes a record ID from 1");
    if ((!suffix.isEmpty() || qaVersion > 0) && parsed.positional.size() != 2)
        return usageError(dumpSyntax(), "--suffix and --qa need a SOPUID");
    applyMeta(parsed);
    applyCatalog(parsed); // QA records come through the database functions

    Mdx::TagFile file;
    if (std::optional<int> const failed = openTagFile(parsed.positional[0], file))
        return *failed;
    bool const full = parsed.has("--full");
    QTextStream out(stdout);
    if (parsed.positional.size() == 2) {
        QByteArray const sop = QByteArray::fromStdString(parsed.positional[1]);
        Mdx::TagMap const* image = file.findImage(sop, suffix, qaVersion);
        if (!image && !suffix.isEmpty() && file.findImage(sop))
            return fail(ExitCode::NothingFound, "image %s in tag file %s is not stored with suffix %s",
                        sop.constData(), local(file.path()).constData(), suffix.constData());
        if (!image)
            return fail(ExitCode::NothingFound, "no image %s in tag file %s", sop.constData(),
                        local(file.path()).constData());
        image->dump(out, 0, full);
        return status(ExitCode::Ok);
    }
    Mdx::TagMap const* study = file.study();
    out << "# study " << uid(study, DCM_StudyInstanceUID) << "\n";
    study->listContent(out, 0, full);
    for (Mdx::TagMap const* series : study->children()) {
        out << "\n# series " << uid(series, DCM_SeriesInstanceUID) << "\n";
        series->listContent(out, 2, full);
        for (Mdx::TagMap const* image : series->children()) {
            out << "\n# image " << uid(image, DCM_SOPInstanceUID) << "\n";
            image->listContent(out, 4, full);
        }
    }
    return status(ExitCode::Ok);
}

int rmCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(rmSyntax(), args, parsed))
        return *done;
    bool const series = parsed.values.count("--series") > 0;
    bool const images = parsed.values.count("--images") > 0;
    if (parsed.positional.size() != 1 || (series && images))
        return usageError(rmSyntax(), "one STUDYUID, and --series or --images, not both");
    applyMeta(parsed);

    std::string const& study = parsed.positional[0];
    int ok = 0;
    if (series || images) {
        std::vector<std::string> const& uids = parsed.values.at(series ? "--series" : "--images");
        std::vector<char const*> list;
        for (std::string const& uid : uids)
            list.push_back(uid.c_str());
        int const count = static_cast<int>(list.size());
        ok = series ? DeleteSeriesInTagFile(study.c_str(), count, list.data())
                    : DeleteImagesInTagFile(study.c_str(), count, list.data());
    } else {
        ok = DeleteTagFile(study.c_str());
    }
    if (!ok)
        return fail(ExitCode::ProcessingError, "could not change the tag file of study %s", study.c_str());
    return status(ExitCode::Ok);
}

} // namespace mdxtool
