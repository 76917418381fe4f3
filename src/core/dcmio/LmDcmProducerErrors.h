// The conditions the producers report, made with a text the condition owns.
#pragma once

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcerror.h"
#include "dcmtk/ofstd/ofcond.h"

namespace LmDcmProducerErrors {

OFCondition make(char const* text);
OFCondition noFile();
OFCondition ioError();
OFCondition endOfFile();
OFCondition logicalError();

// Reads through an 8 KB scratch buffer, since the sources cannot seek:
// n bytes, or the first read's result below 1 (0 or negative).
template <typename Read> long long skipByReading(long long n, Read read)
{
    if (n <= 0)
        return n;
    constexpr long long kScratch = 8192;
    char scratch[kScratch];
    long long remaining = n;
    while (remaining > 0) {
        long long const got = read(scratch, remaining < kScratch ? remaining : kScratch);
        if (got < 1)
            return got;
        remaining -= got;
    }
    return n;
}

} // namespace LmDcmProducerErrors
