// mdx scan and mdx build: files to study trees; what the trees cost, and
// the tag files they make.
#include "Commands.h"
#include "Options.h"
#include "Scanner.h"

#include <mdxlib/platform/McWatch.h>
#include <mdxlib/tagfile/TagFile.h>

#include <QFileInfo>

#include <cstdio>

namespace mdxtool {

namespace {

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

void printBuildUsage(std::FILE* out)
{
    std::fputs("usage: mdx build [--meta DIR] [--store-paths] [--quiet] [--verbose] PATH...\n"
               "\n"
               "Scans as `mdx scan` does, optimises, and writes one tag file per study into the meta\n"
               "folder (the configured one, MDX_META_FOLDER, or ./meta/).\n"
               "\n"
               "  --meta DIR      write the tag files under DIR\n"
               "  --store-paths   record each image's file path in its tag file\n"
               "  --quiet         no progress line\n"
               "  --verbose       name every file that was skipped, and why\n",
               out);
}

void printSkipped(ScanResult const& result)
{
    std::printf("%lld files: %lld images in %zu %s; skipped %lld not DICOM, %lld without UIDs, "
                "%lld duplicate SOP Instance UIDs\n",
                static_cast<long long>(result.files), static_cast<long long>(result.images),
                result.studies.size(), result.studies.size() == 1 ? "study" : "studies",
                static_cast<long long>(result.notDicom), static_cast<long long>(result.withoutUIDs),
                static_cast<long long>(result.duplicates));
}

} // namespace

int scanCommand(Arguments const& args)
{
    ParsedArguments const parsed = parseArguments(args, {"--help", "--quiet", "--verbose"}, {});
    if (parsed.has("--help")) {
        printScanUsage(stdout);
        return 0;
    }
    if (!parsed.error.empty() || parsed.positional.empty()) {
        if (!parsed.error.empty())
            std::fprintf(stderr, "mdx scan: %s\n\n", parsed.error.c_str());
        printScanUsage(stderr);
        return 2;
    }
    ScanOptions options;
    options.progress = !parsed.has("--quiet");
    options.verbose = parsed.has("--verbose");
    ScanResult const result = scanPaths(parsed.positional, options);

    int64_t flat = 0, merged = 0, optimized = 0;
    for (auto const& [uid, study] : result.studies) {
        std::printf("study %s\n", uid.constData());
        std::printf("  series %d, images %d\n", study->tagFile.series().size(),
                    study->tagFile.images().size());
        std::printf(
            "  attributes stored: flat %lld, merged %lld, optimised %lld (optimised in %lld ms)\n",
            static_cast<long long>(study->flatAttributes), static_cast<long long>(study->mergedAttributes),
            static_cast<long long>(study->optimizedAttributes), static_cast<long long>(study->optimizeMsec));
        flat += study->flatAttributes;
        merged += study->mergedAttributes;
        optimized += study->optimizedAttributes;
    }
    std::printf("\n");
    printSkipped(result);
    std::printf("attributes stored: flat %lld, merged %lld, optimised %lld; total time %.2f s\n",
                static_cast<long long>(flat), static_cast<long long>(merged),
                static_cast<long long>(optimized), result.seconds);
    return 0;
}

int buildCommand(Arguments const& args)
{
    ParsedArguments const parsed =
        parseArguments(args, {"--help", "--quiet", "--verbose", "--store-paths"}, {"--meta"});
    if (parsed.has("--help")) {
        printBuildUsage(stdout);
        return 0;
    }
    if (!parsed.error.empty() || parsed.positional.empty()) {
        if (!parsed.error.empty())
            std::fprintf(stderr, "mdx build: %s\n\n", parsed.error.c_str());
        printBuildUsage(stderr);
        return 2;
    }
    if (!parsed.value("--meta").empty())
        Mdx::TagFile::setMetaFolder(parsed.value("--meta").c_str());

    ScanOptions options;
    options.progress = !parsed.has("--quiet");
    options.verbose = parsed.has("--verbose");
    options.storeFilePaths = parsed.has("--store-paths");
    ScanResult const result = scanPaths(parsed.positional, options);

    McWatch writing;
    int failures = 0;
    int series = 0;
    int64_t bytes = 0;
    for (auto const& [uid, study] : result.studies) {
        if (!study->tagFile.writeCacheFile()) {
            ++failures;
            continue;
        }
        int64_t const size = QFileInfo(study->tagFile.path()).size();
        bytes += size;
        series += study->tagFile.series().size();
        std::printf("%s  %d series, %d images, %lld bytes  %s\n", uid.constData(),
                    study->tagFile.series().size(), study->tagFile.images().size(),
                    static_cast<long long>(size), study->tagFile.path().toLocal8Bit().constData());
    }
    std::printf("\n");
    printSkipped(result);
    std::printf(
        "wrote %zu tag files in %s: %d series, %lld images, %lld bytes on disk; scan %.2f s, write %.2f s\n",
        result.studies.size() - static_cast<size_t>(failures), Mdx::TagFile::metaFolder(), series,
        static_cast<long long>(result.images), static_cast<long long>(bytes), result.seconds,
        writing.elapsedSeconds());
    if (failures > 0) {
        std::fprintf(stderr, "mdx build: %d tag files could not be written\n", failures);
        return 1;
    }
    return 0;
}

} // namespace mdxtool
