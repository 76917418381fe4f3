// The images of one series as the catalog lists them: SOP Instance UID and
// file path, in the catalog's order (by path).
#pragma once

#include <string>
#include <vector>

namespace Lmg {

struct SeriesImageRecord
{
    std::string sopInstanceUID;
    std::string filePath;
    std::string suffix;
};

class SeriesInfo
{
public:
    std::vector<SeriesImageRecord> images;
};

} // namespace Lmg
