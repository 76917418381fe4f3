// mdx catalog add and mdx catalog ls: recording DICOM files in the study
// catalog, and listing what it holds.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "Progress.h"
#include "Scanner.h"

#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/volumefile/OndraMesh.h>
#include <mdxlib/tagfile/OrderedImageLoader.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Loader.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>

namespace mdxtool {

namespace {

using Lmg::Catalog;

CommandSyntax const& addSyntax()
{
    static CommandSyntax const syntax{
        "catalog add",
        "PATH...",
        "Records the DICOM files in the given files and folders (recursively) in the study\n"
        "catalog: their studies, series and images with each image's path and suffix, and\n"
        "volume files (mdx volume) under the series they name. Adding\n"
        "a file again changes nothing; a file found under a new path gets that path. Files\n"
        "that are not DICOM images are counted and skipped.",
        {helpOption(), quietOption(), verboseOption(), catalogOption()}};
    return syntax;
}

CommandSyntax const& lsSyntax()
{
    static CommandSyntax const syntax{
        "catalog ls",
        "[STUDYUID]",
        "Without an argument, lists the studies of the catalog: study UID, patient, date,\n"
        "series and images. With a Study Instance UID, lists that study's series: number,\n"
        "modality, images, UID and description.",
        {helpOption(), jsonOption(), catalogOption()}};
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

std::string stringOf(Mdx::TagMap const& image, DcmTagKey const& key)
{
    QByteArray value;
    image.findAndGetString(key, value);
    return value.trimmed().toStdString();
}

// Records one image, with its study and series the first time they are seen
// in this run.
McResult record(Catalog& catalog, Mdx::TagMap const& image, QByteArray const& path,
                std::map<QByteArray, int64_t>& studies, std::map<QByteArray, int64_t>& series)
{
    McResult result;
    QByteArray const studyUID = Mdx::TagFile::uidOf(&image, DCM_StudyInstanceUID);
    int64_t& studyId = studies[studyUID];
    if (studyId == 0) {
        Lmg::CatalogStudy study{0, studyUID.toStdString(), stringOf(image, DCM_PatientName),
                                stringOf(image, DCM_PatientID), stringOf(image, DCM_StudyDate)};
        result = catalog.addStudy(study);
        studyId = study.id;
    }
    QByteArray const seriesUID = Mdx::TagFile::uidOf(&image, DCM_SeriesInstanceUID);
    int64_t& seriesId = series[seriesUID];
    if (result.ok() && seriesId == 0) {
        Lmg::CatalogSeries row;
        row.studyId = studyId;
        row.uid = seriesUID.toStdString();
        row.modality = stringOf(image, DCM_Modality);
        row.number = std::atoi(stringOf(image, DCM_SeriesNumber).c_str());
        row.description = stringOf(image, DCM_SeriesDescription);
        row.date = stringOf(image, DCM_SeriesDate);
        row.time = stringOf(image, DCM_SeriesTime);
        row.station = stringOf(image, DCM_StationName);
        result = catalog.addSeries(row);
        seriesId = row.id;
    }
    if (result.ok())
        result = catalog.addImage({Mdx::TagFile::uidOf(&image, DCM_SOPInstanceUID).toStdString(), seriesId,
                                   path.toStdString(),
                                   Mdx::Loader::extractSuffix(path.constData(), nullptr).toStdString()});
    return result;
}

// A volume file starts with its magic.
bool isVolumeFile(QByteArray const& path)
{
    QFile file(QString::fromUtf8(path));
    return file.open(QIODevice::ReadOnly) && file.read(8) == "OndraVol";
}

// Records a volume file under the series its header names; known is false
// when the catalog has no such series (nothing is recorded then). Its place
// in the series is its part number.
McResult recordVolumeFile(Catalog& catalog, QByteArray const& path, bool& known)
{
    known = false;
    std::unique_ptr<OndraMesh> mesh(OndraMesh::read(path.constData(), true, nullptr));
    HxParamBundle const* dicom = mesh ? mesh->dicomAll() : nullptr;
    std::string studyUID, seriesUID;
    if (!dicom || !dicom->findString("G0020-000D", studyUID) || !dicom->findString("G0020-000E", seriesUID))
        return McResult();
    std::optional<Lmg::CatalogStudy> study;
    std::vector<Lmg::CatalogSeries> series;
    McResult result = catalog.findStudy(studyUID, study);
    if (result.ok() && study)
        result = catalog.seriesOfStudy(study->id, series);
    int part = 0;
    mesh->findNum("Part", 1, &part);
    for (Lmg::CatalogSeries const& one : series) {
        if (result.ok() && one.uid == seriesUID) {
            known = true;
            return catalog.addVolumeFile({path.toStdString(), one.id, part});
        }
    }
    return result;
}

int addCommand(Arguments const& args)
{
    CommandSyntax const& syntax = addSyntax();
    ParsedArguments parsed;
    if (auto const done = parseCommand(syntax, args, parsed))
        return *done;
    if (parsed.positional.empty())
        return usageError(syntax, "missing PATH");
    int exitStatus = status(ExitCode::Ok);
    std::unique_ptr<Catalog> catalog = openCatalog(parsed, ExitCode::OutputError, exitStatus);
    if (!catalog)
        return exitStatus;

    quietDicomLog();
    Progress progress(!parsed.has("--quiet"));
    std::vector<std::string> missing;
    QStringList const files = collectFiles(parsed.positional, missing, progress);
    std::vector<QByteArray> paths;
    for (QString const& file : files)
        paths.push_back(QFileInfo(file).absoluteFilePath().toUtf8());
    progress.phase("read", static_cast<int64_t>(paths.size()), "files");
    std::map<QByteArray, int64_t> studies, series;
    std::vector<QByteArray> volumeFiles;
    int64_t images = 0, done = 0;
    SkipCounts skipped;
    McResult result = catalog->begin();
    Mdx::loadImagesInOrder(paths, Mdx::defaultLoadJobs(),
                           [&](int index, std::unique_ptr<Mdx::TagMap> image, Mdx::TagFile::AddResult why) {
                               progress.update(++done);
                               QByteArray const& path = paths[static_cast<size_t>(index)];
                               if (!image && why == Mdx::TagFile::AddResult::NotDicom && isVolumeFile(path)) {
                                   volumeFiles.push_back(path);
                                   return true;
                               }
                               if (!image) {
                                   skipped.count(why);
                                   if (parsed.has("--verbose"))
                                       warn("skipped %s: %s", path.constData(), skipText(why));
                                   return true;
                               }
                               result = record(*catalog, *image, path, studies, series);
                               images += result.ok() ? 1 : 0;
                               return result.ok();
                           });
    progress.finish();
    // Volume files after the images, so that their series are known.
    int64_t volumes = 0;
    for (size_t i = 0; result.ok() && i < volumeFiles.size(); ++i) {
        bool known = false;
        result = recordVolumeFile(*catalog, volumeFiles[i], known);
        volumes += known ? 1 : 0;
        if (result.ok() && !known)
            warn("skipped %s: a volume file of a series not in the catalog", volumeFiles[i].constData());
    }
    if (result.ok())
        result = catalog->commit();
    else
        catalog->rollback(); // the first failure is the one to report
    if (!result.ok())
        return fail(ExitCode::OutputError, "cannot write to the catalog: %s", result.message().c_str());
    if (!parsed.has("--quiet"))
        std::printf(
            "recorded %lld images of %zu series in %zu %s and %lld volume files; skipped %lld files\n",
            static_cast<long long>(images), series.size(), studies.size(),
            studies.size() == 1 ? "study" : "studies", static_cast<long long>(volumes),
            static_cast<long long>(done - images - volumes));
    if (images == 0 && files.isEmpty() && missing.size() == parsed.positional.size())
        return status(ExitCode::NoInput);
    if (images == 0 && volumes == 0)
        return fail(ExitCode::NothingFound, "no DICOM image found (%lld files read)",
                    static_cast<long long>(done));
    return status(ExitCode::Ok);
}

// Series and images of a study.
McResult countStudy(Catalog& catalog, int64_t studyId, std::vector<Lmg::CatalogSeries>& series,
                    std::vector<int64_t>& images)
{
    McResult result = catalog.seriesOfStudy(studyId, series);
    images.assign(series.size(), 0);
    for (size_t i = 0; result.ok() && i < series.size(); ++i)
        result = catalog.imageCount(series[i].id, images[i]);
    return result;
}

int64_t sum(std::vector<int64_t> const& values)
{
    int64_t total = 0;
    for (int64_t value : values)
        total += value;
    return total;
}

int listStudies(Catalog& catalog, bool json)
{
    std::vector<Lmg::CatalogStudy> studies;
    McResult result = catalog.studies(studies);
    QJsonArray rows;
    if (!json && result.ok())
        std::printf("%-8s %6s %7s  %-24s %s\n", "DATE", "SERIES", "IMAGES", "PATIENT", "STUDY UID");
    for (size_t i = 0; result.ok() && i < studies.size(); ++i) {
        Lmg::CatalogStudy const& study = studies[i];
        std::vector<Lmg::CatalogSeries> series;
        std::vector<int64_t> images;
        result = countStudy(catalog, study.id, series, images);
        if (json)
            rows.append(QJsonObject{{"studyUID", QString::fromStdString(study.uid)},
                                    {"patientName", QString::fromStdString(study.patientName)},
                                    {"patientId", QString::fromStdString(study.patientId)},
                                    {"studyDate", QString::fromStdString(study.studyDate)},
                                    {"series", qint64(series.size())},
                                    {"images", qint64(sum(images))}});
        else
            std::printf("%-8s %6zu %7lld  %-24s %s\n", study.studyDate.c_str(), series.size(),
                        static_cast<long long>(sum(images)), study.patientName.c_str(), study.uid.c_str());
    }
    if (!result.ok())
        return fail(ExitCode::UnreadableInput, "cannot read the catalog: %s", result.message().c_str());
    if (json)
        std::fputs(QJsonDocument(QJsonObject{{"studies", rows}}).toJson(QJsonDocument::Indented).constData(),
                   stdout);
    return status(ExitCode::Ok);
}

int listStudy(Catalog& catalog, std::string const& studyUID, bool json)
{
    std::optional<Lmg::CatalogStudy> study;
    McResult result = catalog.findStudy(studyUID, study);
    std::vector<Lmg::CatalogSeries> series;
    std::vector<int64_t> images;
    if (result.ok() && !study)
        return fail(ExitCode::NoInput, "no study %s in the catalog", studyUID.c_str());
    if (result.ok())
        result = countStudy(catalog, study->id, series, images);
    if (!result.ok())
        return fail(ExitCode::UnreadableInput, "cannot read the catalog: %s", result.message().c_str());
    QJsonArray rows;
    if (!json)
        std::printf("study %s, %s, %s: %zu series, %lld images\n", study->uid.c_str(),
                    study->patientName.c_str(), study->studyDate.c_str(), series.size(),
                    static_cast<long long>(sum(images)));
    for (size_t i = 0; i < series.size(); ++i) {
        Lmg::CatalogSeries const& one = series[i];
        if (json)
            rows.append(QJsonObject{{"seriesUID", QString::fromStdString(one.uid)},
                                    {"number", one.number},
                                    {"modality", QString::fromStdString(one.modality)},
                                    {"description", QString::fromStdString(one.description)},
                                    {"images", qint64(images[i])}});
        else
            std::printf("  %4d %-4s %6lld images  %s  %s\n", one.number, one.modality.c_str(),
                        static_cast<long long>(images[i]), one.uid.c_str(), one.description.c_str());
    }
    if (json)
        std::fputs(QJsonDocument(QJsonObject{{"studyUID", QString::fromStdString(study->uid)},
                                             {"patientName", QString::fromStdString(study->patientName)},
                                             {"studyDate", QString::fromStdString(study->studyDate)},
                                             {"series", rows}})
                       .toJson(QJsonDocument::Indented)
                       .constData(),
                   stdout);
    return status(ExitCode::Ok);
}

int catalogLsCommand(Arguments const& args)
{
    CommandSyntax const& syntax = lsSyntax();
    ParsedArguments parsed;
    if (auto const done = parseCommand(syntax, args, parsed))
        return *done;
    if (parsed.positional.size() > 1)
        return usageError(syntax, "at most one STUDYUID");
    int exitStatus = status(ExitCode::Ok);
    std::unique_ptr<Catalog> catalog = openCatalog(parsed, ExitCode::UnreadableInput, exitStatus);
    if (!catalog)
        return exitStatus;
    bool const json = parsed.has("--json");
    return parsed.positional.empty() ? listStudies(*catalog, json)
                                     : listStudy(*catalog, parsed.positional[0], json);
}

} // namespace

int catalogCommand(Arguments const& args)
{
    std::string const sub = args.empty() ? std::string() : args[0];
    Arguments const rest(args.empty() ? args.end() : args.begin() + 1, args.end());
    if (sub == "add")
        return addCommand(rest);
    if (sub == "ls")
        return catalogLsCommand(rest);
    if (sub == "--help" || sub == "-h") {
        std::printf("usage: mdx catalog add [OPTION]... PATH...\n"
                    "       mdx catalog ls [OPTION]... [STUDYUID]\n"
                    "'mdx catalog add --help' and 'mdx catalog ls --help' show the options.\n");
        return status(ExitCode::Ok);
    }
    return fail(ExitCode::Usage, "catalog: %s (try 'mdx catalog --help')",
                sub.empty() ? "missing add or ls" : ("unknown sub-command '" + sub + "'").c_str());
}

} // namespace mdxtool
