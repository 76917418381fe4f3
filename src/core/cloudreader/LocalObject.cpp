#include <mdxlib/cloudreader/LocalObject.h>

#include <mdxlib/platform/McLogFile.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kz {

namespace {

// Read-only: a failing close loses nothing, but is worth a line.
void closeDescriptor(int fd, std::string const& path)
{
    if (::close(fd) != 0)
        getTheLogInstance()->tracef(2, "Kzip", "Closing %s: %s", path.c_str(), std::strerror(errno));
}

} // namespace

std::shared_ptr<LocalObject> LocalObject::open(std::string const& path, std::string& error)
{
    int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = std::strerror(errno);
        return nullptr;
    }
    struct stat info;
    if (::fstat(fd, &info) != 0) {
        error = std::strerror(errno);
        closeDescriptor(fd, path);
        return nullptr;
    }
    if (!S_ISREG(info.st_mode)) {
        error = S_ISDIR(info.st_mode) ? std::strerror(EISDIR) : "Not a regular file";
        closeDescriptor(fd, path);
        return nullptr;
    }
    std::shared_ptr<LocalObject> object(new LocalObject(path, fd, static_cast<long long>(info.st_size)));
    object->mSelf = object;
    return object;
}

LocalObject::LocalObject(std::string path, int fd, long long length)
    : mPath(std::move(path))
    , mFd(fd)
    , mLength(length)
{
}

LocalObject::~LocalObject()
{
    closeDescriptor(mFd, mPath);
}

long long LocalObject::read(long long offset, char* data, long long length) const
{
    if (offset < 0 || length < 0)
        return -1;
    long long done = 0;
    while (done < length) {
        ssize_t const got = ::pread(mFd, data + done, static_cast<size_t>(length - done), offset + done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            getTheLogInstance()->tracef(3, "Kzip", "Cannot read %s: %s", mPath.c_str(), std::strerror(errno));
            return -1;
        }
        if (got == 0)
            break;
        done += got;
    }
    return done;
}

std::function<long long(long long, char*, long long)> LocalObject::reader()
{
    std::shared_ptr<LocalObject> self = mSelf.lock();
    return
        [self](long long offset, char* data, long long length) { return self->read(offset, data, length); };
}

} // namespace Kz
