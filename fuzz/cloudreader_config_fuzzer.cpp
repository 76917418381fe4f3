// libFuzzer target: cloud-reader.xml texts (see CloudReaderFuzz.h).
#include "CloudReaderFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    return MdxFuzz::cloudReaderConfig(data, size);
}
