#include <mdxlib/platform/StorageManager.h>

#include <mdxlib/platform/ExResource.h>

#include <utility>

namespace Lmg {

bool StorageManager::getMetaFolder(std::string& folder) {
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
