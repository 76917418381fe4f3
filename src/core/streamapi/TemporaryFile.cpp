#include "TemporaryFile.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

std::string createTemporaryBeside(std::string const& path)
{
    static std::atomic<unsigned> counter{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string const name =
            path + ".part-" + std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1));
        int const fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            ::close(fd);
            return name;
        }
        if (errno != EEXIST)
            return std::string();
    }
    return std::string();
}
