#include <mdxlib/curl/LmCurlUploadSessionGS.h>

#include "core/curl/LmCurlUploadSupport.h"

#include <mdxlib/curl/LmCurlErrors.h>
#include <mdxlib/curl/LmHttpStatus.h>
#include <mdxlib/platform/McLogFile.h>

#include <stdexcept>

namespace {

constexpr char kRangePrefix[] = "bytes=0-";
constexpr size_t kErrorTextLength = 200;

McLogFile& log()
{
    return *getTheLogInstance();
}

bool isUnrecoverable(int code)
{
    LmHttpStatus status;
    status.responseCode = code;
    return status.unrecoverable();
}

std::string trimmed(std::string const& text)
{
    size_t const begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos)
        return std::string();
    size_t const end = text.find_last_not_of(" \t\r\n");
    return text.substr(begin, end - begin + 1);
}

// "bytes a-b/total", "bytes */total" or either with "*" as total.
std::string contentRange(uint64_t from, uint64_t rest, bool last)
{
    std::string const range =
        rest == 0 ? std::string("*") : std::to_string(from) + "-" + std::to_string(from + rest - 1);
    std::string const total = last ? std::to_string(from + rest) : std::string("*");
    return "Content-Range: bytes " + range + "/" + total;
}

} // namespace

LmCurlUploadSessionGS::LmCurlUploadSessionGS(std::unique_ptr<LmCurlRawClientBase> client,
                                             std::string const& authorization, std::string const& uploadUrl,
                                             std::string const& url, std::string const& contentType)
    : mUrl(url)
    , mContentType(contentType.empty() ? std::string("application/octet-stream") : contentType)
    , mUploadUrl(uploadUrl)
    , mAuthorization(authorization)
    , mClient(std::move(client))
{
}

LmCurlUploadSessionGS::~LmCurlUploadSessionGS()
{
    if (!mSessionUrl.empty())
        cancel();
}

void LmCurlUploadSessionGS::setExpectedHashAndSize(char const* hash, long long size)
{
    mExpectedHash = QByteArray(hash ? hash : "").toLower();
    mExpectedSize = size;
}

QByteArray LmCurlUploadSessionGS::localHash() const
{
    return mMd5.result().toHex();
}

LmCurlResponse LmCurlUploadSessionGS::send(char const* verb, std::string const& target,
                                           std::vector<std::string> const& headers, std::string_view body,
                                           bool authorize)
{
    LmCurlRequest request(target, verb);
    if (authorize && !mAuthorization.empty())
        request.addAuthorizationHeader(mAuthorization);
    for (std::string const& line : headers)
        request.addRequestHeader(line);
    request.addRequestHeader("Expect:"); // no "100-continue" round trip
    request.setPayload(body);
    return mClient->process(request);
}

LmCurlUploadSessionGS::UploadResponse LmCurlUploadSessionGS::parseResponse(LmCurlResponse const& response)
{
    int const code = response.getResponseCode();
    if (isUnrecoverable(code)) {
        std::string text = "Server responded with HTTP status code " + std::to_string(code) +
                           ", which indicates an unrecoverable error.";
        std::string const detail = parseErrorPayload(response.getPayload());
        if (!detail.empty())
            text += " " + detail;
        throw UnrecoverableResponseError(text);
    }
    UploadResponse result;
    result.code = code;
    if (code == 200) {
        result.finished = true;
    } else if (code != 201 && code != 308) {
        std::string const detail = parseErrorPayload(response.getPayload());
        log().tracef(McLogFile::LevelDebug, nullptr, "Server responded with HTTP status code %d.%s", code,
                     detail.empty() ? "" : (" " + detail).c_str());
    }
    result.success = code == 200 || code == 201 || code == 308;
    result.location = response.getSingleHeader("location").value_or(std::string());
    std::string const range = response.getSingleHeader("range").value_or(std::string());
    if (range.rfind(kRangePrefix, 0) == 0 && range.size() > sizeof(kRangePrefix) - 1) {
        try {
            result.nextByte = std::stoll(range.substr(sizeof(kRangePrefix) - 1)) + 1;
        } catch (std::exception const&) {
            // A range that is no number is no range: it counts as none.
            result.nextByte = (code == 201 || code == 308) ? 0 : -1;
        }
    } else if (code == 201 || code == 308) {
        result.nextByte = 0; // a 308 without a range: nothing stored
    }
    for (std::string const& line : response.getMultiHeader("x-goog-hash")) {
        size_t start = 0;
        while (start <= line.size()) {
            size_t const comma = std::min(line.find(',', start), line.size());
            std::string const part = trimmed(line.substr(start, comma - start));
            if (part.rfind("md5=", 0) == 0 && part.size() >= 5) {
                result.md5 = QByteArray::fromBase64(QByteArray::fromStdString(part.substr(4))).toHex();
                break;
            }
            start = comma + 1;
        }
    }
    return result;
}

std::string LmCurlUploadSessionGS::parseErrorPayload(std::string const& payload)
{
    if (payload.empty())
        return std::string();
    std::string const text = trimmed(payload);
    if (text.rfind("<?xml", 0) == 0) {
        // Qt's stream reader (Qt Core) reads the document whole; a
        // malformed one gives no text.
        QString root;
        QString code;
        QString message;
        if (!LmCurlUpload::readXmlRoot(text, "Code", root, code) ||
            !LmCurlUpload::readXmlRoot(text, "Message", root, message) || code.isEmpty() || message.isEmpty())
            return std::string();
        return "Code: " + code.toStdString() + ", Message: " + message.toStdString();
    }
    return text.substr(0, kErrorTextLength);
}

void LmCurlUploadSessionGS::uploadChunk(std::string_view data, bool last)
{
    // QCryptographicHash::addData takes an int length.
    constexpr size_t kPart = 1 << 30;
    for (size_t at = 0; at < data.size(); at += kPart)
        mMd5.addData(data.data() + at, static_cast<int>(std::min(kPart, data.size() - at)));
    if (last) {
        if (mExpectedSize > 0 && mBytesWritten + data.size() != static_cast<uint64_t>(mExpectedSize))
            throw std::runtime_error("Payload has incorrect size");
        if (!mExpectedHash.isEmpty() && mExpectedHash != localHash())
            throw std::runtime_error("Payload has incorrect hash sum");
        if (mIsFirstChunk) {
            mIsFirstChunk = false;
            uploadSingleChunk(data);
            return;
        }
    } else if (mIsFirstChunk) {
        initSession();
    }
    mIsFirstChunk = false;
    uint64_t const start = mBytesWritten;
    uint64_t const end = start + data.size();
    if (start != mNextExpectedByte)
        throw std::runtime_error("Incorrect next expected byte");
    if (mSessionUrl.empty())
        throw std::runtime_error("Upload session was canceled");

    auto policy = LmCurlExponentialBackoffRetryPolicy::forRequests();
    // A resend after a short write costs no try; one that the server answers
    // with no progress at all does, or a server stuck at one count would be
    // asked again for ever.
    uint64_t lastShortCount = UINT64_MAX;
    for (;;) {
        if (mNextExpectedByte < mBytesWritten)
            throw std::runtime_error("Next expected byte has already been written before");
        uint64_t const offset = mNextExpectedByte - start;
        if (offset > data.size())
            throw std::runtime_error("Next expected byte is too high");
        uint64_t const rest = data.size() - offset;
        std::vector<std::string> const headers{
            LmCurlUpload::lengthHeader(rest), "Content-Type: application/octet-stream",
            "Cache-Control: no-transform", contentRange(mNextExpectedByte, rest, last)};
        bool failed = false;
        try {
            UploadResponse const response =
                parseResponse(send("PUT", mSessionUrl, headers, data.substr(offset), false));
            if (!response.success) {
                failed = true;
            } else {
                if (response.finished && last) {
                    mBytesWritten = end;
                    finish(response.md5);
                    return;
                }
                if (response.nextByte >= 0) {
                    if (static_cast<uint64_t>(response.nextByte) < mBytesWritten)
                        throw std::runtime_error("Server response contains invalid range header.");
                    mNextExpectedByte = static_cast<uint64_t>(response.nextByte);
                }
                if (!response.location.empty())
                    mSessionUrl = response.location;
                if (mNextExpectedByte == end) {
                    mBytesWritten = end;
                    return;
                }
                if (mNextExpectedByte > end)
                    throw std::runtime_error("Server response indicates that too much was written. Aborting");
                log().warnf("Short write to Google Cloud Storage. File: %s. Content length: %zu. Actually "
                            "written: %zu",
                            mUrl.c_str(), data.size(), static_cast<size_t>(mNextExpectedByte - start));
                failed = mNextExpectedByte == lastShortCount;
                lastShortCount = mNextExpectedByte;
            }
        } catch (CurlError const& e) {
            log().errorf("Received curl error while uploading chunk. File: %s. Error: %s.", mUrl.c_str(),
                         e.what());
            failed = true;
        } catch (UnrecoverableResponseError const&) {
            mSessionUrl.clear(); // given up on: no DELETE follows
            throw;
        }
        if (failed) {
            mSleeper(policy.onFailure());
            if (!policy.isExhausted()) {
                resetSession(policy);
                if (mIsDone) {
                    log().warnf("After resetting the session, server indicates that the file upload is "
                                "finished. File: %s",
                                mUrl.c_str());
                    mBytesWritten = end;
                    return;
                }
            }
        }
        if (policy.isExhausted())
            throw RetryPolicyExhaustedError("Retry policy exhausted while uploading chunk");
    }
}

// The session is over on the server once the object is final: its URL is
// dropped before the hash is compared, so that a mismatch fails the stream
// without a DELETE that the finished session could only refuse.
void LmCurlUploadSessionGS::finish(QByteArray const& remoteHash)
{
    mSessionUrl.clear();
    validateHash(remoteHash);
    mIsDone = true;
}

void LmCurlUploadSessionGS::resetSession(LmCurlExponentialBackoffRetryPolicy& policy)
{
    std::vector<std::string> const headers{LmCurlUpload::lengthHeader(0), "Content-Range: bytes */*",
                                           "Cache-Control: no-transform"};
    for (;;) {
        if (policy.isExhausted())
            throw RetryPolicyExhaustedError("Retry policy exhausted while resetting upload session");
        UploadResponse response;
        bool failed = false;
        try {
            response = parseResponse(send("PUT", mSessionUrl, headers, {}, false));
            failed = !response.success;
        } catch (CurlError const& e) {
            log().warnf("Received curl error while resetting upload session. File: %s. Error: %s.",
                        mUrl.c_str(), e.what());
            failed = true;
        } catch (UnrecoverableResponseError const&) {
            // A session the server no longer knows is gone: no DELETE for it.
            mSessionUrl.clear();
            throw;
        }
        if (!failed && response.finished) {
            finish(response.md5); // the last chunk arrived, only its answer was lost
            return;
        }
        if (failed) {
            mSleeper(policy.onFailure());
            continue;
        }
        if (response.nextByte < 0)
            throw std::runtime_error("Server did not sent next expected byte during session reset");
        mNextExpectedByte = static_cast<uint64_t>(response.nextByte);
        if (!response.location.empty())
            mSessionUrl = response.location;
        return;
    }
}

void LmCurlUploadSessionGS::initSession()
{
    std::vector<std::string> headers{LmCurlUpload::lengthHeader(0), "x-goog-resumable: start",
                                     "Content-Type: " + mContentType, "Cache-Control: no-transform"};
    if (!mExpectedHash.isEmpty())
        headers.push_back(LmCurlUpload::contentMd5Header(QByteArray::fromHex(mExpectedHash)));
    std::string location;
    LmCurlUpload::retry(mSleeper, "Retry policy exhausted while initializing upload session", [&] {
        try {
            UploadResponse const response = parseResponse(send("POST", mUploadUrl, headers, {}, true));
            if (response.code != 201)
                return false;
            location = response.location;
            return true;
        } catch (CurlError const& e) {
            log().warnf("Received curl error while starting resumable upload. File: %s. Error: %s",
                        mUrl.c_str(), e.what());
            return false;
        }
    });
    if (location.empty())
        throw UnrecoverableResponseError("Response did not contain a session URL");
    mSessionUrl = location;
}

void LmCurlUploadSessionGS::uploadSingleChunk(std::string_view data)
{
    std::vector<std::string> const headers{
        LmCurlUpload::lengthHeader(data.size()), "Content-Type: " + mContentType,
        LmCurlUpload::contentMd5Header(LmCurlUpload::md5(data)), "Cache-Control: no-transform"};
    QByteArray remote;
    LmCurlUpload::retry(mSleeper, "Retry policy exhausted while uploading data", [&] {
        try {
            UploadResponse const response = parseResponse(send("PUT", mUploadUrl, headers, data, true));
            if (!response.success)
                return false;
            remote = response.md5;
            return true;
        } catch (CurlError const& e) {
            log().warnf("Received curl error while uploading data. File: %s. Error: %s", mUrl.c_str(),
                        e.what());
            return false;
        }
    });
    mBytesWritten = data.size();
    validateHash(remote);
    mIsDone = true;
}

void LmCurlUploadSessionGS::validateHash(QByteArray const& remote)
{
    if (remote.isEmpty())
        throw std::runtime_error("Got no MD5 hash, cannot validate");
    QByteArray const local = localHash();
    if (remote != local) {
        log().errorf("Remote MD5 hash: %s", remote.constData());
        log().errorf("Local MD5 hash: %s", local.constData());
        throw std::runtime_error("MD5 mismatch, cannot validate");
    }
}

void LmCurlUploadSessionGS::cancel()
{
    if (mSessionUrl.empty())
        return;
    try {
        LmCurlUpload::retry(mSleeper, "Retry policy exhausted while deleting upload session", [&] {
            try {
                if (parseResponse(send("DELETE", mSessionUrl, {LmCurlUpload::lengthHeader(0)}, {}, true))
                        .code != 204)
                    return false;
                mSessionUrl.clear();
                return true;
            } catch (CurlError const& e) {
                log().warnf("Curl error when deleting upload session for %s. Error: %s", mUrl.c_str(),
                            e.what());
                return false;
            }
        });
    } catch (std::runtime_error const& e) {
        log().errorf("Could not delete upload session for %s: %s", mUrl.c_str(), e.what());
    }
}
