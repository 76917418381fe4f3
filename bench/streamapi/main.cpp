// bench_streamapi copy [--runs N] URL...
//   Copy() of each URL to a local file against `curl -s -o` of the same URL,
//   the anchor, in the same run: best of N each, and the ratio.
// bench_streamapi write-video FILE MB
//   Writes a DICOM video object whose stream is one fragment of MB MiB.
// bench_streamapi video URL
//   GetVideoMetaInfo of URL: the bytes the cloud reader fetched meanwhile
//   (its statistics); the two ranged GETs for the item headers add at most
//   8,200 bytes.
#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/Statistics.h>
#include <mdxlib/platform/McWatch.h>
#include <mdxlib/streamapi/StreamFunctions.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcpxitem.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QFile>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

template <typename Body> double bestSeconds(int runs, std::string const& what, Body&& body)
{
    double best = 1e9;
    for (int run = 0; run < runs; ++run) {
        McWatch watch;
        if (!body()) {
            std::fprintf(stderr, "%s failed\n", what.c_str());
            std::exit(1);
        }
        best = std::min(best, watch.elapsedSeconds());
    }
    return best;
}

int copyBench(std::vector<std::string> const& args)
{
    int runs = 3;
    std::vector<std::string> urls;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--runs" && i + 1 < args.size())
            runs = std::atoi(args[++i].c_str());
        else
            urls.push_back(args[i]);
    }
    std::string const target =
        (QFile::exists("/dev/shm") ? "/dev/shm" : "/tmp") + std::string("/bench-streamapi.out");
    std::printf("%-50s %12s %10s %10s %8s\n", "object", "bytes", "Copy s", "curl s", "curl/Copy");
    for (std::string const& url : urls) {
        double const copy =
            bestSeconds(runs, "Copy " + url, [&] { return Copy(url.c_str(), target.c_str()) == 0; });
        long long const bytes = QFile(QString::fromStdString(target)).size();
        std::string const command = "curl -s -f -o '" + target + "' '" + url + "'";
        double const curl = bestSeconds(runs, command, [&] { return std::system(command.c_str()) == 0; });
        std::printf("%-50s %12lld %10.3f %10.3f %8.2f\n", url.c_str(), bytes, copy, curl, curl / copy);
    }
    std::remove(target.c_str());
    return 0;
}

int writeVideo(std::string const& file, int megabytes)
{
    DcmFileFormat format;
    DcmDataset* dataset = format.getDataset();
    dataset->putAndInsertString(DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.77.1.1.1");
    dataset->putAndInsertString(DCM_SOPInstanceUID, "1.2.826.0.1.3680043.2.1143.4242");
    dataset->putAndInsertString(DCM_NumberOfFrames, "6000");
    dataset->putAndInsertString(DCM_CineRate, "30");
    auto* sequence = new DcmPixelSequence(DCM_PixelSequenceTag);
    sequence->insert(new DcmPixelItem(DcmTag(DCM_Item, EVR_OB)));
    auto* fragment = new DcmPixelItem(DcmTag(DCM_Item, EVR_OB));
    std::vector<Uint8> stream(static_cast<size_t>(megabytes) << 20, 0x5A);
    fragment->putUint8Array(stream.data(), static_cast<unsigned long>(stream.size()));
    sequence->insert(fragment);
    auto* pixels = new DcmPixelData(DCM_PixelData);
    pixels->putOriginalRepresentation(EXS_MPEG4HighProfileLevel4_1, nullptr, sequence);
    dataset->insert(pixels);
    return format.saveFile(file.c_str(), EXS_MPEG4HighProfileLevel4_1).good() ? 0 : 1;
}

int videoBench(std::string const& url)
{
    char uid[65];
    unsigned long long frames = 0, rate = 0, offset = 0;
    unsigned int length = 0;
    Kz::Statistics& statistics = Kz::CloudReader::instance().statistics();
    int64_t const readBefore = statistics.totalRead.load();
    McWatch watch;
    int const result = GetVideoMetaInfo(url.c_str(), uid, &frames, &rate, &offset, &length);
    double const seconds = watch.elapsedSeconds();
    std::printf("GetVideoMetaInfo %s: %d, frames %llu, rate %llu, fragment at %llu, %u bytes, %.3f s\n",
                url.c_str(), result, frames, rate, offset, length, seconds);
    std::printf("  bytes fetched by the cloud reader: %lld\n",
                static_cast<long long>(statistics.totalRead.load() - readBefore));
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() >= 2 && args[0] == "copy")
        return copyBench({args.begin() + 1, args.end()});
    if (args.size() == 3 && args[0] == "write-video")
        return writeVideo(args[1], std::atoi(args[2].c_str()));
    if (args.size() == 2 && args[0] == "video")
        return videoBench(args[1]);
    std::fprintf(stderr, "usage: bench_streamapi copy [--runs N] URL... | write-video FILE MB | video URL\n");
    return 2;
}
