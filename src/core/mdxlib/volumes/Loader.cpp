#include <mdxlib/volumes/Loader.h>

#include <cstdlib>
#include <cstring>

namespace Mdx {

QByteArray Loader::extractSuffix(char const* path, int* qaNumber)
{
    if (!path)
        return QByteArray();
    int const length = static_cast<int>(std::strlen(path));
    int nameStart = length;
    while (nameStart > 0 && path[nameStart - 1] != '/' && path[nameStart - 1] != '\\')
        --nameStart;

    // The name ends at the first '?' behind the separator; a query may carry
    // the number of a QA record.
    int nameEnd = length;
    for (int i = length - 1; i >= nameStart; --i) {
        if (path[i] != '?')
            continue;
        nameEnd = i;
        if (qaNumber) {
            if (char const* qa = std::strstr(path + i + 1, "QA="))
                *qaNumber = std::atoi(qa + 3);
        }
    }

    static constexpr char kExtension[] = ".dcm";
    int const extensionLength = static_cast<int>(sizeof kExtension) - 1;
    if (nameEnd < 6 || nameEnd - nameStart < extensionLength ||
        std::strncmp(path + nameEnd - extensionLength, kExtension, extensionLength) != 0)
        return QByteArray();

    int const stemEnd = nameEnd - extensionLength;
    int suffixStart = stemEnd;
    while (suffixStart > nameStart && path[suffixStart - 1] != '_')
        --suffixStart;
    return QByteArray(path + suffixStart, stemEnd - suffixStart);
}

} // namespace Mdx
