// What the upload sessions share: the digest of a chunk and their retry loop.
#pragma once

#include <mdxlib/curl/LmCurlRetryPolicy.h>

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace LmCurlUpload {

// The binary MD5 of data.
QByteArray md5(std::string_view data);
// "Content-MD5: <Base64 of the binary MD5>".
std::string contentMd5Header(QByteArray const& digest);
// Reads a whole XML document: false unless it is well-formed; rootName is
// the name of the document element, childText the text of its first child
// element named child (empty without one).
bool readXmlRoot(std::string const& payload, QString const& child, QString& rootName, QString& childText);
// The sessions' retry loop, form A with the request policy (5 tries at
// most): attempt answers true on success and false for a failed try;
// exhaustion throws RetryPolicyExhaustedError with exactly exhaustedText.
void retry(LmCurlRetry::Sleeper const& sleeper, char const* exhaustedText,
           std::function<bool()> const& attempt);
// "Content-Length: <size>".
std::string lengthHeader(size_t size);
// At the last chunk: throws "Payload has incorrect size" when an expected
// size (1 or more) was given and the bytes sent differ from it.
void checkFinalSize(uint64_t bytesSent, long long expectedSize);
// An object small enough to go in one PUT with Content-Length and
// Content-MD5 (plus extraHeaders): throws "Payload has incorrect hash sum"
// when an expected hex MD5 was given and differs, then retries
// putChecked(headers) (true on success, false to retry, or throws) under
// the request policy; a curl error counts as a failed try.
void putWhole(LmCurlRetry::Sleeper const& sleeper, std::string const& url, std::string_view data,
              QByteArray const& expectedHash, std::vector<std::string> const& extraHeaders,
              std::function<bool(std::vector<std::string> const&)> const& putChecked);

} // namespace LmCurlUpload
