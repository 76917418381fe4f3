// The update job and the QA cache against the plain read and write of the
// same tag file: what an edit of all images, of one image, and the
// re-application of a record already applied cost, and how much the
// histories add to the file.
//
// Usage: bench_qa [--images N] [--runs N] [CT_small.dcm]
//
// The study is the one bench_tagfile describes (a real CT header, five
// series, the per-image values a scanner writes), built here straight into a
// tag file: the DICOM files themselves are not needed.
#include <mdxlib/qa/QACache.h>
#include <mdxlib/qa/UpdateTagFile.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>

#include "../support/BenchStudy.h"
#include "../support/BenchSupport.h"

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/oflog/oflog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using benchstudy::format;
using benchstudy::kSeries;
using mdxbench::timeMsec;
constexpr unsigned int kMaxValueSize = 1024;

struct Options
{
    int images = 5000;
    int runs = 7;
    QString sample;
};

double median(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// The benchmark study of bench_tagfile, image by image straight into a tree
// without its pixel data.
std::vector<std::string> buildStudy(DcmDataset* dataset, int images, Mdx::TagFile& file)
{
    dataset->findAndDeleteElement(DCM_PixelData);
    dataset->putAndInsertUint16(DCM_Rows, 512);
    dataset->putAndInsertUint16(DCM_Columns, 512);
    std::vector<std::string> uids;
    benchstudy::forEachImage(dataset, images, [&](int, int) {
        file.addTagMap(Mdx::TagMap::createTagMap(dataset, kMaxValueSize), nullptr, false);
        OFString uid;
        dataset->findAndGetOFString(DCM_SOPInstanceUID, uid);
        uids.push_back(uid.c_str());
    });
    file.optimizeAll();
    return uids;
}

QByteArray contents(QString const& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool restore(QString const& path, QByteArray const& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        if (arg == "--images" && i + 1 < argc)
            options.images = std::max(kSeries, std::atoi(argv[++i]));
        else if (arg == "--runs" && i + 1 < argc)
            options.runs = std::max(1, std::atoi(argv[++i]));
        else
            options.sample = QString::fromLocal8Bit(argv[i]);
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
    Mdx::TagFile::setMetaFolder(folder.path().toLocal8Bit().constData());

    Mdx::TagFile built;
    std::vector<std::string> const uids = buildStudy(source.getDataset(), options.images, built);
    QByteArray studyUID;
    built.study()->findAndGetString(DCM_StudyInstanceUID, studyUID);
    if (!built.writeCacheFile()) {
        std::fprintf(stderr, "Could not write the tag file\n");
        return 1;
    }
    QString const path = Mdx::TagFile::cacheFilePathForStudy(studyUID.constData());
    QByteArray const original = contents(path);

    // Anchor: read and write back the same file, as every job must at least.
    std::vector<double> anchor;
    for (int r = 0; r < options.runs; ++r) {
        anchor.push_back(timeMsec([&] {
            Mdx::TagFile file;
            if (!file.readCacheFileForStudy(studyUID.constData(), true) || !file.writeCacheFile())
                std::exit(1);
        }));
    }

    std::vector<char const*> all;
    for (std::string const& uid : uids)
        all.push_back(uid.c_str());
    std::vector<char const*> const names(all.size(), nullptr);
    auto job = [&](int run) {
        return format("<Job><Timestamp>20240102030405</Timestamp><Login>bench</Login><Substitutions>"
                      "<Tag Group='0008' Element='1030'><Value>Corrected description %d</Value></Tag>"
                      "</Substitutions></Job>",
                      run);
    };
    std::vector<double> everyImage;
    qint64 grownSize = 0;
    for (int r = 0; r < options.runs; ++r) {
        if (!restore(path, original))
            return 1;
        std::string const xml = job(r);
        everyImage.push_back(timeMsec([&] {
            if (UpdateTagFile(xml.c_str(), studyUID.constData(), static_cast<int>(all.size()), all.data(),
                              const_cast<char const**>(names.data())) != 1)
                std::exit(1);
        }));
        grownSize = QFileInfo(path).size();
    }
    std::vector<double> oneImage;
    for (int r = 0; r < options.runs; ++r) {
        if (!restore(path, original))
            return 1;
        std::string const xml = job(r);
        char const* one = all[all.size() / 2];
        char const* noName = nullptr;
        oneImage.push_back(
            timeMsec([&] { UpdateTagFile(xml.c_str(), studyUID.constData(), 1, &one, &noName); }));
    }

    // Re-applying a record whose steps the image's history holds already.
    QACache cache([](int, std::string& text) {
        text = "20240102030405 bench\n0008,1030=QA description\n0010,1030=71.5\n\n"
               "20240102030406 bench\n0010,0010=Doe^Jane\n\n";
        return McResult();
    });
    Mdx::TagMap* image = built.findImage(QByteArray::fromStdString(uids[uids.size() / 2]));
    cache.applyQA(*image, 1);
    QByteArray before;
    image->findAndGetString(DcmTagKey(0x0071, 0x1021), "Lumora", before);
    constexpr int kApplications = 20000;
    std::vector<double> reapply;
    for (int r = 0; r < options.runs; ++r)
        reapply.push_back(timeMsec([&] {
                              for (int i = 0; i < kApplications; ++i)
                                  cache.applyQA(*image, 1);
                          }) *
                          1000.0 / kApplications);
    QByteArray after;
    image->findAndGetString(DcmTagKey(0x0071, 0x1021), "Lumora", after);

    double const anchorMsec = median(anchor);
    std::printf("Study: %d CT images in %d series from %s; tag file %lld bytes; median of %d runs\n\n",
                options.images, kSeries, sample.toLocal8Bit().constData(),
                static_cast<long long>(original.size()), options.runs);
    std::printf("%-58s %10.2f ms\n", "anchor: read (kept open, locked) + write of the tag file", anchorMsec);
    std::printf("%-58s %10.2f ms  x%.2f of anchor (goal <= 300 ms)\n",
                "UpdateTagFile, one attribute, every image", median(everyImage),
                median(everyImage) / anchorMsec);
    std::printf("%-58s %10.2f ms  x%.2f of anchor (goal <= 150 ms)\n",
                "UpdateTagFile, one attribute, one image", median(oneImage), median(oneImage) / anchorMsec);
    std::printf("%-58s %10.2f us  x%.5f of anchor (goal <= 20 us)\n",
                "QACache re-application of an applied record", median(reapply),
                median(reapply) / 1000.0 / anchorMsec);
    std::printf("%-58s %10s\n", "  history unchanged (no write)", before == after ? "yes" : "NO");
    std::printf("%-58s %10.1f %%  (goal <= 20 %%)\n",
                "compressed file growth from the histories, every image",
                100.0 * (grownSize - original.size()) / original.size());
    return before == after ? 0 : 1;
}
