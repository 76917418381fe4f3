// The cloud reader: chunked, read-ahead reading of remote objects (plain
// URLs, S3, Google Cloud Storage, Azure Blob Storage, WADO) within a memory
// budget, with all transfers on one background thread and one curl multi
// handle.
//
// A caller opens a Kz::File (openFile, openFileRange) or a stream
// (openStream) and reads it on its own thread; the Kz::FileController behind
// the file asks for chunks ahead of the reader, and the scheduler admits them
// within the limits of Kz::Config. The thread starts with the first request
// and is joined when the reader goes (for instance() at process exit).
//
// Lock order: a container's mutex, a controller's mutex, the reader's mutex;
// the pool's mutex is a leaf. The reader never calls into a container or a
// controller with its mutex held.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/cloudreader/DownloadStream.h>
#include <mdxlib/platform/LmSessionContextID.h>

#include <QByteArray>

#include <functional>
#include <memory>
#include <string>
#include <vector>

class LmCurlHandleFactory;
class LmCurlHelper;

namespace Kz {

class CloudReaderPrivate;
class Config;
class Container;
class File;
class MemoryPool;
class Request;
class Statistics;

class MDX_EXPORT CloudReader
{
public:
    // The one reader of the process, made at first use.
    static CloudReader& instance();

    // A reader of its own, with the given configuration (tests, tools).
    explicit CloudReader(Config const& config);
    ~CloudReader();
    CloudReader(CloudReader const&) = delete;
    CloudReader& operator=(CloudReader const&) = delete;

    // Opens and blocks until the first byte or failure: a failed open is a
    // file in state FILE_BAD. Null only for a container member that can't be found.
    std::shared_ptr<File> openFile(std::string const& url, LmSessionContextID context);
    // A byte range, first to last inclusive; doesn't block. Null for an invalid range.
    std::shared_ptr<File> openFileRange(std::string const& url, long long first, long long last);
    // The member's length, or a HEAD; -1 when unknown.
    long long fileLength(std::string const& url);
    DownloadStream openStream(std::string const& url);
    // A whole object; empty on failure.
    QByteArray readBytes(std::string const& url, LmSessionContextID context);
    // Drops the containers of a session (all with -1).
    void releaseMemory(LmSessionContextID context);
    void logStatistics();
    void resetStatistics();

    std::shared_ptr<LmCurlHandleFactory> handleFactory() const;
    std::shared_ptr<LmCurlHelper> helper() const;
    Statistics& statistics();
    Config& config();
    MemoryPool& memoryPool();

    void addRequest(std::shared_ptr<Request> const& request);
    void addRequests(std::vector<std::shared_ptr<Request>> const& requests);

    // How containers are made: CloudContainer::make unless replaced (tests);
    // without a factory a container member can't be opened.
    // factory(reader, url up to ".kz").
    using ContainerFactory = std::function<std::shared_ptr<Container>(CloudReader&, std::string const&)>;
    void setContainerFactory(ContainerFactory factory);

    // The wait before a retry, from the backoff of the retry policy in msec;
    // tests make it short. Without one the policy's wait stands.
    void setRetryWait(std::function<long long(long long)> wait);
    long long retryWait(long long policyWait) const;

    CloudReaderPrivate& d() { return *mPrivate; }

private:
    std::unique_ptr<CloudReaderPrivate> mPrivate;
};

} // namespace Kz
