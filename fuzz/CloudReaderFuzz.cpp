#include "CloudReaderFuzz.h"

#include <mdxlib/cloudreader/Config.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McMultiPartReader.h>

#include <QBuffer>
#include <QByteArray>

#include <algorithm>
#include <cstdlib>

namespace MdxFuzz {

int cloudReaderConfig(std::uint8_t const* data, std::size_t size)
{
    getTheLogInstance()->setLogLevel(McLogFile::LevelError + 1);
    QByteArray bytes(reinterpret_cast<char const*>(data), static_cast<int>(size));
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    Kz::Config config{Kz::Config::DefaultsOnly{}};
    config.readConfig(buffer, "fuzz.xml");
    config.checkAndAdjustConfig();
    if (config.memoryPageSize == 0 || config.chunkSize <= 0 ||
        config.chunkSize % config.memoryPageSize != 0 || config.numRequestsPerFile <= 0 ||
        config.maxRequestsTotal <= 0 || config.connectionMaxAgeSec < 0 ||
        config.memoryAPI == Kz::Config::MEMORY_API_UNSET)
        std::abort();
    return 0;
}

int multipart(std::uint8_t const* data, std::size_t size)
{
    std::size_t position = 0;
    std::size_t step = 1;
    McMultiPartReader reader([&](char* buffer, long long want) -> long long {
        // Pieces of 1, 2, 3... bytes: every split of a delimiter occurs.
        std::size_t const n = std::min({static_cast<std::size_t>(want), size - position, step++ % 17 + 1});
        std::copy(data + position, data + position + n, buffer);
        position += n;
        return static_cast<long long>(n);
    });
    char out[97];
    std::size_t given = 0;
    for (std::size_t reads = 0;; ++reads) {
        long long const n = reader.read(out, sizeof out);
        if (n <= 0)
            break;
        given += static_cast<std::size_t>(n);
        if (given > size || reads > 2 * size + 16)
            std::abort();
    }
    return 0;
}

} // namespace MdxFuzz
