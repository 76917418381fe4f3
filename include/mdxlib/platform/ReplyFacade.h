// What a catalog query delivers: the study entries it found, in order.
#pragma once

#include <mdxlib/platform/DicomDirectoryEntry.h>

#include <memory>
#include <vector>

namespace Lmg {

class ReplyFacade
{
public:
    std::vector<std::shared_ptr<DicomDirectoryEntry>> entries;
};

} // namespace Lmg
