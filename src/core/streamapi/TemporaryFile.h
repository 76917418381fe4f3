// Writing a file so that a failure leaves nothing behind: a new name beside
// the target, renamed into place when complete.
#pragma once

#include <string>

// A name beside path that no other writer uses, created empty (mode 0666
// less the umask). Empty, with errno set, when none could be created.
std::string createTemporaryBeside(std::string const& path);
