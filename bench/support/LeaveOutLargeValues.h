// DCMTK's compact JSON in which values above a size limit are left out as a
// BulkDataURI, as a metadata answer refers to them (without this, DCMTK
// would load the pixel data left on disk and write it inline). The anchor
// of the benchmarks that set the tag file against DICOM JSON.
#pragma once

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcjson.h"
#include "dcmtk/dcmdata/dctk.h"

#include <cstdio>
#include <set>

namespace mdxbench {

class LeaveOutLargeValues : public DcmJsonFormatCompact
{
public:
    LeaveOutLargeValues()
        : DcmJsonFormatCompact(OFFalse)
    {
    }

    void collect(DcmDataset* dataset, Uint32 limit)
    {
        mLarge.clear();
        DcmStack stack;
        while (dataset->nextObject(stack, OFTrue).good()) {
            DcmObject* object = stack.top();
            if (object->isLeaf() && object->getLength() > limit)
                mLarge.insert(object->getTag());
        }
    }

    OFBool asBulkDataURI(DcmTagKey const& tag, OFString& uri) override
    {
        if (mLarge.count(tag) == 0)
            return OFFalse;
        char text[16];
        std::snprintf(text, sizeof text, "bulk/%04X%04X", tag.getGroup(), tag.getElement());
        uri = text;
        return OFTrue;
    }

private:
    std::set<DcmTagKey> mLarge;
};

} // namespace mdxbench
