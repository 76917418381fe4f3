#include "Exit.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace mdxtool {

char const kExitCodeHelp[] = "exit status:\n"
                             "  0  success\n"
                             "  1  wrong usage (unknown command or option, missing argument)\n"
                             "  2  a named file, folder, tag file or study does not exist\n"
                             "  3  an input exists but cannot be read (a damaged tag file or catalog)\n"
                             "  4  nothing found: no DICOM image in the input, no such image\n"
                             "  5  the meta folder, a tag file or the catalog cannot be written\n"
                             "  6  the library refused a change\n"
                             "  7  build kept a tag file that holds more images (--force replaces it)\n";

namespace {

void vprint(char const* format, va_list args)
{
    std::fputs("mdx: ", stderr);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
}

} // namespace

int fail(ExitCode code, char const* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(format, args);
    va_end(args);
    return status(code);
}

void warn(char const* format, ...)
{
    va_list args;
    va_start(args, format);
    vprint(format, args);
    va_end(args);
}

std::string osError()
{
    return std::strerror(errno);
}

} // namespace mdxtool
