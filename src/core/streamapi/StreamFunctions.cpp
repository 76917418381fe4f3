// The handle functions of the stream family: open, length, read, close, and
// the two that need no handle (StringIsUrl, SendDeleteRequest).
#include <mdxlib/streamapi/StreamFunctions.h>

#include "Guarded.h"
#include "StreamRecord.h"
#include "TransferCheck.h"

#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/platform/McFilename.h>
#include <mdxlib/platform/McLogFile.h>

#include <cstdlib>
#include <cstring>
#include <string>

uint64_t streamKind(void const* handle)
{
    uint64_t kind = 0;
    if (handle)
        std::memcpy(&kind, handle, sizeof kind);
    return kind;
}

namespace {

bool viaCloudReader(char const* url)
{
    return McFilename::isInContainer(url) || McFilename::isWado(url);
}

// A file-server path becomes the file server's URL; anything else stays.
std::string cloudUrl(char const* url)
{
    std::string copy(url);
    LmDcmFileLoader::convertPathToURL(copy);
    return copy;
}

bool downloadAnswered(LmCurlDownloadStream const& stream)
{
    LmHttpStatus const& status = stream.httpStatus();
    return status.responseCode >= 200 && status.responseCode <= 299 && !status.curlError;
}

int openCurl(LmCurlDownloadStream&& download, void** handle)
{
    if (!downloadAnswered(download))
        return -1;
    *handle = new CurlStreamRecord(std::move(download));
    return 0;
}

// A member the container doesn't hold comes as null; an object that failed
// to open as a file already bad, which is no stream to hand out either.
int openCloud(std::shared_ptr<Kz::File> file, void** handle)
{
    if (!file || file->state() == Kz::File::FILE_BAD)
        return -1;
    auto* record = new CloudStreamRecord;
    record->file = std::move(file);
    *handle = record;
    return 0;
}

// "a-b", "a-" or "-b": a dash in first place gives no first byte.
void splitRange(char const* range, long long& first, long long& last)
{
    char const* dash = std::strchr(range, '-');
    first = dash != range ? std::atoll(range) : 0;
    last = dash ? std::atoll(dash + 1) : -1;
    if (dash && dash[1] == '\0')
        last = -1;
}

// 0 at the true end of an object; -1, told once in the log, when the
// transfer broke off.
long long endOfRead(std::string const& fault)
{
    if (fault.empty())
        return 0;
    getTheLogInstance()->errorf("Reading a stream failed: %s", fault.c_str());
    return -1;
}

} // namespace

bool StringIsUrl(char const* path)
{
    return guarded("StringIsUrl", false,
                   [&] { return path && (McFilename::isUrl(path) || McFilename::isInContainer(path)); });
}

int OpenStream(char const* url, void** handle)
{
    return guarded("OpenStream", -1, [&] {
        if (!url || !handle)
            return -1;
        if (viaCloudReader(url))
            return openCloud(Kz::CloudReader::instance().openFile(cloudUrl(url), kNoSessionContext), handle);
        return openCurl(LmCurlClient::instance()->read(url, false), handle);
    });
}

int OpenStreamRange(char const* url, char const* range, void** handle)
{
    return guarded("OpenStreamRange", -1, [&] {
        if (!url || !range || !handle)
            return -1;
        if (!viaCloudReader(url))
            return openCurl(LmCurlClient::instance()->readRange(url, range, false), handle);
        long long first = 0;
        long long last = -1;
        splitRange(range, first, last);
        // An open end is the object's end: the reader wants the last byte.
        std::string const location = cloudUrl(url);
        Kz::CloudReader& reader = Kz::CloudReader::instance();
        if (last < 0) {
            long long const length = reader.fileLength(location);
            if (length <= 0)
                return -1;
            last = length - 1;
        }
        return openCloud(reader.openFileRange(location, first, last), handle);
    });
}

long long StreamContentLength(void* handle)
{
    return guarded("StreamContentLength", 0LL, [&]() -> long long {
        switch (streamKind(handle)) {
        case STREAM_KIND_CURL:
            return static_cast<CurlStreamRecord*>(handle)->stream.contentLength();
        case STREAM_KIND_CLOUD: {
            auto const& file = static_cast<CloudStreamRecord*>(handle)->file;
            return file ? file->length() : 0;
        }
        default:
            return 0;
        }
    });
}

long long ReadBytes(void* handle, char* buffer, int offset, int count)
{
    return guarded("ReadBytes", -1LL, [&]() -> long long {
        uint64_t const kind = streamKind(handle);
        if ((kind != STREAM_KIND_CURL && kind != STREAM_KIND_CLOUD) || !buffer || offset < 0 || count < 0)
            return -1;
        if (count == 0)
            return 0;
        char* const into = buffer + offset;
        // At the end, the transfer's own status decides whether the object
        // was whole: a download that broke off reads as an end of data too,
        // and a caller reading until 0 would take the part for the whole.
        if (kind == STREAM_KIND_CURL) {
            auto* record = static_cast<CurlStreamRecord*>(handle);
            record->stream.read(into, count);
            long long const n = record->stream.gcount();
            record->delivered += n;
            if (n == 0)
                return endOfRead(downloadFault(record->stream, record->delivered));
            return n;
        }
        auto* record = static_cast<CloudStreamRecord*>(handle);
        if (!record->file)
            return -1;
        long long const n = record->file->read(into, count);
        if (n == 0)
            return endOfRead(cloudFileFault(record->file.get(), record->file->position()));
        return n;
    });
}

void CloseStream(void* handle)
{
    guarded("CloseStream", 0, [&] {
        switch (streamKind(handle)) {
        case STREAM_KIND_CURL: {
            auto* record = static_cast<CurlStreamRecord*>(handle);
            record->kind = 0; // a second close of the same pointer finds no handle
            delete record;
            break;
        }
        case STREAM_KIND_CLOUD: {
            auto* record = static_cast<CloudStreamRecord*>(handle);
            record->kind = 0;
            delete record;
            break;
        }
        default:
            break;
        }
        return 0;
    });
}

bool SendDeleteRequest(char const* url)
{
    return guarded("SendDeleteRequest", false,
                   [&] { return url && LmCurlClient::instance()->deleteObject(url); });
}
