// DICOM parsing from a streaming download.
//
// DcmCurlProducer hands DCMTK the body of a LmCurlDownloadStream, which it
// owns, and keeps the last bytes it delivered for putback. A failed transfer
// reads as an early end of data: the status of the download, not the
// producer's, tells a truncated body from a complete one.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/curl/LmCurlDownload.h>
#include <mdxlib/dcmio/LmDcmPutbackTail.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcistrma.h"

#include <cstdint>

class MDX_EXPORT DcmCurlProducer : public DcmProducer
{
public:
    explicit DcmCurlProducer(LmCurlDownloadStream&& stream);
    DcmCurlProducer(DcmCurlProducer&& other) noexcept;

    OFBool good() const override;
    OFCondition status() const override;
    OFBool eos() override;
    offile_off_t avail() override;
    offile_off_t read(void* buf, offile_off_t buflen) override;
    offile_off_t skip(offile_off_t skiplen) override;
    void putback(offile_off_t num) override;

    LmCurlDownloadStream& stream() { return mStream; }
    int64_t position() const { return mPosition; }

private:
    LmCurlDownloadStream mStream;
    LmDcmPutbackTail mTail;
    int64_t mPosition = 0;
    bool mPutbackFailed = false;
};

class MDX_EXPORT DcmInputCurlStream : public DcmInputStream
{
public:
    DcmInputCurlStream(LmCurlDownloadStream&& stream, bool allowSuspend);
    DcmInputCurlStream(DcmInputCurlStream&& other) noexcept;

    // Null: a download cannot be reopened where a value was left unread.
    DcmInputStreamFactory* newFactory() const override;
    offile_off_t tell() const override;
    // A new stream (owned by the caller) that goes on from here, or null
    // when suspension was not allowed.
    DcmInputStream* suspend();
    DcmCurlProducer& producer() { return mProducer; }

private:
    DcmCurlProducer mProducer;
    bool mAllowSuspend;
    int64_t mBase = 0;
};
