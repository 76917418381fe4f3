// What the benchmarks share: wall-clock timing, medians of repeated runs,
// measuring in a fresh process and finding the installed sample files.
#pragma once

#include <QDir>
#include <QFileInfo>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <vector>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mdxbench {

using Clock = std::chrono::steady_clock;

template <typename Body> double timeMsec(Body body)
{
    auto const start = Clock::now();
    body();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Median of several runs in this process; run() returns its own timing so
// that setup and teardown (deleting a tree) can stay outside it.
template <typename Run> double medianMsec(int runs, Run run)
{
    std::vector<double> times;
    for (int i = 0; i < runs; ++i)
        times.push_back(run());
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// Runs measure() in a child process forked from this one and gives back the
// figure it returns, or NaN when the child fails. Measurements that make and
// free hundreds of thousands of small blocks age the heap of the process
// they run in, and slow whatever is measured after them by up to half as
// much again; in children forked from one point, each starts from the same
// heap, whatever order they run in. Fork only while no other thread runs.
template <typename Measure> double inChildProcess(Measure measure)
{
    int ends[2];
    if (::pipe(ends) != 0)
        return std::nan("");
    pid_t const child = ::fork();
    if (child < 0) {
        ::close(ends[0]);
        ::close(ends[1]);
        return std::nan("");
    }
    if (child == 0) {
        ::close(ends[0]);
        double const figure = measure();
        bool const sent = ::write(ends[1], &figure, sizeof figure) == static_cast<ssize_t>(sizeof figure);
        ::_exit(sent ? 0 : 1);
    }
    ::close(ends[1]);
    double figure = std::nan("");
    if (::read(ends[0], &figure, sizeof figure) != static_cast<ssize_t>(sizeof figure))
        figure = std::nan("");
    ::close(ends[0]);
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        figure = std::nan("");
    return figure;
}

// A file of the installed samples (scripts/fetch-samples.sh), such as
// "pydicom/CT_small.dcm": under $MDX_SAMPLES, $XDG_CACHE_HOME/mdxlib/samples
// or ~/.cache/mdxlib/samples. Empty when none has it.
inline QString findSampleFile(QString const& relative)
{
    QStringList roots;
    if (char const* env = std::getenv("MDX_SAMPLES"))
        roots << QString::fromLocal8Bit(env);
    if (char const* env = std::getenv("XDG_CACHE_HOME"))
        roots << QString::fromLocal8Bit(env) + "/mdxlib/samples";
    roots << QDir::homePath() + "/.cache/mdxlib/samples";
    for (QString const& root : roots) {
        QString const path = root + "/" + relative;
        if (QFileInfo::exists(path))
            return path;
    }
    return QString();
}

} // namespace mdxbench
