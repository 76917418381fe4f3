// Whether a download delivered its whole object. Network streams read a
// transfer that broke off as an ordinary end of data; only the transfer's
// own status (HTTP code, curl error, bytes against the announced length)
// tells the two apart.
#pragma once

#include <string>

class LmCurlDownloadStream;

namespace Kz {
class File;
}

// Empty when the download is sound after delivered bytes came out of it;
// otherwise what went wrong, in a few words. A negative delivered checks the
// answer only, as right after the open.
std::string downloadFault(LmCurlDownloadStream const& stream, long long delivered);
// The same for a file of the cloud reader (null: a file that isn't open).
std::string cloudFileFault(Kz::File const* file, long long delivered);
