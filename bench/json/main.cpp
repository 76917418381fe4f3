// DICOM JSON of a large study straight from its tag file, against DCMTK's
// dcm2json over the study's files: what serving a viewer's metadata request
// costs with the cache and without it. The anchor is dcm2json, run in the
// same process run over the same page-cached files; a second anchor is
// DCMTK's JSON writer in this process over headers read to 4 KB, which
// leaves out the program starts and the pixel data that dcm2json pays for.
//
// Usage: bench_json [--images N] [--runs N] [--dcm2json-images N] [--keep] [CT_small.dcm]
#include "BenchStudy.h"
#include "BenchSupport.h"
#include "LeaveOutLargeValues.h"

#include <mdxlib/json/DicomJsonWriter.h>
#include <mdxlib/tagfile/OrderedImageLoader.h>
#include <mdxlib/tagfile/TagFile.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcjson.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/oflog/oflog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

struct Options
{
    int images = 5000;
    int runs = 5;
    int dcm2jsonImages = -1; // all
    bool keep = false;
    QString sample;
};

using mdxbench::medianMsec;
using mdxbench::timeMsec;

bool parseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        if ((arg == "--images" || arg == "--runs" || arg == "--dcm2json-images") && i + 1 < argc) {
            int const value = std::atoi(argv[++i]);
            (arg == "--images" ? options.images
             : arg == "--runs" ? options.runs
                               : options.dcm2jsonImages) = value;
        } else if (arg == "--keep") {
            options.keep = true;
        } else if (arg.rfind("--", 0) == 0) {
            return false;
        } else {
            options.sample = QString::fromLocal8Bit(argv[i]);
        }
    }
    return options.images >= benchstudy::kSeries && options.runs >= 1;
}

// The tag file as mdx build --store-paths makes it.
void buildTagFile(std::vector<std::string> const& paths, QString const& tagPath)
{
    std::vector<QByteArray> localPaths;
    for (std::string const& path : paths)
        localPaths.push_back(QByteArray::fromStdString(path));
    Mdx::TagFile file;
    file.setStoreFilePaths(true);
    Mdx::loadImagesInOrder(localPaths, Mdx::defaultLoadJobs(),
                           [&](int index, std::unique_ptr<Mdx::TagMap> image, auto) {
                               if (image) {
                                   QByteArray const& path = localPaths[static_cast<size_t>(index)];
                                   file.addTagMap(image.release(), path.constData(), false);
                               }
                               return true;
                           });
    file.optimizeAll();
    file.writeCacheFile(tagPath.toLocal8Bit().constData());
}

struct Figures
{
    double msec = 0;
    qint64 bytes = 0;
};

// Read the tag file, write the study's JSON to a file: the whole answer.
Figures fromTagFile(QString const& tagPath, QString const& outPath, bool pretty, int runs)
{
    Figures figures;
    figures.msec = medianMsec(runs, [&] {
        return timeMsec([&] {
            Mdx::TagFile file;
            QFile out(outPath);
            if (!file.readCacheFile(tagPath, nullptr, false) || !out.open(QIODevice::WriteOnly)) {
                std::fprintf(stderr, "Could not read the tag file or write %s\n",
                             outPath.toLocal8Bit().constData());
                std::exit(1);
            }
            Mdx::DicomJsonWriter writer(&out, pretty);
            if (!writer.writeStudy(file)) {
                std::fprintf(stderr, "Could not write the JSON\n");
                std::exit(1);
            }
            figures.bytes = writer.bytesWritten();
        });
    });
    return figures;
}

// dcm2json of each file into a file of its own, one program after the other.
Figures withDcm2json(std::vector<std::string> const& paths, QString const& folder, int count)
{
    Figures figures;
    figures.msec = timeMsec([&] {
        for (int i = 0; i < count; ++i) {
            QString const out = QString("%1/%2.json").arg(folder).arg(i);
            int const status =
                QProcess::execute("dcm2json", {"-q", "-fc", QString::fromStdString(paths[size_t(i)]), out});
            if (status != 0) {
                std::fprintf(stderr, "dcm2json failed (%d) on %s\n", status, paths[size_t(i)].c_str());
                std::exit(1);
            }
        }
    });
    for (int i = 0; i < count; ++i) {
        QString const out = QString("%1/%2.json").arg(folder).arg(i);
        figures.bytes += QFileInfo(out).size();
        QFile::remove(out); // 700 KB each, with the pixels
    }
    return figures;
}

using mdxbench::LeaveOutLargeValues;

// DCMTK's writer in this process, headers read to 4 KB as the tag file's
// builder reads them, values above 1 KB (the tag file's limit) as bulk data.
Figures withDcmtkInProcess(std::vector<std::string> const& paths, QString const& outPath, int runs)
{
    Figures figures;
    figures.msec = medianMsec(runs, [&] {
        return timeMsec([&] {
            std::ofstream out(outPath.toLocal8Bit().constData(), std::ios::binary);
            LeaveOutLargeValues format;
            out << '[';
            for (size_t i = 0; i < paths.size(); ++i) {
                DcmFileFormat header;
                header.loadFile(paths[i].c_str(), EXS_Unknown, EGL_noChange, 4096, ERM_autoDetect);
                format.collect(header.getDataset(), 1024);
                out << (i ? ",{" : "{");
                header.getDataset()->writeJson(out, format);
                out << '}';
            }
            out << ']';
        });
    });
    figures.bytes = QFileInfo(outPath).size();
    return figures;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parseOptions(argc, argv, options)) {
        std::fprintf(
            stderr,
            "Usage: %s [--images N (>= %d)] [--runs N] [--dcm2json-images N] [--keep] [CT_small.dcm]\n",
            argv[0], benchstudy::kSeries);
        return 2;
    }
    OFLog::configure(OFLogger::ERROR_LOG_LEVEL);
    QString const sample = options.sample.isEmpty() ? benchstudy::findCtSample() : options.sample;
    DcmFileFormat source;
    if (!benchstudy::loadCtSample(sample, source))
        return 1;
    QTemporaryDir folder;
    if (!folder.isValid()) {
        std::fprintf(stderr, "Could not create a temporary folder\n");
        return 1;
    }
    folder.setAutoRemove(!options.keep);
    std::vector<std::string> const paths =
        benchstudy::writeStudy(source, folder.path() + "/dicom", options.images);
    int const images = static_cast<int>(paths.size());
    int const dcm2jsonImages = options.dcm2jsonImages > 0 ? std::min(options.dcm2jsonImages, images) : images;
    QString const tagPath = folder.path() + "/study.tc";
    buildTagFile(paths, tagPath);
    QDir().mkpath(folder.path() + "/dcm2json");

    // The anchor first, then the rest; the files are page-cached by the
    // tag file's build.
    Figures const anchor = withDcm2json(paths, folder.path() + "/dcm2json", dcm2jsonImages);
    Figures const dcmtk = withDcmtkInProcess(paths, folder.path() + "/dcmtk.json", options.runs);
    Figures const compact = fromTagFile(tagPath, folder.path() + "/study.json", false, options.runs);
    Figures const pretty = fromTagFile(tagPath, folder.path() + "/study-pretty.json", true, options.runs);

    double const anchorPerImage = anchor.msec / dcm2jsonImages;
    std::printf("Study: %d CT images in %d series from %s%s%s\n", images, benchstudy::kSeries,
                sample.toLocal8Bit().constData(), options.keep ? ", kept in " : "",
                options.keep ? folder.path().toLocal8Bit().constData() : "");
    std::printf("Tag file: %lld bytes; times are medians of %d runs, dcm2json one run over %d files\n\n",
                static_cast<long long>(QFileInfo(tagPath).size()), options.runs, dcm2jsonImages);
    std::printf("%-52s %12s %14s %12s\n", "", "ms", "bytes/image", "ms/image");
    auto row = [&](char const* label, double msec, qint64 bytes, int count) {
        std::printf("%-52s %12.1f %14.0f %12.4f\n", label, msec, double(bytes) / count, msec / count);
    };
    row("anchor: dcm2json of every file (pixel data inline)", anchor.msec, anchor.bytes, dcm2jsonImages);
    row("DCMTK writeJson in process, 4 KB read, > 1 KB bulk", dcmtk.msec, dcmtk.bytes, images);
    row("tag file: read + DicomJsonWriter, compact", compact.msec, compact.bytes, images);
    row("tag file: read + DicomJsonWriter, pretty", pretty.msec, pretty.bytes, images);
    std::printf("\ndcm2json time / tag file JSON time = %.0f (goal >= 100)\n",
                anchorPerImage * images / compact.msec);
    std::printf("DCMTK in-process JSON time / tag file JSON time = %.1f\n", dcmtk.msec / compact.msec);
    std::printf("output per image: %.0f bytes compact, %.0f pretty\n", double(compact.bytes) / images,
                double(pretty.bytes) / images);
    return 0;
}
