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

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/oflog/oflog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int kSeries = 5;
constexpr unsigned int kMaxValueSize = 1024;

using Clock = std::chrono::steady_clock;

struct Options
{
    int images = 5000;
    int runs = 7;
    QString sample;
};

template <typename Body> double timeMsec(Body body)
{
    auto const start = Clock::now();
    body();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

std::string format(char const* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(char const* pattern, ...)
{
    char text[256];
    va_list args;
    va_start(args, pattern);
    std::vsnprintf(text, sizeof text, pattern, args);
    va_end(args);
    return text;
}

QString findSample(Options const& options)
{
    if (!options.sample.isEmpty())
        return options.sample;
    QStringList roots;
    if (char const* env = std::getenv("MDX_SAMPLES"))
        roots << QString::fromLocal8Bit(env);
    roots << QDir::homePath() + "/.cache/mdxlib/samples";
    for (QString const& root : roots) {
        if (QFileInfo::exists(root + "/pydicom/CT_small.dcm"))
            return root + "/pydicom/CT_small.dcm";
    }
    return QString();
}

// DICOM TM with microseconds, from seconds since midnight.
std::string timeOfDay(double seconds, bool fraction)
{
    auto const micros = static_cast<long long>(seconds * 1e6 + 0.5);
    long long const whole = micros / 1000000;
    std::string text = format("%02lld%02lld%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    return fraction ? text + format(".%06lld", micros % 1000000) : text;
}

void setPrivate(DcmDataset* dataset, DcmTagKey const& key, double value, bool integer)
{
    DcmElement* element = nullptr;
    if (dataset->findAndGetElement(key, element).good())
        integer ? element->putSint32(static_cast<Sint32>(value))
                : element->putFloat32(static_cast<Float32>(value));
}

// The benchmark study of bench_tagfile, made the same way (contrast phases
// with their windows, times stepping with the table, the vendor's private
// copies of the location), image by image straight into a tree.
std::vector<std::string> buildStudy(DcmDataset* dataset, int images, Mdx::TagFile& file)
{
    struct Look
    {
        char const* description;
        int center;
        int width;
    };
    Look const looks[kSeries] = {{"Non contrast 0.625mm", 35, 400},
                                 {"Arterial 0.625mm", 40, 400},
                                 {"Portal venous 0.625mm", 50, 350},
                                 {"Delayed 0.625mm", 45, 380},
                                 {"Soft tissue 0.625mm", 40, 420}};
    dataset->findAndDeleteElement(DCM_PixelData);
    dataset->putAndInsertUint16(DCM_Rows, 512);
    dataset->putAndInsertUint16(DCM_Columns, 512);
    std::vector<std::string> uids;
    int const perSeries = images / kSeries;
    for (int s = 0; s < kSeries; ++s) {
        int const count = s == kSeries - 1 ? images - perSeries * (kSeries - 1) : perSeries;
        double const seriesStart = 11 * 3600 + 29 * 60 + 36 + s * 150.0;
        dataset->putAndInsertString(DCM_SeriesInstanceUID,
                                    format("1.3.6.1.4.1.5962.1.3.1.%d.20040119072730.12322", s + 1).c_str());
        dataset->putAndInsertString(DCM_SeriesNumber, std::to_string(s + 2).c_str());
        dataset->putAndInsertString(DCM_SeriesDescription, looks[s].description);
        dataset->putAndInsertString(DCM_SeriesTime, timeOfDay(seriesStart - 20, false).c_str());
        setPrivate(dataset, DcmTagKey(0x0025, 0x1007), count, true);
        for (int i = 0; i < count; ++i) {
            double const z = -75.699997 - i * 0.625;
            double const acquired = seriesStart + i * 0.0125;
            double const reconstructed = seriesStart + 30 + i * 0.04;
            std::string const digits = timeOfDay(acquired, true);
            std::string const uid = format("1.3.6.1.4.1.5962.1.1.%d.%d.19970430%.6s%.6s.12322", s + 1, i + 1,
                                           digits.c_str(), digits.c_str() + 7);
            dataset->putAndInsertString(DCM_SOPInstanceUID, uid.c_str());
            dataset->putAndInsertString(DCM_InstanceNumber, std::to_string(i + 1).c_str());
            dataset->putAndInsertString(DCM_InstanceCreationTime, timeOfDay(reconstructed, false).c_str());
            dataset->putAndInsertString(DCM_AcquisitionTime, digits.c_str());
            dataset->putAndInsertString(DCM_ContentTime, timeOfDay(reconstructed, true).c_str());
            dataset->putAndInsertString(DCM_ImagePositionPatient,
                                        format("-158.135803\\-179.035797\\%.6f", z).c_str());
            dataset->putAndInsertString(DCM_SliceLocation, format("%.10g", z - 1.504066).c_str());
            bool const touched = i % 97 == 42;
            dataset->putAndInsertString(DCM_WindowCenter,
                                        std::to_string(looks[s].center + (touched ? 10 : 0)).c_str());
            dataset->putAndInsertString(DCM_WindowWidth,
                                        std::to_string(looks[s].width + (touched ? 100 : 0)).c_str());
            setPrivate(dataset, DcmTagKey(0x0027, 0x1041), z - 1.504066, false);
            for (Uint16 element : {0x1044, 0x104a, 0x104d})
                setPrivate(dataset, DcmTagKey(0x0027, element), z, false);
            file.addTagMap(Mdx::TagMap::createTagMap(dataset, kMaxValueSize), nullptr, false);
            uids.push_back(uid);
        }
    }
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
