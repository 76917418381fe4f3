#include <mdxlib/platform/StorageManager.h>

#include <mdxlib/platform/ExResource.h>

#include <atomic>
#include <utility>

namespace Lmg {

bool StorageManager::getMetaFolder(std::string& folder)
{
    std::optional<std::string> configured = ExResource::getParameter("MDX_META_FOLDER");
    if (!configured || configured->empty()) {
        folder = "./meta/";
        return true;
    }
    folder = std::move(*configured);
    // Callers append file names directly, as they do to the default.
    if (folder.back() != '/') {
        folder += '/';
    }
    return true;
}

} // namespace Lmg

namespace Lmg {

std::vector<std::string> StorageManager::getStorageServers(char const*)
{
    std::vector<std::string> servers;
    std::string const list = ExResource::getParameter("MDX_STORAGE_SERVERS", "");
    size_t start = 0;
    while (start <= list.size()) {
        size_t const comma = list.find(',', start);
        std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        item.erase(0, item.find_first_not_of(" \t"));
        item.erase(item.find_last_not_of(" \t") + 1);
        if (!item.empty())
            servers.push_back(item);
        if (comma == std::string::npos)
            break;
        start = comma + 1;
    }
    return servers;
}

namespace {
std::atomic<bool> sServerOS{false};
} // namespace

std::vector<std::string> StorageManager::retrieveStorageVolumes()
{
    ExResource::reloadConfiguration();
    return getStorageServers(nullptr);
}

void StorageManager::setServerOS(bool serverOS)
{
    sServerOS = serverOS;
}

bool StorageManager::serverOS()
{
    return sServerOS;
}

} // namespace Lmg

bool GetGlobalConfig(std::string const&, char const* section, char const* key, std::string& value)
{
    value.clear();
    if (!section || !key)
        return false;
    std::optional<std::string> found = ExResource::getParameter((std::string(section) + "/" + key).c_str());
    if (!found)
        return false;
    value = *found;
    return true;
}
