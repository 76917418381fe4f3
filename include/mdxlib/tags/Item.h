// Item views: one read interface, in DCMTK's manner, over a DCMTK item just
// read from a file (ItemOF) and over a tag map from a tag file (ItemTM), so
// that code interpreting attributes works on both. Operations report by
// OFCondition, or by a false or empty result, and never throw.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctagkey.h"
#include "dcmtk/dcmdata/dcvr.h"
#include "dcmtk/dcmdata/dcxfer.h"
#include "dcmtk/ofstd/ofcond.h"

#include <memory>
#include <string>

class DcmDataset;

namespace Mdx {

class SequenceOfItems;

// The condition of ItemTM::findAndGetSequenceItem for an index outside the
// sequence: module 1000, code 1, an error.
MDX_EXPORT extern OFConditionConst const EC_IndexOutOfRange;

class MDX_EXPORT Item
{
public:
    virtual std::shared_ptr<DcmDataset> obtainDcmDataset() = 0;
    virtual bool isEncapsulated() = 0;
    virtual E_TransferSyntax transferSyntax() = 0;
    // True when a tag file left the value out; read it from
    // obtainDcmDataset() then.
    virtual bool tagOmitted(DcmTagKey const& key) const = 0;
    virtual bool tagExists(DcmTagKey const& key) = 0;
    virtual bool tagExists(DcmTagKey const& key, DcmEVR& vr) = 0;
    virtual OFCondition findAndGetOFString(DcmTagKey const& key, std::string& value) = 0;
    virtual OFCondition findAndGetOFStringArray(DcmTagKey const& key, std::string& value) = 0;
    virtual OFCondition findAndGetLongInt(DcmTagKey const& key, long& value) = 0;
    virtual OFCondition findAndGetUint16(DcmTagKey const& key, unsigned short& value) = 0;
    virtual OFCondition findAndGetSint16Array(DcmTagKey const& key, short const*& values,
                                              unsigned long* count) = 0;
    virtual OFCondition findAndGetUint16Array(DcmTagKey const& key, unsigned short const*& values,
                                              unsigned long* count) = 0;
    virtual OFCondition findAndGetUint8Array(DcmTagKey const& key, unsigned char const*& values,
                                             unsigned long* count) = 0;
    virtual OFCondition findAndGetFloat32Array(DcmTagKey const& key, float const*& values,
                                               unsigned long* count) = 0;
    // The sequence stays owned by this item; a second call with the same
    // key gives the same object.
    virtual OFCondition findAndGetSequence(DcmTagKey const& key, SequenceOfItems*& sequence) = 0;
    virtual OFCondition findAndGetSequenceItem(DcmTagKey const& key, Item*& item, int index) = 0;
    virtual OFCondition putAndInsertStringArray(DcmTagKey const& key, char const* value) = 0;
    virtual ~Item();
};

} // namespace Mdx
