#include <mdxlib/platform/McResult.h>

#include <utility>

McResult McResult::success()
{
    return McResult();
}

McResult McResult::failure(std::string message)
{
    McResult result;
    result.mOk = false;
    result.mMessage = std::move(message);
    return result;
}
