// Upload throughput: LmCurlClient::write fed in 1 MiB writes from a file,
// against the curl tool putting the same file in one request (curl -T) and
// the aws command-line tool with one thread, to the same loopback peer in the
// same run: s3rver for S3, azurite for Azure, gcs_peer.py for Google with
// google_token_peer.py as the metadata server (run.sh sets them up). Every
// stored object is read back and its MD5 compared with the file's. Each case
// runs --reps times, round robin; the best run is the figure.
//
// Also the memory one open upload costs: the growth of the peak resident set
// over one mdxlib upload (the peak is reset first through
// /proc/self/clear_refs), against the goal 2 x 8 MiB + 4 MiB.
//
// Usage: bench_upload FILE [--reps N] [--cases LIST]
//   LIST: any of mdx-s3,curl-s3,aws-s3,mdx-azure,curl-azure,mdx-gs,curl-gs
// Environment: MDX_S3RVER_PORT, MDX_AZURITE_PORT, MDX_AZURE_TOKEN_PORT,
// MDX_GCS_PORT, MDX_GOOGLE_TOKEN_PORT (the peers; a provider whose peers are
// missing is left out), AWS_TOOL (default /usr/bin/aws), CURL_TOOL (default
// curl). Client CPU (user + system of this process for mdxlib, of the child
// for the tools) is reported per GiB.
#include <mdxlib/cloudauth/LmAwsAuth.h>
#include <mdxlib/cloudauth/LmAzureAuth.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlHandleFactory.h>
#include <mdxlib/curl/LmCurlRawClient.h>

#include <QCryptographicHash>
#include <QFile>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int64_t kBlock = 1 << 20;

std::string env(char const* name, std::string const& fallback = "")
{
    char const* value = std::getenv(name);
    return value && *value ? value : fallback;
}

std::string fileMd5(std::string const& path)
{
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly))
        return "";
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(&file);
    return hash.result().toHex().toStdString();
}

std::string md5Of(std::string const& data)
{
    return QCryptographicHash::hash(QByteArray::fromRawData(data.data(), static_cast<int>(data.size())),
                                    QCryptographicHash::Md5)
        .toHex()
        .toStdString();
}

// KiB of a line of /proc/self/status ("VmHWM:", "VmRSS:").
long statusKiB(char const* key)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(key, 0) == 0)
            return std::atol(line.c_str() + std::strlen(key));
    return -1;
}

struct Peer
{
    std::string objectBase; // https URL the object names go behind, for reading back
    std::vector<std::string> readHeaders;
};

// Uploads the file through write() in 1 MiB writes; seconds, or -1.
double runMdx(std::string const& file, std::string const& url)
{
    std::ifstream in(file, std::ios::binary);
    std::vector<char> block(kBlock);
    auto const start = Clock::now();
    LmCurlUploadStream stream = LmCurlClient::instance()->write(url);
    while (in && stream.good()) {
        in.read(block.data(), kBlock);
        stream.write(block.data(), in.gcount());
    }
    stream.close();
    double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return stream.good() ? seconds : -1;
}

double runCommand(std::string const& command)
{
    auto const start = Clock::now();
    int const rc = std::system(command.c_str());
    double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return rc == 0 ? seconds : -1;
}

// User plus system seconds of this process or of its waited-for children.
double cpuSeconds(int who)
{
    rusage usage{};
    if (getrusage(who, &usage) != 0)
        return 0;
    auto const seconds = [](timeval const& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

bool storedMatches(Peer const& peer, std::string const& name, std::string const& expected)
{
    LmCurlRawClient client(std::make_shared<LmCurlHandleFactory>(1), nullptr);
    LmCurlRequest request(peer.objectBase + name, "GET");
    for (std::string const& line : peer.readHeaders)
        request.addRequestHeader(line);
    LmCurlResponse const response = client.process(request);
    return response.getResponseCode() == 200 && md5Of(response.getPayload()) == expected;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench_upload FILE [--reps N] [--cases LIST]\n");
        return 2;
    }
    std::string const file = argv[1];
    int reps = 3;
    std::string wanted = "mdx-s3,curl-s3,aws-s3,mdx-azure,curl-azure,mdx-gs,curl-gs";
    for (int i = 2; i + 1 < argc; i += 2) {
        std::string const option = argv[i];
        if (option == "--reps")
            reps = std::max(1, std::atoi(argv[i + 1]));
        else if (option == "--cases")
            wanted = argv[i + 1];
    }
    std::string const s3Port = env("MDX_S3RVER_PORT"), azPort = env("MDX_AZURITE_PORT"),
                      tokenPort = env("MDX_AZURE_TOKEN_PORT");
    std::string const gcsPort = env("MDX_GCS_PORT"), googleTokenPort = env("MDX_GOOGLE_TOKEN_PORT");
    bool const haveS3Azure = !s3Port.empty() && !azPort.empty() && !tokenPort.empty();
    bool const haveGoogle = !gcsPort.empty() && !googleTokenPort.empty();
    if (!haveS3Azure && !haveGoogle) {
        std::fprintf(stderr, "bench_upload: run it through run.sh (the peers' ports are not set)\n");
        return 2;
    }
    auto const dropCases = [&wanted](char const* suffix) {
        std::string kept;
        size_t at = 0;
        while (at <= wanted.size()) {
            size_t const comma = std::min(wanted.find(',', at), wanted.size());
            std::string const name = wanted.substr(at, comma - at);
            if (name.size() < std::strlen(suffix) ||
                name.compare(name.size() - std::strlen(suffix), std::string::npos, suffix) != 0)
                kept += (kept.empty() ? "" : ",") + name;
            at = comma + 1;
        }
        wanted = kept;
    };
    if (!haveS3Azure) {
        std::fprintf(stderr, "bench_upload: s3rver or azurite missing: S3 and Azure cases left out\n");
        dropCases("-s3");
        dropCases("-azure");
    }
    if (!haveGoogle)
        dropCases("-gs");
    // Google: the metadata token of the token peer; the storage peer takes
    // any token in this mode.
    setenv("MDX_GCS_UPLOAD_ENDPOINT", ("http://127.0.0.1:" + gcsPort + "/").c_str(), 1);
    setenv("MDX_GCE_METADATA_HOST", ("127.0.0.1:" + googleTokenPort).c_str(), 1);
    unsetenv("GOOGLE_APPLICATION_CREDENTIALS");
    std::string const curl = env("CURL_TOOL", "curl"), aws = env("AWS_TOOL", "/usr/bin/aws");
    int64_t const size = QFile(QString::fromStdString(file)).size();
    std::string const md5 = fileMd5(file);

    // S3: s3rver's key; Azure: a managed identity token from the token peer.
    setenv("MDX_S3_DOMAIN", ("localhost:" + s3Port).c_str(), 1);
    setenv("MDX_AZURE_BLOB_SUFFIX", (".blob.localhost:" + azPort).c_str(), 1);
    setenv("MDX_AZURE_METADATA_ADDRESS", ("127.0.0.1:" + tokenPort).c_str(), 1);
    auto credentials = std::make_shared<LmAwsAuth::Credentials>(LmAwsAuth::Credentials{
        "S3RVER", "S3RVER", "us-east-1", "", QDateTime(), QDate(), QByteArray(), QByteArray()});
    LmAwsAuth::computeSecreteSigV4(credentials, QDateTime::currentDateTimeUtc().date());
    LmCurlClient::instance()->helper()->awsAuth()->setCredentials(credentials);
    std::string const token = !haveS3Azure ? std::string("-")
                                           : LmCurlClient::instance()
                                                 ->helper()
                                                 ->azureAuth()
                                                 .authorizationHeader(*LmCurlClient::instance())
                                                 .toStdString();
    if (token.empty()) {
        std::fprintf(stderr, "bench_upload: no Azure token from the token peer\n");
        return 1;
    }
    std::vector<std::string> const azureHeaders{token, "x-ms-version: 2020-04-08"};
    std::string const azureBase = "https://myaccount.blob.localhost:" + azPort + "/cont/";
    if (haveS3Azure) {
        LmCurlRawClient client(std::make_shared<LmCurlHandleFactory>(1), nullptr);
        LmCurlRequest create(azureBase.substr(0, azureBase.size() - 1) + "?restype=container", "PUT");
        for (std::string const& line : azureHeaders)
            create.addRequestHeader(line);
        client.process(create);
    }
    std::map<std::string, Peer> const peers{
        {"s3", Peer{"https://mybucket.s3.us-east-1.localhost:" + s3Port + "/", {}}},
        {"azure", Peer{azureBase, azureHeaders}},
        {"gs", Peer{"http://127.0.0.1:" + gcsPort + "/bucket/", {}}}};

    std::string const awsConfig = "/tmp/mdx-bench-upload-aws-" + std::to_string(getpid());
    {
        std::ofstream config(awsConfig);
        config << "[default]\nregion = us-east-1\ns3 =\n  max_concurrent_requests = 1\n"
                  "  addressing_style = path\n";
    }
    struct Case
    {
        std::string name;
        std::string peer;
        std::function<double(std::string const& object)> run;
    };
    std::string const quiet = " >/dev/null 2>&1";
    std::vector<Case> cases{
        {"mdx-s3", "s3", [&](std::string const& o) { return runMdx(file, "s3://mybucket/" + o); }},
        {"curl-s3", "s3",
         [&](std::string const& o) {
             return runCommand(
                 curl + " -sfk -o /dev/null -T '" + file +
                 "' -H 'x-amz-content-sha256: UNSIGNED-PAYLOAD' --aws-sigv4 aws:amz:us-east-1:s3 "
                 "--user S3RVER:S3RVER https://mybucket.s3.us-east-1.localhost:" +
                 s3Port + "/" + o + quiet);
         }},
        {"aws-s3", "s3",
         [&](std::string const& o) {
             return runCommand("AWS_CONFIG_FILE=" + awsConfig +
                               " AWS_ACCESS_KEY_ID=S3RVER AWS_SECRET_ACCESS_KEY=S3RVER " + aws +
                               " --endpoint-url https://127.0.0.1:" + s3Port + " --no-verify-ssl s3 cp '" +
                               file + "' s3://mybucket/" + o + quiet);
         }},
        {"mdx-azure", "azure",
         [&](std::string const& o) { return runMdx(file, "az://myaccount/cont/" + o); }},
        {"curl-azure", "azure",
         [&](std::string const& o) {
             return runCommand(curl + " -sfk -o /dev/null -T '" + file + "' -H '" + token +
                               "' -H 'x-ms-version: 2020-04-08' -H 'x-ms-blob-type: BlockBlob' " + azureBase +
                               o + quiet);
         }},
        {"mdx-gs", "gs", [&](std::string const& o) { return runMdx(file, "gs://bucket/" + o); }},
        {"curl-gs", "gs",
         [&](std::string const& o) {
             return runCommand(curl + " -sf -o /dev/null -T '" + file + "' http://127.0.0.1:" + gcsPort +
                               "/bucket/" + o + quiet);
         }},
    };
    cases.erase(std::remove_if(cases.begin(), cases.end(),
                               [&](Case const& c) {
                                   return ("," + wanted + ",").find("," + c.name + ",") == std::string::npos;
                               }),
                cases.end());

    // First, while this process has allocated nothing large yet: freed
    // blocks stay resident in the allocator, and would hide the growth.
    if (std::find_if(cases.begin(), cases.end(), [](Case const& c) { return c.name == "mdx-s3"; }) !=
        cases.end()) {
        long const before = statusKiB("VmRSS:");
        std::ofstream("/proc/self/clear_refs") << "5"; // peak resident set := current
        runMdx(file, "s3://mybucket/bench-memory");
        long const peak = statusKiB("VmHWM:");
        std::printf("memory of one open upload: peak resident set grew by %.1f MiB (goal <= %.1f MiB)\n",
                    (peak - before) / 1024.0, 20.0);
    }
    std::printf("file %s: %lld bytes, md5 %s; %d runs per case, round robin\n", file.c_str(),
                static_cast<long long>(size), md5.c_str(), reps);
    std::map<std::string, std::vector<double>> seconds;
    std::map<std::string, double> cpu;
    for (int rep = 0; rep < reps; ++rep) {
        for (Case const& c : cases) {
            std::string const object = "bench-" + c.name + "-" + std::to_string(rep);
            bool const inProcess = c.name.rfind("mdx-", 0) == 0;
            double const cpuBefore = cpuSeconds(inProcess ? RUSAGE_SELF : RUSAGE_CHILDREN);
            double const t = c.run(object);
            cpu[c.name] += cpuSeconds(inProcess ? RUSAGE_SELF : RUSAGE_CHILDREN) - cpuBefore;
            bool const stored = t > 0 && storedMatches(peers.at(c.peer), object, md5);
            std::printf("  %-11s run %d: %s\n", c.name.c_str(), rep + 1,
                        t <= 0   ? "FAILED"
                        : stored ? (std::to_string(static_cast<int>(size / 1e6 / t)) + " MB/s").c_str()
                                 : "STORED CONTENT DIFFERS");
            std::fflush(stdout);
            seconds[c.name].push_back(stored ? t : 1e9);
        }
    }
    std::map<std::string, double> best;
    std::printf("\n%-11s %10s %10s %16s\n", "case", "best MB/s", "median", "client CPU s/GiB");
    for (Case const& c : cases) {
        std::vector<double> runs = seconds[c.name];
        std::sort(runs.begin(), runs.end());
        best[c.name] = size / 1e6 / runs.front();
        std::printf("%-11s %10.1f %10.1f %16.2f\n", c.name.c_str(), best[c.name],
                    size / 1e6 / runs[runs.size() / 2], cpu[c.name] / reps / (size / 1073741824.0));
    }
    auto ratio = [&](char const* a, char const* b, double goal) {
        if (best.count(a) && best.count(b))
            std::printf("%s / %s: %.2f (goal >= %.2f)\n", a, b, best[a] / best[b], goal);
    };
    std::printf("\n");
    ratio("mdx-s3", "curl-s3", 0.9);
    ratio("mdx-s3", "aws-s3", 1.5);
    ratio("mdx-azure", "curl-azure", 0.9);
    ratio("mdx-gs", "curl-gs", 0.9);

    std::remove(awsConfig.c_str());
    return 0;
}
