#include "FirstLibraryError.h"

#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>

#include <cstdio>

namespace mdxtool {

FirstLibraryError::FirstLibraryError()
{
    bool const echo = ExResource::getParameter("MDX_LOG_LEVEL").has_value();
    if (!echo)
        getTheLogInstance()->setLogLevel(McLogFile::LevelError); // to hear the reason of a failure
    getTheLogInstance()->setWriteCallback([this, echo](int level, std::string const& message) {
        if (echo)
            std::fprintf(stderr, "%s\n", message.c_str());
        std::lock_guard<std::mutex> lock(mMutex);
        if (level >= McLogFile::LevelError && mText.empty())
            mText = message.substr(0, message.find('\n')); // one line for the command's one line
    });
}

FirstLibraryError::~FirstLibraryError()
{
    getTheLogInstance()->setWriteCallback(nullptr);
}

std::string FirstLibraryError::text()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mText.empty() ? std::string("no reason given") : mText;
}

bool FirstLibraryError::empty()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mText.empty();
}

} // namespace mdxtool
