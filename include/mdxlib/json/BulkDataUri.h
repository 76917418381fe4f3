// Where a value that the tag file does not keep can be fetched: the object
// it lies in and the attribute's place in the object's dataset.
//
// Form of the text (what "BulkDataURI" holds in DICOM JSON):
//
//   <object> "#bulk=" <tag> ( "/" <item> "/" <tag> )*
//
// <tag> is eight upper-case hex digits (group, element), <item> a decimal
// item index counted from 0, so "#bulk=00540016/0/00181072" is (0018,1072)
// in the first item of (0054,0016). <object> is the image's stored location:
//   - a URL (anything with "://") as the tag file stores it, bytes that no
//     URL holds as they are (controls, space, above 0x7E) percent-encoded;
//   - a local absolute path as a file URI ("file:///data/a%20b.dcm");
//   - a relative path, percent-encoded;
//   - without a stored path, the image's instance as a relative DICOMweb
//     reference "studies/<study>/series/<series>/instances/<sop>".
// The fragment is never sent to a server, and it is parsed from the last
// "#bulk=", so a stream function can split any such text without knowing
// where the object lies.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctagkey.h"

#include <QByteArray>

#include <optional>
#include <vector>

namespace Mdx {

struct MDX_EXPORT BulkDataUri
{
    // One step of the path: the attribute, and for all but the last step
    // the index of the item that the next step lies in.
    struct Step
    {
        DcmTagKey tag;
        int item = -1;
    };

    // The stored path or URL of the object (0006,7100); empty when the tag
    // file holds none, and the UIDs name the instance instead.
    QByteArray object;
    QByteArray studyUID, seriesUID, sopInstanceUID;
    std::vector<Step> path;

    QByteArray toUri() const;
    // The parts of a text made by toUri; nothing when it has another form.
    static std::optional<BulkDataUri> parse(QByteArray const& uri);
};

} // namespace Mdx
