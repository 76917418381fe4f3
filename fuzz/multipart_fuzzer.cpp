// libFuzzer target: multipart/related streams (see CloudReaderFuzz.h).
#include "CloudReaderFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    return MdxFuzz::multipart(data, size);
}
