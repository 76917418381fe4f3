#include "Remote.h"

#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/Config.h>
#include <mdxlib/cloudreader/Statistics.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlHelper.h>
#include <mdxlib/curl/LmCurlRequest.h>

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>

namespace kzbench {

namespace {

bool put(std::string const& url, QByteArray const& body)
{
    std::vector<std::string> headers;
    LmCurlClient* client = LmCurlClient::instance();
    std::string const signedUrl = client->helper()->awsAuth()->prepareRequest("PUT", url, headers);
    return client->put(signedUrl, headers, body).getResponseCode() == 200;
}

QByteArray contents(QString const& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Median wall time in ms of runs, each on a reader of its own (no page or
// container kept from the run before); -1 when a read came back wrong.
double timedReads(int runs, std::function<bool(Kz::CloudReader&)> const& step, double& megabytes)
{
    std::vector<double> times;
    for (int run = 0; run < runs; ++run) {
        Kz::CloudReader reader{Kz::Config()};
        QElapsedTimer timer;
        timer.start();
        if (!step(reader))
            return -1;
        times.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
        megabytes = static_cast<double>(reader.statistics().totalRead.load()) / (1 << 20);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

} // namespace

int remoteBenchmark(std::vector<QString> const& files, QString const& container, int runs)
{
    char const* port = std::getenv("MDX_S3RVER_PORT");
    if (!port || !*port) {
        std::fprintf(stderr,
                     "bench_kz --remote: no s3rver; run under tests/peers/run_with_peers.py --with s3\n");
        return 1;
    }
    // s3rver's own key; no instance metadata.
    QTemporaryFile config;
    if (!config.open() ||
        config.write(
            "[default]\naws_access_key_id = S3RVER\naws_secret_access_key = S3RVER\nregion = us-east-1\n") <
            0)
        return 1;
    config.flush();
    setenv("AWS_CONFIG_FILE", config.fileName().toLocal8Bit().constData(), 1);
    setenv("MDX_EC2_METADATA_ADDRESS", "127.0.0.1:9", 1);
    setenv("MDX_S3_DOMAIN", (std::string("localhost:") + port).c_str(), 1);

    std::string const prefix = "s3://mybucket/bench/";
    std::vector<std::pair<std::string, QByteArray>> objects;
    for (QString const& path : files) {
        std::string const name = QFileInfo(path).fileName().toStdString();
        objects.emplace_back(name, contents(path));
        if (!put(prefix + "objects/" + name, objects.back().second)) {
            std::fprintf(stderr, "bench_kz --remote: cannot put %s on s3rver\n", name.c_str());
            return 1;
        }
    }
    if (!put(prefix + "c.kz", contents(container))) {
        std::fprintf(stderr, "bench_kz --remote: cannot put the container on s3rver\n");
        return 1;
    }

    // Each member read whole in the order of the table, as a loader reads a study.
    auto const readAll = [&](std::string const& base) {
        return [&, base](Kz::CloudReader& reader) {
            for (auto const& [name, bytes] : objects)
                if (reader.readBytes(base + name, -1) != bytes)
                    return false;
            return true;
        };
    };
    double objectBytes = 0;
    double containerBytes = 0;
    double const perObject = timedReads(runs, readAll(prefix + "objects/"), objectBytes);
    double const inContainer = timedReads(runs, readAll(prefix + "c.kz/"), containerBytes);
    if (perObject < 0 || inContainer < 0) {
        std::fprintf(stderr, "bench_kz --remote: a read came back wrong\n");
        return 1;
    }
    std::printf("\nreading the %zu files back from s3rver through the cloud reader:\n", objects.size());
    std::printf("%-34s %9.1f ms %7.1f MiB transferred\n", "one GET per object (anchor)", perObject,
                objectBytes);
    std::printf("%-34s %9.1f ms %7.1f MiB transferred\n", "members of one container", inContainer,
                containerBytes);
    std::printf("ratio container / per-object GETs: %.3f\n", inContainer / perObject);
    return 0;
}

} // namespace kzbench
