// Merging partial tag files and reading a study for a client, set against
// the plain operations they are made of.
//
// The study is synthetic, made in memory from a real CT header: 100 series
// of 50 images, as 100 receiving processes would each deliver one series.
//  1. The 100 partials merged one after the other into the study's file;
//     each merge against reading and writing the file it leaves (goal: the
//     merges take at most 1.3 times as long).
//  2. 8 processes merging 25 partials each into one file at once: all 200
//     series must be there at the end.
//  3. ReadAndSyncTagFileData of the 5,000-image study against its parts run
//     one after the other: study query, series query with images, read,
//     sync, write to memory (goal: at most 0.8 times as long, as the series
//     query runs beside the read).
//  4. Study and series queries per second on SQLite, and on PostgreSQL when
//     MDX_POSTGRES_URL names a server (tests/peers/run_with_peers.py
//     --with postgres starts one).
//
// Usage: bench_catalog [--runs N] [CT_small.dcm]
#include <mdxlib/platform/Catalog.h>
#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tagfile/TagFileFunctions.h>

#include "BenchSupport.h"

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"
#include "dcmtk/oflog/oflog.h"

#include <QBuffer>
#include <QDataStream>
#include <QTemporaryDir>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

using mdxbench::medianMsec;
using mdxbench::timeMsec;

constexpr int kSeries = 100;
constexpr int kImagesPerSeries = 50;
constexpr int kProcesses = 8;
constexpr int kMergesPerProcess = 25;

std::string uid(std::string const& root, int a, int b = -1)
{
    return root + "." + std::to_string(a) + (b >= 0 ? "." + std::to_string(b) : "");
}

// One series as a receiving process holds it: images made from the header
// with their own UIDs, numbers and positions.
std::unique_ptr<Mdx::TagFile> makeSeries(DcmDataset const& header, std::string const& study, int series)
{
    auto file = std::make_unique<Mdx::TagFile>();
    std::string const seriesUID = uid(study, series);
    for (int i = 0; i < kImagesPerSeries; ++i) {
        DcmDataset image(header);
        std::string const sop = uid(seriesUID, i);
        image.putAndInsertString(DCM_StudyInstanceUID, study.c_str());
        image.putAndInsertString(DCM_SeriesInstanceUID, seriesUID.c_str());
        image.putAndInsertString(DCM_SOPInstanceUID, sop.c_str());
        image.putAndInsertString(DCM_SeriesNumber, std::to_string(series + 1).c_str());
        image.putAndInsertString(DCM_InstanceNumber, std::to_string(i + 1).c_str());
        std::string const position = "-125\\-125\\" + std::to_string(-0.625 * i);
        image.putAndInsertString(DCM_ImagePositionPatient, position.c_str());
        std::string const path = "/data/" + sop + ".dcm";
        file->addDataset(&image, path.c_str(), true);
    }
    file->optimizeAll();
    return file;
}

std::vector<std::unique_ptr<Mdx::TagFile>> makePartials(DcmDataset const& header, std::string const& study,
                                                        int count)
{
    std::vector<std::unique_ptr<Mdx::TagFile>> parts;
    for (int s = 0; s < count; ++s)
        parts.push_back(makeSeries(header, study, s));
    return parts;
}

void recordStudy(Lmg::Catalog& catalog, std::string const& study)
{
    Lmg::CatalogStudy row{0, study, "BENCH^MARK", "B1", "20261124"};
    catalog.begin();
    catalog.addStudy(row);
    for (int s = 0; s < kSeries; ++s) {
        Lmg::CatalogSeries series;
        series.studyId = row.id;
        series.uid = uid(study, s);
        series.modality = "CT";
        series.number = s + 1;
        catalog.addSeries(series);
        for (int i = 0; i < kImagesPerSeries; ++i)
            catalog.addImage({uid(series.uid, i), series.id, "/moved/" + uid(series.uid, i) + ".dcm", ""});
    }
    McResult const done = catalog.commit();
    if (!done.ok())
        std::fprintf(stderr, "catalog: %s\n", done.message().c_str());
}

// Study and series (with images) queries per second over two seconds.
double queriesPerSecond(std::string const& connection, std::string const& study)
{
    SetDatabaseServer(connection.c_str());
    int queries = 0;
    double const msec = timeMsec([&] {
        auto const start = mdxbench::Clock::now();
        while (mdxbench::Clock::now() - start < std::chrono::seconds(2)) {
            Lmg::ReplyFacade reply;
            Lmg::WsRequest request;
            if (!GetStudy("bench", study, &reply, request, false, true, 1000).ok() || reply.entries.empty() ||
                !GetSeries(reply.entries.front()->id, &reply, request, 4, 0, 2).ok()) {
                std::fprintf(stderr, "query failed on %s\n", connection.c_str());
                return;
            }
            ++queries;
        }
    });
    return queries / (msec / 1000.0);
}

} // namespace

int main(int argc, char** argv)
{
    OFLog::configure(OFLogger::ERROR_LOG_LEVEL);
    getTheLogInstance()->setLogLevel(McLogFile::LevelError);
    int runs = 5;
    QString sample;
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        if (arg == "--runs" && i + 1 < argc)
            runs = std::max(1, std::atoi(argv[++i]));
        else
            sample = QString::fromLocal8Bit(argv[i]);
    }
    if (sample.isEmpty())
        sample = mdxbench::findSampleFile("pydicom/CT_small.dcm");
    DcmFileFormat source;
    if (sample.isEmpty() || source.loadFile(QFile::encodeName(sample).constData()).bad()) {
        std::fprintf(stderr, "bench_catalog: needs pydicom/CT_small.dcm (scripts/fetch-samples.sh)\n");
        return 2;
    }
    DcmDataset const& header = *source.getDataset();
    QTemporaryDir work;
    std::string const study = "1.2.826.0.1.3680043.2.1143.777";

    // 1. Merges in sequence, each against read + write of what it left.
    Mdx::TagFile::setMetaFolder(QFile::encodeName(work.filePath("meta")));
    std::vector<std::unique_ptr<Mdx::TagFile>> parts = makePartials(header, study, kSeries);
    double mergeMsec = 0;
    double plainMsec = 0;
    QString const copy = work.filePath("copy.tc");
    for (auto& part : parts) {
        mergeMsec += timeMsec([&] { part->mergeIntoCacheFile(); });
        plainMsec += medianMsec(runs, [&] {
            Mdx::TagFile file;
            return timeMsec([&] {
                file.readCacheFileForStudy(study.c_str(), false);
                file.writeCacheFile(QFile::encodeName(copy).constData());
            });
        });
    }
    std::printf("merge 100 x 50 images, in sequence: %.1f ms; read + write of the results %.1f ms; "
                "ratio %.2f (goal <= 1.3)\n",
                mergeMsec, plainMsec, mergeMsec / plainMsec);

    // 2. Eight processes at once.
    Mdx::TagFile::setMetaFolder(QFile::encodeName(work.filePath("meta3")));
    std::string const shared = study + ".8";
    parts = makePartials(header, shared, kProcesses * kMergesPerProcess);
    double const parallelMsec = timeMsec([&] {
        std::vector<pid_t> children;
        for (int p = 0; p < kProcesses; ++p) {
            pid_t const pid = fork();
            if (pid == 0) {
                int failed = 0;
                for (int m = 0; m < kMergesPerProcess; ++m)
                    failed += parts[static_cast<size_t>(m * kProcesses + p)]->mergeIntoCacheFile() ? 0 : 1;
                _exit(failed);
            }
            children.push_back(pid);
        }
        for (pid_t const pid : children) {
            int status = 0;
            waitpid(pid, &status, 0);
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
                std::fprintf(stderr, "a merging process failed (%d)\n", status);
        }
    });
    Mdx::TagFile all;
    all.readCacheFileForStudy(shared.c_str(), false);
    std::printf("merge 8 processes x 25 series at once: %.1f ms, %d of 200 series present\n", parallelMsec,
                static_cast<int>(all.series().size()));

    // 3. The client's read against its parts in sequence.
    Mdx::TagFile::setMetaFolder(QFile::encodeName(work.filePath("meta")));
    std::string const sqlite = "sqlite:" + work.filePath("catalog.sqlite").toStdString();
    McResult opened;
    std::unique_ptr<Lmg::Catalog> catalog = Lmg::Catalog::open(sqlite, opened);
    if (!catalog) {
        std::fprintf(stderr, "catalog: %s\n", opened.message().c_str());
        return 1;
    }
    recordStudy(*catalog, study);
    SetDatabaseServer(sqlite.c_str());
    int size = 0;
    double const syncedMsec = medianMsec(runs, [&] {
        char const* data = nullptr;
        void* handle = nullptr;
        double const msec = timeMsec([&] { handle = ReadAndSyncTagFileData(study.c_str(), "bench", &size, &data); });
        FreeTagFileData(handle);
        return msec;
    });
    double step[5] = {};
    double const partsMsec = medianMsec(runs, [&] {
        Lmg::ReplyFacade reply;
        Lmg::WsRequest request;
        Mdx::TagFile file;
        double const msec[5] = {
            timeMsec([&] { GetStudy("bench", study, &reply, request, false, true, 1000); }),
            timeMsec([&] { GetSeries(reply.entries.front()->id, &reply, request, 4, 0, 2); }),
            timeMsec([&] { file.readCacheFileForStudy(study.c_str(), false); }),
            timeMsec([&] { file.syncWithDatabase(reply.entries.front()); }),
            timeMsec([&] {
                QByteArray bytes;
                QBuffer buffer(&bytes);
                buffer.open(QIODevice::WriteOnly);
                QDataStream out(&buffer);
                file.writeCacheFile(out);
            })};
        std::copy(msec, msec + 5, step);
        return msec[0] + msec[1] + msec[2] + msec[3] + msec[4];
    });
    std::printf("  parts (last run): study query %.1f ms, series query %.1f ms, read %.1f ms, sync %.1f ms, "
                "write %.1f ms\n",
                step[0], step[1], step[2], step[3], step[4]);
    std::printf("ReadAndSyncTagFileData, 5,000 images (%d bytes): %.1f ms; its parts in sequence %.1f ms; "
                "ratio %.2f (goal <= 0.8)\n",
                size, syncedMsec, partsMsec, syncedMsec / partsMsec);

    // 4. Queries per second.
    std::printf("study + series queries, 5,000 images: SQLite %.1f/s", queriesPerSecond(sqlite, study));
    if (char const* postgres = std::getenv("MDX_POSTGRES_URL")) {
        std::unique_ptr<Lmg::Catalog> server = Lmg::Catalog::open(postgres, opened);
        if (server) {
            recordStudy(*server, study);
            std::printf(", PostgreSQL %.1f/s", queriesPerSecond(postgres, study));
        } else {
            std::printf(", PostgreSQL unreachable (%s)", opened.message().c_str());
        }
    } else {
        std::printf(" (PostgreSQL: set MDX_POSTGRES_URL)");
    }
    std::printf("\n");
    return 0;
}
