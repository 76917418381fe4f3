#include <mdxlib/dcmio/LmDcmPixelItems.h>

#include "dcmtk/dcmdata/dccodec.h"
#include "dcmtk/dcmdata/dcpxitem.h"

namespace LmDcmPixelItems {

DcmInputStreamFactory const* sequenceStream(DcmPixelSequence& sequence)
{
    unsigned long const count = sequence.card();
    for (unsigned long i = 0; i < count; ++i) {
        DcmPixelItem* item = nullptr;
        if (sequence.getItem(item, i).good() && item && !item->valueLoaded())
            return item->getInputStream();
    }
    return nullptr;
}

OFCondition readUntilFrame(DcmPixelSequence& sequence, Uint32 frame, Sint32 numberOfFrames)
{
    unsigned long end = sequence.card();
    if (frame != 0xFFFFFFFF && numberOfFrames > 0 && frame + 1 < Uint32(numberOfFrames)) {
        // The first fragment of the next frame ends the items this frame needs;
        // the offset table (item 0) is loaded by the look-up when needed.
        Uint32 next = 0;
        if (DcmCodec::determineStartFragment(frame + 1, numberOfFrames, &sequence, next).good())
            end = next;
    }
    for (unsigned long i = 0; i < end; ++i) {
        DcmPixelItem* item = nullptr;
        OFCondition cond = sequence.getItem(item, i);
        if (cond.bad())
            return cond;
        if (!item->valueLoaded()) {
            cond = item->loadAllDataIntoMemory();
            if (cond.bad())
                return cond;
        }
    }
    return EC_Normal;
}

} // namespace LmDcmPixelItems
