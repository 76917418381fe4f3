// Writing a .kz container against writing the same files with zip -0 and
// with Python's zipfile (stored), in the same run; with --remote, reading
// the container's members from s3rver against per-object GETs of the same
// files. See bench/README.md.
#include "Remote.h"

#include <mdxlib/cloudreader/CRC32.h>
#include <mdxlib/cloudreader/Writer.h>

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace {

struct Options
{
    int members = 1000;
    int size = 65536;
    int runs = 7;
    bool remote = false;
};

bool parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        auto const value = [&](int& target) {
            if (i + 1 >= argc)
                return false;
            target = std::atoi(argv[++i]);
            return target > 0;
        };
        bool ok = false;
        if (std::strcmp(argv[i], "--members") == 0)
            ok = value(options.members);
        else if (std::strcmp(argv[i], "--size") == 0)
            ok = value(options.size);
        else if (std::strcmp(argv[i], "--runs") == 0)
            ok = value(options.runs);
        else if (std::strcmp(argv[i], "--remote") == 0)
            ok = options.remote = true;
        if (!ok) {
            std::fprintf(stderr, "usage: bench_kz [--members N] [--size BYTES] [--runs N] [--remote]\n");
            return false;
        }
    }
    return options.members < 65536;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0.0 : values[values.size() / 2];
}

// Median wall time in milliseconds of runs of step; a failed step ends the
// benchmark.
double timed(int runs, std::function<double()> const& step)
{
    std::vector<double> times;
    for (int run = 0; run < runs; ++run) {
        double const ms = step();
        if (ms < 0) {
            std::fprintf(stderr, "bench_kz: a run failed\n");
            std::exit(1);
        }
        times.push_back(ms);
    }
    return median(times);
}

double elapsedMs(QElapsedTimer const& timer)
{
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

// A program's run, timed from outside; -1 when it fails.
double runProgram(QString const& program, QStringList const& arguments, QString const& folder)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    QElapsedTimer timer;
    timer.start();
    process.start(program, arguments);
    if (!process.waitForFinished(600000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        return -1;
    return elapsedMs(timer);
}

char const kPythonWriter[] = "import os, sys, time, zipfile\n"
                             "t = time.perf_counter()\n"
                             "with zipfile.ZipFile(sys.argv[1], 'w', zipfile.ZIP_STORED) as z:\n"
                             "    for f in sys.argv[2:]:\n"
                             "        z.write(f, arcname=os.path.basename(f))\n"
                             "print((time.perf_counter() - t) * 1000)\n";

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Options options;
    if (!parse(argc, argv, options))
        return 1;
    QTemporaryDir dir;
    if (!dir.isValid() || !QDir().mkpath(dir.path() + "/in"))
        return 1;

    // The files, and a first read of each so that every tool finds them in
    // the page cache.
    std::vector<QString> paths;
    QStringList names;
    QByteArray bytes(options.size, Qt::Uninitialized);
    QRandomGenerator random(42);
    for (int i = 0; i < options.members; ++i) {
        for (char& c : bytes)
            c = static_cast<char>(random.bounded(256));
        QString const name = QString("in/1.2.840.10008.%1_1.dcm").arg(i);
        QFile file(dir.path() + "/" + name);
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            return 1;
        paths.push_back(file.fileName());
        names << name;
    }
    double const megabytes = double(options.members) * options.size / (1024.0 * 1024.0);
    std::printf("%d members of %d bytes (%.1f MiB), median of %d runs\n", options.members, options.size,
                megabytes, options.runs);

    QString const container = dir.path() + "/out.kz";
    double const writer = timed(options.runs, [&] {
        QFile::remove(container);
        Kz::Writer kz;
        QElapsedTimer timer;
        timer.start();
        return kz.write(container, paths) ? elapsedMs(timer) : -1.0;
    });

    // What the writer spends on its two sums, over the same bytes in memory.
    double const crc = timed(options.runs, [&] {
        QElapsedTimer timer;
        timer.start();
        Kz::CRC32 sum;
        for (int i = 0; i < options.members; ++i) {
            sum.reset();
            sum.addData(bytes.constData(), bytes.size());
        }
        volatile unsigned int sink = sum.getCRC();
        (void)sink;
        return elapsedMs(timer);
    });
    double const md5 = timed(options.runs, [&] {
        QElapsedTimer timer;
        timer.start();
        QCryptographicHash hash(QCryptographicHash::Md5);
        for (int i = 0; i < options.members; ++i)
            hash.addData(bytes);
        volatile char sink = hash.result().at(0);
        (void)sink;
        return elapsedMs(timer);
    });

    std::printf("%-34s %9.1f ms %8.1f MiB/s\n", "Kz::Writer::write", writer, megabytes / writer * 1000);
    std::printf("%-34s %9.1f ms\n", "  of which CRC-32 (in memory)", crc);
    std::printf("%-34s %9.1f ms\n", "  of which MD5 (in memory)", md5);

    if (!QStandardPaths::findExecutable("zip").isEmpty()) {
        QString const zipPath = dir.path() + "/out.zip";
        double const zip = timed(options.runs, [&] {
            QFile::remove(zipPath);
            return runProgram("zip", QStringList{"-0", "-q", "-X", "-j", zipPath} + names, dir.path());
        });
        std::printf("%-34s %9.1f ms %8.1f MiB/s\n", "zip -0 (process included)", zip, megabytes / zip * 1000);
        std::printf("ratio writer / zip -0: %.2f\n", writer / zip);
    } else {
        std::printf("zip not installed: no zip -0 figure\n");
    }

    if (!QStandardPaths::findExecutable("python3").isEmpty()) {
        QString const pyPath = dir.path() + "/py.zip";
        double const python = timed(options.runs, [&] {
            QProcess process;
            process.setWorkingDirectory(dir.path());
            process.start("python3", QStringList{"-c", kPythonWriter, pyPath} + names);
            if (!process.waitForFinished(600000) || process.exitCode() != 0)
                return -1.0;
            return process.readAllStandardOutput().trimmed().toDouble();
        });
        std::printf("%-34s %9.1f ms %8.1f MiB/s\n", "Python zipfile, stored (in-process)", python,
                    megabytes / python * 1000);
        std::printf("ratio writer / Python zipfile: %.2f\n", writer / python);
    }
    if (options.remote)
        return kzbench::remoteBenchmark(paths, container, options.runs);
    return 0;
}
