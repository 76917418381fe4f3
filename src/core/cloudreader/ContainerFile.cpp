#include <mdxlib/cloudreader/ContainerFile.h>

#include <mdxlib/platform/McLogFile.h>

#include <algorithm>
#include <stdexcept>

namespace Kz {

namespace {

char const kCategory[] = "Kzip";
// The table is read in pieces of this size, so that a header that claims a
// huge table costs no more memory than the object holds.
constexpr long long kTableReadBlock = 1 << 20;

void traceError(char const* text)
{
    getTheLogInstance()->trace(3, kCategory, text);
}

} // namespace

ContainerFile::ContainerFile(std::string url, ByteReader reader, long long objectLength)
    : mUrl(std::move(url))
    , mReader(std::move(reader))
    , mObjectLength(objectLength)
    , mLastAccess(std::chrono::steady_clock::now())
{
}

bool ContainerFile::ensureInitialized()
{
    // With the mutex held by the caller: concurrent first users wait here for
    // the one read of the table.
    if (mInitialized)
        return mInitResult;
    mInitResult = init();
    mInitialized = true;
    return mInitResult;
}

long long ContainerFile::readFully(long long offset, char* data, long long length)
{
    long long done = 0;
    while (done < length) {
        long long const got = mReader(offset + done, data + done, length - done);
        if (got < 0)
            return got;
        if (got == 0)
            break;
        done += got;
    }
    return done;
}

bool ContainerFile::init()
{
    char header[kContainerHeaderSize];
    long long const got = readFully(0, header, sizeof header);
    // A failing read was traced by the reader; a short one is the object's
    // end, which the header check reports.
    if (got < 0)
        return false;
    try {
        std::uint32_t const tableBytes = checkContainerHeader(header, static_cast<std::size_t>(got));
        long long const tableEnd = static_cast<long long>(kContainerHeaderSize) + tableBytes;
        // A table the object cannot hold is as invalid as one whose entries
        // overrun it; the read below would only find out later.
        if (mObjectLength >= 0 && tableEnd > mObjectLength)
            throw std::runtime_error("Invalid offset table");
        std::vector<char> table;
        while (table.size() < tableBytes) {
            long long const have = static_cast<long long>(table.size());
            long long const want = std::min<long long>(kTableReadBlock, tableBytes - have);
            table.resize(static_cast<std::size_t>(have + want));
            long long const read =
                readFully(static_cast<long long>(kContainerHeaderSize) + have, table.data() + have, want);
            if (read < 0)
                return false;
            if (read < want)
                throw std::runtime_error("Invalid offset table");
        }
        return parseOffsetTable(table);
    } catch (std::runtime_error const& error) {
        mInitError = error.what();
        traceError(error.what());
        return false;
    }
}

bool ContainerFile::parseOffsetTable(std::vector<char> const& table)
{
    try {
        mEntries = parseOffsetTableEntries(table);
    } catch (std::runtime_error const& error) {
        mInitError = error.what();
        traceError(error.what());
        return false;
    }
    // A name that occurs twice keeps its first entry. Names are compared
    // whole: one holding a zero byte is never taken for its first part.
    for (std::shared_ptr<Entry> const& entry : mEntries)
        mIndex.emplace(std::string_view(entry->name), entry);
    return true;
}

std::shared_ptr<ContainerFile::Entry> ContainerFile::findEntry(char const* member)
{
    auto const it = mIndex.find(std::string_view(member));
    if (it == mIndex.end()) {
        getTheLogInstance()->tracef(3, kCategory, "Container file %s does not include %s", mUrl.c_str(),
                                    member);
        return nullptr;
    }
    return it->second;
}

std::shared_ptr<ContainerFile::Entry> ContainerFile::findMember(char const* member)
{
    std::shared_ptr<Entry> entry = findEntry(member);
    // The table is only a promise: a member whose bytes lie past the end of
    // the object would read as short, and a short DICOM file can pass for a
    // whole one. It is refused instead, while the other members stay usable.
    if (entry && mObjectLength >= 0 &&
        static_cast<long long>(entry->offset) + static_cast<long long>(entry->size) > mObjectLength) {
        getTheLogInstance()->tracef(
            3, kCategory, "Member %s of container file %s runs past the end of the object (%u + %u > %lld)",
            member, mUrl.c_str(), entry->offset, entry->size, mObjectLength);
        return nullptr;
    }
    return entry;
}

std::optional<ContainerFile::Range> ContainerFile::openMember(char const* member, LmSessionContextID context)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!ensureInitialized())
        return std::nullopt;
    std::shared_ptr<Entry> const entry = findMember(member);
    if (!entry)
        return std::nullopt;
    if (context != -1 && std::find(mContexts.begin(), mContexts.end(), context) == mContexts.end())
        mContexts.push_back(context);
    mLastAccess = std::chrono::steady_clock::now();
    return Range{entry->offset, entry->size};
}

std::optional<ContainerFile::Range> ContainerFile::openMemberRange(char const* member, long long first,
                                                                   long long last)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!ensureInitialized())
        return std::nullopt;
    std::shared_ptr<Entry> const entry = findMember(member);
    if (!entry)
        return std::nullopt;
    mLastAccess = std::chrono::steady_clock::now();
    return Range{static_cast<long long>(entry->offset) + first, last - first + 1};
}

long long ContainerFile::fileLength(char const* member)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!ensureInitialized())
        return -1;
    std::shared_ptr<Entry> const entry = findMember(member);
    if (!entry)
        return -1;
    mLastAccess = std::chrono::steady_clock::now();
    return entry->size;
}

bool ContainerFile::removeContext(LmSessionContextID context)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mContexts.erase(std::remove(mContexts.begin(), mContexts.end(), context), mContexts.end());
    return mContexts.empty();
}

bool ContainerFile::load()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return ensureInitialized();
}

std::string ContainerFile::initError() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mInitError;
}

std::vector<ContainerFile::Entry> ContainerFile::entries()
{
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<Entry> result;
    if (!ensureInitialized())
        return result;
    result.reserve(mEntries.size());
    for (std::shared_ptr<Entry> const& entry : mEntries)
        result.push_back(*entry);
    return result;
}

std::chrono::steady_clock::time_point ContainerFile::lastAccess() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mLastAccess;
}

} // namespace Kz
