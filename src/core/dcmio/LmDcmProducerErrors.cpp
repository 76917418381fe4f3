#include "LmDcmProducerErrors.h"

namespace LmDcmProducerErrors {

OFCondition make(char const* text)
{
    // Module of the data layer, code 10; the condition frees its own copy.
    return makeOFCondition(OFM_dcmdata, 10, OF_error, text);
}

OFCondition noFile()
{
    return make("No file pointer");
}

OFCondition ioError()
{
    return make("Read/write error on IO operation");
}

OFCondition endOfFile()
{
    return make("End-of-file reached on input operation");
}

OFCondition logicalError()
{
    return make("Logical error on IO operation");
}

} // namespace LmDcmProducerErrors
