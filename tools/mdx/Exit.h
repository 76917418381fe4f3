// How the mdx tool ends: named exit statuses, and one line per failure on
// standard error in the tool's own words.
#pragma once

#include <string>

namespace mdxtool {

// Ranges: 0 success, 1 wrong usage, 2-4 input, 5 output, 6-7 processing.
enum class ExitCode
{
    Ok = 0,
    Usage = 1,           // unknown command or option, missing argument
    NoInput = 2,         // a named file, folder, tag file or study does not exist
    UnreadableInput = 3, // it exists but cannot be read (a damaged tag file or catalog)
    NothingFound = 4,    // no DICOM image in the input, no such image in a tag file
    OutputError = 5,     // the meta folder, a tag file or the catalog cannot be written
    ProcessingError = 6, // the library refused a change
    Kept = 7             // build kept a tag file with more images (--force replaces it)
};

// What `mdx --help` and the README say about the exit statuses.
extern char const kExitCodeHelp[];

// Prints "mdx: <message>" on standard error; returns code as an exit status.
int fail(ExitCode code, char const* format, ...) __attribute__((format(printf, 2, 3)));
// Prints "mdx: <message>" on standard error.
void warn(char const* format, ...) __attribute__((format(printf, 1, 2)));
// The text of the operating system's last error (errno).
std::string osError();

inline int status(ExitCode code)
{
    return static_cast<int>(code);
}

} // namespace mdxtool
