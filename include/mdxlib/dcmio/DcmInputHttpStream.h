// DICOM parsing from a file server over HTTP.
//
// DcmHttpProducer owns a McHttpGet and buffers its body in one block of
// 8 KB plus a 256-byte tail for putback. Streams of this kind can always be
// suspended.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/dcmio/McHttpGet.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcistrma.h"

#include <cstdint>
#include <memory>

class MDX_EXPORT DcmHttpProducer : public DcmProducer
{
public:
    static constexpr int64_t kBlock = 8192;
    static constexpr int64_t kTail = 256;

    DcmHttpProducer();
    DcmHttpProducer(DcmHttpProducer&& other) noexcept;

    OFBool good() const override;
    OFCondition status() const override;
    OFBool eos() override;
    offile_off_t avail() override;
    offile_off_t read(void* buf, offile_off_t buflen) override;
    offile_off_t skip(offile_off_t skiplen) override;
    void putback(offile_off_t num) override;

    McHttpGet& get() { return mGet; }
    // Allocates the buffer on first use and sends the GET.
    bool request(char const* url);

private:
    McHttpGet mGet;
    std::unique_ptr<char[]> mBuffer;
    int64_t mIndex = 0;
    int64_t mFill = 0;
};

class MDX_EXPORT DcmInputHttpStream : public DcmInputStream
{
public:
    DcmInputHttpStream();
    DcmInputHttpStream(DcmInputHttpStream&& other) noexcept;

    DcmInputStreamFactory* newFactory() const override;
    offile_off_t tell() const override;
    DcmInputStream* suspend();

    void setBearerToken(char const* token) { mProducer.get().setBearerToken(token); }
    bool request(char const* url) { return mProducer.request(url); }
    // Milliseconds since the request was sent.
    int64_t elapsedNetworkTime() { return mProducer.get().watch().elapsedMsec(); }
    DcmHttpProducer& producer() { return mProducer; }

private:
    DcmHttpProducer mProducer;
    int64_t mBase = 0;
};
