#include "Scanner.h"
#include "Progress.h"

#include <mdxlib/platform/McWatch.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/oflog/oflog.h"

#include <QDirIterator>
#include <QFileInfo>
#include <QStringList>

#include <cstdio>

namespace mdxtool {

namespace {

constexpr unsigned int kMaxValueSize = 1024;
constexpr Uint32 kMaxReadLength = 4096;

QStringList collectFiles(std::vector<std::string> const& paths)
{
    QStringList files;
    for (std::string const& path : paths) {
        QFileInfo const info(QString::fromStdString(path));
        if (info.isDir()) {
            QStringList found;
            QDirIterator it(info.filePath(), QDir::Files,
                            QDirIterator::Subdirectories | QDirIterator::FollowSymlinks);
            while (it.hasNext())
                found.append(it.next());
            found.sort();
            files.append(found);
        } else if (info.exists()) {
            files.append(info.filePath());
        } else {
            std::fprintf(stderr, "mdx: %s: no such file or folder\n", path.c_str());
        }
    }
    return files;
}

} // namespace

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

ScanResult scanPaths(std::vector<std::string> const& paths, ScanOptions const& options)
{
    // Non-DICOM files are expected among the inputs: DCMTK's own complaints
    // about them are noise unless asked for.
    OFLog::configure(options.verbose ? OFLogger::WARN_LOG_LEVEL : OFLogger::FATAL_LOG_LEVEL);

    McWatch total;
    ScanResult result;
    QStringList const files = collectFiles(paths);
    Progress progress(options.progress);

    for (QString const& file : files) {
        ++result.files;
        QByteArray const path = file.toLocal8Bit();
        DcmFileFormat fileFormat;
        OFCondition const status = fileFormat.loadFile(OFFilename(path.constData()), EXS_Unknown,
                                                       EGL_noChange, kMaxReadLength, ERM_autoDetect);
        if (status.bad()) {
            ++result.notDicom;
            if (options.verbose)
                std::fprintf(stderr, "skipped %s: not DICOM (%s)\n", path.constData(), status.text());
            progress.update(result.files);
            continue;
        }
        DcmDataset* dataset = fileFormat.getDataset();
        Mdx::TagMap* image = Mdx::TagMap::createTagMap(dataset, kMaxValueSize);
        // The UIDs as the tree reads them, so that grouping and the tree agree.
        QByteArray studyUID;
        QByteArray sopUID;
        image->findAndGetString(DCM_StudyInstanceUID, studyUID);
        image->findAndGetString(DCM_SOPInstanceUID, sopUID);
        if (studyUID.isEmpty() || sopUID.isEmpty()) {
            delete image;
            ++result.withoutUIDs;
            if (options.verbose)
                std::fprintf(stderr, "skipped %s: no study or SOP Instance UID\n", path.constData());
            progress.update(result.files);
            continue;
        }

        std::unique_ptr<StudyScan>& study = result.studies[studyUID];
        if (!study) {
            study = std::make_unique<StudyScan>();
            study->tagFile.setStoreFilePaths(options.storeFilePaths);
        }
        int64_t const flat = countStored(image);
        if (study->tagFile.addTagMap(image, path.constData(), false)) {
            ++result.images;
            study->flatAttributes += flat;
        } else {
            ++result.duplicates;
            if (options.verbose)
                std::fprintf(stderr, "skipped %s: SOP Instance UID %s already seen\n", path.constData(),
                             sopUID.constData());
        }
        progress.update(result.files);
    }
    progress.finish();

    for (auto& entry : result.studies) {
        StudyScan& study = *entry.second;
        study.mergedAttributes = countStored(study.tagFile.study());
        McWatch watch;
        study.tagFile.optimizeAll();
        study.optimizeMsec = watch.elapsedMsec();
        Mdx::TagMap const* root = study.tagFile.study();
        study.optimizedAttributes = root ? countStored(root) : 0;
    }
    result.seconds = total.elapsedSeconds();
    return result;
}

} // namespace mdxtool
