// The upload sessions' XML readers over the answers of the services and their damaged forms,
// and the fuzz target's entry function over every prefix of them.
#include "support/TestSupport.h"

#include <mdxlib/curl/LmCurlUploadSessionAzure.h>

#include <gtest/gtest.h>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

struct Case
{
    char const* name;
    std::string payload;
    bool ok;
    std::vector<QByteArray> names;
    char const* message;
};

std::vector<Case> const& cases()
{
    // The first as the service answers (Get Block List, x-ms-version 2020-04-08).
    static std::vector<Case> const all{
        {"two committed blocks",
         "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?><BlockList><CommittedBlocks><Block><Name>"
         "AAAAAAAAAAAAAAAAAAAAAA==</Name><Size>8388608</Size></Block><Block><Name>Zm9v+/8=</Name><Size>4</"
         "Size>"
         "</Block></CommittedBlocks><UncommittedBlocks><Block><Name>dW5jb21taXR0ZWQ=</Name></Block>"
         "</UncommittedBlocks></BlockList>",
         true,
         {"AAAAAAAAAAAAAAAAAAAAAA==", "Zm9v+/8="},
         nullptr},
        {"empty blob", "<BlockList><CommittedBlocks/></BlockList>", true, {}, nullptr},
        {"no list",
         "<BlockList><UncommittedBlocks/></BlockList>",
         false,
         {},
         "Unexpected Get Block List payload"},
        {"not XML", "<html>gateway", false, {}, "Cannot parse Get Block List payload"},
        {"cut short", "<BlockList><CommittedBlocks><Block><Name>AAAA", false, {}, "Cannot parse"},
    };
    return all;
}

TEST(UploadXml, BlockListsAreReadOrRefusedWithAReason)
{
    for (Case const& c : cases()) {
        SCOPED_TRACE(c.name);
        mdxtest::LogCapture log;
        std::vector<QByteArray> names;
        EXPECT_EQ(LmCurlUploadSessionAzure::parseBlockList(names, c.payload), c.ok);
        if (c.ok) {
            EXPECT_EQ(names, c.names);
        } else {
            EXPECT_EQ(log.count(2, c.message), 1);
        }
    }
}

TEST(UploadXml, EveryPrefixEndsInAnAnswerOrARefusal)
{
    std::vector<std::string> seeds{"0<InitiateMultipartUploadResult><Bucket>b</Bucket><UploadId>VXBsb2Fk"
                                   "</UploadId></InitiateMultipartUploadResult>",
                                   "0<CompleteMultipartUploadResult><ETag>\"x-2\"</ETag>"
                                   "</CompleteMultipartUploadResult>",
                                   "0<Error><Code>InternalError</Code></Error>"};
    for (Case const& c : cases())
        seeds.push_back("1" + c.payload);
    mdxtest::LogCapture quiet;
    for (std::string const& seed : seeds)
        for (size_t n = 0; n <= seed.size(); ++n)
            EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(seed.data()), n), 0);
}

} // namespace
