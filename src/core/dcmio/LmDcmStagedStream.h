// A stream over another that hands out only the bytes granted so far, so
// that a parse comes back to its caller between grants (the parser then
// answers EC_StreamNotifyClient and keeps its state). The loader uses it to
// show a read callback each element as the parse reaches it.
#pragma once

#include <mdxlib/dcmio/LmDcmPutbackTail.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcistrma.h"

#include <cstdint>

class LmDcmStagedProducer : public DcmProducer
{
public:
    explicit LmDcmStagedProducer(DcmInputStream& inner);

    OFBool good() const override;
    OFCondition status() const override;
    OFBool eos() override;
    offile_off_t avail() override;
    offile_off_t read(void* buf, offile_off_t buflen) override;
    offile_off_t skip(offile_off_t skiplen) override;
    void putback(offile_off_t num) override;

    void grant(int64_t bytes) { mGranted = mDelivered + bytes; }
    int64_t delivered() const { return mDelivered; }
    // The bytes a parse needs before it may first come back: the preamble,
    // the magic word and the whole meta header, which the parser cannot
    // leave halfway. Read ahead and put back.
    int64_t headerBytes();

private:
    DcmInputStream& mInner;
    LmDcmPutbackTail mTail{1024};
    int64_t mGranted = 0;
    int64_t mDelivered = 0;
    bool mPutbackFailed = false;
};

class LmDcmStagedStream : public DcmInputStream
{
public:
    explicit LmDcmStagedStream(DcmInputStream& inner);

    // Null: values are read whole, never left in the stream.
    DcmInputStreamFactory* newFactory() const override { return nullptr; }
    LmDcmStagedProducer& producer() { return mProducer; }

private:
    LmDcmStagedProducer mProducer;
};
