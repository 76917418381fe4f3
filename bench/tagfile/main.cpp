// Sizes and times of a study's tag file, set against the DICOM headers it
// stands in for: parsing them with DCMTK, and shipping them as gzipped DICOM
// JSON. The study is synthetic but made from a real CT header, so that the
// attribute mix (public and private, strings and binary) is what scanners
// write; only the values that change from image to image are generated.
//
// Usage: bench_tagfile [--images N] [--runs N] [--keep] [CT_small.dcm]
// --keep leaves the generated files, the tag file and the JSON behind for
// inspection.
#include <mdxlib/platform/Lzma.h>
#include <mdxlib/tagfile/Compression.h>
#include <mdxlib/tagfile/OrderedImageLoader.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagElement.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcjson.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/oflog/oflog.h"

#include <libdeflate.h>

#include "BenchStudy.h"
#include "BenchSupport.h"
#include "LeaveOutLargeValues.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using benchstudy::format;
using benchstudy::kSeries;
using benchstudy::writeStudy;

constexpr Uint32 kMaxReadLength = 4096;     // what TagFile::addDicomFile reads
constexpr Uint32 kTagFileValueLimit = 1024; // above this the tag file keeps an omitted marker

struct Options
{
    int images = 5000;
    int runs = 7;
    bool keep = false;
    QString sample;
    QString read; // an existing tag file: only its read figures
};

using mdxbench::Clock;
using mdxbench::inChildProcess;
using mdxbench::medianMsec;
using mdxbench::timeMsec;

// Fresh heap pages cost a fault each, several microseconds in a virtual
// machine: a read that cannot reuse freed memory pays thousands of them.
long minorFaults()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

QString findSample(Options const& options)
{
    return options.sample.isEmpty() ? benchstudy::findCtSample() : options.sample;
}

std::unique_ptr<DcmFileFormat> loadHeader(std::string const& path)
{
    auto file = std::make_unique<DcmFileFormat>();
    file->loadFile(path.c_str(), EXS_Unknown, EGL_noChange, kMaxReadLength, ERM_autoDetect);
    return file;
}

using mdxbench::LeaveOutLargeValues;

size_t gzipSize(std::string const& text)
{
    libdeflate_compressor* compressor = libdeflate_alloc_compressor(6);
    size_t const bound = libdeflate_gzip_compress_bound(compressor, text.size());
    std::vector<char> out(bound);
    size_t const size = libdeflate_gzip_compress(compressor, text.data(), text.size(), out.data(), bound);
    libdeflate_free_compressor(compressor);
    return size;
}

// The stored payload of a written tag file: its length (big-endian) at
// offset 8, its bytes from offset 12.
QByteArray storedPayload(QString const& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    QByteArray const bytes = file.readAll();
    if (bytes.size() < 12)
        return QByteArray();
    auto const* head = reinterpret_cast<unsigned char const*>(bytes.constData());
    int const length =
        int(quint32(head[8]) << 24 | quint32(head[9]) << 16 | quint32(head[10]) << 8 | head[11]);
    return bytes.mid(12, length);
}

struct ModeFigures
{
    qint64 unpacked = 0;
    qint64 stored = 0;
    qint64 onDisk = 0;
    double writeMsec = 0;
    double readMsec = 0;
    double readFaults = 0;
    double unpackMsec = 0;
    double treeBytes = 0;
};

ModeFigures measureMode(Mdx::TagFile const& built, int mode, QString const& path, int runs, int images)
{
    ModeFigures figures;
    Mdx::TagFile::sCompressionMode = mode;
    QByteArray const localPath = path.toLocal8Bit();
    figures.writeMsec =
        medianMsec(runs, [&] { return timeMsec([&] { built.writeCacheFile(localPath.constData()); }); });
    figures.onDisk = QFileInfo(path).size();

    QByteArray const stored = storedPayload(path);
    figures.stored = stored.size();
    figures.unpacked = stored.size();
    if (mode == 1) {
        figures.unpacked = qxUncompress(stored).size();
        figures.unpackMsec = medianMsec(runs, [&] { return timeMsec([&] { qxUncompress(stored); }); });
    } else if (mode == 2) {
        auto const* bytes = reinterpret_cast<unsigned char const*>(stored.constData());
        McDArray<unsigned char> unpacked;
        lzmaUncompress(unpacked, bytes, stored.size());
        figures.unpacked = static_cast<qint64>(unpacked.size());
        figures.unpackMsec = medianMsec(
            runs, [&] { return timeMsec([&] { lzmaUncompress(unpacked, bytes, stored.size()); }); });
    }

    figures.readMsec = medianMsec(runs, [&] {
        Mdx::TagFile file; // deleted after the timing: a reader keeps its tree
        long const faults = minorFaults();
        size_t const heap = mallinfo2().uordblks;
        size_t const slabs = Mdx::TagElement::pooledBytesReserved();
        size_t const pooled = Mdx::TagElement::pooledBytesInUse();
        double const msec = timeMsec([&] { file.readCacheFile(path, nullptr, false); });
        figures.readFaults += double(minorFaults() - faults) / runs;
        // Heap in use after the read, less before: the tree and its indexes
        // (the payload buffers are freed by then). The heap sees the
        // element pool's slabs, not the elements in them: those count by
        // the pool's own figure.
        figures.treeBytes = double(mallinfo2().uordblks - heap) -
                            double(Mdx::TagElement::pooledBytesReserved() - slabs) +
                            double(Mdx::TagElement::pooledBytesInUse() - pooled);
        if (images >= 0 && file.images().size() != images) {
            std::fprintf(stderr, "Mode %d: read back %d images instead of %d\n", mode, file.images().size(),
                         images);
            std::exit(1);
        }
        return msec;
    });
    return figures;
}

// Reads every file once, so that the header parse below starts from the
// page cache; returns the bytes on disk.
qint64 warmPageCache(std::vector<std::string> const& paths)
{
    qint64 bytes = 0;
    std::vector<char> buffer(1 << 20);
    for (std::string const& path : paths) {
        FILE* file = std::fopen(path.c_str(), "rb");
        if (!file)
            continue;
        for (size_t read; (read = std::fread(buffer.data(), 1, buffer.size(), file)) > 0;)
            bytes += static_cast<qint64>(read);
        std::fclose(file);
    }
    return bytes;
}

struct JsonFigures
{
    size_t raw = 0;
    size_t gzipped = 0;
};

// The headers as one array of datasets, as a metadata response for the
// whole study would carry them; DcmDataset::writeJson leaves the braces of
// each dataset to the caller.
JsonFigures studyAsJson(std::vector<std::string> const& paths, Uint32 limit, QString const& keepAs)
{
    std::string json = "[";
    LeaveOutLargeValues format;
    for (std::string const& path : paths) {
        std::unique_ptr<DcmFileFormat> header = loadHeader(path);
        std::ostringstream out;
        out << (json.size() > 1 ? ",{" : "{");
        format.collect(header->getDataset(), limit);
        header->getDataset()->writeJson(out, format);
        out << "}";
        json += out.str();
    }
    json += "]";
    if (!keepAs.isEmpty()) {
        QFile file(keepAs);
        if (file.open(QIODevice::WriteOnly))
            file.write(json.data(), static_cast<qint64>(json.size()));
    }
    return {json.size(), gzipSize(json)};
}

// --read: the read figures of an existing tag file, rewritten in mode 1 to
// a temporary folder; quick to repeat while working on the reader.
int readOnly(Options const& options)
{
    Mdx::TagFile file;
    QTemporaryDir folder;
    if (!folder.isValid() || !file.readCacheFile(options.read, nullptr, false)) {
        std::fprintf(stderr, "Could not read %s\n", options.read.toLocal8Bit().constData());
        return 1;
    }
    ModeFigures const zlib = measureMode(file, 1, folder.path() + "/study.tc", options.runs, -1);
    std::printf("%d images; payload %lld bytes; read %.2f ms; inflate %.2f ms; tree %.0f bytes\n",
                file.images().size(), static_cast<long long>(zlib.unpacked), zlib.readMsec, zlib.unpackMsec,
                zlib.treeBytes);
    std::printf("read time / inflate time = %.2f\n", zlib.readMsec / zlib.unpackMsec);
    std::printf("tree bytes / payload bytes = %.2f\n", zlib.treeBytes / zlib.unpacked);
    return 0;
}

bool parseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        if ((arg == "--images" || arg == "--runs") && i + 1 < argc) {
            int const value = std::atoi(argv[++i]);
            (arg == "--images" ? options.images : options.runs) = value;
        } else if (arg == "--read" && i + 1 < argc) {
            options.read = QString::fromLocal8Bit(argv[++i]);
        } else if (arg == "--keep") {
            options.keep = true;
        } else if (arg.rfind("--", 0) == 0) {
            return false;
        } else {
            options.sample = QString::fromLocal8Bit(argv[i]);
        }
    }
    return options.images >= kSeries && options.runs >= 1;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parseOptions(argc, argv, options)) {
        std::fprintf(stderr,
                     "Usage: %s [--images N (>= %d)] [--runs N] [--keep] [CT_small.dcm]\n       %s --read "
                     "FILE.tc [--runs N]\n",
                     argv[0], kSeries, argv[0]);
        return 2;
    }
    OFLog::configure(OFLogger::ERROR_LOG_LEVEL); // the sample's oddities are not news here
    if (!options.read.isEmpty())
        return readOnly(options);
    QString const sample = findSample(options);
    DcmFileFormat source;
    if (sample.isEmpty() || source.loadFile(sample.toLocal8Bit().constData()).bad()) {
        std::fprintf(stderr, "No CT sample: pass the path of pydicom/CT_small.dcm or set MDX_SAMPLES\n");
        return 1;
    }
    QTemporaryDir folder;
    if (!folder.isValid()) {
        std::fprintf(stderr, "Could not create a temporary folder\n");
        return 1;
    }
    folder.setAutoRemove(!options.keep);

    std::vector<std::string> paths;
    double const writeFilesMsec =
        timeMsec([&] { paths = writeStudy(source, folder.path() + "/dicom", options.images); });
    qint64 const diskBytes = warmPageCache(paths);
    int const images = static_cast<int>(paths.size());
    std::printf("Study: %d CT images in %d series, made from %s\n", images, kSeries,
                sample.toLocal8Bit().constData());
    std::printf("DICOM files: %.1f MB written in %.0f ms%s%s; every time below is the median of %d runs\n\n",
                diskBytes / 1e6, writeFilesMsec, options.keep ? " to " : "",
                options.keep ? folder.path().toLocal8Bit().constData() : "", options.runs);

    // ---- the builds and the parse they are held against
    // Each in a child forked here, so that all three start from the same
    // heap (see inChildProcess): measured one after the other in this
    // process, the later ones ran up to 1.8 times slower, whichever they were.
    // What mdx build does: headers parsed on `jobs` threads, merged into
    // the tree in file order, then optimised.
    std::vector<QByteArray> localPaths;
    for (std::string const& path : paths)
        localPaths.push_back(QByteArray::fromStdString(path));
    auto build = [&](Mdx::TagFile& file, int jobs) {
        return timeMsec([&] {
            Mdx::loadImagesInOrder(
                localPaths, jobs, [&](int index, std::unique_ptr<Mdx::TagMap> image, auto) {
                    if (image) {
                        QByteArray const& path = localPaths[static_cast<size_t>(index)];
                        file.addTagMap(image.release(), path.constData() + path.lastIndexOf('/') + 1, false);
                    }
                    return true;
                });
            file.optimizeAll();
        });
    };
    int const jobs = Mdx::defaultLoadJobs();
    auto buildMedian = [&](int jobCount) {
        return inChildProcess([&] {
            return medianMsec(options.runs, [&] {
                Mdx::TagFile file; // deleted after the timing
                return build(file, jobCount);
            });
        });
    };
    double const buildMsec = buildMedian(1);
    double const buildJobsMsec = buildMedian(jobs);
    double const parseMsec = inChildProcess([&] {
        return medianMsec(options.runs, [&] {
            std::vector<std::unique_ptr<DcmFileFormat>> headers;
            headers.reserve(paths.size());
            return timeMsec([&] {
                for (std::string const& path : paths)
                    headers.push_back(loadHeader(path));
            });
        });
    });

    // ---- the tag file
    // Its write and read figures come first, from a heap that only one build
    // has used: after several 5,000-image builds have come and gone, reading
    // and writing (a few hundred thousand small allocations each) run up to
    // twice as slow (see bench/README.md).
    Mdx::TagFile built;
    build(built, 1);
    QString const tagPath = folder.path() + "/study.tc";
    ModeFigures modes[3];
    for (int mode = 0; mode < 3; ++mode)
        modes[mode] = measureMode(built, mode, tagPath, options.runs, images);
    Mdx::TagFile::sCompressionMode = 1;

    // ---- the DICOM headers as JSON
    auto keepAs = [&](char const* name) { return options.keep ? folder.path() + name : QString(); };
    JsonFigures const json4096 = studyAsJson(paths, kMaxReadLength, keepAs("/headers-4096.json"));
    JsonFigures const json1024 = studyAsJson(paths, kTagFileValueLimit, keepAs("/headers-1024.json"));

    // ---- report
    std::printf("Tag file build (load x %d + addTagMap + optimizeAll), 1 job: %10.1f ms\n", images,
                buildMsec);
    std::printf("Tag file build, %d jobs: %10.1f ms\n\n", jobs, buildJobsMsec);
    std::printf("%-36s %14s %14s %14s\n", "Tag file", "mode 0 (none)", "mode 1 (zlib)", "mode 2 (xz)");
    auto row = [&](char const* label, auto field, char const* pattern) {
        std::printf("%-36s", label);
        for (ModeFigures const& figures : modes)
            std::printf(pattern, static_cast<double>(figures.*field));
        std::printf("\n");
    };
    row("  payload unpacked (bytes)", &ModeFigures::unpacked, " %14.0f");
    row("  payload stored (bytes)", &ModeFigures::stored, " %14.0f");
    row("  file on disk (bytes)", &ModeFigures::onDisk, " %14.0f");
    row("  write: writeCacheFile (ms)", &ModeFigures::writeMsec, " %14.2f");
    row("  read: readCacheFile (ms)", &ModeFigures::readMsec, " %14.2f");
    row("  read: page faults (mean)", &ModeFigures::readFaults, " %14.0f");
    row("  unpack payload alone (ms)", &ModeFigures::unpackMsec, " %14.2f");
    row("  tree in memory (heap bytes)", &ModeFigures::treeBytes, " %14.0f");
    std::printf("\nDICOM headers of the %d files (page-cached)\n", images);
    std::printf("  %-50s %12.1f ms\n", "parse: DcmFileFormat::loadFile, 4096 bytes", parseMsec);
    std::printf("  %-50s %12zu bytes\n", "JSON, values > 4096 bytes as BulkDataURI", json4096.raw);
    std::printf("  %-50s %12zu bytes\n", "  gzip level 6", json4096.gzipped);
    std::printf("  %-50s %12zu bytes\n", "JSON, values > 1024 bytes as BulkDataURI", json1024.raw);
    std::printf("  %-50s %12zu bytes\n\n", "  gzip level 6", json1024.gzipped);

    ModeFigures const& zlib = modes[1];
    std::printf("read time / inflate time = %.2f\n", zlib.readMsec / zlib.unpackMsec);
    std::printf("tree bytes / payload bytes = %.2f\n", zlib.treeBytes / zlib.unpacked);
    std::printf("header parse time / tag file read time = %.1f\n", parseMsec / zlib.readMsec);
    std::printf("build time / parse time, 1 job = %.2f\n", buildMsec / parseMsec);
    std::printf("build time / parse time, %d jobs = %.2f\n", jobs, buildJobsMsec / parseMsec);
    std::printf("gzip JSON size / tag file size = %.1f\n", double(json4096.gzipped) / zlib.onDisk);
    std::printf("(with the tag file's own 1024-byte limit in the JSON: %.1f)\n",
                double(json1024.gzipped) / zlib.onDisk);
    return 0;
}
