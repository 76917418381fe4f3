// DICOM parsing from a file of the cloud reader.
//
// DcmCloudProducer hands DCMTK the bytes of a Kz::File and keeps the last
// bytes it delivered for putback; DcmInputCloudStream embeds it. The source
// cannot seek, so skip reads and drops. A stream built with suspension
// allowed gives itself up to suspend(): the new stream takes over the file
// and goes on where this one stopped.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcistrma.h"

#include <cstdint>
#include <memory>

#include <mdxlib/dcmio/LmDcmPutbackTail.h>

namespace Kz {
class File;
}

class MDX_EXPORT DcmCloudProducer : public DcmProducer
{
public:
    explicit DcmCloudProducer(std::shared_ptr<Kz::File> file);
    DcmCloudProducer(DcmCloudProducer&& other) noexcept;

    OFBool good() const override;
    OFCondition status() const override;
    OFBool eos() override;
    offile_off_t avail() override;
    offile_off_t read(void* buf, offile_off_t buflen) override;
    offile_off_t skip(offile_off_t skiplen) override;
    void putback(offile_off_t num) override;

    std::shared_ptr<Kz::File> const& file() const { return mFile; }
    // Bytes delivered so far, less those put back.
    int64_t position() const { return mPosition; }
    bool endOfFileSeen() const { return mEndOfFile; }

private:
    std::shared_ptr<Kz::File> mFile;
    LmDcmPutbackTail mTail;
    int64_t mPosition = 0;
    bool mEndOfFile = false;
    bool mPutbackFailed = false;
};

class MDX_EXPORT DcmInputCloudStream : public DcmInputStream
{
public:
    DcmInputCloudStream(std::shared_ptr<Kz::File> const& file, bool allowSuspend);
    // Takes over file, tail and count; end of file cleared, suspension allowed.
    DcmInputCloudStream(DcmInputCloudStream&& other) noexcept;

    // Null: the file cannot be reopened where a value was left unread.
    DcmInputStreamFactory* newFactory() const override;
    // Counts from the start of the file, across suspensions.
    offile_off_t tell() const override;
    // A new stream (owned by the caller) that goes on from here, or null
    // when suspension was not allowed; this stream stays usable then.
    DcmInputStream* suspend();
    // The file's length, -1 with no file.
    long long length() const;
    DcmCloudProducer& producer() { return mProducer; }

private:
    DcmCloudProducer mProducer;
    bool mAllowSuspend;
    int64_t mBase = 0;
};
