// Throughput of one large streaming download: LmCurlDownloadStream over HTTP
// and HTTPS, as one transfer and as parallel ranges of the object, set
// against the curl tool fetching the same file to /dev/null. The server is a
// loopback nginx serving a file from memory (run.sh sets it up), so what is
// measured is the clients' own cost per byte, not a network or a disk.
//
// Every case runs --reps times, round robin, so that a slow moment of the
// machine hurts all cases alike; the best run is the figure, the median is
// printed next to it. MB/s means 10^6 bytes per second of wall-clock time,
// from asking for the stream (or starting the curl process) to the last byte.
//
// Usage: bench_download [options]
//   --http-port N, --https-port N  nginx ports (default: MDX_NGINX_HTTP_PORT,
//                                  MDX_NGINX_HTTPS_PORT); 0 skips the scheme
//   --path P        file on the server (/big.bin)
//   --size BYTES    expected size (default: asked with HEAD)
//   --reps N        repetitions of every case (3)
//   --parallel N    ranges at once, for both clients (4)
//   --chunks LIST   mdxlib chunk sizes in MiB for the ranged runs (12,64,256;
//                   12 MiB is the library's default)
//   --buffer BYTES  size of each stream read (1048576)
//   --cases LIST    any of mdx-single,mdx-parallel,curl-single,curl-parallel
//   --curl PATH     the curl tool (curl)
//   --curl-args S   extra arguments for every curl transfer, space separated
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlDownload.h>
#include <mdxlib/curl/LmCurlSettings.h>

#include "PeerBody.h"

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr int64_t kMiB = 1 << 20;

struct Options
{
    int httpPort = 0;
    int httpsPort = 0;
    std::string path = "/big.bin";
    int64_t size = -1;
    int reps = 3;
    int parallel = 4;
    std::vector<int> chunksMiB = {12, 64, 256};
    int64_t buffer = kMiB;
    std::set<std::string> cases = {"mdx-single", "mdx-parallel", "curl-single", "curl-parallel"};
    std::string curl = "curl";
    std::vector<std::string> curlArgs;
};

std::vector<std::string> split(std::string const& text, char separator)
{
    std::vector<std::string> parts;
    std::stringstream in(text);
    std::string part;
    while (std::getline(in, part, separator))
        if (!part.empty())
            parts.push_back(part);
    return parts;
}

[[noreturn]] void usage(char const* message)
{
    std::fprintf(stderr, "bench_download: %s (see the header of bench/download/main.cpp)\n", message);
    std::exit(2);
}

Options parseOptions(int argc, char** argv)
{
    Options o;
    if (char const* env = std::getenv("MDX_NGINX_HTTP_PORT"))
        o.httpPort = std::atoi(env);
    if (char const* env = std::getenv("MDX_NGINX_HTTPS_PORT"))
        o.httpsPort = std::atoi(env);
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc)
                usage(("missing value for " + arg).c_str());
            return argv[++i];
        };
        if (arg == "--http-port")
            o.httpPort = std::stoi(value());
        else if (arg == "--https-port")
            o.httpsPort = std::stoi(value());
        else if (arg == "--path")
            o.path = value();
        else if (arg == "--size")
            o.size = std::stoll(value());
        else if (arg == "--reps")
            o.reps = std::max(1, std::stoi(value()));
        else if (arg == "--parallel")
            o.parallel = std::max(2, std::stoi(value()));
        else if (arg == "--buffer")
            o.buffer = std::max<int64_t>(1, std::stoll(value()));
        else if (arg == "--curl")
            o.curl = value();
        else if (arg == "--curl-args")
            o.curlArgs = split(value(), ' ');
        else if (arg == "--chunks") {
            o.chunksMiB.clear();
            for (std::string const& part : split(value(), ','))
                o.chunksMiB.push_back(std::max(1, std::stoi(part)));
        } else if (arg == "--cases") {
            o.cases.clear();
            for (std::string const& part : split(value(), ','))
                o.cases.insert(part);
        } else
            usage(("unknown option " + arg).c_str());
    }
    if (o.httpPort == 0 && o.httpsPort == 0)
        usage("no server: give --http-port / --https-port or run under nginx_peer.py");
    return o;
}

// One line of the table: a client, a scheme and a way of fetching.
struct Case
{
    std::string scheme; // "http" or "https"
    std::string client; // "mdx" or "curl"
    bool parallel = false;
    int chunkMiB = 0; // mdxlib ranged runs only
    std::string label;
    std::vector<double> seconds;
    std::vector<double> cpuSeconds; // the client's user + system time
    std::string failure;            // the first thing that went wrong, empty if nothing did

    double best() const { return seconds.empty() ? 0 : *std::min_element(seconds.begin(), seconds.end()); }
    double median() const
    {
        if (seconds.empty())
            return 0;
        std::vector<double> sorted = seconds;
        std::sort(sorted.begin(), sorted.end());
        return sorted[sorted.size() / 2];
    }
    double leastCpu() const
    {
        return cpuSeconds.empty() ? 0 : *std::min_element(cpuSeconds.begin(), cpuSeconds.end());
    }
};

double cpuOf(rusage const& usage)
{
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double ownCpu()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return cpuOf(usage);
}

// The machine's load average: figures taken next to a compiler or a fuzzer
// are not comparable with figures from an idle machine.
std::string loadAverage()
{
    std::string text;
    if (FILE* f = std::fopen("/proc/loadavg", "r")) {
        char line[128] = {};
        if (std::fgets(line, sizeof line, f))
            text = line;
        std::fclose(f);
    }
    std::string::size_type const end = text.find(' ', text.find(' ', text.find(' ') + 1) + 1);
    return end == std::string::npos ? text : text.substr(0, end);
}

double mbPerSecond(int64_t bytes, double seconds)
{
    return seconds > 0 ? static_cast<double>(bytes) / seconds / 1e6 : 0;
}

// Checks a block that starts at stream offset `offset` at its two ends and
// at a position that moves from block to block: wrong splicing of ranges or
// of the spill buffer shows up at one of those without paying for a full
// comparison, which would cost more than the transfer itself.
bool blockLooksRight(char const* data, int64_t offset, int64_t n, std::string& failure)
{
    constexpr int64_t kProbe = 16;
    auto check = [&](int64_t from) {
        from = std::max<int64_t>(0, std::min(from, n - kProbe));
        for (int64_t i = from; i < std::min(n, from + kProbe); ++i) {
            if (static_cast<uint8_t>(data[i]) != mdxpeer::byteAt(static_cast<uint64_t>(offset + i))) {
                failure = "wrong byte at offset " + std::to_string(offset + i);
                return false;
            }
        }
        return true;
    };
    int64_t const inner =
        static_cast<int64_t>(mdxpeer::mix(static_cast<uint64_t>(offset)) % static_cast<uint64_t>(n));
    return check(0) && check(n - kProbe) && check(inner);
}

std::string describeFailure(LmHttpStatus const& head)
{
    int index = 0;
    for (LmHttpStatus const* s = &head; s; s = s->next.get(), ++index) {
        if (s->curlError || (s->responseCode != 200 && s->responseCode != 206))
            return "request " + std::to_string(index) + ": HTTP " + std::to_string(s->responseCode) +
                   (s->curlError ? ", transport error" : "");
    }
    return {};
}

// One mdxlib download into a reused buffer; the bytes are checked and
// dropped. Returns seconds, or a negative value with `failure` set.
double runMdx(Options const& o, std::string const& url, Case const& c, int64_t size,
              std::vector<char>& buffer, double& cpu, std::string& failure)
{
    LmCurlClient& client = *LmCurlClient::instance();
    client.setNumConcurrentRequestsPerFile(c.parallel ? o.parallel : 1);
    client.setChunkSizeForPartialRequests(static_cast<int>(c.chunkMiB * kMiB));

    double const cpuStart = ownCpu();
    auto const start = Clock::now();
    int64_t total = 0;
    {
        LmCurlDownloadStream stream = client.read(url, c.parallel);
        for (;;) {
            stream.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
            int64_t const n = stream.gcount();
            if (n <= 0)
                break;
            if (!blockLooksRight(buffer.data(), total, n, failure))
                return -1;
            total += n;
        }
        failure = describeFailure(stream.httpStatus());
        if (!failure.empty())
            return -1;
    }
    double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
    cpu = ownCpu() - cpuStart;
    if (total != size) {
        failure = "read " + std::to_string(total) + " bytes of " + std::to_string(size);
        return -1;
    }
    return seconds;
}

// Runs the curl tool with `args`, collecting what -w wrote to its standard
// output. Returns seconds of wall clock, process start included, or a
// negative value with `failure` set.
double runProcess(std::vector<std::string> const& args, std::string& output, double& cpu,
                  std::string& failure)
{
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) {
        failure = "pipe failed";
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[1]);
    std::vector<char*> argv;
    for (std::string const& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    auto const start = Clock::now();
    pid_t pid = 0;
    int const spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    if (spawned != 0) {
        close(pipeEnds[0]);
        failure = "cannot start " + args[0] + ": " + std::strerror(spawned);
        return -1;
    }
    char chunk[4096];
    ssize_t n;
    while ((n = ::read(pipeEnds[0], chunk, sizeof chunk)) > 0)
        output.append(chunk, static_cast<size_t>(n));
    close(pipeEnds[0]);
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    cpu = cpuOf(usage);
    double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        failure = args[0] + " failed (status " + std::to_string(status) + ")";
        return -1;
    }
    return seconds;
}

// The curl tool: one transfer, or the file cut into `parallel` equal ranges
// fetched side by side. Each range is its own operation after --next, since
// without it the last -r would apply to every URL of the command line.
double runCurl(Options const& o, std::string const& url, Case const& c, int64_t size, double& cpu,
               std::string& failure)
{
    std::vector<std::string> args = {o.curl};
    int const parts = c.parallel ? o.parallel : 1;
    if (c.parallel)
        // -s alone leaves the parallel progress meter on (curl 7.88).
        args.insert(args.end(),
                    {"--parallel", "--parallel-max", std::to_string(o.parallel), "--no-progress-meter"});
    for (int i = 0; i < parts; ++i) {
        if (i > 0)
            args.push_back("--next");
        args.insert(args.end(), {"-s", "-k", "-w", "%{http_code} %{size_download}\\n"});
        args.insert(args.end(), o.curlArgs.begin(), o.curlArgs.end());
        if (c.parallel) {
            int64_t const from = size * i / parts;
            int64_t const to = size * (i + 1) / parts - 1;
            args.insert(args.end(), {"-r", std::to_string(from) + "-" + std::to_string(to)});
        }
        args.insert(args.end(), {"-o", "/dev/null", url});
    }
    std::string output;
    double const seconds = runProcess(args, output, cpu, failure);
    if (seconds < 0)
        return seconds;
    int64_t total = 0;
    std::istringstream lines(output);
    int code = 0;
    int64_t bytes = 0;
    while (lines >> code >> bytes) {
        if (code != (c.parallel ? 206 : 200)) {
            failure = "curl got HTTP " + std::to_string(code);
            return -1;
        }
        total += bytes;
    }
    if (total != size) {
        failure = "curl fetched " + std::to_string(total) + " bytes of " + std::to_string(size);
        return -1;
    }
    return seconds;
}

std::string urlFor(Options const& o, std::string const& scheme)
{
    int const port = scheme == "https" ? o.httpsPort : o.httpPort;
    return scheme + "://127.0.0.1:" + std::to_string(port) + o.path;
}

Case const* bestOf(std::vector<Case> const& cases, std::string const& scheme, std::string const& client,
                   bool parallel)
{
    Case const* best = nullptr;
    for (Case const& c : cases) {
        if (c.scheme != scheme || c.client != client || c.parallel != parallel || !c.failure.empty() ||
            c.seconds.empty())
            continue;
        if (!best || c.best() < best->best())
            best = &c;
    }
    return best;
}

} // namespace

int main(int argc, char** argv)
{
    Options const o = parseOptions(argc, argv);

    std::vector<std::string> schemes;
    if (o.httpPort)
        schemes.push_back("http");
    if (o.httpsPort)
        schemes.push_back("https");

    int64_t size = o.size;
    if (size < 0) {
        LmHttpStatus const status = LmCurlClient::instance()->head(urlFor(o, schemes.front()));
        size = status.contentLength();
        if (status.responseCode != 200 || size <= 0) {
            std::fprintf(stderr, "bench_download: HEAD %s answered %d, length %lld\n",
                         urlFor(o, schemes.front()).c_str(), status.responseCode,
                         static_cast<long long>(size));
            return 1;
        }
    }

    std::vector<Case> cases;
    auto add = [&cases](std::string const& scheme, char const* client, bool parallel, int chunkMiB,
                        std::string label) {
        Case c;
        c.scheme = scheme;
        c.client = client;
        c.parallel = parallel;
        c.chunkMiB = chunkMiB;
        c.label = std::move(label);
        cases.push_back(std::move(c));
    };
    std::string const ranges = std::to_string(o.parallel) + " ranges";
    for (std::string const& scheme : schemes) {
        if (o.cases.count("mdx-single"))
            add(scheme, "mdx", false, 0, "mdxlib single");
        if (o.cases.count("mdx-parallel"))
            for (int chunk : o.chunksMiB)
                add(scheme, "mdx", true, chunk,
                    "mdxlib " + ranges + ", chunk " + std::to_string(chunk) + " MiB");
        if (o.cases.count("curl-single"))
            add(scheme, "curl", false, 0, "curl single");
        if (o.cases.count("curl-parallel"))
            add(scheme, "curl", true, 0, "curl " + ranges);
    }

    std::string const cipher = LmCurlSettings::get().sslCipherList;
    std::printf("bench_download: %s, %lld bytes, %d repetitions per case, read size %lld bytes\n",
                o.path.c_str(), static_cast<long long>(size), o.reps, static_cast<long long>(o.buffer));
    std::printf("mdxlib TLS cipher list: %s\n", cipher.empty() ? "(libcurl's default)" : cipher.c_str());
    std::printf("load average at start: %s\n", loadAverage().c_str());
    std::fflush(stdout);

    std::vector<char> buffer(static_cast<size_t>(o.buffer));
    for (int rep = 0; rep < o.reps; ++rep) {
        for (Case& c : cases) {
            if (!c.failure.empty())
                continue;
            std::string const url = urlFor(o, c.scheme);
            double cpu = 0;
            double const seconds = c.client == "mdx" ? runMdx(o, url, c, size, buffer, cpu, c.failure)
                                                     : runCurl(o, url, c, size, cpu, c.failure);
            if (seconds >= 0) {
                c.seconds.push_back(seconds);
                c.cpuSeconds.push_back(cpu);
            }
        }
    }

    // The client's CPU time per GiB is the steadier figure on a busy
    // machine: wall clock suffers from whatever else runs, CPU time hardly.
    double const gib = static_cast<double>(size) / static_cast<double>(1 << 30);
    std::printf("load average at end:   %s\n", loadAverage().c_str());
    std::printf("\n%-6s %-34s %10s %10s %14s\n", "scheme", "case", "best MB/s", "median", "client cpu s/GiB");
    for (Case const& c : cases) {
        if (!c.failure.empty())
            std::printf("%-6s %-34s FAILED: %s\n", c.scheme.c_str(), c.label.c_str(), c.failure.c_str());
        else
            std::printf("%-6s %-34s %10.1f %10.1f %14.3f\n", c.scheme.c_str(), c.label.c_str(),
                        mbPerSecond(size, c.best()), mbPerSecond(size, c.median()), c.leastCpu() / gib);
    }

    // The goals: one transfer within 5 % of curl's, parallel ranges at least
    // as fast as curl's (mdxlib's best chunk size against curl).
    std::printf("\nmdxlib / curl (best against best)\n");
    bool allMet = true;
    for (std::string const& scheme : schemes) {
        for (bool parallel : {false, true}) {
            Case const* mine = bestOf(cases, scheme, "mdx", parallel);
            Case const* theirs = bestOf(cases, scheme, "curl", parallel);
            if (!mine || !theirs)
                continue;
            double const ratio = theirs->best() / mine->best();
            double const goal = parallel ? 1.0 : 0.95;
            bool const met = ratio >= goal;
            allMet = allMet && met;
            std::string const which = parallel ? "   (" + mine->label + ")" : "";
            std::printf("%-6s %-9s %5.3f   goal >= %.2f  %s%s\n", scheme.c_str(),
                        parallel ? "parallel" : "single", ratio, goal, met ? "met" : "MISSED", which.c_str());
        }
    }

    bool anyFailed = false;
    for (Case const& c : cases)
        anyFailed = anyFailed || !c.failure.empty();
    std::printf("\n%s\n", anyFailed ? "some cases FAILED" : allMet ? "all goals met" : "some goals missed");
    return anyFailed ? 1 : 0;
}
