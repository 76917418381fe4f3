// The identifier of a viewer session on whose behalf objects are opened, so
// that what was kept for a session can be dropped when it ends.
#pragma once

#include <cstdint>

using LmSessionContextID = int32_t;

// No session.
constexpr LmSessionContextID kNoSessionContext = -1;
