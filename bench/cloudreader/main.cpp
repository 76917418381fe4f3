// The cloud reader against the curl tool on a loopback nginx (run.sh sets it
// up), in three runs, each with its anchor in the same run:
//
//  small   --objects objects of --object-size bytes, one after the other,
//          through CloudReader::readBytes and through openFile + read, set
//          against one curl process fetching the same URLs in sequence (it
//          keeps its connection, as the reader does).
//  memory  --threads threads reading the --big object, a quarter each, with
//          MaxMemoryMB --memory-mb: the peak of the pool against the bound
//          of the limit plus one chunk per thread, and the throughput against
//          one curl of the same object. Once per memory API.
//  churn   the page pool alone: --churn-pages pages acquired, every other one
//          given back, all acquired again; malloc against mmap, with the
//          failures and the process's memory mappings at the peak.
//
// The best of --reps runs is the figure; ratios are anchor time / our time
// (above 1: faster than the anchor).
#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/Config.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/cloudreader/MemoryPool.h>
#include <mdxlib/cloudreader/Statistics.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr long long kMiB = 1 << 20;

struct Options
{
    int port = 0;
    int objects = 1000;
    long long objectSize = 65536;
    std::string object = "/obj.bin";
    std::string big = "/big.bin";
    long long bigSize = 1024 * kMiB;
    int threads = 4;
    int memoryMB = 64;
    int reps = 3;
    long long churnPages = 140000; // 2.2 GB: beyond the default limit of 2 GB
    std::string curl = "curl";
    std::string runs = "small,memory,churn";
};

double seconds(Clock::time_point since)
{
    return std::chrono::duration<double>(Clock::now() - since).count();
}

std::string url(Options const& o, std::string const& path)
{
    return "http://127.0.0.1:" + std::to_string(o.port) + path;
}

// The curl tool over a config file of URLs, to /dev/null; -1 on failure.
double runCurl(Options const& o, std::vector<std::string> const& urls)
{
    std::string const config = "/tmp/bench_cloudreader_curl.cfg";
    {
        std::ofstream out(config);
        for (auto const& u : urls)
            out << "url = \"" << u << "\"\noutput = \"/dev/null\"\n";
    }
    std::string const command = o.curl + " -s -f -K " + config;
    Clock::time_point const start = Clock::now();
    int const status = std::system(command.c_str());
    double const time = seconds(start);
    std::remove(config.c_str());
    return status == 0 ? time : -1;
}

Kz::Config baseConfig(Kz::Config::MemoryAPI api)
{
    Kz::Config config{Kz::Config::DefaultsOnly{}};
    config.memoryAPI = api;
    return config;
}

void small(Options const& o)
{
    std::vector<std::string> urls;
    for (int i = 0; i < o.objects; ++i)
        urls.push_back(url(o, o.object) + "?n=" + std::to_string(i));
    double best[3] = {1e9, 1e9, 1e9};
    for (int rep = 0; rep < o.reps; ++rep) {
        Kz::CloudReader reader(baseConfig(Kz::Config::MEMORY_API_MALLOC));
        Clock::time_point start = Clock::now();
        for (auto const& u : urls)
            if (reader.readBytes(u, -1).size() != o.objectSize) {
                std::fprintf(stderr, "readBytes of %s failed\n", u.c_str());
                std::exit(1);
            }
        best[0] = std::min(best[0], seconds(start));
        start = Clock::now();
        std::vector<char> buffer(static_cast<size_t>(o.objectSize));
        for (auto const& u : urls) {
            auto file = reader.openFile(u, -1);
            if (!file->safeRead(buffer.data(), o.objectSize)) {
                std::fprintf(stderr, "openFile of %s failed\n", u.c_str());
                std::exit(1);
            }
        }
        best[1] = std::min(best[1], seconds(start));
        double const curl = runCurl(o, urls);
        if (curl < 0) {
            std::fprintf(stderr, "curl failed\n");
            std::exit(1);
        }
        best[2] = std::min(best[2], curl);
    }
    std::printf("small: %d objects of %lld bytes\n", o.objects, o.objectSize);
    std::printf("  readBytes          %8.3f s\n", best[0]);
    std::printf("  openFile + read    %8.3f s\n", best[1]);
    std::printf("  curl (anchor)      %8.3f s\n", best[2]);
    std::printf("  ratio curl/readBytes %.2f, curl/openFile %.2f\n\n", best[2] / best[0], best[2] / best[1]);
}

void memory(Options const& o)
{
    long long const part = o.bigSize / o.threads;
    for (auto api : {Kz::Config::MEMORY_API_MALLOC, Kz::Config::MEMORY_API_MMAP}) {
        double best = 1e9;
        uint64_t peak = 0;
        long long chunk = 0;
        for (int rep = 0; rep < o.reps; ++rep) {
            Kz::Config config = baseConfig(api);
            config.maxMemory = o.memoryMB * kMiB;
            chunk = config.chunkSize;
            Kz::CloudReader reader(config);
            Clock::time_point const start = Clock::now();
            std::vector<std::future<bool>> readers;
            for (int t = 0; t < o.threads; ++t)
                readers.push_back(std::async(std::launch::async, [&, t] {
                    auto file = reader.openFileRange(url(o, o.big), t * part, (t + 1) * part - 1);
                    std::vector<char> buffer(kMiB);
                    long long done = 0;
                    for (long long n; (n = file->read(buffer.data(), kMiB)) > 0;)
                        done += n;
                    return done == part;
                }));
            for (auto& r : readers)
                if (!r.get()) {
                    std::fprintf(stderr, "a reader failed\n");
                    std::exit(1);
                }
            best = std::min(best, seconds(start));
            peak = std::max<uint64_t>(peak, reader.statistics().maxMemoryUsage);
        }
        double curl = 1e9;
        for (int rep = 0; rep < o.reps; ++rep)
            curl = std::min(curl, runCurl(o, {url(o, o.big)}));
        long long const bound = o.memoryMB * kMiB + o.threads * chunk;
        std::printf("memory (%s): %d threads, %lld MiB, MaxMemoryMB %d\n",
                    api == Kz::Config::MEMORY_API_MALLOC ? "malloc" : "mmap", o.threads, o.bigSize / kMiB,
                    o.memoryMB);
        std::printf("  reader %8.3f s (%.0f MB/s), one curl %8.3f s (%.0f MB/s)\n", best,
                    o.bigSize / best / 1e6, curl, o.bigSize / curl / 1e6);
        std::printf("  throughput ratio reader/curl %.2f (goal >= 0.9)\n", curl / best);
        std::printf("  peak pool %.1f MiB, bound %.1f MiB: peak/bound %.2f (goal <= 1)\n\n",
                    peak / double(kMiB), bound / double(kMiB), double(peak) / double(bound));
    }
}

int mappings()
{
    std::ifstream maps("/proc/self/maps");
    return static_cast<int>(std::count(std::istreambuf_iterator<char>(maps), {}, '\n'));
}

void churn(Options const& o)
{
    double times[2] = {0, 0};
    for (auto api : {Kz::Config::MEMORY_API_MALLOC, Kz::Config::MEMORY_API_MMAP}) {
        Kz::Config config = baseConfig(api);
        config.maxMemory = 1ll << 40;
        config.memoryPagesInPool = 0; // every release goes back to the system
        Kz::Statistics stats;
        Kz::MemoryPool pool(&config, &stats);
        int const before = mappings();
        Clock::time_point const start = Clock::now();
        std::vector<std::shared_ptr<Kz::MemoryPage>> pages;
        long long failed = 0;
        for (long long i = 0; i < o.churnPages; ++i) {
            pages.push_back(pool.acquire(false));
            if (!pages.back())
                ++failed;
            else
                pages.back()->data[0] = 1;
        }
        for (size_t i = 0; i < pages.size(); i += 2)
            pages[i].reset();
        int const peak = mappings();
        for (size_t i = 0; i < pages.size(); i += 2)
            if (!(pages[i] = pool.acquire(false)))
                ++failed;
        pages.clear();
        times[api - 1] = seconds(start);
        std::printf("churn (%s): %lld pages of %u bytes: %.3f s, %lld failed, mappings %d -> %d\n",
                    api == Kz::Config::MEMORY_API_MALLOC ? "malloc" : "mmap", o.churnPages,
                    config.memoryPageSize, times[api - 1], failed, before, peak);
    }
    std::printf("  ratio mmap/malloc time %.2f\n\n", times[1] / times[0]);
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    if (char const* port = std::getenv("MDX_NGINX_HTTP_PORT"))
        o.port = std::atoi(port);
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string const name = argv[i];
        std::string const value = argv[i + 1];
        if (name == "--http-port")
            o.port = std::stoi(value);
        else if (name == "--objects")
            o.objects = std::stoi(value);
        else if (name == "--object-size")
            o.objectSize = std::stoll(value);
        else if (name == "--big-size")
            o.bigSize = std::stoll(value);
        else if (name == "--threads")
            o.threads = std::stoi(value);
        else if (name == "--memory-mb")
            o.memoryMB = std::stoi(value);
        else if (name == "--reps")
            o.reps = std::stoi(value);
        else if (name == "--churn-pages")
            o.churnPages = std::stoll(value);
        else if (name == "--runs")
            o.runs = value;
        else if (name == "--curl")
            o.curl = value;
        else {
            std::fprintf(stderr, "unknown option %s\n", name.c_str());
            return 2;
        }
    }
    if (o.runs.find("small") != std::string::npos)
        small(o);
    if (o.runs.find("memory") != std::string::npos)
        memory(o);
    if (o.runs.find("churn") != std::string::npos)
        churn(o);
    return 0;
}
