// The volume file fuzz target (fuzz/volumefile_fuzzer.cpp) in every build:
// over a small valid file, each of its truncations, and single-byte changes
// at every position.
#include <mdxlib/platform/volumefile/OndraMesh.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

std::string seed()
{
    OndraMesh mesh;
    mesh.parameters().set("HistogramRange", std::vector<double>{0, 1});
    mesh.parameters().bundle("SOPInstanceUIDs", true)->set("UID0", "1.2\\0\\2");
    mesh.parameters().dicomAllCreate()->setTag(0x0008, 0x0060, "PT");
    mesh.addLocation("Histogram", {1});
    mesh.addLocation("Lattice1", {2, 2, 2});
    mesh.addLocation("Lattice2", {1, 1, 1});
    mesh.addData("Histogram", "Histogram", OndraMesh::TypeUInt64, 1, std::vector<char>(8, 1));
    mesh.addData("Lattice2", "Level1_Data0", OndraMesh::TypeUInt16, 1, std::vector<char>(2, 2));
    mesh.addData("Lattice1", "Level0_Data0", OndraMesh::TypeUInt16, 1, std::vector<char>(16, 3));
    std::ostringstream out;
    EXPECT_TRUE(mesh.write(out));
    return out.str();
}

void run(std::string const& bytes)
{
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
}

TEST(VolumeFileReplay, seedTruncationsAndChangedBytes)
{
    std::string const good = seed();
    run(good);
    for (size_t n = 0; n < good.size(); ++n)
        run(good.substr(0, n));
    for (size_t at = 0; at < good.size(); ++at)
        for (unsigned char value : {0x00, 0x7f, 0xff}) {
            std::string changed = good;
            changed[at] = static_cast<char>(value);
            run(changed);
        }
}

} // namespace
