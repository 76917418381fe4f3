// Read access to the members of a .kz container.
//
// A container is one object that packs many small files (see Kz::Writer for
// its format). It is opened by the first access to one of its members: the
// offset table at its start is read once, and from then on a member is found
// by name and read as a byte range of the object. The bytes come through a
// ByteReader, a function that reads a range of the object: LocalObject serves
// it for a file on disk, the cloud reader for a URL.
//
// Failures give a null result with one trace line (category "Kzip", level 3)
// for the cause. A container whose table was bad stays bad, and says so only
// at the first access.
//
// The table is read with no lock held: the first user reads it, later users
// wait on a condition for that one reading, and nobody holds the mutex while
// bytes come over the network. So the cloud reader's thread, which looks at
// lastAccess with its own mutex held, never waits for a reading that only it
// can finish.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/cloudreader/OffsetTable.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A session of the server that opened files; -1 stands for none.
using LmSessionContextID = std::int32_t;

namespace Kz {

class MDX_EXPORT ContainerFile
{
public:
    using Entry = ContainerEntry;
    // Reads up to length bytes of the object at offset into data. Returns the
    // count, which is short only at the end of the object, or a negative
    // value on failure (after the reader traced why).
    using ByteReader = std::function<long long(long long offset, char* data, long long length)>;

    // Where a member's bytes lie in the object.
    struct Range
    {
        long long start;
        long long length;
    };

    // The object's size in bytes, or -1 when not known; asked once, after
    // the header was read (a remote object's size comes with its first bytes).
    using LengthSource = std::function<long long()>;

    // objectLength is the object's size in bytes, or -1 when not known yet.
    // Nothing is read here.
    ContainerFile(std::string url, ByteReader reader, long long objectLength = -1);
    ContainerFile(std::string url, ByteReader reader, LengthSource objectLength);

    ContainerFile(ContainerFile const&) = delete;
    ContainerFile& operator=(ContainerFile const&) = delete;

    std::string const& url() const { return mUrl; }

    // Opens a member for the session context (-1: none): its byte range, or
    // nothing when the container is bad or lacks the member.
    std::optional<Range> openMember(char const* member, LmSessionContextID context);
    // Bytes first to last of a member, counted from the member's start. A
    // range beyond the member is not checked: reading stops at the object's
    // end.
    std::optional<Range> openMemberRange(char const* member, long long first, long long last);
    // The member's size, or -1.
    long long fileLength(char const* member);
    // Forgets the context; true when no context is left.
    bool removeContext(LmSessionContextID context);

    // Reads the table if that has not happened yet; false if the container
    // is bad. The reason is then in initError().
    bool load();
    std::string initError() const;
    // The members in table order; empty for a bad container.
    std::vector<Entry> entries();
    std::chrono::steady_clock::time_point lastAccess() const;

private:
    // What one reading of the table found.
    struct Table
    {
        bool ok = false;
        std::vector<std::shared_ptr<Entry>> entries;
        std::string error;
        long long objectLength = -1;
    };

    // With the lock held on entry and on return; released while reading.
    bool ensureInitialized(std::unique_lock<std::mutex>& lock);
    Table init();
    static bool parseOffsetTable(std::vector<char> const& table, Table& result);
    std::shared_ptr<Entry> findEntry(char const* member);
    // findEntry, and refuses a member whose bytes the object does not hold.
    std::shared_ptr<Entry> findMember(char const* member);
    // Reads until length bytes came or the object ended; negative on failure.
    long long readFully(long long offset, char* data, long long length);

    std::string mUrl;
    ByteReader mReader;
    LengthSource mLengthSource;
    long long mObjectLength = -1;

    mutable std::mutex mMutex;
    std::condition_variable mInitDone;
    bool mInitializing = false;
    std::vector<LmSessionContextID> mContexts;
    std::vector<std::shared_ptr<Entry>> mEntries;
    bool mInitResult = false;
    bool mInitialized = false;
    // Keys are views of the names in mEntries, which never change after init.
    std::map<std::string_view, std::shared_ptr<Entry>> mIndex;
    // Read by the cloud reader's thread under its own mutex: no lock here.
    std::atomic<std::chrono::steady_clock::time_point> mLastAccess;
    std::string mInitError;
};

} // namespace Kz
