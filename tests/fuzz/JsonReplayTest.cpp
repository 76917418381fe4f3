// The DICOM JSON fuzz target (fuzz/json_fuzzer.cpp) over generated inputs in
// every build: each declaration and VR with values made of the bytes that
// matter to a decoder and to JSON (escape sequences, upper-half bytes,
// delimiters, quotes, controls, broken UTF-8), random and truncated.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

std::vector<std::string> const kPieces = {"\x1b$B",
                                          "\x1b(B",
                                          "\x1b(J",
                                          "\x1b)I",
                                          "\x1b$)C",
                                          "\x1b$)A",
                                          "\x1b$(D",
                                          "\x1b-A",
                                          "\x1b-F",
                                          "\x1b",
                                          "\x1b$",
                                          ";3",
                                          "ED",
                                          "\xb1\xe6",
                                          "\xfb\xf3",
                                          "\xc3\xa9",
                                          "\xe5\xb1\xb1",
                                          "\xf0\x9f\x98\x80",
                                          "\xc3",
                                          "\xff",
                                          "\x80",
                                          "\\",
                                          "^",
                                          "=",
                                          "\"",
                                          "\\\\",
                                          " ",
                                          "\r\n",
                                          "\t",
                                          std::string(1, '\0'),
                                          "\x01",
                                          "\x7f",
                                          "1.5",
                                          "+2",
                                          ".5",
                                          "-0",
                                          "1e999",
                                          "abc",
                                          "007",
                                          "/data/x",
                                          "s3://b/k",
                                          "studies/",
                                          "#bulk=",
                                          "7FE00010",
                                          "%",
                                          "file:"};

TEST(JsonFuzzReplay, generatedValuesGiveValidJsonInEveryCharacterSet)
{
    std::mt19937 random(20261124);
    int inputs = 0;
    for (int charset = 0; charset < 12; ++charset) {
        for (int vr = 0; vr < 12; ++vr) {
            for (int n = 0; n < 60; ++n) {
                std::string input{char(charset), char(vr)};
                int const pieces = int(random() % 12);
                for (int i = 0; i < pieces; ++i)
                    input += kPieces[random() % kPieces.size()];
                if (n % 5 == 4 && input.size() > 3)
                    input.resize(2 + random() % (input.size() - 2)); // cut anywhere, mid-sequence too
                if (n % 7 == 6)
                    for (int i = 0; i < 8; ++i)
                        input += char(random() % 256);
                LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(input.data()), input.size());
                ++inputs;
            }
        }
    }
    EXPECT_EQ(inputs, 12 * 12 * 60);
}

} // namespace
