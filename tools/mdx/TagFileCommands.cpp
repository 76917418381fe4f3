// mdx ls, dump and rm: looking into tag files and removing from them.
#include "Commands.h"
#include "Options.h"
#include "Scanner.h"

#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tagfile/TagFileFunctions.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QFileInfo>
#include <QTextStream>

#include <algorithm>
#include <cstdio>

namespace mdxtool {

namespace {

char const kLsUsage[] = "usage: mdx ls [--meta DIR] [--images] TAGFILE|STUDYUID\n"
                        "\n"
                        "Lists the study, series, volumes (and with --images every image) of a tag file,\n"
                        "with the file's statistics. Each series shows its display number and how many\n"
                        "of its images are localizers. The argument is a .tc file or a Study Instance UID,\n"
                        "whose file is looked up in the meta folder.\n";
char const kDumpUsage[] = "usage: mdx dump [--meta DIR] TAGFILE|STUDYUID [SOPUID]\n"
                          "\n"
                          "With a SOP Instance UID: every attribute that image shows, inherited ones\n"
                          "included. Without: what each node of the tree stores itself (study, series,\n"
                          "images), with missing (--) and omitted (..) markers.\n";
char const kRmUsage[] = "usage: mdx rm [--meta DIR] STUDYUID [--series UID... | --images UID...]\n"
                        "\n"
                        "Deletes the study's tag file, or only the given series or images from it.\n";

int usageError(char const* command, std::string const& error, char const* usage)
{
    if (!error.empty())
        std::fprintf(stderr, "mdx %s: %s\n\n", command, error.c_str());
    std::fputs(usage, stderr);
    return 2;
}

void applyMeta(ParsedArguments const& parsed)
{
    if (!parsed.value("--meta").empty())
        Mdx::TagFile::setMetaFolder(parsed.value("--meta").c_str());
}

// A .tc path or a study UID; false with a message when nothing can be read.
bool openTagFile(std::string const& what, Mdx::TagFile& file)
{
    QFileInfo const info(QString::fromStdString(what));
    bool const ok = info.isFile() ? file.readCacheFile(info.filePath(), nullptr, false)
                                  : file.readCacheFileForStudy(what.c_str(), false);
    if (!ok) {
        QString const path =
            info.isFile() ? info.filePath() : Mdx::TagFile::cacheFilePathForStudy(what.c_str());
        std::fprintf(stderr, "mdx: no readable tag file for %s (%s)\n", what.c_str(),
                     path.toLocal8Bit().constData());
    }
    return ok;
}

QByteArray text(Mdx::TagMap const* node, DcmTagKey const& key)
{
    QByteArray value;
    node->findAndGetString(key, value);
    return value;
}

int number(Mdx::TagMap const* node, DcmTagKey const& key)
{
    int value = 0;
    node->findAndGetInt(key, value);
    return value;
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

} // namespace

int lsCommand(Arguments const& args)
{
    ParsedArguments const parsed = parseArguments(args, {"--help", "--images"}, {"--meta"});
    if (parsed.has("--help")) {
        std::fputs(kLsUsage, stdout);
        return 0;
    }
    if (!parsed.error.empty() || parsed.positional.size() != 1)
        return usageError("ls", parsed.error, kLsUsage);
    applyMeta(parsed);

    Mdx::TagFile file;
    if (!openTagFile(parsed.positional[0], file))
        return 1;
    // Display numbers and localizer marks are derived, not stored by every
    // writer of tag files; derive them afresh for what is shown.
    file.createAbstractTags();
    int numSeries, numImages, numVolumes, numPreviews, optimizeMsec, readMsec, writeMsec, compressed,
        uncompressed, unoptimized, previewBytes;
    file.getStatistics(numSeries, numImages, numVolumes, numPreviews, optimizeMsec, readMsec, writeMsec,
                       compressed, uncompressed, unoptimized, previewBytes);

    Mdx::TagMap const* study = file.study();
    std::printf("tag file %s\n", file.path().toLocal8Bit().constData());
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
        std::printf("  series %s\n", text(node, DCM_SeriesInstanceUID).constData());
        std::printf("    #%s %s \"%s\", %d images, %d volumes, display %s, %d localizers\n",
                    text(node, DCM_SeriesNumber).constData(), text(node, DCM_Modality).constData(),
                    text(node, DCM_SeriesDescription).constData(), node->children().size(),
                    node->volumes().size(), display.constData(), localizers);
        for (Mdx::Volume const* volume : node->volumes())
            printVolume(volume);
        if (!parsed.has("--images"))
            continue;
        for (Mdx::TagMap const* image : node->children()) {
            std::printf("      image %s  #%s%s%s\n", text(image, DCM_SOPInstanceUID).constData(),
                        text(image, DCM_InstanceNumber).constData(),
                        image->findElement(Mdx::Tags::PreviewData) ? "  preview" : "",
                        number(image, Mdx::Tags::AbstractLocalizer) == 1 ? "  localizer" : "");
        }
    }
    return 0;
}

int dumpCommand(Arguments const& args)
{
    ParsedArguments const parsed = parseArguments(args, {"--help"}, {"--meta"});
    if (parsed.has("--help")) {
        std::fputs(kDumpUsage, stdout);
        return 0;
    }
    if (!parsed.error.empty() || parsed.positional.empty() || parsed.positional.size() > 2)
        return usageError("dump", parsed.error, kDumpUsage);
    applyMeta(parsed);

    Mdx::TagFile file;
    if (!openTagFile(parsed.positional[0], file))
        return 1;
    QTextStream out(stdout);
    if (parsed.positional.size() == 2) {
        Mdx::TagMap const* image = file.findImage(QByteArray::fromStdString(parsed.positional[1]));
        if (!image) {
            std::fprintf(stderr, "mdx dump: no image %s in the tag file\n", parsed.positional[1].c_str());
            return 1;
        }
        image->dump(out, 0);
        return 0;
    }
    Mdx::TagMap const* study = file.study();
    out << "# study " << text(study, DCM_StudyInstanceUID) << "\n";
    study->listContent(out, 0);
    for (Mdx::TagMap const* series : study->children()) {
        out << "\n# series " << text(series, DCM_SeriesInstanceUID) << "\n";
        series->listContent(out, 2);
        for (Mdx::TagMap const* image : series->children()) {
            out << "\n# image " << text(image, DCM_SOPInstanceUID) << "\n";
            image->listContent(out, 4);
        }
    }
    return 0;
}

int rmCommand(Arguments const& args)
{
    ParsedArguments const parsed = parseArguments(args, {"--help"}, {"--meta"}, {"--series", "--images"});
    if (parsed.has("--help")) {
        std::fputs(kRmUsage, stdout);
        return 0;
    }
    bool const series = parsed.values.count("--series") > 0;
    bool const images = parsed.values.count("--images") > 0;
    if (!parsed.error.empty() || parsed.positional.size() != 1 || (series && images))
        return usageError("rm", parsed.error, kRmUsage);
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
    if (!ok) {
        std::fprintf(stderr, "mdx rm: could not change the tag file of %s\n", study.c_str());
        return 1;
    }
    return 0;
}

} // namespace mdxtool
