#include <mdxlib/platform/McFilename.h>

#include <cctype>
#include <cstring>
#include <string_view>

namespace {

// Length of the scheme when path starts with "<scheme>://", else 0.
size_t schemeLength(char const* path)
{
    if (!path)
        return 0;
    size_t n = 0;
    while (path[n] && (std::isalnum(static_cast<unsigned char>(path[n])) || path[n] == '+' ||
                       path[n] == '-' || path[n] == '.'))
        ++n;
    return n >= 2 && std::strncmp(path + n, "://", 3) == 0 ? n : 0;
}

} // namespace

bool McFilename::isUrl(char const* path)
{
    return schemeLength(path) > 0;
}

bool McFilename::isWado(char const* path)
{
    std::string_view const scheme(path ? path : "", schemeLength(path));
    return scheme == "wa" || scheme == "was" || scheme == "wr" || scheme == "wrs";
}

bool McFilename::isInContainer(char const* path)
{
    if (!path)
        return false;
    for (char const* at = std::strstr(path, ".kz/"); at; at = std::strstr(at + 1, ".kz/")) {
        // ".kz" must end a path element with a name in front of it.
        if (at > path && at[-1] != '/' && at[-1] != '\\')
            return true;
    }
    return false;
}
