// A blocking HTTP GET with a bearer token and a body the caller pulls.
//
// request() sends the GET and waits for the answer's head; read() blocks
// until the bytes asked for came or the body ended. A body that ends before
// its announced length, or a transfer that broke off, turns the request
// into the failed state with a text saying so: a short body is never taken
// for a whole one.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/curl/LmCurlDownload.h>
#include <mdxlib/platform/McWatch.h>

#include <memory>
#include <string>

class MDX_EXPORT McHttpGet
{
public:
    enum State
    {
        STATE_IDLE = 0,
        STATE_FAILED = 1,
        STATE_RESPONSE_PENDING = 2, // sent; the head is still to be looked at
        STATE_READING = 3,
        STATE_DONE = 4 // the whole body was read
    };

    McHttpGet();
    ~McHttpGet();
    McHttpGet(McHttpGet&&) noexcept;
    McHttpGet& operator=(McHttpGet&&) noexcept;

    void setBearerToken(char const* token);
    // Sends the GET; false when no answer came.
    bool request(char const* url);
    // Looks at the answer's head: false (and failed) for a status of 300 and up.
    bool readResponse();
    // Bytes read into buffer, at most size: 0 at the end, -1 once failed.
    long long read(char* buffer, long long size);

    int state() const { return mState; }
    int httpStatus() const { return mHttpStatus; }
    // The body's length, -1 while unknown.
    long long contentLength() const { return mContentLength; }
    long long bytesRead() const { return mBytesRead; }
    char const* errorText() const { return mError.c_str(); }
    void setError(char const* text);
    McWatch& watch() { return mWatch; }

private:
    void fail(std::string text);

    std::string mBearerToken;
    std::unique_ptr<LmCurlDownloadStream> mStream;
    int mState = STATE_IDLE;
    int mHttpStatus = 0;
    long long mContentLength = -1;
    long long mBytesRead = 0;
    std::string mError;
    McWatch mWatch;
};
