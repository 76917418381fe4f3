// The byte form of a parameter bundle inside a volume file's header.
#pragma once

#include <mdxlib/platform/HxParamBundle.h>
#include <mdxlib/platform/LmMsg.h>

namespace volumefile {

void writeBundle(LmMsg& out, HxParamBundle const& bundle);
// False (and the message failed) on bytes that are no bundle.
bool readBundle(LmMsg& in, HxParamBundle& bundle);

} // namespace volumefile
