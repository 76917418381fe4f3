// Encapsulated pixel data whose items a parse left in their stream: a
// parse with a small maximum read length over a stream that can be
// reopened keeps each pixel item as a factory and an offset, and these
// functions load only what a frame needs.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcpixseq.h"

namespace LmDcmPixelItems {

// The factory of the first item still in its stream, or null when every
// item is loaded. Its offset places the item's value in the source.
MDX_EXPORT DcmInputStreamFactory const* sequenceStream(DcmPixelSequence& sequence);

// Loads the items up to the last fragment of frame (counted from 0), the
// offset table included; 0xFFFFFFFF loads them all. numberOfFrames is the
// dataset's Number of Frames (1 if absent).
MDX_EXPORT OFCondition readUntilFrame(DcmPixelSequence& sequence, Uint32 frame, Sint32 numberOfFrames);

} // namespace LmDcmPixelItems
