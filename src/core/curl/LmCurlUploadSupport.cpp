#include "core/curl/LmCurlUploadSupport.h"

#include <mdxlib/curl/LmCurlErrors.h>
#include <mdxlib/platform/McLogFile.h>

#include <QCryptographicHash>
#include <QXmlStreamReader>

#include <stdexcept>

namespace LmCurlUpload {

QByteArray md5(std::string_view data)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    // QCryptographicHash::addData takes an int length: feed large views in parts.
    constexpr size_t kPart = 1 << 30;
    for (size_t at = 0; at < data.size(); at += kPart)
        hash.addData(data.data() + at, static_cast<int>(std::min(kPart, data.size() - at)));
    return hash.result();
}

std::string contentMd5Header(QByteArray const& digest)
{
    return "Content-MD5: " + digest.toBase64().toStdString();
}

bool readXmlRoot(std::string const& payload, QString const& child, QString& rootName, QString& childText)
{
    rootName.clear();
    childText.clear();
    QXmlStreamReader reader(QByteArray::fromStdString(payload));
    int depth = 0;
    bool childSeen = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement()) {
            ++depth;
            if (depth == 1) {
                rootName = reader.name().toString();
            } else if (depth == 2 && !childSeen && reader.name() == child) {
                childSeen = true;
                childText = reader.readElementText(QXmlStreamReader::IncludeChildElements);
                --depth; // readElementText consumed the end element
            }
        } else if (reader.isEndElement()) {
            --depth;
        }
    }
    return !reader.hasError() && !rootName.isEmpty();
}

void retry(LmCurlRetry::Sleeper const& sleeper, char const* exhaustedText,
           std::function<bool()> const& attempt)
{
    auto policy = LmCurlExponentialBackoffRetryPolicy::forRequests();
    for (;;) {
        if (attempt())
            return;
        sleeper(policy.onFailure());
        if (policy.isExhausted())
            throw RetryPolicyExhaustedError(exhaustedText);
    }
}

std::string lengthHeader(size_t size)
{
    return "Content-Length: " + std::to_string(size);
}

void checkFinalSize(uint64_t bytesSent, long long expectedSize)
{
    if (expectedSize >= 1 && bytesSent != static_cast<uint64_t>(expectedSize))
        throw std::runtime_error("Payload has incorrect size");
}

void putWhole(LmCurlRetry::Sleeper const& sleeper, std::string const& url, std::string_view data,
              QByteArray const& expectedHash, std::vector<std::string> const& extraHeaders,
              std::function<bool(std::vector<std::string> const&)> const& putChecked)
{
    QByteArray const digest = md5(data);
    if (!expectedHash.isEmpty() && expectedHash != digest.toHex())
        throw std::runtime_error("Payload has incorrect hash sum");
    std::vector<std::string> headers{lengthHeader(data.size()), contentMd5Header(digest)};
    headers.insert(headers.end(), extraHeaders.begin(), extraHeaders.end());
    retry(sleeper, "Retry policy exhausted while uploading data", [&] {
        try {
            return putChecked(headers);
        } catch (CurlError const& e) {
            getTheLogInstance()->warnf("Received curl error while uploading data. File: %s. Error: %s",
                                       url.c_str(), e.what());
            return false;
        }
    });
}

} // namespace LmCurlUpload
