#include <mdxlib/platform/HxParamBundle.h>
#include <mdxlib/platform/McSOPInstanceUtility.h>

#include <cerrno>
#include <cstdlib>

namespace {

// More slices than any volume has; a larger count is a damaged entry and
// must not make us allocate for it.
constexpr long kMaxFrames = 1L << 20;

bool parseCount(std::string const& text, long limit, long& out)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 9)
        return false;
    out = std::strtol(text.c_str(), nullptr, 10);
    return out <= limit;
}

} // namespace

void McSOPInstanceUtility::sopUIDList(HxParamBundle const* bundle, std::vector<std::string>& uids)
{
    uids.clear();
    if (!bundle)
        return;
    for (int i = 0; i < bundle->nParameters(); ++i) {
        std::string const text = bundle->parameter(i)->getString();
        size_t const first = text.find('\\');
        if (first == std::string::npos) {
            if (text.empty()) {
                uids.clear();
                return;
            }
            uids.push_back(text);
            continue;
        }
        size_t const second = text.find('\\', first + 1);
        long start = 0, count = 0;
        if (first == 0 || second == std::string::npos ||
            !parseCount(text.substr(first + 1, second - first - 1), kMaxFrames, start) ||
            !parseCount(text.substr(second + 1), kMaxFrames, count) || count < 1 ||
            uids.size() + static_cast<size_t>(count) > static_cast<size_t>(kMaxFrames)) {
            uids.clear();
            return;
        }
        std::string const uid = text.substr(0, first);
        for (long f = start; f < start + count; ++f)
            uids.push_back(uid + "." + std::to_string(f));
    }
}

std::string McSOPInstanceUtility::entry(std::string const& uid, int first, int count)
{
    if (count <= 0)
        return uid;
    return uid + "\\" + std::to_string(first) + "\\" + std::to_string(count);
}
