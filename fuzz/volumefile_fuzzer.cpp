// Fuzz target for the volume file reader.
//
// Any byte sequence must end in a refusal with a message or in a mesh whose
// sections, histogram and SOP list can be read the way the tag file
// generator reads them, both from a seekable file and from a forward-only
// stream, with the same outcome. An accepted mesh is written and read
// again: what the reader takes, the writer must store and the reader take
// back.
//
// The same function runs in the normal test build (volumefile_replay_test).
#include <mdxlib/platform/LmHistogram.h>
#include <mdxlib/platform/McSOPInstanceUtility.h>
#include <mdxlib/platform/volumefile/OndraMesh.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

[[noreturn]] void fail(char const* what)
{
    std::fprintf(stderr, "volumefile_fuzzer: %s\n", what);
    std::abort();
}

// Reads what the generator reads; the number of sections that loaded.
int use(OndraMesh& mesh)
{
    std::vector<std::string> uids;
    McSOPInstanceUtility::sopUIDList(mesh.bundle("SOPInstanceUIDs", false), uids);
    double box[6];
    mesh.findReal("BoundingBox", 6, box);
    int loaded = 0;
    for (char const* name : {"Level1_Data0", "Histogram", "Level0_Data0"}) {
        OndraMesh::Data* data = mesh.findData(nullptr, 0, 0, name);
        if (data && data->readData()) {
            if (data->bytes().size() != data->byteSize() || !data->lattice())
                fail("a loaded section does not have its announced size");
            ++loaded;
        }
    }
    LmHistogram histogram;
    OndraMesh::readHistogram(mesh.findData("Histogram", 0, 1, "Histogram"), histogram);
    return loaded;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    std::string const bytes(reinterpret_cast<char const*>(data), size);
    McResult result;
    std::istringstream stream(bytes);
    std::unique_ptr<OndraMesh> mesh(OndraMesh::read(stream, "input", true, &result));
    if (!mesh) {
        if (result.ok() || result.message().empty())
            fail("a refusal without a message");
        return 0;
    }
    use(*mesh);

    std::unique_ptr<OndraMesh> whole;
    {
        std::istringstream again(bytes);
        whole.reset(OndraMesh::read(again, "input", false, &result));
    }
    if (!whole)
        return 0; // a section beyond the end: refused when all are read
    std::ostringstream written;
    if (!whole->write(written))
        fail("an accepted volume file could not be written");
    std::istringstream back(written.str());
    std::unique_ptr<OndraMesh> reread(OndraMesh::read(back, "written", false, &result));
    if (!reread)
        fail("a written volume file could not be read back");
    if (reread->dataSections().size() != whole->dataSections().size())
        fail("the section count changed on the way through the writer");
    for (size_t i = 0; i < whole->dataSections().size(); ++i)
        if (reread->dataSections()[i]->bytes() != whole->dataSections()[i]->bytes())
            fail("a section changed on the way through the writer");
    return 0;
}
