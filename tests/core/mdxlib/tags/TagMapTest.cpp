// Tag map nodes: private blocks, reading and writing elements, the
// size-driven reorganisation, comparison, the maps built from DCMTK data
// sets, and the long length form of the wire. Merging, inheritance and the
// wire on real studies are checked by SampleStudiesTest and the fuzz
// corpus, the reorganisation of real series by the corpus digests.
#include "support/TagLayer.h"

using namespace Mdx;
using mdxtest::link;

namespace {

TagMap* node(QByteArray const& attributes)
{
    return mdxtest::makeNode(attributes);
}

TagSequence* putSequence(TagMap* map, DcmTagKey const& key, int count)
{
    return mdxtest::putSequence(*map, key, count, true);
}

QByteArray text(TagElement const* e, char const* none)
{
    return !e                     ? QByteArray(none)
           : e->isMissingMarker() ? "~"
           : e->isOmittedMarker() ? "!"
                                  : e->mValue.toByteArray();
}

// What a node holds itself ("-": nothing).
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

} // namespace

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

// The merge counts what children brought under a node: the first child's
// values become the node's, later ones differ from them or lack them.
TEST(TagMapTest, MergeCountsDifferingAndMissingChildren)
{
    TagMap series;
    char const* const values[] = {"A", "A", "B", nullptr, "C"};
    int uid = 0;
    for (char const* value : values) {
        auto* image = new TagMap;
        image->putAndInsertValue(DCM_SOPInstanceUID, VR_UI, QByteArray::number(++uid));
        if (value)
            image->putAndInsertValue(kKey, VR_LO, value);
        series.addChildMap(image, TagMap::LevelImage);
    }
    TagMap::MergeCounts const counts = series.mergeCounts(kKey);
    EXPECT_EQ(std::make_pair(counts.different, counts.missing), std::make_pair(2, 1));
    EXPECT_EQ(series.mergeCounts(DCM_PatientName).different, 0);
}

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

TEST(TagMapTest, CompareReportsTheFirstDifference)
{
    // clang-format off
    struct { char const *a, *b; bool all; char const* difference; } const cases[] = {
        {"PatientName:PN=A|PatientID=1", "PatientName:PN=A", false, "(0010,0020) LO Missing tag\n"},
        {"PatientID=1", "PatientBirthDate:DA=20000101", false, "(0010,0020) LO <> (0010,0030) DA\n"},
        {"PatientID=1", "PatientID=2", false, "(0010,0020) LO [1] <> [2]\n"},
        {"PatientID=1", "PatientID:SH=1", false, ""}, // the VR counts only when all is compared
        {"PatientID=1", "PatientID:SH=1", true, "(0010,0020) LO [1] <> [1]\n"},
        {"Rows:US=\x02\x01", "Rows:OB=\x02\x01", true, "(0028,0010) US [258] <> [02\\01]\n"}, // each in its VR
        // Own groups are skipped and private values not compared unless all is.
        {"PatientID=1|0006,7100=/a|0071,1001=x|0029,1010=x", "PatientID=1|0029,1010=y", false, ""},
        {"PatientID=1|0006,7100=/a|0071,1001=x", "PatientID=1", true, "(0006,7100) LO <> (0010,0020) LO\n"}};
    // clang-format on
    for (auto const& c : cases) {
        std::unique_ptr<TagMap> a(node(c.a)), b(node(c.b));
        std::string difference = "untouched";
        EXPECT_EQ(a->compare(*b, c.all, &difference), !*c.difference) << c.a << " / " << c.b;
        EXPECT_EQ(difference, *c.difference ? c.difference : "untouched") << c.a << " / " << c.b;
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

TEST(LengthForm, shortAndLongLengths)
{
    LmMsg msg;
    Mdx::TagMapSerializer::writeLength(msg, 65534);
    EXPECT_EQ(msg.size(), 2u);
    Mdx::TagMapSerializer::writeLength(msg, 65535);
    EXPECT_EQ(msg.size(), 8u);
    Mdx::TagMapSerializer::writeLength(msg, 0x12345678);
    LmMsg in(msg.dataPtr(), msg.size());
    EXPECT_EQ(TagMap::readLength(in), 65534);
    EXPECT_EQ(TagMap::readLength(in), 65535);
    EXPECT_EQ(TagMap::readLength(in), 0x12345678);
}
