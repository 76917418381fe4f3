#include "FileLock.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <sys/file.h>
#include <sys/stat.h>

namespace Mdx {

FileLockResult lockForUpdate(int fd, QString const& path, int* error)
{
    int dummy = 0;
    int& code = error ? *error : dummy;
    code = 0;
    if (fd < 0) {
        code = EBADF;
        return FileLockResult::Failed;
    }
    int status;
    do {
        status = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (status != 0 && errno == EINTR);
    if (status != 0) {
        code = errno;
        return code == EWOULDBLOCK ? FileLockResult::Busy : FileLockResult::Failed;
    }
    struct stat held = {};
    struct stat named = {};
    if (::fstat(fd, &held) != 0) {
        code = errno;
        return FileLockResult::Failed;
    }
    if (::stat(QFile::encodeName(path).constData(), &named) != 0) {
        code = errno;
        return code == ENOENT ? FileLockResult::Replaced : FileLockResult::Failed;
    }
    if (held.st_dev != named.st_dev || held.st_ino != named.st_ino)
        return FileLockResult::Replaced;
    return FileLockResult::Locked;
}

char const* describe(FileLockResult result, int error)
{
    switch (result) {
    case FileLockResult::Locked:
        return "locked";
    case FileLockResult::Busy:
        return "another process is writing it";
    case FileLockResult::Replaced:
        return "it was replaced or deleted while being opened";
    case FileLockResult::Failed:
        break;
    }
    return std::strerror(error);
}

} // namespace Mdx
