// The SOP Instance UID of every slice of a volume, as a volume file keeps
// them in its "SOPInstanceUIDs" bundle.
//
// The bundle holds one text parameter per image, in slice order:
//   "<uid>"                  one single-frame image, one slice;
//   "<uid>\<first>\<count>"  count slices from frames first, first + 1, ...
//                            of a multi-frame image (frames counted from 0).
// Expanded, a multi-frame slice reads "<uid>.<frame>".
#pragma once

#include <mdxlib/Export.h>

#include <string>
#include <vector>

class HxParamBundle;

class MDX_EXPORT McSOPInstanceUtility
{
public:
    // One entry per slice. A null bundle gives an empty list; so does a
    // malformed entry, since a list with a gap would attach frames to the
    // wrong slices.
    static void sopUIDList(HxParamBundle const* bundle, std::vector<std::string>& uids);
    // The bundle entry of count frames of one image from first; count 0 is
    // the single-frame form.
    static std::string entry(std::string const& uid, int first = 0, int count = 0);
};
