// Where the storage of the deployment lies.
#pragma once

#include <mdxlib/Export.h>

#include <string>
#include <vector>

namespace Lmg {

class MDX_EXPORT StorageManager
{
public:
    // The folder in which tag files lie: the parameter MDX_META_FOLDER, or
    // "./meta/" when none is configured. Always true.
    static bool getMetaFolder(std::string& folder);

    // The names of the storage servers of a storage configuration: the
    // comma-separated list in MDX_STORAGE_SERVERS (name is not consulted;
    // one deployment has one list).
    static std::vector<std::string> getStorageServers(char const* name);

    // Reads the deployment's configuration again, so that storage added or
    // moved while a server runs is seen by the queries that follow, and
    // returns the storage servers now configured. Called before a study is
    // looked up for a client.
    static std::vector<std::string> retrieveStorageVolumes();

    // Whether this process runs on the server itself (the exported server
    // entry points say so) rather than in a viewer or tool. Kept for the
    // path rules that differ between the two; false until set.
    static void setServerOS(bool serverOS);
    static bool serverOS();
};

} // namespace Lmg

// The global configuration: the value of key in section, read as the
// parameter "section/key" (an INI file section, or an environment variable
// of that name). False and an empty value when it is not set. name selects
// a storage configuration in larger deployments and is not consulted here.
MDX_EXPORT bool GetGlobalConfig(std::string const& name, char const* section, char const* key,
                                std::string& value);
