// Tag map nodes: merging, inheritance, private blocks, the size-driven
// reorganisation, and the way maps are built from DCMTK datasets.
#include <mdxlib/TagMap.h>
#include <mdxlib/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

using namespace Mdx;

namespace {

struct Attr
{
    DcmTagKey key;
    QByteArray value; // "~" stands for a missing marker
    VR vr = VR_LO;
};

TagMap* makeNode(std::initializer_list<Attr> attrs)
{
    auto* node = new TagMap;
    for (Attr const& a : attrs) {
        if (a.value == "~")
            node->markAsMissing(a.key);
        else
            node->putAndInsertValue(a.key, a.vr, a.value);
    }
    return node;
}

TagMap* link(TagMap* parent, TagMap* child)
{
    child->mParent = parent;
    parent->mChildren.append(child);
    return child;
}

// What a node shows at key through inheritance.
QByteArray shown(TagMap const* node, DcmTagKey const& key)
{
    TagElement const* element = node->findElement(key);
    return element ? element->mValue : QByteArray("<none>");
}

// What a node holds itself: "-" nothing, "~" a missing marker, else the value.
QByteArray own(TagMap const* node, DcmTagKey const& key)
{
    TagElement const* element = node->ownElement(key);
    return !element ? "-" : element->isMissingMarker() ? "~" : element->mValue;
}

QList<DcmTagKey> ownKeys(TagMap const* node)
{
    return node->elements().keys();
}

DcmTagKey k(int element)
{
    return DcmTagKey(0x0010, static_cast<Uint16>(element));
}

std::string walk(TagMap::iterator it, TagMap::iterator const& end)
{
    std::string out;
    for (; it != end; ++it) {
        TagElement const* e = it.element();
        out += std::to_string(it.key().getElement()) + "=" +
               (e->isOmittedMarker() ? std::string("omitted") : e->mValue.toStdString()) + " ";
    }
    return out;
}

TagSequence* putSequence(TagMap* node, DcmTagKey const& key, int items)
{
    auto* sequence = new TagSequence;
    for (int i = 0; i < items; ++i) {
        TagMap* item = makeNode({{DCM_ReferencedSOPInstanceUID, QByteArray::number(i), VR_UI}});
        item->mIsItem = true;
        sequence->addItem(item);
    }
    node->mElements.insert(key, sequence);
    return sequence;
}

// Stored bytes of a subtree as optimize prices them.
int storedBytes(TagMap const* node)
{
    int n = 0;
    for (TagElement const* e : node->elements())
        n += e->isMissingMarker() ? 5 : e->mValue.size() + 7;
    for (TagMap const* child : node->children())
        n += storedBytes(child);
    return n;
}

} // namespace

TEST(TagMapTest, FirstImageMovesEverythingUp)
{
    auto study = std::make_unique<TagMap>();
    auto* series = new TagMap;
    TagMap* image = makeNode({{DCM_SOPInstanceUID, "1.1", VR_UI},
                              {DCM_SeriesInstanceUID, "2", VR_UI},
                              {DCM_PatientName, "Doe", VR_PN},
                              {DCM_Modality, "CT", VR_CS}});
    series->addChildMap(image, TagMap::LevelImage);
    EXPECT_EQ(ownKeys(image), QList<DcmTagKey>{DCM_SOPInstanceUID});
    EXPECT_EQ(ownKeys(series), (QList<DcmTagKey>{DCM_Modality, DCM_PatientName, DCM_SeriesInstanceUID}));
    EXPECT_EQ(image->parent(), series);
    EXPECT_EQ(series->children(), QList<TagMap*>{image});

    study->addChildMap(series, TagMap::LevelSeries);
    EXPECT_EQ(ownKeys(series), QList<DcmTagKey>{DCM_SeriesInstanceUID});
    EXPECT_EQ(ownKeys(study.get()), (QList<DcmTagKey>{DCM_Modality, DCM_PatientName}));
    EXPECT_EQ(shown(image, DCM_PatientName), "Doe");
    for (TagMap const* node : {study.get(), series, image})
        for (TagElement const* e : node->elements())
            EXPECT_FALSE(e->isMarker());
}

TEST(TagMapTest, LaterImageKeepsOnlyItsDifferences)
{
    auto study = std::make_unique<TagMap>();
    auto* series = new TagMap;
    TagMap* first = makeNode({{DCM_SOPInstanceUID, "1.1", VR_UI},
                              {DCM_Modality, "CT", VR_CS},
                              {DCM_Manufacturer, "X"},
                              {DCM_PatientName, "Doe", VR_PN},
                              {DCM_PatientID, "P1"},
                              {DCM_SeriesInstanceUID, "2", VR_UI},
                              {DCM_InstanceNumber, "1", VR_IS}});
    series->addChildMap(first, TagMap::LevelImage);
    study->addChildMap(series, TagMap::LevelSeries);
    // Lacks PatientID in the middle and InstanceNumber after its last key;
    // Manufacturer differs in the VR only.
    TagMap* second = makeNode({{DCM_SOPInstanceUID, "1.2", VR_UI},
                               {DCM_Modality, "MR", VR_CS},
                               {DCM_Manufacturer, "X", VR_SH},
                               {DCM_PatientName, "Doe", VR_PN},
                               {DCM_SliceThickness, "5", VR_DS},
                               {DCM_SeriesInstanceUID, "2", VR_UI}});
    series->addChildMap(second, TagMap::LevelImage);
    EXPECT_EQ(ownKeys(second), (QList<DcmTagKey>{DCM_SOPInstanceUID, DCM_Modality, DCM_Manufacturer,
                                                 DCM_PatientID, DCM_SliceThickness, DCM_InstanceNumber}));
    EXPECT_EQ(own(second, DCM_Modality), "MR");
    EXPECT_EQ(own(second, DCM_PatientID), "~");
    EXPECT_EQ(own(second, DCM_InstanceNumber), "~");
    EXPECT_EQ(shown(second, DCM_PatientID), "<none>");
    EXPECT_EQ(shown(first, DCM_PatientID), "P1");
    EXPECT_EQ(shown(second, DCM_PatientName), "Doe");
    EXPECT_EQ(series->children(), (QList<TagMap*>{first, second}));
    TagElement const* modality = study->ownElement(DCM_Modality);
    EXPECT_EQ(modality->mDifferentCount, 1);
    EXPECT_EQ(modality->mMissingCount, 0);
    EXPECT_EQ(study->ownElement(DCM_PatientID)->mMissingCount, 1);
    EXPECT_EQ(study->ownElement(DCM_InstanceNumber)->mMissingCount, 1);
    EXPECT_EQ(study->ownElement(DCM_PatientName)->mDifferentCount, 0);
    EXPECT_EQ(series->ownElement(DCM_SeriesInstanceUID)->mMissingCount, 0);
}

TEST(TagMapTest, DifferingSequencesGetTheirItemsLinked)
{
    auto makeImage = [](char const* sop, char const* reference) {
        TagMap* image = makeNode({{DCM_SOPInstanceUID, sop, VR_UI}, {DCM_PatientID, "P"}});
        TagSequence* sequence = putSequence(image, DCM_ReferencedImageSequence, 1);
        sequence->mItems[0]->putAndInsertValue(DCM_ReferencedSOPClassUID, VR_UI, "1.2.3");
        sequence->mItems[0]->putAndInsertValue(DCM_ReferencedSOPInstanceUID, VR_UI, reference);
        return image;
    };
    auto series = std::make_unique<TagMap>();
    series->addChildMap(makeImage("1", "A"), TagMap::LevelImage);
    TagMap* second = makeImage("2", "B");
    series->addChildMap(second, TagMap::LevelImage);
    auto* upper = dynamic_cast<TagSequence*>(series->ownElement(DCM_ReferencedImageSequence));
    auto* lower = dynamic_cast<TagSequence*>(second->ownElement(DCM_ReferencedImageSequence));
    ASSERT_TRUE(upper && lower);
    EXPECT_EQ(upper->mDifferentCount, 1);
    TagMap* upperItem = upper->mItems[0];
    TagMap* lowerItem = lower->mItems[0];
    EXPECT_EQ(lowerItem->parent(), upperItem);
    EXPECT_EQ(upperItem->children(), QList<TagMap*>{lowerItem});
    EXPECT_TRUE(lowerItem->isItem());
    EXPECT_EQ(ownKeys(lowerItem), QList<DcmTagKey>{DCM_ReferencedSOPInstanceUID});
    EXPECT_EQ(own(upperItem, DCM_ReferencedSOPInstanceUID), "A");
    EXPECT_EQ(shown(lowerItem, DCM_ReferencedSOPClassUID), "1.2.3");
    EXPECT_EQ(own(second, DCM_PatientID), "-");

    TagMap* third = makeImage("3", "A");
    series->addChildMap(third, TagMap::LevelImage);
    EXPECT_EQ(ownKeys(third), QList<DcmTagKey>{DCM_SOPInstanceUID});
}

TEST(TagMapTest, RemoveAndInsertUID)
{
    std::unique_ptr<TagMap> node(
        makeNode({{DCM_SOPInstanceUID, "1", VR_UI}, {DCM_SeriesInstanceUID, "2", VR_UI}}));
    EXPECT_EQ(node->removeUID(TagMap::LevelItem), nullptr);
    EXPECT_EQ(node->removeUID(TagMap::LevelStudy), nullptr);
    std::unique_ptr<TagElement> uid(node->removeUID(TagMap::LevelImage));
    ASSERT_NE(uid, nullptr);
    EXPECT_EQ(uid->mValue, "1");
    EXPECT_EQ(ownKeys(node.get()), QList<DcmTagKey>{DCM_SeriesInstanceUID});
    node->insertUID(TagMap::LevelImage, uid.release());
    EXPECT_EQ(own(node.get(), DCM_SOPInstanceUID), "1");
    auto* replacement = new TagElement;
    replacement->mValue = "3";
    node->insertUID(TagMap::LevelSeries, replacement);
    EXPECT_EQ(node->ownElement(DCM_SeriesInstanceUID), replacement);
    node->insertUID(TagMap::LevelStudy, nullptr);
    std::unique_ptr<TagElement> unused(new TagElement);
    node->insertUID(TagMap::LevelItem, unused.get());
    EXPECT_EQ(node->elements().size(), 2);
}

TEST(TagMapTest, IterationOverThreeLevelsAndLookupsOverAll)
{
    std::unique_ptr<TagMap> top(makeNode({{k(1), "gg"}, {k(9), "gg9"}}));
    TagMap* grand = link(top.get(), makeNode({{k(2), "g2"}, {k(3), "g3"}, {k(5), "g5"}, {k(7), "g7"}}));
    TagMap* parent = link(grand, makeNode({{k(3), "p3"}, {k(4), "p4"}, {k(5), "~"}, {k(6), "p6"}}));
    TagMap* node = link(parent, makeNode({{k(2), "n2"}, {k(4), "~"}, {k(8), "n8"}}));
    node->markAsOmitted(k(6));
    TagMap* hidden = link(parent, makeNode({{k(2), "~"}, {k(3), "~"}}));

    EXPECT_EQ(walk(node->begin(), node->end()), "2=n2 3=p3 6=omitted 7=g7 8=n8 ");
    EXPECT_EQ(walk(parent->begin(), parent->end()), "1=gg 2=g2 3=p3 4=p4 6=p6 7=g7 9=gg9 ");
    EXPECT_EQ(walk(hidden->begin(), hidden->end()), "4=p4 6=p6 7=g7 ");
    EXPECT_EQ(walk(node->lowerBound(k(4)), node->end()), "6=omitted 7=g7 8=n8 ");
    EXPECT_EQ(walk(node->lowerBound(k(1)), node->end()), walk(node->begin(), node->end()));
    EXPECT_TRUE(node->lowerBound(k(10)) == node->end());
    EXPECT_TRUE(TagMap::iterator() == node->end());
    EXPECT_TRUE(node->begin() == node->lowerBound(k(2)));
    EXPECT_FALSE(node->begin() == node->lowerBound(k(3)));
    TagMap::iterator it = node->lowerBound(k(8));
    ++it;
    ++it;
    EXPECT_TRUE(it == node->end());

    // Point lookups walk the whole chain; the first holder decides.
    EXPECT_EQ(shown(node, k(1)), "gg");
    EXPECT_EQ(shown(node, k(5)), "<none>");
    EXPECT_EQ(shown(grand, k(5)), "g5");
    EXPECT_EQ(shown(node, k(4)), "<none>");
    ASSERT_NE(node->findElement(k(6)), nullptr);
    EXPECT_TRUE(node->findElement(k(6))->isOmittedMarker());
    EXPECT_EQ(node->findElement(DcmTag(k(3))), parent->ownElement(k(3)));
    EXPECT_EQ(shown(node, k(11)), "<none>");
}

TEST(TagMapTest, PrivateBlocksAreFoundByCreator)
{
    std::unique_ptr<TagMap> root(makeNode({{DcmTagKey(0x0029, 0x0010), "ACME 1"},
                                           {DcmTagKey(0x0029, 0x0011), "OTHER"},
                                           {DcmTagKey(0x0029, 0x1008), "r8"},
                                           {DcmTagKey(0x0029, 0x1108), "o8"},
                                           {DcmTagKey(0x0007, 0x0010), "ACME 1"},
                                           {DcmTagKey(0x0007, 0x1008), "no"}}));
    TagMap* child =
        link(root.get(), makeNode({{DcmTagKey(0x0029, 0x0013), "THIRD"}, {DcmTagKey(0x0029, 0x1308), "t8"}}));
    auto found = [&](Uint16 group, Uint16 element, char const* creator) {
        TagElement const* e = child->findElementPrivate(DcmTagKey(group, element), creator);
        return e ? e->mValue : QByteArray("<none>");
    };
    EXPECT_EQ(found(0x0029, 0x0008, "ACME 1"), "r8");
    EXPECT_EQ(found(0x0029, 0x1108, "ACME 1"), "r8");
    EXPECT_EQ(found(0x0029, 0x0008, "OTHER"), "o8");
    EXPECT_EQ(found(0x0029, 0x0008, "THIRD"), "t8");
    EXPECT_EQ(found(0x0029, 0x0008, "NONE"), "<none>");
    EXPECT_EQ(found(0x0029, 0x1108, nullptr), "o8");
    EXPECT_EQ(found(0x0007, 0x0008, "ACME 1"), "<none>");
    EXPECT_EQ(found(0x0010, 0x0008, "ACME 1"), "<none>");
    EXPECT_EQ(child->findElement(DcmTag(0x0029, 0x0008, "OTHER")),
              root->ownElement(DcmTagKey(0x0029, 0x1108)));

    EXPECT_STREQ(child->privateCreator(DcmTagKey(0x0029, 0x1308)), "THIRD");
    EXPECT_STREQ(child->privateCreator(DcmTagKey(0x0029, 0x1008)), "ACME 1");
    EXPECT_EQ(child->privateCreator(DcmTagKey(0x0029, 0x1408)), nullptr);
    EXPECT_EQ(child->privateCreator(DcmTagKey(0x0010, 0x1008)), nullptr);
}

TEST(TagMapTest, PutAndInsertValueWithCreatorReservesBlocks)
{
    std::unique_ptr<TagMap> root(
        makeNode({{DcmTagKey(0x0029, 0x0010), "ACME 1"}, {DcmTagKey(0x0029, 0x0011), "B"}}));
    TagMap* child = link(root.get(), makeNode({{DcmTagKey(0x0029, 0x0013), "D"}}));
    EXPECT_TRUE(child->putAndInsertValue(DcmTagKey(0x0029, 0x0020), "ACME 1", VR_SH, "x"));
    EXPECT_EQ(own(child, DcmTagKey(0x0029, 0x1020)), "x");
    EXPECT_EQ(child->ownElement(DcmTagKey(0x0029, 0x1020))->mVR, VR_SH);
    // 10 and 11 are inherited, 13 is the child's own: the first free block is 12.
    EXPECT_TRUE(child->putAndInsertValue(DcmTagKey(0x0029, 0x0030), "NEW", VR_US, "y"));
    EXPECT_EQ(own(child, DcmTagKey(0x0029, 0x0012)), "NEW");
    EXPECT_EQ(child->ownElement(DcmTagKey(0x0029, 0x0012))->mVR, VR_LO);
    EXPECT_EQ(own(child, DcmTagKey(0x0029, 0x1230)), "y");
    EXPECT_FALSE(child->putAndInsertValue(DcmTagKey(0x0010, 0x0030), "NEW", VR_LO, "z"));
    EXPECT_TRUE(child->putAndInsertValue(DcmTagKey(0x0010, 0x0030), nullptr, VR_LO, "z"));
    EXPECT_EQ(own(child, DcmTagKey(0x0010, 0x0030)), "z");

    TagMap full;
    for (int block = 0x10; block <= 0xFF; ++block)
        full.putAndInsertValue(DcmTagKey(0x0029, static_cast<Uint16>(block)), VR_LO,
                               "C" + QByteArray::number(block));
    int const count = full.elements().size();
    EXPECT_FALSE(full.putAndInsertValue(DcmTagKey(0x0029, 0x0001), "NEW", VR_LO, "v"));
    EXPECT_EQ(full.elements().size(), count);
    EXPECT_TRUE(full.putAndInsertValue(DcmTagKey(0x0029, 0x0001), "C255", VR_LO, "v"));
    EXPECT_EQ(own(&full, DcmTagKey(0x0029, 0xFF01)), "v");
}

TEST(TagMapTest, WritingElements)
{
    ASSERT_TRUE(dcmDataDict.isDictionaryLoaded());
    TagMap map;
    EXPECT_TRUE(map.putAndInsertString(DCM_Rows, "512"));
    EXPECT_EQ(map.ownElement(DCM_Rows)->mVR, VR_US);
    int value = 99;
    EXPECT_TRUE(map.findAndGetInt(DCM_Rows, value));
    EXPECT_EQ(value, 512);
    EXPECT_TRUE(map.putAndInsertString(DCM_PatientName, "Doe^J"));
    EXPECT_EQ(map.ownElement(DCM_PatientName)->mVR, VR_PN);
    EXPECT_TRUE(map.putAndInsertString(DcmTagKey(0x0009, 0x1234), "text"));
    EXPECT_EQ(map.ownElement(DcmTagKey(0x0009, 0x1234))->mVR, VR_UN);
    EXPECT_TRUE(map.ownElement(DcmTagKey(0x0009, 0x1234))->mValue.isEmpty());
    // An existing value keeps its VR, a marker takes the dictionary's.
    map.putAndInsertValue(DCM_Columns, VR_LO, "old");
    map.putAndInsertString(DCM_Columns, "7");
    EXPECT_EQ(map.ownElement(DCM_Columns)->mVR, VR_LO);
    EXPECT_EQ(own(&map, DCM_Columns), "7");
    map.markAsOmitted(DCM_Columns);
    map.putAndInsertString(DCM_Columns, "7");
    EXPECT_EQ(map.ownElement(DCM_Columns)->mValue, QByteArray("\x07\x00", 2));
    EXPECT_TRUE(map.putAndInsertString(DcmTagKey(0x0029, 0x1008), "SIEMENS CSA HEADER", "IMAGE"));
    EXPECT_EQ(map.ownElement(DcmTagKey(0x0029, 0x1008))->mVR, VR_CS);
    EXPECT_EQ(map.ownElement(DcmTagKey(0x0029, 0x0010)), nullptr);

    map.putAndInsertInt(DCM_InstanceNumber, 5);
    EXPECT_EQ(map.ownElement(DCM_InstanceNumber)->mVR, VR_OB);
    map.putAndInsertInt(DCM_InstanceNumber, -2);
    EXPECT_EQ(map.ownElement(DCM_InstanceNumber)->mVR, VR_SL);
    TagElement* missing = map.markAsMissing(DCM_PatientName);
    EXPECT_EQ(map.ownElement(DCM_PatientName), missing);
    EXPECT_TRUE(missing->isMissingMarker() && missing->mValue.isEmpty());
    map.putAndInsertValue(DCM_PatientName, VR_PN, "X");
    EXPECT_EQ(map.ownElement(DCM_PatientName)->mVR, VR_PN);

    TagMap* child = link(&map, new TagMap);
    EXPECT_FALSE(child->deleteElement(DCM_PatientName));
    EXPECT_TRUE(map.deleteElement(DCM_PatientName));
    EXPECT_FALSE(map.deleteElement(DCM_PatientName));
}

TEST(TagMapTest, ReadingValuesAsTextAndInt)
{
    std::unique_ptr<TagMap> root(makeNode({{DcmTagKey(0x0029, 0x0010), "SIEMENS CSA HEADER"},
                                           {DcmTagKey(0x0029, 0x1008), "IMAGE NUM 4", VR_UN},
                                           {DCM_Rows, QByteArray("\x00\x02", 2), VR_UN},
                                           {DCM_InstanceNumber, "12", VR_IS},
                                           {DCM_PatientID, "12"}}));
    QByteArray out = "stale";
    EXPECT_TRUE(root->findAndGetString(DcmTagKey(0x0029, 0x1008), out));
    EXPECT_EQ(out, "IMAGE NUM 4");
    EXPECT_TRUE(root->findAndGetString(DcmTagKey(0x0029, 0x0008), "SIEMENS CSA HEADER", out));
    EXPECT_EQ(out, "IMAGE NUM 4");
    EXPECT_TRUE(root->findAndGetString(DCM_Rows, out));
    EXPECT_EQ(out, "00\\02");
    EXPECT_FALSE(root->findAndGetString(DCM_PatientName, out));
    EXPECT_TRUE(out.isEmpty());
    int value = 99;
    EXPECT_FALSE(root->findAndGetInt(DCM_PatientName, value));
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(root->findAndGetInt(DCM_InstanceNumber, value));
    EXPECT_EQ(value, 12);
    EXPECT_FALSE(root->findAndGetInt(DCM_PatientID, value));
}

namespace {

DcmTagKey const kKey(0x0010, 0x1000);

// A root holding rootValue at kKey (null: nothing) with one child per entry:
// null holds nothing, "~" a missing marker, anything else that value.
std::unique_ptr<TagMap> family(char const* rootValue, std::initializer_list<char const*> children)
{
    auto root = std::make_unique<TagMap>();
    if (rootValue)
        root->putAndInsertValue(kKey, VR_LO, rootValue);
    for (char const* value : children)
        link(root.get(), value ? makeNode({{kKey, value}}) : new TagMap);
    return root;
}

// "root|child0|child1|..." in the notation of own().
std::string state(TagMap const* root)
{
    std::string out = own(root, kKey).toStdString();
    for (TagMap const* child : root->children())
        out += "|" + own(child, kKey).toStdString();
    return out;
}

std::string optimized(char const* rootValue, std::initializer_list<char const*> children)
{
    auto root = family(rootValue, children);
    root->optimize(kKey);
    return state(root.get());
}

} // namespace

TEST(TagMapOptimizeTest, ThresholdsBetweenTheThreeWays)
{
    // total 20 equals sizeB 20: not A, but B beats keeping (33).
    EXPECT_EQ(optimized("CCCCCC", {"AA", "BBBB"}), "BBBB|AA|-");
    // sizeB 20 equals keepSize 20: nothing changes.
    EXPECT_EQ(optimized(nullptr, {"AA", "BBBB"}), "-|AA|BBBB");
    // total 9 below sizeB 19 and keepSize 28: the children store it.
    EXPECT_EQ(optimized("ZZ", {"AA", "~", "~"}), "-|AA|-|-");
    EXPECT_EQ(optimized(nullptr, {"AA", "AA", nullptr}), "AA|-|-|~");
    EXPECT_EQ(optimized("AA", {nullptr, nullptr, "BB"}), "AA|-|-|BB");
    std::unique_ptr<TagMap> leaf(makeNode({{kKey, "X"}}));
    leaf->optimize(kKey);
    EXPECT_EQ(own(leaf.get(), kKey), "X");
}

TEST(TagMapOptimizeTest, HistogramTiesGoToTheShorterThenSmallerValue)
{
    EXPECT_EQ(optimized(nullptr, {"A", "A", "BBBBBBBBB"}), "A|-|-|BBBBBBBBB");
    EXPECT_EQ(optimized(nullptr, {"BB", "AA", "AA", "BB"}), "AA|BB|-|-|BB");
    // Same bytes under two VRs: the lower VR code wins, and every child with
    // those bytes gives its element up.
    auto root = family(nullptr, {"AA", "AA", "AA", "AA"});
    root->children()[0]->ownElement(kKey)->mVR = VR_SH;
    root->children()[2]->ownElement(kKey)->mVR = VR_SH;
    root->optimize(kKey);
    EXPECT_EQ(state(root.get()), "AA|-|-|-|-");
    EXPECT_EQ(root->ownElement(kKey)->mVR, VR_LO);
}

TEST(TagMapOptimizeTest, KeysMissingEverywhereAreDroppedAtTheRootOnly)
{
    EXPECT_EQ(optimized(nullptr, {"~", "~"}), "-|-|-");
    EXPECT_EQ(optimized("X", {"~", "~"}), "-|-|-");
    auto study = std::make_unique<TagMap>();
    TagMap* series = link(study.get(), new TagMap);
    link(series, makeNode({{kKey, "~"}}));
    link(series, makeNode({{kKey, "~"}}));
    series->optimize(kKey);
    EXPECT_EQ(state(series), "-|~|~");
}

TEST(TagMapOptimizeTest, SequencesAreNeverMoved)
{
    auto root = family(nullptr, {nullptr, nullptr, nullptr});
    for (TagMap* child : root->children())
        putSequence(child, kKey, 1);
    root->optimize(kKey);
    root->optimizeAll();
    EXPECT_EQ(root->ownElement(kKey), nullptr);
    for (TagMap* child : root->children())
        EXPECT_NE(dynamic_cast<TagSequence*>(child->ownElement(kKey)), nullptr);
    auto holder = family(nullptr, {"A", "B"});
    putSequence(holder.get(), kKey, 1);
    holder->optimize(kKey);
    EXPECT_NE(dynamic_cast<TagSequence*>(holder->ownElement(kKey)), nullptr);
    EXPECT_EQ(state(holder.get()), "|A|B");
}

TEST(TagMapOptimizeTest, StoreOptionAHidesTheInheritedValue)
{
    std::unique_ptr<TagMap> study(makeNode({{kKey, "T"}}));
    TagMap* series = link(study.get(), makeNode({{kKey, "SS"}}));
    link(series, new TagMap);
    link(series, makeNode({{kKey, "QQ"}}));
    TagMap* marked = link(series, makeNode({{kKey, "~"}}));
    series->storeOptionA(kKey);
    EXPECT_EQ(state(series), "~|SS|QQ|-");
    EXPECT_EQ(series->ownElement(kKey)->mValue, "SS");
    EXPECT_EQ(shown(marked, kKey), "<none>");
    // Without an own element, a new marker; at the root, plain deletion.
    TagMap* other = link(study.get(), new TagMap);
    link(other, new TagMap);
    other->storeOptionA(kKey);
    EXPECT_EQ(state(other), "~|T");
    study->storeOptionA(kKey);
    EXPECT_EQ(own(study.get(), kKey), "-");
}

TEST(TagMapOptimizeTest, StoreOptionBKeepsWhatEachChildShowed)
{
    auto root = family("ZZ", {nullptr, "AA", "~", "AA", "BB"});
    root->children()[3]->ownElement(kKey)->mVR = VR_SH;
    root->storeOptionB(kKey, VR_SH, "AA");
    EXPECT_EQ(state(root.get()), "AA|ZZ|-|~|-|BB");
    EXPECT_EQ(root->ownElement(kKey)->mVR, VR_SH);
    auto empty = family(nullptr, {nullptr, "AA"});
    empty->storeOptionB(kKey, VR_LO, "AA");
    EXPECT_EQ(state(empty.get()), "AA|~|-");
    auto same = family("AA", {nullptr});
    same->storeOptionB(kKey, VR_LO, "AA");
    EXPECT_EQ(state(same.get()), "AA|-");
}

TEST(TagMapOptimizeTest, OptimizeAllKeepsWhatEveryImageShows)
{
    auto study = std::make_unique<TagMap>();
    std::vector<TagMap*> images;
    std::vector<TagMap*> seriesNodes;
    for (int s = 0; s < 2; ++s) {
        auto* series = new TagMap;
        for (int i = 0; i < 5; ++i) {
            TagMap* image = makeNode({{DCM_SOPInstanceUID, QByteArray::number(s * 10 + i), VR_UI},
                                      {DCM_Modality, s ? "MR" : "CT", VR_CS},
                                      {DCM_PatientName, "Doe", VR_PN},
                                      {DCM_SeriesInstanceUID, QByteArray::number(s), VR_UI},
                                      {DCM_SliceThickness, i == 3 ? "2.5" : "5", VR_DS},
                                      {DCM_InstanceNumber, QByteArray::number(i), VR_IS}});
            if (i % 2)
                image->putAndInsertValue(DCM_ImageComments, VR_LT, s ? "odd" : "odd image");
            if (s == 1)
                image->putAndInsertValue(DCM_ContrastBolusAgent, VR_LO, "agent");
            series->addChildMap(image, TagMap::LevelImage);
            images.push_back(image);
        }
        study->addChildMap(series, TagMap::LevelSeries);
        seriesNodes.push_back(series);
    }
    std::vector<std::unique_ptr<TagMap>> before;
    for (TagMap* image : images)
        before.emplace_back(image->clone());
    int const bytesBefore = storedBytes(study.get());
    for (TagMap* series : seriesNodes)
        series->optimizeAll();
    study->optimizeAll();
    for (size_t i = 0; i < images.size(); ++i) {
        std::unique_ptr<TagMap> after(images[i]->clone());
        std::string difference;
        EXPECT_TRUE(after->compare(*before[i], true, &difference)) << i << ": " << difference;
    }
    EXPECT_LT(storedBytes(study.get()), bytesBefore);
    // Three markers and one value cost less than two values.
    EXPECT_EQ(own(seriesNodes[0], DCM_ImageComments), "odd image");
    EXPECT_EQ(own(images[0], DCM_ImageComments), "~");
    EXPECT_EQ(own(images[1], DCM_ImageComments), "-");
    EXPECT_EQ(own(seriesNodes[1], DCM_ImageComments), "-");
}

TEST(TagMapTest, CloneFlattensAndCopyFromParentFillsOneLevel)
{
    std::unique_ptr<TagMap> study(makeNode({{k(1), "a"}, {k(2), "b"}}));
    TagMap* series = link(study.get(), makeNode({{k(3), "c"}, {k(4), "d"}, {k(5), "e"}}));
    TagMap* image = link(series, makeNode({{k(2), "~"}, {k(4), "~"}, {k(5), "own"}}));
    image->markAsOmitted(k(6));
    std::unique_ptr<TagMap> copy(image->clone());
    EXPECT_EQ(copy->parent(), nullptr);
    EXPECT_TRUE(copy->children().isEmpty());
    EXPECT_FALSE(copy->isItem());
    EXPECT_EQ(ownKeys(copy.get()), (QList<DcmTagKey>{k(1), k(3), k(5), k(6)}));
    EXPECT_NE(copy->ownElement(k(1)), study->ownElement(k(1)));
    EXPECT_TRUE(copy->ownElement(k(6))->isOmittedMarker());

    image->copyFromParent();
    EXPECT_EQ(own(image, k(3)), "c");
    EXPECT_NE(image->ownElement(k(3)), series->ownElement(k(3)));
    EXPECT_EQ(own(image, k(4)), "~");
    EXPECT_EQ(own(image, k(5)), "own");
    EXPECT_EQ(own(image, k(1)), "-");
    study->copyFromParent();
    EXPECT_EQ(study->elements().size(), 2);
}

TEST(TagMapTest, CompareReportsTheFirstDifference)
{
    auto pair = [](std::initializer_list<Attr> a, std::initializer_list<Attr> b) {
        return std::make_pair(std::unique_ptr<TagMap>(makeNode(a)), std::unique_ptr<TagMap>(makeNode(b)));
    };
    Attr const name{DCM_PatientName, "A", VR_PN};
    std::string d;
    auto p = pair({name, {DCM_PatientID, "1"}}, {name});
    EXPECT_FALSE(p.first->compare(*p.second, false, &d));
    EXPECT_EQ(d, "(0010,0020) LO Missing tag\n");
    EXPECT_FALSE(p.second->compare(*p.first, false, &d));
    EXPECT_EQ(d, "(0010,0020) LO Missing tag\n");
    EXPECT_FALSE(p.first->compare(*p.second, false, nullptr));
    p = pair({name}, {name});
    p.second->markAsOmitted(DCM_PatientComments);
    EXPECT_FALSE(p.first->compare(*p.second, false, &d));
    EXPECT_EQ(d, "(0010,4000) ?? Missing tag\n");
    p = pair({name, {DCM_PatientID, "1"}}, {name, {DCM_PatientBirthDate, "20000101", VR_DA}});
    EXPECT_FALSE(p.first->compare(*p.second, false, &d));
    EXPECT_EQ(d, "(0010,0020) LO <> (0010,0030) DA\n");
    p = pair({name, {DCM_PatientID, "1"}}, {name, {DCM_PatientID, "2"}});
    EXPECT_FALSE(p.first->compare(*p.second, false, &d));
    EXPECT_EQ(d, "(0010,0020) LO [1] <> [2]\n");
    // The VR counts only when everything is compared.
    p = pair({{DCM_PatientID, "1"}}, {{DCM_PatientID, "1", VR_SH}});
    EXPECT_TRUE(p.first->compare(*p.second, false, nullptr));
    EXPECT_FALSE(p.first->compare(*p.second, true, &d));
    EXPECT_EQ(d, "(0010,0020) LO [1] <> [1]\n");
    // Own groups are skipped and private values not compared unless all is.
    p = pair({name,
              {DCM_PatientID, "1"},
              {Tags::DicomFilePath, "/a"},
              {DcmTagKey(0x0071, 0x1001), "x"},
              {DcmTagKey(0x0029, 0x1010), "x"}},
             {name, {DCM_PatientID, "1"}, {DcmTagKey(0x0029, 0x1010), "y"}});
    d = "untouched";
    EXPECT_TRUE(p.first->compare(*p.second, false, &d));
    EXPECT_EQ(d, "untouched");
    EXPECT_FALSE(p.first->compare(*p.second, true, &d));
    EXPECT_EQ(d, "(0006,7100) LO <> (0010,0010) PN\n");
    p.first->deleteElement(Tags::DicomFilePath);
    p.first->deleteElement(DcmTagKey(0x0071, 0x1001));
    EXPECT_FALSE(p.first->compare(*p.second, true, &d));
    EXPECT_EQ(d, "(0029,1010) LO [x] <> [y]\n");
    // A sequence prefixes what its items reported.
    p = pair({}, {});
    putSequence(p.first.get(), DCM_ReferencedImageSequence, 2);
    putSequence(p.second.get(), DCM_ReferencedImageSequence, 2)
        ->mItems[1]
        ->putAndInsertValue(DCM_ReferencedSOPInstanceUID, VR_UI, "9");
    EXPECT_FALSE(p.first->compare(*p.second, false, &d));
    EXPECT_EQ(d, "(0008,1140) (0008,1155) UI [1] <> [9]\n");
}

TEST(TagMapTest, RemoveTagsNotNeededByClient)
{
    std::unique_ptr<TagMap> study(makeNode({{DCM_PatientName, "A", VR_PN},
                                            {DcmTagKey(0x0009, 0x1001), "u", VR_UN},
                                            {DcmTagKey(0x2050, 0x0010), "x"},
                                            {DcmTagKey(0x0028, 0x3000), "x"},
                                            {DcmTagKey(0x0028, 0x3010), "x"},
                                            {DcmTagKey(0x6000, 0x3000), "x", VR_OW},
                                            {DcmTagKey(0x601E, 0x3000), "x", VR_OW},
                                            {DcmTagKey(0x6020, 0x3000), "x", VR_OW},
                                            {DcmTagKey(0x6000, 0x0010), "x", VR_US}}));
    TagSequence* six = putSequence(study.get(), DcmTagKey(0x0400, 0x0561), 6);
    six->mItems[0]->putAndInsertValue(DcmTagKey(0x0009, 0x1001), VR_UN, "kept in items");
    TagMap* series = link(study.get(), makeNode({{DcmTagKey(0x0011, 0x1001), "u", VR_UN}}));
    TagSequence* five = putSequence(series, DcmTagKey(0x0400, 0x0561), 5);
    auto* volume = new Volume;
    volume->mFileNameSuffix = "_1";
    series->mVolumes.append(volume);
    TagMap* image =
        link(series, makeNode({{DCM_SOPInstanceUID, "1", VR_UI}, {DcmTagKey(0x6002, 0x3000), "x"}}));
    TagSequence* four = putSequence(image, DcmTagKey(0x0400, 0x0561), 4);

    study->removeTagsNotNeededByClient();
    EXPECT_EQ(ownKeys(study.get()), (QList<DcmTagKey>{DCM_PatientName, DcmTagKey(0x0400, 0x0561),
                                                      DcmTagKey(0x6000, 0x0010), DcmTagKey(0x6020, 0x3000)}));
    ASSERT_EQ(six->mItems.size(), 4);
    EXPECT_EQ(own(six->mItems[3], DCM_ReferencedSOPInstanceUID), "3");
    EXPECT_NE(six->mItems[0]->ownElement(DcmTagKey(0x0009, 0x1001)), nullptr);
    EXPECT_EQ(ownKeys(series), QList<DcmTagKey>{DcmTagKey(0x0400, 0x0561)});
    EXPECT_EQ(five->mItems.size(), 4);
    EXPECT_TRUE(volume->mFileNameSuffix.isEmpty());
    EXPECT_EQ(ownKeys(image), (QList<DcmTagKey>{DCM_SOPInstanceUID, DcmTagKey(0x0400, 0x0561)}));
    EXPECT_EQ(four->mItems.size(), 4);
}

TEST(TagMapTest, FindPreviewDataWithoutVolumes)
{
    auto study = std::make_unique<TagMap>();
    TagMap* out = nullptr;
    EXPECT_TRUE(study->findPreviewData(&out).isEmpty());
    auto addSeries = [&](char const* number, char const* preview) {
        TagMap* series =
            link(study.get(), number ? makeNode({{DCM_SeriesNumber, number, VR_IS}}) : new TagMap);
        link(series, makeNode({{DCM_SOPInstanceUID, "plain", VR_UI}}));
        TagMap* image = link(series, preview ? makeNode({{Tags::PreviewData, preview, VR_OB}}) : new TagMap);
        return std::make_pair(series, image);
    };
    addSeries("3", "P3");
    auto one = addSeries("1", "P1");
    addSeries("1", "P1b");
    auto unnumbered = addSeries(nullptr, nullptr);
    EXPECT_EQ(study->findPreviewData(&out), "P1");
    EXPECT_EQ(out, one.second);
    EXPECT_EQ(one.first->findPreviewData(nullptr), "P1");
    out = nullptr;
    EXPECT_TRUE(unnumbered.first->findPreviewData(&out).isEmpty());
    EXPECT_EQ(out, nullptr);
    auto zero = addSeries(nullptr, "P0");
    EXPECT_EQ(study->findPreviewData(&out), "P0");
    EXPECT_EQ(out, zero.second);
    // A node showing a preview itself, also by inheritance, is its own image.
    zero.first->putAndInsertValue(Tags::PreviewData, VR_OB, "S");
    TagMap* inheriting = zero.first->children()[0];
    EXPECT_EQ(inheriting->findPreviewData(&out), "S");
    EXPECT_EQ(out, inheriting);
    // Equal series numbers keep the order of the children, also when many.
    study = std::make_unique<TagMap>();
    for (int i = 0; i < 40; ++i)
        addSeries("7", QByteArray("P" + QByteArray::number(i)).constData());
    EXPECT_EQ(study->findPreviewData(nullptr), "P0");
}

TEST(TagMapTest, CreateTagMapFromDataset)
{
    unsigned int const maxSize = 64;
    auto insertOB = [](DcmItem& item, DcmTagKey const& key, int length) {
        auto* element = new DcmOtherByteOtherWord(DcmTag(key, EVR_OB));
        std::vector<Uint8> bytes(static_cast<size_t>(length), 7);
        element->putUint8Array(bytes.data(), bytes.size());
        item.insert(element);
    };
    DcmDataset dataset;
    dataset.putAndInsertUint32(DcmTagKey(0x0008, 0x0000), 10);
    dataset.putAndInsertString(DCM_PatientName, "Doe^Jane");
    dataset.putAndInsertUint16(DCM_Rows, 512);
    auto* smallest = new DcmUnsignedShort(DcmTag(DCM_SmallestImagePixelValue, EVR_xs));
    smallest->putUint16(3);
    dataset.insert(smallest);
    dataset.putAndInsertString(DCM_PatientComments, std::string(maxSize + 1, 'c').c_str());
    dataset.putAndInsertString(DCM_AdditionalPatientHistory, std::string(maxSize, 'h').c_str());
    dataset.putAndInsertString(DCM_FrameTimeVector, std::string(100, '1').c_str());
    std::vector<Float32> floats(40, 1.5f);
    dataset.putAndInsertFloat32Array(DCM_GraphicData, floats.data(), floats.size());
    std::vector<DcmTagKey> const large{{0x0029, 0x1000}, {0x0071, 0x1021}, {0x0071, 0x1062},
                                       {0x0071, 0x1064}, {0x5000, 0x3000}, {0x501E, 0x3000}};
    std::vector<DcmTagKey> const limited{{0x0029, 0x1001}, {0x0071, 0x1022}, {0x5020, 0x3000}};
    for (DcmTagKey const& key : large)
        insertOB(dataset, key, 200);
    for (DcmTagKey const& key : limited)
        insertOB(dataset, key, 200);
    DcmItem* item = nullptr;
    dataset.findOrCreateSequenceItem(DCM_ReferencedImageSequence, item);
    item->putAndInsertString(DCM_ReferencedSOPInstanceUID, "1.2");
    item->putAndInsertString(DCM_TextValue, std::string(maxSize + 2, 't').c_str());
    for (DcmTagKey const& key : {DcmTagKey(0x0028, 0x3010), DcmTagKey(0x2050, 0x0010)}) {
        dataset.findOrCreateSequenceItem(key, item);
        insertOB(*item, DcmTagKey(0x0028, 0x3006), 200);
    }
    dataset.findOrCreateSequenceItem(DcmTagKey(0x0029, 0x1010), item);
    insertOB(*item, DcmTagKey(0x0029, 0x1011), 200);
    dataset.insert(new DcmSequenceOfItems(DcmTagKey(0x0029, 0x1030)));

    std::unique_ptr<TagMap> map(TagMap::createTagMap(&dataset, maxSize));
    EXPECT_EQ(map->ownElement(DcmTagKey(0x0008, 0x0000)), nullptr);
    EXPECT_EQ(own(map.get(), DCM_PatientName), "Doe^Jane");
    EXPECT_EQ(map->ownElement(DCM_PatientName)->mVR, VR_PN);
    EXPECT_EQ(map->ownElement(DCM_Rows)->mValue, QByteArray("\x00\x02", 2));
    EXPECT_EQ(map->ownElement(DCM_SmallestImagePixelValue)->mVR, VR_xs);
    EXPECT_TRUE(map->ownElement(DCM_PatientComments)->isOmittedMarker());
    EXPECT_TRUE(map->ownElement(DCM_PatientComments)->mValue.isEmpty());
    EXPECT_EQ(own(map.get(), DCM_AdditionalPatientHistory).size(), static_cast<int>(maxSize));
    EXPECT_EQ(own(map.get(), DCM_FrameTimeVector).size(), 100);
    EXPECT_EQ(own(map.get(), DCM_GraphicData).size(), 160);
    for (DcmTagKey const& key : large)
        EXPECT_EQ(own(map.get(), key).size(), 200) << key;
    for (DcmTagKey const& key : limited)
        EXPECT_TRUE(map->ownElement(key)->isOmittedMarker()) << key;

    auto* references = dynamic_cast<TagSequence*>(map->ownElement(DCM_ReferencedImageSequence));
    ASSERT_TRUE(references && references->mItems.size() == 1);
    TagMap const* reference = references->mItems[0];
    EXPECT_TRUE(reference->isItem());
    EXPECT_EQ(own(reference, DCM_ReferencedSOPInstanceUID), "1.2");
    EXPECT_TRUE(reference->ownElement(DCM_TextValue)->isOmittedMarker());
    EXPECT_EQ(reference->ownElement(Tags::TransferSyntax), nullptr);
    for (DcmTagKey const& key : {DcmTagKey(0x0028, 0x3010), DcmTagKey(0x2050, 0x0010)}) {
        auto* lut = dynamic_cast<TagSequence*>(map->ownElement(key));
        ASSERT_TRUE(lut && lut->mItems.size() == 1) << key;
        EXPECT_EQ(own(lut->mItems[0], DcmTagKey(0x0028, 0x3006)).size(), 200);
    }
    EXPECT_TRUE(map->ownElement(DcmTagKey(0x0029, 0x1010))->isOmittedMarker());
    EXPECT_NE(dynamic_cast<TagSequence*>(map->ownElement(DcmTagKey(0x0029, 0x1030))), nullptr);

    TagElement const* xfer = map->ownElement(Tags::TransferSyntax);
    ASSERT_NE(xfer, nullptr);
    EXPECT_EQ(xfer->mVR, VR_OB);
    EXPECT_EQ(xfer->mValue, QByteArray(1, static_cast<char>(DcmtkToMdx(dataset.getOriginalXfer()))));

    DcmItem plain;
    plain.putAndInsertString(DCM_PatientID, "1");
    std::unique_ptr<TagMap> fromItem(TagMap::createTagMap(&plain, maxSize));
    EXPECT_EQ(ownKeys(fromItem.get()), QList<DcmTagKey>{DCM_PatientID});
}

TEST(TagMapTest, CreateTagMapRecordsTheTransferSyntaxOfTheFile)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    std::string const path = dir.filePath("image.dcm").toStdString();
    for (auto xfer : {EXS_BigEndianExplicit, EXS_DeflatedLittleEndianExplicit, EXS_LittleEndianImplicit}) {
        DcmFileFormat file;
        file.getDataset()->putAndInsertString(DCM_SOPClassUID, UID_SecondaryCaptureImageStorage);
        file.getDataset()->putAndInsertString(DCM_SOPInstanceUID, "1.2.3");
        ASSERT_TRUE(file.saveFile(path.c_str(), xfer).good()) << xfer;
        DcmFileFormat loaded;
        ASSERT_TRUE(loaded.loadFile(path.c_str()).good());
        std::unique_ptr<TagMap> map(TagMap::createTagMap(loaded.getDataset(), 1024));
        EXPECT_EQ(own(map.get(), Tags::TransferSyntax), QByteArray(1, static_cast<char>(DcmtkToMdx(xfer))));
    }
    // Deflate moved in DCMTK's numbering; the stored code did not.
    EXPECT_EQ(DcmtkToMdx(EXS_DeflatedLittleEndianExplicit), 25);
}

TEST(TransferSyntaxTest, StoredCodesMapToDcmtkAndBack)
{
    int const toDcmtk[TransferSyntaxCount] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13,
                                              14, 15, 16, 17, 18, 19, 20, 21, 22, 24, 25, 23, 26, 27,
                                              32, 33, 34, 35, 36, 37, 38, 28, 29, 30, 31, 39, 40, 41};
    for (int code = 0; code < TransferSyntaxCount; ++code) {
        EXPECT_EQ(MdxToDcmtk(static_cast<TransferSyntax>(code)), toDcmtk[code]) << code;
        EXPECT_EQ(DcmtkToMdx(static_cast<E_TransferSyntax>(toDcmtk[code])), code) << code;
    }
    EXPECT_EQ(MdxToDcmtk(42), EXS_Unknown);
    EXPECT_EQ(MdxToDcmtk(TransferSyntaxUnknown), EXS_Unknown);
    EXPECT_EQ(DcmtkToMdx(EXS_Unknown), 0xFF);
    EXPECT_EQ(DcmtkToMdx(static_cast<E_TransferSyntax>(42)), 0xFF);
}
