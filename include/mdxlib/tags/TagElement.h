// One DICOM attribute value held outside DCMTK.
//
// A TagElement is the raw value bytes plus the VR, nothing else: the key is
// held by the TagMap that owns the element. Binary VRs are kept in the byte
// order of the machine, string VRs as DCMTK's getString gives them. Short
// values sit inside the element, long ones are implicitly shared (see
// TagValue.h), so moving values between nodes of a tree copies at most 20
// bytes and a reference count. An element is one 32-byte pooled block.
//
// Nothing here throws or logs: bad input gives neutral results (false, 0,
// null, an invalid QVariant, an empty text).
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/tags/TagValue.h>
#include <mdxlib/tags/VR.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctagkey.h"

#include <QByteArray>
#include <QList>
#include <QVariant>

#include <cstddef>
#include <string>

class DcmElement;

namespace Mdx {

class TagMap;

class MDX_EXPORT TagElement
{
public:
    TagElement() = default;
    virtual ~TagElement();

    TagElement(TagElement const&) = delete;
    TagElement& operator=(TagElement const&) = delete;

    // Elements come from a pool of equal blocks (see ElementPool.h): a
    // tree holds hundreds of thousands of them. Sized delete hands back a
    // derived class's block to the general heap.
    static void* operator new(std::size_t size);
    static void operator delete(void* block, std::size_t size) noexcept;
    // Bytes of the pooled elements now alive, and of the slabs the pool
    // took from the general heap for them: the heap's statistics see the
    // slabs, not which of their blocks are in use.
    static std::size_t pooledBytesInUse();
    static std::size_t pooledBytesReserved();

    // Equal when the bytes match and, with checkVR, the VR too. On a
    // difference and with difference given, it receives a line naming both
    // values.
    virtual bool compare(TagElement const& other, bool checkVR, std::string* difference) const;
    // A new DCMTK element for key that the caller owns, or null for the
    // markers and VRs that have no element class.
    virtual DcmElement* createDcmElement(DcmTagKey const& key) const;
    // Same value and VR, merge counters at 0.
    virtual TagElement* clone() const;

    bool isMissingMarker() const { return mVR == VR_Missing; }
    bool isOmittedMarker() const { return mVR == VR_Omitted; }
    bool isMarker() const { return isMissingMarker() || isOmittedMarker(); }

    // Text form under the element's own VR, or under vr.
    void getValueAsString(QByteArray& out) const;
    void getValueAsString(QByteArray& out, VR vr) const;
    // Text form of an element of unknown VR: the VR is looked up in the data
    // dictionary. True when the VR finally used is not UN.
    bool getValueAsString(QByteArray& out, DcmTagKey const& key, char const* privateCreator) const;

    int valueAsInt(bool* ok, int index) const;
    int numFields() const;
    QVariant valueAsVariant() const;
    // Appends the value read as an array of another type: 0 uint16, 1 int16,
    // 2 float32, 3 float64, 4 int32.
    void getValueAsStringFromOBOW(QByteArray& out, int mode) const;

    // Replaces the bytes, keeps the VR.
    void putValue(QByteArray const& value);
    // Stores the smallest unsigned form: OB below 256, US up to 65535, SL
    // otherwise (and for every negative value).
    void putValue(int value);
    // Parses a (multi-valued) text into the binary form of the element's VR.
    bool putValueAsString(QByteArray const& text);

    TagValue mValue;
    VR mVR = VR_UN;
};

// One field of a multi-valued text as a QVariant: DA to QDate, DT to
// QDateTime, TM to QTime, DS to double, IS to int, anything else to QString.
MDX_EXPORT QVariant fieldToVariant(VR vr, QByteArray const& field);

} // namespace Mdx
