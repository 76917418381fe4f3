// Fuzz target for the reading of .kz containers.
//
// Any bytes must end in a refusal or in a table whose every member either
// opens on a byte range inside the object or is refused; a name is found as
// the first entry that carries it. The bytes are offered the way the cloud
// reader offers a remote object, by ranges, with the length known and not.
//
// The same function runs in the normal test build (kz_fuzz_replay_test)
// over containers the writer made, Python-made archives, their truncations
// and mutations.
#include <mdxlib/cloudreader/ContainerFile.h>
#include <mdxlib/cloudreader/OffsetTable.h>
#include <mdxlib/platform/McLogFile.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Refusals are logged by design; at fuzzing speed that would be all the
// fuzzer does.
void silenceLog()
{
    static bool const silenced = [] {
        getTheLogInstance()->setLogLevel(4);
        return true;
    }();
    (void)silenced;
}

[[noreturn]] void fail(char const* what)
{
    std::fprintf(stderr, "kz_container_fuzzer: %s\n", what);
    std::abort();
}

void checkContainer(std::uint8_t const* data, std::size_t size, long long knownLength)
{
    Kz::ContainerFile container(
        "fuzz.kz",
        [data, size](long long offset, char* out, long long length) -> long long {
            if (offset < 0 || length < 0)
                fail("a read outside the object was asked for");
            if (static_cast<std::size_t>(offset) >= size)
                return 0;
            std::size_t const n =
                std::min(static_cast<std::size_t>(length), size - static_cast<std::size_t>(offset));
            std::memcpy(out, data + offset, n);
            return static_cast<long long>(n);
        },
        knownLength);
    if (!container.load()) {
        if (container.initError().empty())
            fail("a refusal without a reason");
        return;
    }
    std::vector<Kz::ContainerFile::Entry> const entries = container.entries();
    if (entries.size() >= Kz::kMaxContainerEntries)
        fail("more members than a table can hold");
    std::map<std::string, Kz::ContainerFile::Entry const*> first;
    for (Kz::ContainerFile::Entry const& entry : entries)
        first.emplace(entry.name, &entry);
    for (auto const& [name, entry] : first) {
        // A name with a zero byte cannot be asked for by a C string.
        if (name.find('\0') != std::string::npos)
            continue;
        std::optional<Kz::ContainerFile::Range> const range = container.openMember(name.c_str(), 1);
        long long const length = container.fileLength(name.c_str());
        bool const inside =
            static_cast<long long>(entry->offset) + entry->size <= static_cast<long long>(size);
        if (knownLength >= 0 && !inside) {
            if (range || length != -1)
                fail("a member past the end of the object was opened");
            continue;
        }
        if (!range || range->start != entry->offset || range->length != entry->size || length != entry->size)
            fail("a member of the table was not opened where the table says");
    }
    if (!container.removeContext(1))
        fail("a context was kept after its removal");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    silenceLog();
    // The parser alone, over the bytes as a table.
    try {
        std::vector<char> const table(data, data + size);
        if (Kz::parseOffsetTableEntries(table).size() >= Kz::kMaxContainerEntries)
            fail("the parser took a count it must refuse");
    } catch (std::runtime_error const&) {
    }
    checkContainer(data, size, static_cast<long long>(size));
    checkContainer(data, size, -1);
    return 0;
}
