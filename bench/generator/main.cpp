// The tag file generator over the catalog, set against what it is made of
// and what it replaces. The study is the benchmark CT study (real header,
// zero 512 x 512 slices) written as files and recorded in an SQLite catalog.
//  1. Load: the generator's time reading the DICOM files (its own timer)
//     against DCMTK parsing the same files, values above 4 KB left on disk
//     (goal: at most 1.2 times as long).
//  2. Total: the generator's whole run (catalog query, reading, previews,
//     optimising, writing) against the builder of `mdx build` on the same
//     files (headers on all cores, optimise, write; goal: at most 1.5
//     times as long), also with the builder on one thread, as the
//     generator starts none.
//  3. Peak memory of a generator run, measured in a child process.
//
// Usage: bench_generator [--images N] [--runs N] [CT_small.dcm]
#include <mdxlib/generator/TagFileGenerator.h>
#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/tagfile/OrderedImageLoader.h>
#include <mdxlib/tagfile/TagFile.h>

#include "BenchStudy.h"
#include "BenchSupport.h"

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/oflog/oflog.h"

#include <QTemporaryDir>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

// Records the files as one study in the catalog; the study's id.
int recordStudy(Lmg::Catalog& catalog, std::vector<std::string> const& paths)
{
    Lmg::CatalogStudy study;
    std::map<std::string, int64_t> series;
    catalog.begin();
    for (std::string const& path : paths) {
        std::unique_ptr<Mdx::TagMap> image(Mdx::TagFile::loadImage(path.c_str()));
        if (!image)
            continue;
        if (study.id == 0) {
            study.uid = Mdx::TagFile::uidOf(image.get(), DCM_StudyInstanceUID).toStdString();
            catalog.addStudy(study);
        }
        std::string const seriesUID = Mdx::TagFile::uidOf(image.get(), DCM_SeriesInstanceUID).toStdString();
        int64_t& id = series[seriesUID];
        if (id == 0) {
            Lmg::CatalogSeries row;
            row.studyId = study.id;
            row.uid = seriesUID;
            row.number = static_cast<int>(series.size());
            catalog.addSeries(row);
            id = row.id;
        }
        catalog.addImage({Mdx::TagFile::uidOf(image.get(), DCM_SOPInstanceUID).toStdString(), id, path, ""});
    }
    catalog.commit();
    return static_cast<int>(study.id);
}

// What `mdx build` does with a folder of one study.
double buildMsec(std::vector<std::string> const& paths, int jobs)
{
    return mdxbench::timeMsec([&] {
        std::vector<QByteArray> files;
        for (std::string const& path : paths)
            files.push_back(QByteArray::fromStdString(path));
        Mdx::TagFile file;
        Mdx::loadImagesInOrder(
            files, jobs, [&](int index, std::unique_ptr<Mdx::TagMap> image, Mdx::TagFile::AddResult) {
                if (image)
                    file.addTagMap(image.release(), files[static_cast<size_t>(index)], false);
                return true;
            });
        file.optimizeAll();
        file.writeCacheFile();
    });
}

// DCMTK's own parse as the generator asks for it: values above 4 KB stay
// on disk.
double dcmtkMsec(std::vector<std::string> const& paths)
{
    return mdxbench::timeMsec([&] {
        for (std::string const& path : paths) {
            DcmFileFormat format;
            format.loadFile(path.c_str(), EXS_Unknown, EGL_noChange, 4096, ERM_autoDetect);
        }
    });
}

// Peak resident memory of one generator run, in a child process.
long peakKiB(int studyId)
{
    pid_t const child = fork();
    if (child == 0) {
        Mdx::TagFileGenerator generator;
        Mdx::TagFile file;
        _exit(generator.createTagFile(file, studyId, nullptr) ? 0 : 1);
    }
    int status = 0;
    struct rusage usage = {};
    if (child < 0 || wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0)
        return -1;
    return usage.ru_maxrss;
}

} // namespace

int main(int argc, char** argv)
{
    int images = 1000;
    int runs = 3;
    QString sample;
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        if (arg == "--images" && i + 1 < argc)
            images = std::max(benchstudy::kSeries, std::atoi(argv[++i]));
        else if (arg == "--runs" && i + 1 < argc)
            runs = std::max(1, std::atoi(argv[++i]));
        else
            sample = QString::fromLocal8Bit(argv[i]);
    }
    OFLog::configure(OFLogger::OFF_LOG_LEVEL);
    getTheLogInstance()->setLogLevel(McLogFile::LevelWarning);
    DcmFileFormat source;
    if (!benchstudy::loadCtSample(sample, source))
        return 2;

    QTemporaryDir dir;
    std::vector<std::string> const paths = benchstudy::writeStudy(source, dir.filePath("study"), images);
    std::string const connection = "sqlite:" + dir.filePath("catalog.sqlite").toStdString();
    McResult result;
    std::unique_ptr<Lmg::Catalog> catalog = Lmg::Catalog::open(connection, result);
    if (!catalog) {
        std::fprintf(stderr, "bench_generator: %s\n", result.message().c_str());
        return 2;
    }
    int const studyId = recordStudy(*catalog, paths);
    SetDatabaseServer(connection.c_str());
    Mdx::TagFile::setMetaFolder(dir.filePath("meta").toLocal8Bit().constData());

    std::vector<double> load, total;
    int previewMs = 0;
    for (int run = 0; run < runs; ++run) {
        Mdx::TagFileGenerator generator;
        Mdx::TagFile file;
        bool written = false;
        total.push_back(
            mdxbench::timeMsec([&] { written = generator.createTagFile(file, studyId, nullptr); }));
        int loadMs = 0, volumeMs = 0;
        generator.getTimings(loadMs, volumeMs, previewMs);
        load.push_back(loadMs);
        if (!written || file.images().size() != images) {
            std::fprintf(stderr, "bench_generator: the generator wrote %d of %d images\n",
                         file.images().size(), images);
            return 1;
        }
    }
    double const dcmtk = mdxbench::medianMsec(runs, [&] { return dcmtkMsec(paths); });
    double const build = mdxbench::medianMsec(runs, [&] { return buildMsec(paths, Mdx::defaultLoadJobs()); });
    double const buildOneJob = mdxbench::medianMsec(runs, [&] { return buildMsec(paths, 1); });
    std::sort(load.begin(), load.end());
    std::sort(total.begin(), total.end());
    double const loadMedian = load[load.size() / 2];
    double const totalMedian = total[total.size() / 2];
    long const peak = peakKiB(studyId);

    std::printf("images                   %8d in %d series, median of %d runs\n", images, benchstudy::kSeries,
                runs);
    std::printf("generator: load          %8.1f ms\n", loadMedian);
    std::printf("DCMTK parse              %8.1f ms\n", dcmtk);
    std::printf("load / DCMTK             %8.2f   (goal <= 1.2)\n", loadMedian / dcmtk);
    std::printf("generator: total         %8.1f ms (previews %d ms)\n", totalMedian, previewMs);
    std::printf("mdx build, %d jobs        %8.1f ms\n", Mdx::defaultLoadJobs(), build);
    std::printf("total / mdx build        %8.2f   (goal <= 1.5)\n", totalMedian / build);
    std::printf("mdx build, 1 job         %8.1f ms\n", buildOneJob);
    std::printf("total / mdx build -j 1   %8.2f   (the generator reads on one thread)\n",
                totalMedian / buildOneJob);
    std::printf("generator peak memory    %8.1f MiB\n", peak / 1024.0);
    return 0;
}
