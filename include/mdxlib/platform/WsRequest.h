// Who asks the catalog, and for which study.
#pragma once

#include <string>

namespace Lmg {

class WsRequest
{
public:
    std::string requester;
    std::string studyUID;
};

} // namespace Lmg
