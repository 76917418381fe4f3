// What the cloud reader needs of a container object (a ".kz" archive whose
// members are opened as Kz::Files on one shared controller).
//
// The reader keeps containers by the URL up to ".kz". It reads lastAccess
// on its own thread while it holds its mutex, so that is an atomic, and it
// calls removeContext with its mutex released: a container's mutex comes
// before the reader's in the lock order. A container never holds its mutex
// across a network wait (its first opening reads the table with the mutex
// released, and others wait on a condition), since only the reader's thread
// can end that wait.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/LmSessionContextID.h>

#include <chrono>
#include <memory>

namespace Kz {

class File;

class MDX_EXPORT Container
{
public:
    virtual ~Container();

    // Null for a member the container doesn't hold.
    virtual std::shared_ptr<File> open(char const* member, LmSessionContextID context) = 0;
    virtual std::shared_ptr<File> openRange(char const* member, long long first, long long last) = 0;
    // -1 for a member the container doesn't hold.
    virtual long long fileLength(char const* member) = 0;
    // True if no session holds the container any more.
    virtual bool removeContext(LmSessionContextID context) = 0;
    // The last open, openRange or fileLength.
    virtual std::chrono::steady_clock::time_point lastAccess() const = 0;
};

} // namespace Kz
