#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/dcmio/McHttpGet.h>

McHttpGet::McHttpGet() = default;
McHttpGet::~McHttpGet() = default;
McHttpGet::McHttpGet(McHttpGet&&) noexcept = default;
McHttpGet& McHttpGet::operator=(McHttpGet&&) noexcept = default;

void McHttpGet::setBearerToken(char const* token)
{
    mBearerToken = token ? token : "";
}

bool McHttpGet::request(char const* url)
{
    mWatch.start();
    mBytesRead = 0;
    mContentLength = -1;
    mHttpStatus = 0;
    mError.clear();
    std::vector<std::string> headers;
    // The client already sends the file server's token for its URLs; a
    // second Authorization line makes servers refuse the request.
    std::string const target = url ? url : "";
    LmCurlHelper const& helper = *LmCurlClient::instance()->helper();
    bool const sentByClient = helper.sessionID().empty() && helper.getFFS2BearerToken(target) == mBearerToken;
    if (!mBearerToken.empty() && !sentByClient)
        headers.push_back("Authorization: Bearer " + mBearerToken);
    mStream = std::make_unique<LmCurlDownloadStream>(LmCurlClient::instance()->read(target, headers, false));
    LmHttpStatus const& status = mStream->httpStatus();
    mHttpStatus = status.responseCode;
    if (status.curlError || mHttpStatus == 0) {
        fail("no answer");
        return false;
    }
    mState = STATE_RESPONSE_PENDING;
    return true;
}

bool McHttpGet::readResponse()
{
    if (mState != STATE_RESPONSE_PENDING)
        return mState == STATE_READING || mState == STATE_DONE;
    if (mHttpStatus >= 300) {
        fail("HTTP status " + std::to_string(mHttpStatus));
        return false;
    }
    int64_t const length = mStream->contentLength();
    mContentLength =
        length > 0 ? length
                   : (mStream->httpStatus().contentLength() > 0 ? mStream->httpStatus().contentLength() : -1);
    mState = STATE_READING;
    return true;
}

long long McHttpGet::read(char* buffer, long long size)
{
    if (mState == STATE_RESPONSE_PENDING && !readResponse())
        return -1;
    if (mState == STATE_FAILED)
        return -1;
    if (mState != STATE_READING || size <= 0)
        return 0;
    mStream->read(buffer, size);
    long long const got = mStream->gcount();
    mBytesRead += got;
    if (got < size) {
        // The body ended: a whole one only if the transfer says so.
        LmHttpStatus const& status = mStream->httpStatus();
        if (status.curlError)
            fail("transfer broken off");
        else if (mContentLength > 0 && mBytesRead < mContentLength)
            fail("body shorter than its length");
        else
            mState = STATE_DONE;
    }
    return got;
}

void McHttpGet::setError(char const* text)
{
    fail(text ? text : "");
}

void McHttpGet::fail(std::string text)
{
    mError = std::move(text);
    mState = STATE_FAILED;
}
