// The advisory lock of a tag file that is read, changed and written back.
#pragma once

namespace Mdx {

// Takes an exclusive advisory lock (flock) on the open file descriptor fd
// without waiting. False when another open file holds it, or the call
// fails; the lock goes with the last close of the descriptor. Writers that
// read, change and write back a tag file take it, so that two of them never
// interleave; readers need none, as the format carries its own lengths.
bool tryLockExclusive(int fd);

} // namespace Mdx
