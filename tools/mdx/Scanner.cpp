#include "Scanner.h"
#include "Exit.h"
#include "Progress.h"

#include <mdxlib/platform/McWatch.h>
#include <mdxlib/tagfile/OrderedImageLoader.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/oflog/oflog.h"

#include <QDirIterator>
#include <QFileInfo>
#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>

namespace mdxtool {

namespace {

using AddResult = Mdx::TagFile::AddResult;

// One line per skipped file with --verbose, in the tool's words.
void reportSkip(QByteArray const& path, AddResult why)
{
    if (why == AddResult::Unreadable) {
        // The operating system says best why a file cannot be read.
        std::FILE* file = std::fopen(path.constData(), "rb");
        std::string const reason = file ? std::string("cannot be read") : osError();
        if (file)
            std::fclose(file);
        warn("skipped %s: unreadable (%s)", path.constData(), reason.c_str());
        return;
    }
    warn("skipped %s: %s", path.constData(), skipText(why));
}

} // namespace

void SkipCounts::count(AddResult why)
{
    switch (why) {
    case AddResult::Added:
        break;
    case AddResult::Unreadable:
        ++unreadable;
        break;
    case AddResult::Damaged:
        ++damaged;
        break;
    case AddResult::NotDicom:
        ++notDicom;
        break;
    case AddResult::NoUIDs:
        ++withoutUIDs;
        break;
    case AddResult::OtherStudy: // cannot happen: each study has its own tree
    case AddResult::Duplicate:
        ++duplicates;
        break;
    }
}

char const* skipText(AddResult why)
{
    switch (why) {
    case AddResult::Added:
        return "added";
    case AddResult::Unreadable:
        return "unreadable";
    case AddResult::Damaged:
        return "damaged DICOM file (truncated or broken)";
    case AddResult::NotDicom:
        return "not DICOM";
    case AddResult::NoUIDs:
        return "no Study or SOP Instance UID";
    case AddResult::OtherStudy:
        return "another study";
    case AddResult::Duplicate:
        return "SOP Instance UID already seen";
    }
    return "";
}

QStringList collectFiles(std::vector<std::string> const& paths, std::vector<std::string>& missing,
                         Progress& progress)
{
    progress.phase("walk", 0, "files");
    QStringList files;
    for (std::string const& path : paths) {
        QFileInfo const info(QString::fromStdString(path));
        struct stat status;
        if (stat(path.c_str(), &status) != 0) {
            warn("cannot access '%s': %s", path.c_str(), osError().c_str());
            missing.push_back(path);
        } else if (info.isDir()) {
            QStringList found;
            // System entries too: a dangling link is a file the user meant
            // to give and is reported as unreadable, not silently left out.
            QDirIterator it(info.filePath(), QDir::Files | QDir::System,
                            QDirIterator::Subdirectories | QDirIterator::FollowSymlinks);
            while (it.hasNext()) {
                found.append(it.next());
                progress.update(files.size() + found.size());
            }
            found.sort();
            files.append(found);
        } else {
            files.append(info.filePath());
        }
    }
    return files;
}

void quietDicomLog()
{
    OFLog::configure(OFLogger::OFF_LOG_LEVEL);
}

int64_t countStored(Mdx::TagMap const* node)
{
    int64_t count = 0;
    for (Mdx::TagElement const* element : node->elements()) {
        ++count;
        if (auto const* sequence = dynamic_cast<Mdx::TagSequence const*>(element)) {
            for (Mdx::TagMap const* item : sequence->mItems)
                count += countStored(item);
        }
    }
    for (Mdx::TagMap const* child : node->children())
        count += countStored(child);
    return count;
}

ScanResult scanPaths(std::vector<std::string> const& paths, ScanOptions const& options, Progress& progress)
{
    quietDicomLog();

    McWatch total;
    ScanResult result;
    QStringList const files = collectFiles(paths, result.missing, progress);

    progress.phase("read", files.size(), "files");
    std::vector<QByteArray> localPaths;
    localPaths.reserve(static_cast<size_t>(files.size()));
    for (QString const& file : files)
        localPaths.push_back(file.toLocal8Bit());
    Mdx::loadImagesInOrder(
        localPaths, options.jobs, [&](int index, std::unique_ptr<Mdx::TagMap> image, AddResult why) {
            progress.update(++result.files);
            QByteArray const& path = localPaths[static_cast<size_t>(index)];
            if (image) {
                QByteArray const studyUID = Mdx::TagFile::uidOf(image.get(), DCM_StudyInstanceUID);
                std::unique_ptr<StudyScan>& study = result.studies[studyUID];
                if (!study) {
                    study = std::make_unique<StudyScan>();
                    study->tagFile.setStoreFilePaths(options.storeFilePaths);
                }
                int64_t const flat = countStored(image.get());
                if (study->tagFile.addTagMap(image.release(), path.constData(), false, &why)) {
                    ++result.images;
                    study->flatAttributes += flat;
                    return true;
                }
            }
            result.skipped.count(why);
            if (options.verbose) {
                progress.finish();
                reportSkip(path, why);
            }
            return true;
        });

    progress.phase("optimise", static_cast<int64_t>(result.studies.size()), "studies");
    int64_t optimised = 0;
    for (auto& entry : result.studies) {
        StudyScan& study = *entry.second;
        study.mergedAttributes = countStored(study.tagFile.study());
        McWatch watch;
        study.tagFile.optimizeAll();
        study.optimizeMsec = watch.elapsedMsec();
        Mdx::TagMap const* root = study.tagFile.study();
        study.optimizedAttributes = root ? countStored(root) : 0;
        progress.update(++optimised);
    }
    progress.finish();
    result.seconds = total.elapsedSeconds();
    return result;
}

} // namespace mdxtool
