#include <mdxlib/curl/LmCurlUploadSessionAzure.h>

#include "core/curl/LmCurlUploadSupport.h"

#include <mdxlib/curl/LmCurlErrors.h>
#include <mdxlib/platform/McLogFile.h>

#include <QUuid>
#include <QXmlStreamReader>

#include <stdexcept>

namespace {

char const x_ms_version[] = "2020-04-08";

McLogFile& log()
{
    return *getTheLogInstance();
}

// True for success, false (retry) for 500 and 503; every other code throws.
bool checkResponse(LmCurlResponse const& response)
{
    int const code = response.getResponseCode();
    if (code >= 200 && code <= 299)
        return true;
    if (code == 500 || code == 503) {
        log().tracef(McLogFile::LevelWarning, "Azure", "Got HTTP status code %d:\n%s", code,
                     response.getPayload().c_str());
        return false;
    }
    throw UnrecoverableResponseError("Got HTTP status code " + std::to_string(code) +
                                     ", which indicates an unrecoverable error:\n" + response.getPayload());
}

} // namespace

LmCurlUploadSessionAzure::LmCurlUploadSessionAzure(std::unique_ptr<LmCurlRawClientBase> client,
                                                   std::string const& authorization, std::string const& url)
    : mAuthorization(authorization)
    , mUrl(url)
    , mClient(std::move(client))
{
}

LmCurlUploadSessionAzure::~LmCurlUploadSessionAzure()
{
    if (!mEtag.empty())
        deleteOrRestore();
}

void LmCurlUploadSessionAzure::setExpectedHashAndSize(char const* hash, long long size)
{
    mExpectedHash = QByteArray(hash ? hash : "");
    mExpectedSize = size;
}

void LmCurlUploadSessionAzure::cancel()
{
    if (!mEtag.empty())
        deleteOrRestore();
}

LmCurlResponse LmCurlUploadSessionAzure::send(char const* verb, std::string const& url,
                                              std::vector<std::string> headers, std::string_view body)
{
    LmCurlRequest request(url, verb);
    // Without a token the request still goes out; the service's 401 or 403
    // is the answer, as for any other client of the transport.
    if (!mAuthorization.empty())
        request.addAuthorizationHeader(mAuthorization);
    request.addRequestHeader(std::string("x-ms-version: ") + x_ms_version);
    for (std::string& line : headers)
        request.addRequestHeader(std::move(line));
    request.addRequestHeader("Expect:");
    request.setPayload(body);
    return mClient->process(request);
}

QByteArray LmCurlUploadSessionAzure::getNextBlockID()
{
    return QUuid::createUuid().toRfc4122().toBase64();
}

void LmCurlUploadSessionAzure::uploadChunk(std::string_view data, bool last)
{
    mBytesUploaded += data.size();
    if (last) {
        LmCurlUpload::checkFinalSize(mBytesUploaded, mExpectedSize);
        if (mIsFirstChunk) {
            mIsFirstChunk = false;
            uploadSingleChunk(data);
            return;
        }
        if (data.empty()) {
            commitBlockBlob(mBlockIds);
            mIsDone = true;
            return;
        }
    } else if (mIsFirstChunk) {
        createBlockBlob();
    }
    mIsFirstChunk = false;
    QByteArray const digest = LmCurlUpload::md5(data);
    QByteArray const id = getNextBlockID();
    // The ID's '+', '/' and '=' in the query are percent-encoded; the XML of
    // the commit carries it raw.
    std::string const url = mUrl + "?comp=block&blockid=" + id.toPercentEncoding().toStdString();
    std::vector<std::string> const headers{LmCurlUpload::lengthHeader(data.size()),
                                           LmCurlUpload::contentMd5Header(digest)};
    LmCurlUpload::retry(mSleeper, "Retry policy exhausted in Put Block", [&] {
        try {
            if (!checkResponse(send("PUT", url, headers, data)))
                return false;
            mBlockIds.push_back(id);
            if (last) {
                commitBlockBlob(mBlockIds);
                mIsDone = true;
            }
            return true;
        } catch (CurlError const& e) {
            log().errorf("Received curl error in Put Block. File: %s. Error: %s.", mUrl.c_str(), e.what());
            return false;
        }
    });
}

void LmCurlUploadSessionAzure::uploadSingleChunk(std::string_view data)
{
    LmCurlUpload::putWhole(mSleeper, mUrl, data, mExpectedHash, {"x-ms-blob-type: BlockBlob"},
                           [&](std::vector<std::string> const& headers) {
                               if (!checkResponse(send("PUT", mUrl, headers, data)))
                                   return false;
                               mIsDone = true;
                               return true;
                           });
}

void LmCurlUploadSessionAzure::createBlockBlob()
{
    std::string etag;
    LmCurlUpload::retry(mSleeper, "Retry policy exhausted In Put Blob", [&] {
        try {
            LmCurlResponse const response =
                send("PUT", mUrl, {LmCurlUpload::lengthHeader(0), "x-ms-blob-type: BlockBlob"}, {});
            if (!checkResponse(response))
                return false;
            etag = response.getSingleHeader("etag").value_or(std::string());
            return true;
        } catch (CurlError const& e) {
            log().warnf("Received curl error In Put Blob. File: %s. Error: %s", mUrl.c_str(), e.what());
            return false;
        }
    });
    if (etag.empty())
        throw UnrecoverableResponseError("No ETag header returned by Put Block");
    mEtag = etag;
}

void LmCurlUploadSessionAzure::commitBlockBlob(std::vector<QByteArray> const& ids)
{
    putBlockList(ids, "Uncommitted");
}

void LmCurlUploadSessionAzure::putBlockList(std::vector<QByteArray> const& ids, char const* element)
{
    std::string const open = std::string("<") + element + ">";
    std::string const close = std::string("</") + element + ">";
    std::string body = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><BlockList>";
    for (QByteArray const& id : ids)
        body += open + id.toStdString() + close;
    body += "</BlockList>";
    std::vector<std::string> const headers{"If-Match: " + mEtag, LmCurlUpload::lengthHeader(body.size())};
    LmCurlUpload::retry(mSleeper, "Retry policy exhausted in Put Block List", [&] {
        try {
            if (!checkResponse(send("PUT", mUrl + "?comp=blocklist", headers, body)))
                return false;
            mEtag.clear();
            return true;
        } catch (CurlError const& e) {
            log().warnf("Received curl error in Put Block List. File: %s. Error: %s", mUrl.c_str(), e.what());
            return false;
        }
    });
}

bool LmCurlUploadSessionAzure::getBlockList(std::vector<QByteArray>& out)
{
    std::string etag;
    std::string payload;
    LmCurlUpload::retry(mSleeper, "Retry policy exhausted in Get Block List", [&] {
        try {
            LmCurlResponse const response =
                send("GET", mUrl + "?comp=blocklist&blocklisttype=committed", {}, {});
            if (!checkResponse(response))
                return false;
            etag = response.getSingleHeader("etag").value_or(std::string());
            payload = response.getPayload();
            return true;
        } catch (CurlError const& e) {
            log().warnf("Received curl error in Get Block List. File: %s. Error: %s", mUrl.c_str(), e.what());
            return false;
        }
    });
    if (etag.empty())
        throw UnrecoverableResponseError("No ETag header returned by Get Block List");
    if (etag != mEtag)
        return false;
    return parseBlockList(out, payload);
}

bool LmCurlUploadSessionAzure::parseBlockList(std::vector<QByteArray>& out, std::string const& payload)
{
    QXmlStreamReader reader(QByteArray::fromStdString(payload));
    bool seen = false;
    bool inside = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && reader.name() == QLatin1String("CommittedBlocks")) {
            seen = true;
            inside = true;
        } else if (reader.isEndElement() && reader.name() == QLatin1String("CommittedBlocks")) {
            inside = false;
        } else if (inside && reader.isStartElement() && reader.name() == QLatin1String("Name")) {
            out.push_back(reader.readElementText().toLatin1());
        }
    }
    if (reader.hasError()) {
        log().warnf("Cannot parse Get Block List payload (%s): %s", payload.c_str(),
                    reader.errorString().toLocal8Bit().constData());
        return false;
    }
    if (!seen) {
        log().warnf("Unexpected Get Block List payload: %s", payload.c_str());
        return false;
    }
    return true;
}

void LmCurlUploadSessionAzure::deleteBlob()
{
    std::vector<std::string> const headers{"If-Match: " + mEtag};
    LmCurlUpload::retry(mSleeper, "Retry policy exhausted in Delete Blob", [&] {
        try {
            if (!checkResponse(send("DELETE", mUrl, headers, {})))
                return false;
            mEtag.clear();
            return true;
        } catch (CurlError const& e) {
            log().warnf("Received curl error in Delete Blob. File: %s. Error: %s", mUrl.c_str(), e.what());
            return false;
        }
    });
}

// Note that the empty Put Blob of a multi-chunk upload has already replaced
// an earlier blob of the same name, and every commit changes the ETag: while
// the ETag is still ours the committed list is normally that empty blob's, so
// the usual outcome is the delete. The restore covers a service that kept
// committed blocks under the same ETag.
void LmCurlUploadSessionAzure::deleteOrRestore()
{
    try {
        std::vector<QByteArray> list;
        if (!getBlockList(list)) {
            // Changed by somebody else, or unreadable: left alone, and no
            // longer this session's to guard.
            mEtag.clear();
            return;
        }
        if (list.empty()) {
            deleteBlob();
            return;
        }
        // These blocks are committed already, and the service refuses a
        // committed block named as uncommitted (InvalidBlockList): they go
        // back as Committed, or the blob could never be restored.
        putBlockList(list, "Committed");
    } catch (std::exception const& e) {
        log().warnf("Failed to delete or restore: %s", e.what());
    }
}
