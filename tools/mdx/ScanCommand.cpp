// mdx scan: files to study trees, and what the trees cost.
#include "Commands.h"
#include "Progress.h"

#include <mdxlib/TagFile.h>
#include <mdxlib/TagMap.h>
#include <mdxlib/platform/McWatch.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/oflog/oflog.h"

#include <QDirIterator>
#include <QFileInfo>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>

namespace mdxtool {

namespace {

constexpr unsigned int kMaxValueSize = 1024;
constexpr Uint32 kMaxReadLength = 4096;

void printScanUsage(std::FILE* out)
{
    std::fputs("usage: mdx scan [--quiet] [--verbose] PATH...\n"
               "\n"
               "Reads every DICOM file in the given files and folders (recursively) into one study\n"
               "tree per study, optimises the trees and prints for each study its series and image\n"
               "counts and the number of stored attributes: flat (every image on its own), after\n"
               "merging, and after optimisation. Files that are not DICOM are counted, not fatal.\n"
               "\n"
               "  --quiet     no progress line\n"
               "  --verbose   name every file that was skipped, and why\n",
               out);
}

// Attributes stored in a node and its subtree, sequence items included.
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

struct StudyScan
{
    Mdx::TagFile tagFile;
    int64_t flatAttributes = 0;
    int64_t mergedAttributes = 0;
    int64_t optimizedAttributes = 0;
    int64_t optimizeMsec = 0;
};

struct Totals
{
    int64_t files = 0;
    int64_t images = 0;
    int64_t notDicom = 0;
    int64_t withoutUIDs = 0;
    int64_t duplicates = 0;
};

QStringList collectFiles(Arguments const& paths)
{
    QStringList files;
    for (std::string const& path : paths) {
        QFileInfo const info(QString::fromStdString(path));
        if (info.isDir()) {
            QStringList found;
            QDirIterator it(info.filePath(), QDir::Files, QDirIterator::Subdirectories | QDirIterator::FollowSymlinks);
            while (it.hasNext())
                found.append(it.next());
            found.sort();
            files.append(found);
        } else if (info.exists()) {
            files.append(info.filePath());
        } else {
            std::fprintf(stderr, "mdx scan: %s: no such file or folder\n", path.c_str());
        }
    }
    return files;
}

} // namespace

int scanCommand(Arguments const& args)
{
    bool quiet = false;
    bool verbose = false;
    Arguments paths;
    for (std::string const& arg : args) {
        if (arg == "--help" || arg == "-h") {
            printScanUsage(stdout);
            return 0;
        } else if (arg == "--quiet" || arg == "-q") {
            quiet = true;
        } else if (arg == "--verbose" || arg == "-v") {
            verbose = true;
        } else if (!arg.empty() && arg[0] == '-') {
            std::fprintf(stderr, "mdx scan: unknown option '%s'\n\n", arg.c_str());
            printScanUsage(stderr);
            return 2;
        } else {
            paths.push_back(arg);
        }
    }
    if (paths.empty()) {
        printScanUsage(stderr);
        return 2;
    }

    // Non-DICOM files are expected among the inputs: DCMTK's own complaints
    // about them are noise unless asked for.
    OFLog::configure(verbose ? OFLogger::WARN_LOG_LEVEL : OFLogger::FATAL_LOG_LEVEL);

    McWatch total;
    QStringList const files = collectFiles(paths);
    std::map<QByteArray, std::unique_ptr<StudyScan>> studies;
    Totals totals;
    Progress progress(!quiet);

    for (QString const& file : files) {
        ++totals.files;
        QByteArray const path = file.toLocal8Bit();
        DcmFileFormat fileFormat;
        OFCondition const status = fileFormat.loadFile(OFFilename(path.constData()), EXS_Unknown, EGL_noChange,
                                                       kMaxReadLength, ERM_autoDetect);
        if (status.bad()) {
            ++totals.notDicom;
            if (verbose)
                std::fprintf(stderr, "skipped %s: not DICOM (%s)\n", path.constData(), status.text());
            progress.update(totals.files);
            continue;
        }
        DcmDataset* dataset = fileFormat.getDataset();
        OFString studyUID;
        OFString sopUID;
        dataset->findAndGetOFString(DCM_StudyInstanceUID, studyUID);
        dataset->findAndGetOFString(DCM_SOPInstanceUID, sopUID);
        if (studyUID.empty() || sopUID.empty()) {
            ++totals.withoutUIDs;
            if (verbose)
                std::fprintf(stderr, "skipped %s: no study or SOP Instance UID\n", path.constData());
            progress.update(totals.files);
            continue;
        }

        std::unique_ptr<StudyScan>& study = studies[QByteArray(studyUID.c_str())];
        if (!study)
            study = std::make_unique<StudyScan>();
        Mdx::TagMap* image = Mdx::TagMap::createTagMap(dataset, kMaxValueSize);
        int64_t const flat = countStored(image);
        if (study->tagFile.addTagMap(image, path.constData(), false)) {
            ++totals.images;
            study->flatAttributes += flat;
        } else {
            ++totals.duplicates;
            if (verbose)
                std::fprintf(stderr, "skipped %s: SOP Instance UID %s already seen\n", path.constData(),
                             sopUID.c_str());
        }
        progress.update(totals.files);
    }
    progress.finish();

    for (auto& [uid, study] : studies) {
        Mdx::TagMap const* root = study->tagFile.study();
        study->mergedAttributes = root ? countStored(root) : 0;
        McWatch watch;
        study->tagFile.optimizeAll();
        study->optimizeMsec = watch.elapsedMsec();
        root = study->tagFile.study();
        study->optimizedAttributes = root ? countStored(root) : 0;

        std::printf("study %s\n", uid.constData());
        std::printf("  series %d, images %d\n", study->tagFile.series().size(), study->tagFile.images().size());
        std::printf("  attributes stored: flat %lld, merged %lld, optimised %lld (optimised in %lld ms)\n",
                    static_cast<long long>(study->flatAttributes), static_cast<long long>(study->mergedAttributes),
                    static_cast<long long>(study->optimizedAttributes), static_cast<long long>(study->optimizeMsec));
    }

    int64_t flat = 0, merged = 0, optimized = 0;
    for (auto const& entry : studies) {
        flat += entry.second->flatAttributes;
        merged += entry.second->mergedAttributes;
        optimized += entry.second->optimizedAttributes;
    }
    std::printf("\n%lld files: %lld images in %zu studies; skipped %lld not DICOM, %lld without UIDs, "
                "%lld duplicate SOP Instance UIDs\n",
                static_cast<long long>(totals.files), static_cast<long long>(totals.images), studies.size(),
                static_cast<long long>(totals.notDicom), static_cast<long long>(totals.withoutUIDs),
                static_cast<long long>(totals.duplicates));
    std::printf("attributes stored: flat %lld, merged %lld, optimised %lld; total time %.2f s\n",
                static_cast<long long>(flat), static_cast<long long>(merged), static_cast<long long>(optimized),
                total.elapsedSeconds());
    return 0;
}

} // namespace mdxtool
