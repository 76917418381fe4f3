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
    : ContainerFile(std::move(url), std::move(reader), LengthSource([objectLength] { return objectLength; }))
{
}

ContainerFile::ContainerFile(std::string url, ByteReader reader, LengthSource objectLength)
    : mUrl(std::move(url))
    , mReader(std::move(reader))
    , mLengthSource(std::move(objectLength))
    , mLastAccess(std::chrono::steady_clock::now())
{
}

bool ContainerFile::ensureInitialized(std::unique_lock<std::mutex>& lock)
{
    // Concurrent first users wait here for the one reading of the table,
    // which runs with the mutex released: nobody holds it across a network
    // wait, so removeContext and the reader's expiry never block on one.
    mInitDone.wait(lock, [this] { return !mInitializing; });
    if (mInitialized)
        return mInitResult;
    mInitializing = true;
    lock.unlock();
    Table table;
    try {
        table = init();
    } catch (...) {
        // Out of memory, say: the waiters must not wait for ever.
        lock.lock();
        mInitializing = false;
        mInitDone.notify_all();
        throw;
    }
    lock.lock();
    mEntries = std::move(table.entries);
    // A name that occurs twice keeps its first entry. Names are compared
    // whole: one holding a zero byte is never taken for its first part.
    for (std::shared_ptr<Entry> const& entry : mEntries)
        mIndex.emplace(std::string_view(entry->name), entry);
    mInitError = std::move(table.error);
    mObjectLength = table.objectLength;
    mInitResult = table.ok;
    mInitialized = true;
    mInitializing = false;
    mInitDone.notify_all();
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

ContainerFile::Table ContainerFile::init()
{
    Table result;
    char header[kContainerHeaderSize];
    long long const got = readFully(0, header, sizeof header);
    // A failing read was traced by the reader; a short one is the object's
    // end, which the header check reports.
    if (got < 0) {
        result.error = "cannot be read";
        return result;
    }
    result.objectLength = mLengthSource ? mLengthSource() : -1;
    try {
        std::uint32_t const tableBytes = checkContainerHeader(header, static_cast<std::size_t>(got));
        long long const tableEnd = static_cast<long long>(kContainerHeaderSize) + tableBytes;
        // A table the object cannot hold is as invalid as one whose entries
        // overrun it; the read below would only find out later.
        if (result.objectLength >= 0 && tableEnd > result.objectLength)
            throw std::runtime_error("Invalid offset table");
        std::vector<char> table;
        while (table.size() < tableBytes) {
            long long const have = static_cast<long long>(table.size());
            long long const want = std::min<long long>(kTableReadBlock, tableBytes - have);
            table.resize(static_cast<std::size_t>(have + want));
            long long const read =
                readFully(static_cast<long long>(kContainerHeaderSize) + have, table.data() + have, want);
            if (read < 0) {
                result.error = "cannot be read";
                return result;
            }
            if (read < want)
                throw std::runtime_error("Invalid offset table");
        }
        result.ok = parseOffsetTable(table, result);
    } catch (std::runtime_error const& error) {
        result.error = error.what();
        traceError(error.what());
    }
    return result;
}

bool ContainerFile::parseOffsetTable(std::vector<char> const& table, Table& result)
{
    try {
        result.entries = parseOffsetTableEntries(table);
    } catch (std::runtime_error const& error) {
        result.error = error.what();
        traceError(error.what());
        return false;
    }
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
    std::unique_lock<std::mutex> lock(mMutex);
    if (!ensureInitialized(lock))
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
    std::unique_lock<std::mutex> lock(mMutex);
    if (!ensureInitialized(lock))
        return std::nullopt;
    std::shared_ptr<Entry> const entry = findMember(member);
    if (!entry)
        return std::nullopt;
    mLastAccess = std::chrono::steady_clock::now();
    return Range{static_cast<long long>(entry->offset) + first, last - first + 1};
}

long long ContainerFile::fileLength(char const* member)
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (!ensureInitialized(lock))
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
    std::unique_lock<std::mutex> lock(mMutex);
    return ensureInitialized(lock);
}

std::string ContainerFile::initError() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mInitError;
}

std::vector<ContainerFile::Entry> ContainerFile::entries()
{
    std::unique_lock<std::mutex> lock(mMutex);
    std::vector<Entry> result;
    if (!ensureInitialized(lock))
        return result;
    result.reserve(mEntries.size());
    for (std::shared_ptr<Entry> const& entry : mEntries)
        result.push_back(*entry);
    return result;
}

std::chrono::steady_clock::time_point ContainerFile::lastAccess() const
{
    return mLastAccess.load();
}

} // namespace Kz
