// What the benchmarks share: wall-clock timing, medians of repeated runs and
// finding the installed sample files.
#pragma once

#include <QDir>
#include <QFileInfo>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <vector>

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
