#include <mdxlib/tagfile/FileLock.h>

#include <cerrno>
#include <sys/file.h>

namespace Mdx {

bool tryLockExclusive(int fd)
{
    if (fd < 0)
        return false;
    int result = 0;
    do {
        result = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

} // namespace Mdx
