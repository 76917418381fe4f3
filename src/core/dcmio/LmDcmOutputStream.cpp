#include <mdxlib/dcmio/LmDcmOutputStream.h>

#include "dcmtk/dcmdata/dcerror.h"

OFBool LmDcmStreamConsumer::good() const
{
    return mStream.rdstate() == std::ios::goodbit;
}

OFCondition LmDcmStreamConsumer::status() const
{
    return good() ? EC_Normal : EC_InvalidStream;
}

OFBool LmDcmStreamConsumer::isFlushed() const
{
    return OFTrue;
}

offile_off_t LmDcmStreamConsumer::avail() const
{
    return 0x7FFFFFFF;
}

offile_off_t LmDcmStreamConsumer::write(void const* buf, offile_off_t buflen)
{
    if (!buf || buflen <= 0 || !good())
        return 0;
    mStream.write(static_cast<char const*>(buf), buflen);
    return good() ? buflen : 0;
}

void LmDcmStreamConsumer::flush()
{
    mStream.flush();
}

// The base only stores the pointer, so the member may be built after it.
LmDcmOutputStream::LmDcmOutputStream(std::ostream& stream)
    : DcmOutputStream(&mConsumer)
    , mConsumer(stream)
{
}
