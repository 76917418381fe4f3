#include "TransferCheck.h"

#include <mdxlib/cloudreader/File.h>
#include <mdxlib/curl/LmCurlDownload.h>

#include <string>

std::string downloadFault(LmCurlDownloadStream const& stream, long long delivered)
{
    // The ranges of one stream form a chain; each that ran must have come
    // whole. A range that never got an answer nor an error was not needed
    // (a caller's own range answered in one piece).
    long long expected = 0;
    bool lengthKnown = true;
    for (LmHttpStatus const* status = &stream.httpStatus(); status; status = status->next.get()) {
        if (status->responseCode == 0 && !status->curlError && status != &stream.httpStatus())
            continue;
        if (status->curlError)
            return "the transfer broke off after " + std::to_string(delivered) + " bytes";
        if (status->responseCode < 200 || status->responseCode > 299)
            return "HTTP status " + std::to_string(status->responseCode);
        int64_t const bytes = status->expectedBytes();
        if (bytes < 0)
            lengthKnown = false;
        else
            expected += bytes;
    }
    if (lengthKnown && delivered >= 0 && delivered != expected)
        return "the transfer ended after " + std::to_string(delivered) + " of " + std::to_string(expected) +
               " bytes";
    return std::string();
}

std::string cloudFileFault(Kz::File const* file, long long delivered)
{
    if (!file)
        return "no such object";
    if (file->state() == Kz::File::FILE_BAD)
        return "the transfer failed after " + std::to_string(delivered) + " bytes";
    long long const length = file->length();
    if (length >= 0 && delivered != length)
        return "the transfer ended after " + std::to_string(delivered) + " of " + std::to_string(length) +
               " bytes";
    return std::string();
}
