#include <mdxlib/platform/ExResource.h>

#include <QSettings>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <cstdlib>
#include <map>
#include <mutex>

// Nothing here may log: the log reads its own level through getParameter
// while it is being constructed.

namespace {

struct ConfigCache
{
    std::mutex mutex;
    bool loaded = false;
    // The MDX_CONFIG value the cache was read for, so pointing MDX_CONFIG
    // elsewhere takes effect even without a reload.
    std::string path;
    std::map<std::string, std::string> values;
};

ConfigCache& configCache()
{
    // Leaked on purpose: parameters may still be read by other static
    // destructors at exit.
    static ConfigCache* cache = new ConfigCache();
    return *cache;
}

std::string variantText(QVariant const& value)
{
    // An unquoted INI value with commas comes back as a list; the caller
    // wants the text as written.
    if (value.userType() == QMetaType::QStringList) {
        return value.toStringList().join(QLatin1Char(',')).toStdString();
    }
    return value.toString().toStdString();
}

std::map<std::string, std::string> readIniFile(std::string const& path)
{
    std::map<std::string, std::string> values;
    QSettings settings(QString::fromStdString(path), QSettings::IniFormat);
    // Without a codec Qt 5 reads the file as Latin-1, which would garble
    // non-ASCII folder names.
    settings.setIniCodec("UTF-8");
    // Keys of the general section come without a prefix, all others as
    // "section/key", which is the form callers ask for.
    for (QString const& key : settings.allKeys()) {
        values[key.toStdString()] = variantText(settings.value(key));
    }
    return values;
}

} // namespace

std::optional<std::string> ExResource::getParameter(char const* name)
{
    if (!name || !*name) {
        return std::nullopt;
    }
    if (char const* fromEnvironment = std::getenv(name)) {
        return std::string(fromEnvironment);
    }
    return getStoredParameter(name);
}

std::optional<std::string> ExResource::getStoredParameter(char const* name)
{
    if (!name || !*name) {
        return std::nullopt;
    }
    char const* configEnv = std::getenv("MDX_CONFIG");
    std::string const configPath = configEnv ? configEnv : "";

    ConfigCache& cache = configCache();
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (!cache.loaded || cache.path != configPath) {
        cache.values.clear();
        if (!configPath.empty()) {
            cache.values = readIniFile(configPath);
        }
        cache.path = configPath;
        cache.loaded = true;
    }
    auto const it = cache.values.find(name);
    if (it == cache.values.end()) {
        return std::nullopt;
    }
    return it->second;
}

void ExResource::reloadConfiguration()
{
    ConfigCache& cache = configCache();
    std::lock_guard<std::mutex> lock(cache.mutex);
    cache.loaded = false;
    cache.path.clear();
    cache.values.clear();
}

std::string ExResource::getParameter(char const* name, std::string const& fallback)
{
    std::optional<std::string> value = getParameter(name);
    return value && !value->empty() ? *value : fallback;
}

std::string ExResource::getWebServiceHostExternal()
{
    return getParameter("MDX_WEBSERVICE_HOST_EXTERNAL", "localhost");
}
