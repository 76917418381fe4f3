// The records behind the stream handles of the exported stream functions.
// A handle is a pointer to one of them; the 64-bit kind word comes first in
// each, so that a function can tell a handle from any other pointer before
// it touches anything else.
#pragma once

#include <mdxlib/cloudreader/File.h>
#include <mdxlib/curl/LmCurlDownload.h>

#include <cstdint>
#include <memory>

constexpr uint64_t STREAM_KIND_CLOUD = 0xFEDCBA9876540001ULL;
constexpr uint64_t STREAM_KIND_CURL = 0xFEDCBA9876540002ULL;

// A file of the cloud reader: container members, WADO objects, ranges of them.
struct CloudStreamRecord
{
    uint64_t kind = STREAM_KIND_CLOUD;
    std::shared_ptr<Kz::File> file;
};

// A streaming HTTP download, embedded, with the bytes handed out so far.
struct CurlStreamRecord
{
    explicit CurlStreamRecord(LmCurlDownloadStream&& download)
        : stream(std::move(download))
    {
    }
    uint64_t kind = STREAM_KIND_CURL;
    LmCurlDownloadStream stream;
    long long delivered = 0;
};

// The kind word a handle starts with; 0 for null.
uint64_t streamKind(void const* handle);
