// The XML readers of the upload sessions: Azure's Get Block List answer and
// the S3 answers read for their document element and one child (create and
// complete of a multipart upload). The first byte picks the reader. Any
// bytes must end in a refusal or in an answer that keeps its promises: a
// block list read as valid holds names from the input, a document read as
// well-formed has a document element.
#include <mdxlib/curl/LmCurlUploadSessionAzure.h>

#include "core/curl/LmCurlUploadSupport.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    if (size == 0)
        return 0;
    std::string const payload(reinterpret_cast<char const*>(data) + 1, size - 1);
    if (data[0] & 1) {
        std::vector<QByteArray> names;
        bool const ok = LmCurlUploadSessionAzure::parseBlockList(names, payload);
        if (!ok && !names.empty() && payload.find("CommittedBlocks") == std::string::npos)
            std::abort(); // names without a list to hold them
        for (QByteArray const& name : names)
            if (static_cast<size_t>(name.size()) > payload.size())
                std::abort();
    } else {
        QString root;
        QString child;
        if (LmCurlUpload::readXmlRoot(payload, "UploadId", root, child) && root.isEmpty())
            std::abort();
    }
    return 0;
}
