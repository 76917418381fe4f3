// What the upload sessions share: the digest of a chunk and their retry loop.
#pragma once

#include <mdxlib/curl/LmCurlRetryPolicy.h>

#include <QByteArray>
#include <QString>

#include <functional>
#include <string>
#include <string_view>

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

} // namespace LmCurlUpload
