// Uploads: one write stream (LmCurlUploadStream) over the upload protocols of
// the cloud providers. A session is one provider's way of getting a sequence
// of chunks into one object; the stream's buffer cuts what is written into
// those chunks. The sessions are LmCurlUploadSessionS3 (S3 multipart) and
// LmCurlUploadSessionAzure (Azure block blobs).
#pragma once

#include <mdxlib/Export.h>

#include <string>
#include <string_view>

class MDX_EXPORT LmCurlUploadSessionBase
{
public:
    // Removes what an unfinished upload left on the server, where it can.
    virtual ~LmCurlUploadSessionBase() = default;
    // Stores the next chunk, blocking through the retries; last says that no
    // more will follow. Throws when the chunk cannot be stored.
    virtual void uploadChunk(std::string_view data, bool last) = 0;
    // Gives up, leaving nothing behind on the server if it can.
    virtual void cancel() = 0;
    // True once the object is complete.
    virtual bool done() const = 0;
    // hash: lower-case hexadecimal MD5 of the whole, empty for no check;
    // size: bytes of the whole, under 1 for no check.
    virtual void setExpectedHashAndSize(char const* hash, long long size) = 0;
    // The URL for log lines.
    virtual std::string const& loggingUrl() const = 0;

    LmCurlUploadSessionBase() = default;
    LmCurlUploadSessionBase(LmCurlUploadSessionBase const&) = delete;
    LmCurlUploadSessionBase& operator=(LmCurlUploadSessionBase const&) = delete;
};
