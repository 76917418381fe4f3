// DCMTK's writers onto a std::ostream: LmDcmStreamConsumer is the consumer,
// LmDcmOutputStream the output stream that embeds one. For clients that
// write datasets to streams of their own.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcostrma.h"

#include <ostream>

class MDX_EXPORT LmDcmStreamConsumer : public DcmConsumer
{
public:
    explicit LmDcmStreamConsumer(std::ostream& stream)
        : mStream(stream)
    {
    }

    OFBool good() const override;
    OFCondition status() const override;
    OFBool isFlushed() const override;
    offile_off_t avail() const override;
    offile_off_t write(void const* buf, offile_off_t buflen) override;
    void flush() override;

private:
    std::ostream& mStream;
};

class MDX_EXPORT LmDcmOutputStream : public DcmOutputStream
{
public:
    explicit LmDcmOutputStream(std::ostream& stream);

private:
    LmDcmStreamConsumer mConsumer;
};
