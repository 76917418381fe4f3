// How item views load the DICOM file behind a tag map: one function over the
// file loader, which reads local files, URLs, file-server paths and
// container members alike.
#pragma once

#include "dcmtk/config/osconfig.h"
#include "dcmtk/ofstd/ofcond.h"

#include <memory>

class DcmDataset;

namespace Mdx {

// Loads the whole object with values above 4096 bytes left in the file
// until they are read; on success dataset holds what was read.
OFCondition loadDicomDataset(char const* path, std::shared_ptr<DcmDataset>& dataset);

} // namespace Mdx
