#include <mdxlib/platform/Lzma.h>

#include <lzma.h>

#include <algorithm>
#include <string>

namespace {

constexpr uint32_t kPreset = 6;
constexpr size_t kChunk = 1 << 20;

std::string lzmaError(char const* what, lzma_ret code)
{
    return std::string(what) + " failed (lzma code " + std::to_string(static_cast<int>(code)) + ")";
}

} // namespace

McResult lzmaCompress(McDArray<unsigned char>& out, unsigned char const* data, long long size)
{
    out.clear();
    if (size < 0 || (size > 0 && !data))
        return McResult::failure("lzmaCompress: no data");
    out.resize(lzma_stream_buffer_bound(static_cast<size_t>(size)));
    size_t written = 0;
    lzma_ret const ret = lzma_easy_buffer_encode(kPreset, LZMA_CHECK_CRC64, nullptr, data,
                                                 static_cast<size_t>(size), out.data(), &written, out.size());
    if (ret != LZMA_OK) {
        out.clear();
        return McResult::failure(lzmaError("lzmaCompress", ret));
    }
    out.resize(written);
    return McResult::success();
}

McResult lzmaUncompress(McDArray<unsigned char>& out, unsigned char const* data, long long size,
                        long long maxOutput)
{
    maxOutput = std::min(maxOutput, maxLzmaOutput);
    out.clear();
    if (size <= 0 || !data)
        return McResult::failure("lzmaUncompress: no data");
    lzma_stream stream = LZMA_STREAM_INIT;
    lzma_ret ret = lzma_stream_decoder(&stream, UINT64_MAX, 0);
    if (ret != LZMA_OK)
        return McResult::failure(lzmaError("lzmaUncompress", ret));
    stream.next_in = data;
    stream.avail_in = static_cast<size_t>(size);
    // The unpacked size is not known in advance: grow in chunks, up to the
    // limit that a tag file payload can have.
    do {
        size_t const used = out.size() - stream.avail_out;
        if (stream.avail_out == 0) {
            if (out.size() >= static_cast<size_t>(maxOutput)) {
                ret = LZMA_MEMLIMIT_ERROR;
                break;
            }
            out.resize(std::min(out.size() + kChunk, static_cast<size_t>(maxOutput)));
            stream.next_out = out.data() + used;
            stream.avail_out = out.size() - used;
        }
        ret = lzma_code(&stream, LZMA_FINISH);
    } while (ret == LZMA_OK);
    size_t const produced = out.size() - stream.avail_out;
    lzma_end(&stream);
    if (ret != LZMA_STREAM_END) {
        out.clear();
        return McResult::failure(lzmaError("lzmaUncompress", ret));
    }
    out.resize(produced);
    return McResult::success();
}
