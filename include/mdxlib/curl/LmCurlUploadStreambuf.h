// The buffer of an upload stream: collects what is written in one 8 MiB put
// area and hands it to the session in chunks of exactly 8 MiB, the last one
// excepted. A partial buffer never goes out before the close, so that every
// chunk but the last is a multiple of 256 KiB, as resumable protocols want,
// and an object that fits the buffer goes up as one plain upload.
//
// The destructor finishes an upload that was neither closed nor cancelled:
// a writer that unwinds on an exception commits what it wrote so far, unless
// it cancels first or stated the expected size, which the session checks.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/curl/LmCurlUploadSessionBase.h>

#include <QByteArray>

#include <memory>
#include <streambuf>

class MDX_EXPORT LmCurlUploadStreambuf : public std::streambuf
{
public:
    static constexpr int kBufferSize = 8388608;
    static constexpr int kChunkGranularity = 262144;

    explicit LmCurlUploadStreambuf(std::unique_ptr<LmCurlUploadSessionBase> session);
    ~LmCurlUploadStreambuf() override;

    LmCurlUploadStreambuf(LmCurlUploadStreambuf const&) = delete;
    LmCurlUploadStreambuf& operator=(LmCurlUploadStreambuf const&) = delete;

    virtual bool isOpen() const;
    virtual void cancel();
    virtual void setExpectedHashAndSize(char const* hash, long long size);

    // Sends what is buffered as the final chunk; true when the object is
    // complete.
    bool close();
    // Sends the full part of the buffer; false after an upload error.
    bool flush();
    bool finalFlush();
    bool bufferIsFull() const;

    LmCurlUploadSessionBase* session() const { return mSession.get(); }

protected:
    int sync() override;
    std::streamsize xsputn(char const* s, std::streamsize n) override;
    int_type overflow(int_type c) override;

private:
    QByteArray mBuffer;
    std::unique_ptr<LmCurlUploadSessionBase> mSession;
    bool mGood = true;
    bool mOpen = true;
};
