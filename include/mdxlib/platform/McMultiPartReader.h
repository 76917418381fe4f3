// The decoder of a "multipart/related" body (a WADO-RS answer): it pulls raw
// bytes from a source function and hands out the bodies of the parts, one
// after the other, without their delimiters and part headers.
//
// The boundary is taken from the first delimiter line of the stream (a line
// that starts with "--"), so the decoder needs no Content-Type header. A body
// that ends before its closing delimiter is a failure, not an end: a read then
// returns -1. Lines (the delimiter line, part headers) are limited in length,
// so that hostile input cannot make the decoder buffer without bound.
#pragma once

#include <mdxlib/Export.h>

#include <functional>
#include <string>
#include <vector>

class MDX_EXPORT McMultiPartReader
{
public:
    // Raw bytes into the buffer: the count, 0 at the end, negative on failure.
    using Source = std::function<long long(char*, long long)>;

    explicit McMultiPartReader(Source source);
    // Reads the rest of the stream, so that the source ends where the body does.
    ~McMultiPartReader();

    McMultiPartReader(McMultiPartReader const&) = delete;
    McMultiPartReader& operator=(McMultiPartReader const&) = delete;

    // Bytes of the parts' bodies: the count, 0 after the closing delimiter,
    // -1 on a failed source or a malformed or cut stream.
    long long read(char* buffer, long long size);
    // Reads and drops everything up to the end of the stream.
    void skipToEnd();

    // Parts whose bodies have begun so far.
    int parts() const { return mParts; }

private:
    enum class State
    {
        Preamble, // looking for the first delimiter line
        Headers,  // a part's header lines, up to the empty line
        Body,     // a part's body, up to "\r\n--boundary"
        AfterDelimiter,
        End,
        Failed
    };

    // More raw bytes at the end of the buffer; false at the end or on failure.
    bool fill();
    // The next line, CR LF excluded, if a whole one is buffered.
    bool takeLine(std::string& line);
    void fail();

    Source mSource;
    State mState = State::Preamble;
    std::vector<char> mBuffer;
    size_t mBegin = 0; // unread bytes are [mBegin, mEnd)
    size_t mEnd = 0;
    bool mSourceEnded = false;
    std::string mDelimiter; // "\r\n--" + boundary
    int mParts = 0;
};
