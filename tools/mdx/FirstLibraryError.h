// The first error the library logged while a command ran: the reason of a
// failed read, told in the command's one failure line. The log itself still
// reaches standard error when MDX_LOG_LEVEL asks for it.
#pragma once

#include <mutex>
#include <string>

namespace mdxtool {

class FirstLibraryError
{
public:
    FirstLibraryError();
    ~FirstLibraryError();
    FirstLibraryError(FirstLibraryError const&) = delete;
    FirstLibraryError& operator=(FirstLibraryError const&) = delete;

    // The first error line, or "no reason given".
    std::string text();
    bool empty();

private:
    std::mutex mMutex;
    std::string mText;
};

} // namespace mdxtool
