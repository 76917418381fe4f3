// The outcome of a streaming transfer.
//
// Filled on the reading thread while the transfer runs. The statuses of the
// ranged requests of one stream form a chain in the order the requests were
// made; the chain is destroyed iteratively, so a stream of very many ranges
// cannot overflow the stack.
#pragma once

#include <mdxlib/Export.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

class MDX_EXPORT LmHttpStatus
{
public:
    LmHttpStatus() = default;
    ~LmHttpStatus();

    // Copies share the rest of the chain.
    LmHttpStatus(LmHttpStatus const&) = default;
    LmHttpStatus& operator=(LmHttpStatus const&) = default;
    LmHttpStatus(LmHttpStatus&&) = default;
    LmHttpStatus& operator=(LmHttpStatus&&) = default;

    // A status with everything zero, for streams without a request.
    static LmHttpStatus& empty();

    // 400, 401, 403, 404, 405, 409, 411, 412 and 416: asking again can't help.
    bool unrecoverable() const;
    uint64_t totalBytesReceived() const;
    // Length of the whole resource, 0 when unknown.
    int64_t contentLength() const;
    // First byte of the range this response carries, 0 if none.
    int64_t from() const;
    // Body bytes this response announces, -1 when unknown.
    int64_t expectedBytes() const;

    std::string const* header(std::string const& lowerCaseName) const;

    int32_t responseCode = 0;
    std::multimap<std::string, std::string> headers; // lower-case names
    bool curlError = false;
    uint64_t bytesReceived = 0;
    int32_t timeToFirstHeader = 0;
    std::shared_ptr<LmHttpStatus> next;
};
