// A container object on a local disk, read by byte ranges.
//
// Containers are read through a function that reads a byte range of the
// object (Kz::ContainerFile::ByteReader). On a URL the cloud reader serves
// that function; for a file on a local disk this class does, with pread so
// that several threads may read one object at once.
#pragma once

#include <mdxlib/Export.h>

#include <functional>
#include <memory>
#include <string>

namespace Kz {

class MDX_EXPORT LocalObject
{
public:
    // Opens path for reading; null with the system's reason in error when
    // it cannot be opened or is not a regular file.
    static std::shared_ptr<LocalObject> open(std::string const& path, std::string& error);
    ~LocalObject();

    LocalObject(LocalObject const&) = delete;
    LocalObject& operator=(LocalObject const&) = delete;

    std::string const& path() const { return mPath; }
    // The object's size when it was opened.
    long long length() const { return mLength; }

    // Reads up to length bytes at offset into data: the count, short only at
    // the end of the file, or -1 after tracing the system's reason.
    long long read(long long offset, char* data, long long length) const;

    // read() as a function that keeps this object alive.
    std::function<long long(long long, char*, long long)> reader();

private:
    LocalObject(std::string path, int fd, long long length);

    std::string mPath;
    int mFd;
    long long mLength;
    std::weak_ptr<LocalObject> mSelf;
};

} // namespace Kz
