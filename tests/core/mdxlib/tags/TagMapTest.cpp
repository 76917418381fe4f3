// Tag map nodes: merging, inheritance, private blocks, the size-driven
// reorganisation, and the way maps are built from DCMTK datasets.
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace Mdx;

namespace {

// A node from "Name=value|gggg,eeee=value|Name:VR=value" (VR LO unless
// given); the value "~" is a missing marker, "!" an omitted one.
TagMap* node(QByteArray const& attributes)
{
    auto* map = new TagMap;
    for (QString const& part : QString::fromLatin1(attributes).split('|', Qt::SkipEmptyParts)) {
        QStringList const name = part.section('=', 0, 0).split(':');
        QByteArray const value = part.section('=', 1).toLatin1();
        DcmTag tag;
        EXPECT_TRUE(DcmTag::findTagFromName(name[0].toLatin1().constData(), tag).good())
            << part.toStdString();
        VR const vr = name.size() > 1 ? fromDcmEVR(DcmVR(name[1].toLatin1().constData()).getEVR()) : VR_LO;
        if (value == "~")
            map->markAsMissing(tag);
        else if (value == "!")
            map->markAsOmitted(tag);
        else
            map->putAndInsertValue(tag, vr, value);
    }
    return map;
}

TagMap* link(TagMap* parent, TagMap* child)
{
    child->mParent = parent;
    parent->mChildren.append(child);
    return child;
}

QByteArray text(TagElement const* e, char const* none)
{
    return !e ? QByteArray(none) : e->isMissingMarker() ? "~" : e->isOmittedMarker() ? "!" : e->mValue;
}

// What a node shows through inheritance, and what it holds itself ("-": nothing).
QByteArray shown(TagMap const* node, DcmTagKey const& key)
{
    return text(node->findElement(key), "<none>");
}

QByteArray own(TagMap const* node, DcmTagKey const& key)
{
    return text(node->ownElement(key), "-");
}

// A subtree as "Name=value ... {child} {child}", by hex key in private
// groups and where the dictionary has no name.
std::string tree(TagMap const* node)
{
    std::string out;
    for (auto it = node->elements().begin(); it != node->elements().end(); ++it) {
        std::string const name = DcmTag(it.key()).getTagName();
        bool const named = !it.key().isPrivate() && name != DcmTag_ERROR_TagName;
        out += (out.empty() ? "" : " ") + (named ? name : it.key().toString().c_str()) + "=" +
               text(it.value(), "").toStdString();
    }
    for (TagMap const* child : node->children())
        out += " {" + tree(child) + "}";
    return out;
}

DcmTagKey k(int element)
{
    return DcmTagKey(0x0010, static_cast<Uint16>(element));
}

TagSequence* putSequence(TagMap* node, DcmTagKey const& key, int items)
{
    auto* sequence = new TagSequence;
    for (int i = 0; i < items; ++i) {
        sequence->addItem(::node("ReferencedSOPInstanceUID:UI=" + QByteArray::number(i)));
        sequence->mItems.last()->mIsItem = true;
    }
    node->mElements.insert(key, sequence);
    return sequence;
}

} // namespace

TEST(TagMapTest, ImagesMergeUpwardsAndKeepOnlyTheirDifferences)
{
    auto study = std::make_unique<TagMap>();
    auto* series = new TagMap;
    TagMap* first = node("SOPInstanceUID=1|Modality=CT|Manufacturer=X|PatientName=Doe|PatientID=P1|"
                         "SeriesInstanceUID=2|InstanceNumber=1");
    series->addChildMap(first, TagMap::LevelImage);
    EXPECT_EQ(tree(series), "Modality=CT Manufacturer=X PatientName=Doe PatientID=P1 SeriesInstanceUID=2 "
                            "InstanceNumber=1 {SOPInstanceUID=1}");
    study->addChildMap(series, TagMap::LevelSeries);
    // Lacks PatientID in the middle and InstanceNumber after its last key;
    // Manufacturer differs in the VR only.
    series->addChildMap(
        node("SOPInstanceUID=2|Modality=MR|Manufacturer:SH=X|PatientName=Doe|SliceThickness=5|"
             "SeriesInstanceUID=2"),
        TagMap::LevelImage);
    EXPECT_EQ(tree(study.get()), "Modality=CT Manufacturer=X PatientName=Doe PatientID=P1 InstanceNumber=1 "
                                 "{SeriesInstanceUID=2 {SOPInstanceUID=1} {SOPInstanceUID=2 Modality=MR "
                                 "Manufacturer=X PatientID=~ SliceThickness=5 InstanceNumber=~}}");
    EXPECT_EQ(shown(series->children()[1], DCM_PatientID) + shown(first, DCM_PatientID), "<none>P1");
    std::string counters; // different/missing
    for (TagElement const* e : study->elements())
        counters += std::to_string(e->mDifferentCount) + "/" + std::to_string(e->mMissingCount) + " ";
    EXPECT_EQ(counters, "1/0 1/0 0/0 0/1 0/1 ");
    EXPECT_EQ(series->ownElement(DCM_SeriesInstanceUID)->mMissingCount, 0);
}

TEST(TagMapTest, DifferingSequencesGetTheirItemsLinked)
{
    auto series = std::make_unique<TagMap>();
    for (char const* reference : {"A", "B", "A"}) {
        TagMap* image = node("PatientID=P");
        TagMap* item = putSequence(image, DCM_ReferencedImageSequence, 1)->mItems[0];
        item->putAndInsertValue(DCM_ReferencedSOPClassUID, VR_UI, "1.2.3");
        item->putAndInsertValue(DCM_ReferencedSOPInstanceUID, VR_UI, reference);
        series->addChildMap(image, TagMap::LevelImage);
    }
    EXPECT_EQ(tree(series.get()), "ReferencedImageSequence= PatientID=P {} {ReferencedImageSequence=} {}");
    auto* upper = dynamic_cast<TagSequence*>(series->ownElement(DCM_ReferencedImageSequence));
    auto* lower = dynamic_cast<TagSequence*>(series->children()[1]->ownElement(DCM_ReferencedImageSequence));
    ASSERT_TRUE(upper && lower);
    EXPECT_EQ(upper->mDifferentCount, 1);
    EXPECT_EQ(tree(upper->mItems[0]),
              "ReferencedSOPClassUID=1.2.3 ReferencedSOPInstanceUID=A {ReferencedSOPInstanceUID=B}");
    EXPECT_TRUE(lower->mItems[0]->parent() == upper->mItems[0] && lower->mItems[0]->isItem());
    EXPECT_EQ(shown(lower->mItems[0], DCM_ReferencedSOPClassUID), "1.2.3");
}

TEST(TagMapTest, PrivateBlocksAreFoundAndReservedByCreator)
{
    std::unique_ptr<TagMap> root(
        node("0029,0010=ACME 1|0029,0011=OTHER|0029,1008=r8|0029,1108=o8|0007,0010=ACME 1|0007,1008=no"));
    TagMap* child = link(root.get(), node("0029,0013=THIRD|0029,1308=t8"));
    // clang-format off
    std::pair<DcmTagKey, char const*> const lookups[] = {
        {{0x0029, 0x0008}, "ACME 1"}, {{0x0029, 0x1108}, "ACME 1"}, {{0x0029, 0x0008}, "OTHER"},
        {{0x0029, 0x0008}, "THIRD"}, {{0x0029, 0x0008}, "NONE"}, {{0x0029, 0x1108}, nullptr},
        {{0x0007, 0x0008}, "ACME 1"}, {{0x0010, 0x0008}, "ACME 1"}};
    // clang-format on
    QByteArray found;
    for (auto const& [key, creator] : lookups)
        found += text(child->findElementPrivate(key, creator), "-") + " ";
    EXPECT_EQ(found, "r8 r8 o8 t8 - o8 - - ");
    EXPECT_EQ(child->findElement(DcmTag(0x0029, 0x0008, "OTHER")), root->ownElement({0x0029, 0x1108}));
    EXPECT_STREQ(child->privateCreator({0x0029, 0x1308}), "THIRD");
    EXPECT_STREQ(child->privateCreator({0x0029, 0x1008}), "ACME 1");
    EXPECT_EQ(child->privateCreator({0x0029, 0x1408}), nullptr);
    EXPECT_EQ(child->privateCreator({0x0010, 0x1008}), nullptr);

    EXPECT_TRUE(child->putAndInsertValue({0x0029, 0x0020}, "ACME 1", VR_SH, "x"));
    // 10 and 11 are inherited, 13 is the child's own: the first free block is 12.
    EXPECT_TRUE(child->putAndInsertValue({0x0029, 0x0030}, "NEW", VR_US, "y"));
    EXPECT_FALSE(child->putAndInsertValue({0x0010, 0x0030}, "NEW", VR_LO, "z"));
    EXPECT_TRUE(child->putAndInsertValue({0x0010, 0x0031}, nullptr, VR_LO, "z"));
    std::string written;
    for (TagElement const* e : child->elements())
        written += std::string(vrName(e->mVR)) + " ";
    EXPECT_EQ(tree(child),
              "(0010,0031)=z (0029,0012)=NEW (0029,0013)=THIRD (0029,1020)=x (0029,1230)=y (0029,1308)=t8");
    EXPECT_EQ(written, "LO LO LO SH US LO ");

    TagMap full;
    EXPECT_TRUE(full.putAndInsertValue({0x0029, 0x0001}, "C16", VR_LO, "v")); // block 10 is free
    for (int block = 0x10; block <= 0xFF; ++block)
        full.putAndInsertValue({0x0029, Uint16(block)}, VR_LO, "C" + QByteArray::number(block));
    EXPECT_FALSE(full.putAndInsertValue({0x0029, 0x0001}, "NEW", VR_LO, "v"));
    EXPECT_EQ(full.elements().size(), 0xF1);
    EXPECT_TRUE(full.putAndInsertValue({0x0029, 0x0001}, "C255", VR_LO, "v"));
    EXPECT_EQ(own(&full, {0x0029, 0x1001}) + own(&full, {0x0029, 0xFF01}), "vv");
}

TEST(TagMapTest, WritingAndReadingElements)
{
    ASSERT_TRUE(dcmDataDict.isDictionaryLoaded());
    // Nothing or a marker takes the dictionary's VR, a value keeps its own,
    // an unknown key becomes an empty UN.
    std::unique_ptr<TagMap> map(node("Columns=old|SliceThickness=!"));
    putSequence(map.get(), DCM_InstanceNumber, 1);
    for (DcmTagKey key :
         {DCM_Rows, DCM_PatientName, DcmTagKey(0x0009, 0x1234), DCM_Columns, DCM_SliceThickness})
        EXPECT_TRUE(map->putAndInsertString(key, "512")) << key;
    EXPECT_TRUE(map->putAndInsertString({0x0029, 0x1008}, "SIEMENS CSA HEADER", "IMAGE"));
    EXPECT_TRUE(map->putAndInsertInt(DCM_InstanceNumber, -2));
    std::string written;
    for (TagElement const* e : map->elements()) {
        QByteArray value;
        e->getValueAsString(value);
        written += std::string(vrName(e->mVR)) + "=" + value.toStdString() + " ";
    }
    EXPECT_EQ(written, "UN= PN=512 DS=512 SL=-2 US=512 LO=512 CS=IMAGE ");
    // Deleting is for own elements only.
    EXPECT_TRUE(map->markAsMissing(DCM_PatientName)->isMissingMarker());
    EXPECT_FALSE(link(map.get(), new TagMap)->deleteElement(DCM_PatientName));
    EXPECT_TRUE(map->deleteElement(DCM_PatientName));
    EXPECT_FALSE(map->deleteElement(DCM_PatientName));

    // Reading: UN through the dictionary, private keys by creator, and
    // outputs cleared on failure.
    map.reset(
        node("0029,0010=SIEMENS CSA HEADER|0029,1008:UN=IMAGE NUM 4|InstanceNumber:IS=12|PatientID=12"));
    map->putAndInsertValue(DCM_Rows, VR_UN, QByteArray("\x00\x02", 2));
    QByteArray out = "stale", out2, out3;
    EXPECT_TRUE(map->findAndGetString({0x0029, 0x1008}, out) && map->findAndGetString(DCM_Rows, out3) &&
                map->findAndGetString({0x0029, 0x0008}, "SIEMENS CSA HEADER", out2));
    EXPECT_EQ(out + "|" + out2 + "|" + out3, "IMAGE NUM 4|IMAGE NUM 4|00\\02");
    EXPECT_FALSE(map->findAndGetString(DCM_PatientName, out));
    EXPECT_TRUE(out.isEmpty());
    int value = 99, value2 = 99;
    EXPECT_FALSE(map->findAndGetInt(DCM_PatientName, value) || map->findAndGetInt(DCM_PatientID, value2));
    EXPECT_TRUE(map->findAndGetInt(DCM_InstanceNumber, value2));
    EXPECT_EQ(std::make_pair(value, value2), std::make_pair(0, 12));
}

namespace {

DcmTagKey const kKey(0x0010, 0x1000);

// A root holding rootValue at kKey (null: nothing) with one child per entry
// in the notation of node(); the result as "root|child0|child1|..." of own().
std::unique_ptr<TagMap> family(char const* rootValue, std::vector<char const*> const& children)
{
    auto at = [](char const* value) { return value ? "0010,1000=" + QByteArray(value) : QByteArray(); };
    std::unique_ptr<TagMap> root(node(at(rootValue)));
    for (char const* value : children)
        link(root.get(), node(at(value)));
    return root;
}

std::string state(TagMap const* root)
{
    std::string out = own(root, kKey).toStdString();
    for (TagMap const* child : root->children())
        out += "|" + own(child, kKey).toStdString();
    return out;
}

std::string optimized(char const* rootValue, std::vector<char const*> const& children)
{
    auto root = family(rootValue, children);
    root->optimize(kKey);
    return state(root.get());
}

} // namespace

TEST(TagMapOptimizeTest, ThresholdsTiesAndKeysMissingEverywhere)
{
    // total 20 equals sizeB 20: not A, but B beats keeping (33).
    EXPECT_EQ(optimized("CCCCCC", {"AA", "BBBB"}), "BBBB|AA|-");
    // sizeB 20 equals keepSize 20: nothing changes.
    EXPECT_EQ(optimized(nullptr, {"AA", "BBBB"}), "-|AA|BBBB");
    EXPECT_EQ(optimized(nullptr, {"AAA", "AAA", nullptr, nullptr}), "-|AAA|AAA|-|-"); // two markers
    // total 9 below sizeB 19 and keepSize 28: the children store it.
    EXPECT_EQ(optimized("ZZ", {"AA", "~", "~"}), "-|AA|-|-");
    EXPECT_EQ(optimized(nullptr, {"AA", "AA", nullptr}), "AA|-|-|~");
    EXPECT_EQ(optimized("AA", {nullptr, nullptr, "BB"}), "AA|-|-|BB");
    EXPECT_EQ(optimized("X", {}), "X");
    // Histogram ties go to the shorter, then the smaller value.
    EXPECT_EQ(optimized(nullptr, {"A", "A", "BBBBBBBBB"}), "A|-|-|BBBBBBBBB");
    EXPECT_EQ(optimized(nullptr, {"BB", "AA", "AA", "BB"}), "AA|BB|-|-|BB");
    // Keys missing everywhere are dropped, but only at the root.
    EXPECT_EQ(optimized(nullptr, {"~", "~"}) + " " + optimized("X", {"~", "~"}), "-|-|- -|-|-");
    auto study = std::make_unique<TagMap>();
    TagMap* series = link(study.get(), family(nullptr, {"~", "~"}).release());
    series->optimize(kKey);
    EXPECT_EQ(state(series), "-|~|~");
    // Same bytes under two VRs: the lower VR code wins, and every child with
    // those bytes gives its element up.
    auto root = family(nullptr, {"AA", "AA", "AA", "AA"});
    root->children()[0]->ownElement(kKey)->mVR = VR_SH;
    root->children()[2]->ownElement(kKey)->mVR = VR_SH;
    root->optimize(kKey);
    EXPECT_EQ(state(root.get()), "AA|-|-|-|-");
    EXPECT_EQ(root->ownElement(kKey)->mVR, VR_LO);
}

TEST(TagMapOptimizeTest, SequencesAreNeverMoved)
{
    auto root = family(nullptr, {nullptr, "AAA", "AAA"});
    putSequence(root->children()[0], kKey, 1);
    root->optimize(kKey);
    root->optimizeAll();
    EXPECT_EQ(state(root.get()), "-||AAA|AAA");
    EXPECT_NE(dynamic_cast<TagSequence*>(root->children()[0]->ownElement(kKey)), nullptr);
    auto holder = family(nullptr, {"A", "B"});
    putSequence(holder.get(), kKey, 1);
    holder->optimize(kKey);
    EXPECT_NE(dynamic_cast<TagSequence*>(holder->ownElement(kKey)), nullptr);
    EXPECT_EQ(state(holder.get()), "|A|B");
}

TEST(TagMapTest, CloneFlattensAndCopyFromParentFillsOneLevel)
{
    std::unique_ptr<TagMap> study(node("0010,0001=a|0010,0002=b"));
    TagMap* series = link(study.get(), node("0010,0003=c|0010,0004=d|0010,0005=e"));
    TagMap* image = link(series, node("0010,0002=~|0010,0004=~|0010,0005=own|0010,0006=!"));
    std::unique_ptr<TagMap> copy(image->clone());
    EXPECT_TRUE(copy->parent() == nullptr && !copy->isItem());
    EXPECT_EQ(tree(copy.get()), "(0010,0001)=a (0010,0003)=c (0010,0005)=own (0010,0006)=!");
    EXPECT_NE(copy->ownElement(k(1)), study->ownElement(k(1)));
    image->copyFromParent();
    study->copyFromParent();
    EXPECT_EQ(tree(study.get()),
              "(0010,0001)=a (0010,0002)=b {(0010,0003)=c (0010,0004)=d (0010,0005)=e "
              "{(0010,0002)=~ (0010,0003)=c (0010,0004)=~ (0010,0005)=own (0010,0006)=!}}");
    EXPECT_NE(image->ownElement(k(3)), series->ownElement(k(3)));
    // Lookups walk the chain and the first holder decides: a marker in the
    // middle hides what lies above it.
    std::unique_ptr<TagMap> top(node("0010,0007=z"));
    TagMap* middle = link(top.get(), node("0010,0007=~"));
    TagMap* below = link(middle, new TagMap);
    EXPECT_EQ(shown(below, k(7)) + shown(below, k(1)), "<none><none>");
    EXPECT_EQ(shown(link(top.get(), new TagMap), k(7)), "z");
}

TEST(TagMapTest, CompareReportsTheFirstDifference)
{
    // clang-format off
    struct { char const *a, *b; bool all; char const* difference; } const cases[] = {
        {"PatientName:PN=A|PatientID=1", "PatientName:PN=A", false, "(0010,0020) LO Missing tag\n"},
        {"PatientName:PN=A", "PatientName:PN=A|PatientID=1", false, "(0010,0020) LO Missing tag\n"},
        {"PatientName:PN=A", "PatientName:PN=A|PatientComments=!", false, "(0010,4000) ?? Missing tag\n"},
        {"PatientID=1", "PatientBirthDate:DA=20000101", false, "(0010,0020) LO <> (0010,0030) DA\n"},
        {"PatientID=1", "PatientID=2", false, "(0010,0020) LO [1] <> [2]\n"},
        {"PatientID=1", "PatientID:SH=1", false, ""}, // the VR counts only when all is compared
        {"PatientID=1", "PatientID:SH=1", true, "(0010,0020) LO [1] <> [1]\n"},
        // Own groups are skipped and private values not compared unless all is.
        {"PatientID=1|0006,7100=/a|0071,1001=x|0029,1010=x", "PatientID=1|0029,1010=y", false, ""},
        {"PatientID=1|0006,7100=/a|0071,1001=x", "PatientID=1", true, "(0006,7100) LO <> (0010,0020) LO\n"},
        {"PatientID=1|0029,1010=x", "PatientID=1|0029,1010=y", true, "(0029,1010) LO [x] <> [y]\n"}};
    // clang-format on
    for (auto const& c : cases) {
        std::unique_ptr<TagMap> a(node(c.a)), b(node(c.b));
        std::string difference = "untouched";
        EXPECT_EQ(a->compare(*b, c.all, &difference), !*c.difference) << c.a << " / " << c.b;
        EXPECT_EQ(difference, *c.difference ? c.difference : "untouched") << c.a << " / " << c.b;
        EXPECT_EQ(a->compare(*b, c.all, nullptr), !*c.difference);
    }
    // A sequence prefixes what its items reported.
    TagMap a, b;
    putSequence(&a, DCM_ReferencedImageSequence, 2);
    putSequence(&b, DCM_ReferencedImageSequence, 2)
        ->mItems[1]
        ->putAndInsertValue(DCM_ReferencedSOPInstanceUID, VR_UI, "9");
    std::string difference;
    EXPECT_FALSE(a.compare(b, false, &difference));
    EXPECT_EQ(difference, "(0008,1140) (0008,1155) UI [1] <> [9]\n");
}

TEST(TagMapTest, RemoveTagsNotNeededByClient)
{
    DcmTagKey const refs(0x0400, 0x0561);
    std::unique_ptr<TagMap> study(node("PatientName=A|0009,1001:UN=u|2050,0010=x|0028,3000=x|0028,3010=x|"
                                       "6000,3000:OW=x|601E,3000:OW=x|6020,3000:OW=x|6000,0010:US=x"));
    TagSequence* six = putSequence(study.get(), refs, 6);
    six->mItems[0]->putAndInsertValue({0x0009, 0x1001}, VR_UN, "kept in items");
    TagMap* series = link(study.get(), node("0011,1001:UN=u"));
    TagSequence* five = putSequence(series, refs, 5);
    series->mVolumes.append(new Volume);
    series->mVolumes[0]->mFileNameSuffix = "_1";
    TagMap* image = link(series, node("SOPInstanceUID=1|6002,3000=x"));
    TagSequence* four = putSequence(image, refs, 4);
    study->removeTagsNotNeededByClient();
    EXPECT_EQ(tree(study.get()),
              "PatientName=A OriginalAttributesSequence= OverlayRows=x OverlayData=x "
              "{OriginalAttributesSequence= {SOPInstanceUID=1 OriginalAttributesSequence=}}");
    EXPECT_EQ(QList<int>({six->mItems.size(), five->mItems.size(), four->mItems.size()}),
              QList<int>({4, 4, 4}));
    EXPECT_EQ(own(six->mItems[3], DCM_ReferencedSOPInstanceUID), "3");
    EXPECT_NE(six->mItems[0]->ownElement({0x0009, 0x1001}), nullptr);
    EXPECT_TRUE(series->mVolumes[0]->mFileNameSuffix.isEmpty());
}

TEST(TagMapTest, FindPreviewDataWithoutVolumes)
{
    auto study = std::make_unique<TagMap>();
    TagMap* out = nullptr;
    EXPECT_TRUE(study->findPreviewData(&out).isEmpty());
    auto addSeries = [&](QByteArray const& number, QByteArray const& preview) {
        TagMap* series = link(study.get(), node(number.isEmpty() ? "" : "SeriesNumber:IS=" + number));
        link(series, node("SOPInstanceUID=plain"));
        return link(series, node(preview.isEmpty() ? "" : "0006,7105:OB=" + preview));
    };
    addSeries("3", "P3");
    TagMap* one = addSeries("1", "P1");
    addSeries("1", "P1b");
    TagMap* unnumbered = addSeries("", "")->parent();
    EXPECT_EQ(study->findPreviewData(&out), "P1");
    EXPECT_EQ(out, one);
    EXPECT_EQ(one->parent()->findPreviewData(nullptr), "P1");
    out = nullptr;
    EXPECT_TRUE(unnumbered->findPreviewData(&out).isEmpty());
    EXPECT_EQ(out, nullptr);
    TagMap* zero = addSeries("", "P0");
    EXPECT_EQ(study->findPreviewData(&out), "P0");
    EXPECT_EQ(out, zero);
    // A node showing a preview itself, also by inheritance, is its own image.
    zero->parent()->putAndInsertValue(Tags::PreviewData, VR_OB, "S");
    TagMap* inheriting = zero->parent()->children()[0];
    EXPECT_EQ(inheriting->findPreviewData(&out), "S");
    EXPECT_EQ(out, inheriting);
}

// What the real samples cannot show (SampleStudiesTest checks that every
// image shows its file): the size limit, the values large by nature that are
// kept whatever their size, and the markers and items made on the way.
TEST(TagMapTest, CreateTagMapKeepsSmallAndLargeByNatureValues)
{
    unsigned int const maxSize = 64;
    auto insertOB = [](DcmItem* item, DcmTagKey const& key, size_t length) {
        std::vector<Uint8> bytes(length, '7');
        item->putAndInsertUint8Array(DcmTag(key, EVR_OB), bytes.data(), bytes.size());
    };
    // Key, length, and whether the value is kept (else omitted) at this maxSize.
    // clang-format off
    std::tuple<DcmTagKey, size_t, bool> const sized[] = {
        {DCM_PatientComments, maxSize + 1, false}, {DCM_AdditionalPatientHistory, maxSize, true},
        {DCM_FrameTimeVector, 100, true}, {{0x0029, 0x1000}, 200, true}, {{0x0071, 0x1021}, 200, true},
        {{0x0071, 0x1062}, 200, true}, {{0x0071, 0x1064}, 200, true}, {{0x5000, 0x3000}, 200, true},
        {{0x501E, 0x3000}, 200, true}, {{0x0029, 0x1001}, 200, false}, {{0x0071, 0x1022}, 200, false},
        {{0x5020, 0x3000}, 200, false}};
    // clang-format on
    DcmDataset dataset;
    for (auto const& [key, length, kept] : sized) {
        if (DcmTag(key).getEVR() == EVR_LT || DcmTag(key).getEVR() == EVR_DS)
            dataset.putAndInsertString(key, std::string(length, '7').c_str());
        else
            insertOB(&dataset, key, length);
    }
    dataset.putAndInsertUint32({0x0008, 0x0000}, 10); // group lengths are dropped
    DcmItem* item = nullptr;
    dataset.findOrCreateSequenceItem(DCM_ReferencedImageSequence, item);
    item->putAndInsertString(DCM_TextValue, std::string(maxSize + 2, 't').c_str());
    // Lookup tables in items are large by nature; a private sequence is not.
    for (DcmTagKey key : {DcmTagKey(0x0028, 0x3010), DcmTagKey(0x2050, 0x0010), DcmTagKey(0x0029, 0x1010)}) {
        dataset.findOrCreateSequenceItem(key, item);
        insertOB(item, key.getGroup() == 0x0029 ? DcmTagKey(0x0029, 0x1011) : DcmTagKey(0x0028, 0x3006), 200);
    }
    std::unique_ptr<TagMap> map(TagMap::createTagMap(&dataset, maxSize));
    for (auto const& [key, length, kept] : sized)
        EXPECT_EQ(own(map.get(), key), kept ? QByteArray(int(length), '7') : "!") << key;
    EXPECT_TRUE(map->ownElement(DCM_PatientComments)->mValue.isEmpty());
    EXPECT_EQ(map->ownElement({0x0008, 0x0000}), nullptr);
    auto* references = dynamic_cast<TagSequence*>(map->ownElement(DCM_ReferencedImageSequence));
    ASSERT_TRUE(references && references->mItems.size() == 1);
    EXPECT_TRUE(references->mItems[0]->isItem());
    EXPECT_EQ(tree(references->mItems[0]), "TextValue=!"); // no transfer syntax in items
    for (DcmTagKey key : {DcmTagKey(0x0028, 0x3010), DcmTagKey(0x2050, 0x0010)}) {
        auto* lut = dynamic_cast<TagSequence*>(map->ownElement(key));
        ASSERT_TRUE(lut && lut->mItems.size() == 1) << key;
        EXPECT_EQ(own(lut->mItems[0], {0x0028, 0x3006}).size(), 200);
    }
    EXPECT_EQ(own(map.get(), {0x0029, 0x1010}), "!");
    EXPECT_NE(map->ownElement(Tags::TransferSyntax), nullptr);
}

TEST(TransferSyntaxTest, StoredCodesMapToDcmtkAndBack)
{
    // The stored codes follow DCMTK's numbering but for deflate, which moved
    // there (stored 25) and pushed what followed it; the codes are on disk.
    std::pair<int, E_TransferSyntax> const pairs[] = {
        {0, EXS_LittleEndianImplicit},           {22, static_cast<E_TransferSyntax>(22)},
        {23, static_cast<E_TransferSyntax>(24)}, {25, EXS_DeflatedLittleEndianExplicit},
        {28, static_cast<E_TransferSyntax>(32)}, {35, static_cast<E_TransferSyntax>(28)},
        {41, static_cast<E_TransferSyntax>(41)}};
    for (auto const& [code, dcmtk] : pairs) {
        EXPECT_EQ(MdxToDcmtk(static_cast<TransferSyntax>(code)), dcmtk) << code;
        EXPECT_EQ(DcmtkToMdx(dcmtk), code) << code;
    }
    EXPECT_EQ(MdxToDcmtk(42), EXS_Unknown);
    EXPECT_EQ(MdxToDcmtk(TransferSyntaxUnknown), EXS_Unknown);
    EXPECT_EQ(DcmtkToMdx(EXS_Unknown), 0xFF);
    EXPECT_EQ(DcmtkToMdx(static_cast<E_TransferSyntax>(42)), 0xFF);
}
