// The writer's lock on a tag file.
//
// Tag files are changed in place by read-modify-write (merges, deletions,
// update jobs), often by several processes at once. Linux never refuses a
// second writer, so without a lock two such changes would both read, and the
// later write would silently drop what the other one added. Every
// read-modify-write therefore holds an advisory exclusive lock (flock) on the
// open file from its read to its write. Waiting is the caller's business: it
// already retries a failed open for a while, and a lock that is held counts
// as such a failed open. Readers take no lock; the format carries its own
// lengths, so a half-written file reads as damaged, never as wrong data.
#pragma once

#include <QString>

namespace Mdx {

enum class FileLockResult
{
    Locked,   // the lock is held until fd is closed
    Busy,     // another writer holds it: try again later
    Replaced, // path names another file now (deleted or replaced since the open): reopen
    Failed    // the system refused (errno in *error)
};

// Takes the exclusive lock on fd without blocking, then checks that path
// still names the file fd holds: a writer that opened the file just before
// it was deleted would otherwise write into a file nobody can see.
FileLockResult lockForUpdate(int fd, QString const& path, int* error = nullptr);

// Words for a result other than Locked, for "could not open" messages.
char const* describe(FileLockResult result, int error);

} // namespace Mdx
