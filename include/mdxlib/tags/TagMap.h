// One node of DICOM attributes in a tree that stores differences only.
//
// A study's metadata is a tree: the study node, one node per series below it,
// one node per image below each series. The same class holds each item of a
// sequence. Because thousands of images share nearly all attributes, a node
// stores only what differs from its ancestors and every read goes through
// inheritance. An attribute that an ancestor holds but a node must not show
// is hidden by a missing marker (VR_na).
//
// The tree is built by merging each new image under its series
// (addChildMap), which strips from the image what it inherits, and is then
// reorganised key by key by a size calculation (optimize) that moves values
// to the level where they cost the fewest stored bytes.
//
// Ownership: a node that is not a sequence item owns its children and
// unlinks itself from its parent when deleted. Items are owned by their
// TagSequence; when a sequence is merged with the same sequence above it,
// its items are linked to the upper items for inheritance only.
//
// Operations report by false or null and do not log. A tree belongs to one
// thread at a time.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/tags/ElementMap.h>
#include <mdxlib/tags/TagElement.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/tags/TransferSyntax.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctagkey.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>

#include <ostream>
#include <string>

class DcmItem;
class LmMsg;
class QString;
class QTextStream;
class DcmSequenceOfItems;
class DcmElement;
class DcmTag;

namespace Mdx {

class Volume;

// Reserved attributes of group 0006: the system's own, never in DICOM files.
namespace Tags {
inline const DcmTagKey DicomFilePath(0x0006, 0x7100);
inline const DcmTagKey FileSuffix(0x0006, 0x7101);
inline const DcmTagKey TransferSyntax(0x0006, 0x7102);
inline const DcmTagKey VolumeIndices(0x0006, 0x7103);
inline const DcmTagKey PreviewData(0x0006, 0x7105);
inline const DcmTagKey PreviewDataIndex(0x0006, 0x7106);
inline const DcmTagKey FromDatabase(0x0006, 0x7107);
inline const DcmTagKey GeneratorMark(0x0006, 0x7108);
inline const DcmTagKey QAVersion(0x0006, 0x710A);
inline const DcmTagKey AbstractSeriesNumber(0x0006, 0x7120);
inline const DcmTagKey AbstractLocalizer(0x0006, 0x7121);
} // namespace Tags

class MDX_EXPORT TagMap
{
public:
    enum Level
    {
        LevelItem = 0,
        LevelImage = 1,
        LevelSeries = 2,
        LevelStudy = 3
    };

    using ElementMap = Mdx::ElementMap;

    // Walks a node together with its parent and grandparent in key order.
    // The nearest level wins a tie, and a missing marker at any level hides
    // the key; omitted markers are delivered.
    class MDX_EXPORT iterator
    {
    public:
        iterator() = default;

        iterator& operator++();
        bool operator==(iterator const& other) const;
        bool operator!=(iterator const& other) const { return !(*this == other); }

        bool atEnd() const { return mPos[mLevel] == mEnd[mLevel]; }
        DcmTagKey key() const;
        // The key packed as ElementMap::packed does, cheaper to compare.
        std::uint32_t tag() const { return mPos[mLevel].tag(); }
        TagElement* element() const;

    private:
        friend class TagMap;
        static constexpr int NumLevels = 3;

        void selectLevel();
        void skipMarkers();
        void step();

        int mLevel = 0;
        ElementMap::const_iterator mPos[NumLevels];
        ElementMap::const_iterator mEnd[NumLevels];
    };

    TagMap();
    ~TagMap();

    TagMap(TagMap const&) = delete;
    TagMap& operator=(TagMap const&) = delete;

    // ---- Construction and tree ----

    // A flat node with all attributes of item. Values longer than maxSize
    // (with a few large-by-nature exceptions) become omitted markers.
    static TagMap* createTagMap(DcmItem* item, unsigned int maxSize);
    TagSequence* setSequence(DcmSequenceOfItems* sequence, unsigned int maxSize);
    // Merges child under this node: afterwards the child holds only what
    // differs from what it inherits. Takes ownership of child.
    void addChildMap(TagMap* child, Level level);
    // What the merges under this node found for key: how many children
    // differed from the node's value, and how many lacked the key. Counted
    // by key beside the elements, not in them, so that an element stays one
    // small block; neither stored nor cloned.
    struct MergeCounts
    {
        int32_t different = 0;
        int32_t missing = 0;
    };
    MergeCounts mergeCounts(DcmTagKey const& key) const;
    // Unlinks child from the children; deletes nothing.
    void removeChildMap(TagMap* child);
    TagElement* removeUID(Level level);
    void insertUID(Level level, TagElement* element);
    // A flat copy: no parent, no children, inherited attributes copied in,
    // missing markers gone.
    TagMap* clone() const;
    void copyFromParent();

    // ---- Reading ----

    TagElement* findElement(DcmTagKey const& key) const;
    TagElement* findElement(DcmTag const& tag) const;
    TagElement* findElementPrivate(DcmTagKey const& key, char const* privateCreator) const;
    char const* privateCreator(DcmTagKey const& key) const;
    bool findAndGetString(DcmTagKey const& key, QByteArray& out) const;
    bool findAndGetString(DcmTagKey const& key, char const* privateCreator, QByteArray& out) const;
    bool findAndGetInt(DcmTagKey const& key, int& out) const;
    iterator begin() const;
    iterator end() const;
    iterator lowerBound(DcmTagKey const& key) const;
    QByteArray findPreviewData(TagMap** imageOut) const;
    bool compare(TagMap const& other, bool compareAll, std::string* difference) const;

    // ---- Writing ----

    void setElement(DcmElement* element);
    bool deleteElement(DcmTagKey const& key);
    bool putAndInsertValue(DcmTagKey const& key, VR vr, QByteArray const& value);
    bool putAndInsertValue(DcmTagKey const& key, char const* privateCreator, VR vr, QByteArray const& value);
    bool putAndInsertString(DcmTagKey const& key, QByteArray const& value);
    bool putAndInsertString(DcmTagKey const& key, char const* privateCreator, QByteArray const& value);
    bool putAndInsertInt(DcmTagKey const& key, int value);
    TagElement* markAsMissing(DcmTagKey const& key);
    TagElement* markAsOmitted(DcmTagKey const& key);

    // ---- Reorganising ----

    void optimize(DcmTagKey const& key);
    void optimizeAll();
    void storeOptionA(DcmTagKey const& key);
    void storeOptionB(DcmTagKey const& key, VR vr, QByteArray value);
    void removeTagsNotNeededByClient();

    // ---- Volumes (series nodes) ----

    // Appends volume, which the node then owns, and sets it up.
    void addBareVolume(Volume* volume);
    // Deletes all volumes and the volume indices (0006,7103) of the children.
    void clearVolumes();

    // ---- Text ----

    // The attribute key inside a path of sequence items such as
    // "ReferencedImageSequence[0].(0008,1155)[2]"; an empty path means the
    // node itself. Null when a step does not exist.
    TagElement* findElement(QString const& path, DcmTagKey const& key) const;
    // What a reader of the node sees, inherited attributes included, in the
    // manner of a DICOM dump. Long values are cut unless fullValues is set.
    void dump(QTextStream& stream, int indent, bool fullValues = false) const;
    // What the node itself stores, markers included.
    void listContent(QTextStream& stream, int indent, bool fullValues = false) const;

    // ---- Wire form ----

    // Reads a body that fills in to its end into this node, then attaches
    // the node to parent (which may be null).
    void deserialize(LmMsg& in, TagMap* parent, QList<QByteArray> const& previews);
    void deserializeVolumes(LmMsg& in, QList<QByteArray> const& previews);
    static int readLength(LmMsg& in);

    // ---- Own data ----

    // The node's own element at key (no inheritance), or null.
    TagElement* ownElement(DcmTagKey const& key) const { return mElements.value(key, nullptr); }
    ElementMap const& elements() const { return mElements; }
    TagMap* parent() const { return mParent; }
    QList<TagMap*> const& children() const { return mChildren; }
    QList<Volume*> const& volumes() const { return mVolumes; }
    bool isItem() const { return mIsItem; }

    static bool isPrivateGroup(Uint16 group);
    static DcmTagKey uidKey(Level level);

    TagMap* mParent = nullptr;
    QList<TagMap*> mChildren;
    QList<Volume*> mVolumes;
    ElementMap mElements;
    QHash<quint32, MergeCounts> mMergeCounts;
    bool mIsItem = false;

private:
    TagElement*& slot(DcmTagKey const& key);
    TagElement* putMarker(DcmTagKey const& key, VR marker);
    QByteArray previewOfLargestVolume(QList<TagMap*> const& nodes, TagMap** imageOut) const;
};

} // namespace Mdx
