// The outcome of an operation that can fail: success, or failure with a
// message. Cheap to return by value.
#pragma once

#include <mdxlib/Export.h>

#include <string>

class MDX_EXPORT McResult
{
public:
    McResult() = default; // success

    static McResult success();
    static McResult failure(std::string message);

    bool ok() const { return mOk; }
    explicit operator bool() const { return mOk; }
    std::string const& message() const { return mMessage; }

private:
    bool mOk = true;
    std::string mMessage;
};
