#include <mdxlib/cloudreader/Config.h>

#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>

#include <QFile>
#include <QFileInfo>
#include <QVariant>
#include <QXmlStreamReader>

#include <limits>

namespace {

char const kCategory[] = "Kzip";

// Largest sane values of the keys that divide or multiply: a page is the unit
// of one copy, a chunk the unit of one request, and numRequestsPerFile is
// added to chunk indexes. Above these the arithmetic of the reader would
// overflow an int.
constexpr int kMaxPageSize = 16 * 1024 * 1024;
constexpr int kMaxChunkSizeMB = 1024;
constexpr int kMaxRequestsPerFile = 1024;

struct Range
{
    long long low;
    long long high;
};

// A value outside its range would divide by zero, overflow or leave every
// reader waiting for requests that never start. It is treated like an unknown
// key: traced, and the field keeps what it had.
bool acceptValue(char const* key, QStringRef const& text, int value, Range range, QString const& path,
                 long long kept)
{
    if (value >= range.low && value <= range.high)
        return true;
    getTheLogInstance()->tracef(
        2, kCategory, "Invalid value '%s' of config parameter '%s' in %s, keeping %lld",
        text.toString().toLocal8Bit().constData(), key, path.toLocal8Bit().constData(), kept);
    return false;
}

} // namespace

namespace Kz {

Config::Config(DefaultsOnly) {}

Config::Config()
{
    std::optional<std::string> const root = ExResource::getParameter("DICOMWEB_PATH");
    if (!root)
        return;
    QString const path = filePath(QString::fromLocal8Bit(root->c_str()));
    if (QFile::exists(path))
        setConfigFile(path);
}

QString Config::filePath(QString const& dicomwebPath)
{
    QString root = dicomwebPath;
    root.replace('\\', '/');
    std::string const folder = ExResource::getParameter("MDX_CLOUD_READER_FOLDER", "exconverter.x64");
    return root + "/" + QString::fromStdString(folder) + "/cloud-reader.xml";
}

void Config::setConfigFile(QString const& path)
{
    configFile = path;
    watchConfigFile = true;
    if (!updateFromFile())
        checkAndAdjustConfig();
}

bool Config::updateFromFile()
{
    if (!watchConfigFile || configFile.isEmpty())
        return false;
    QDateTime const modified = QFileInfo(configFile).lastModified();
    if (modified == lastModified)
        return false;
    lastModified = modified;
    watchConfigFile = false;
    readConfig();
    checkAndAdjustConfig();
    return true;
}

void Config::readConfig()
{
    QFile file(configFile);
    if (!file.open(QIODevice::ReadOnly))
        return;
    readConfig(file, configFile);
}

void Config::readConfig(QIODevice& device, QString const& path)
{
    McLogFile* log = getTheLogInstance();
    QByteArray const pathText = path.toLocal8Bit();
    QXmlStreamReader xml(&device);
    if (xml.readNextStartElement()) {
        while (xml.readNextStartElement()) {
            if (xml.name() != QLatin1String("Entry")) {
                xml.skipCurrentElement();
                continue;
            }
            QXmlStreamAttributes const attributes = xml.attributes();
            QStringRef const key = attributes.value("key");
            QStringRef const text = attributes.value("value");
            int const value = text.toInt(nullptr, 10);
            auto const is = [&key](char const* name) { return key == QLatin1String(name); };
            auto const accept = [&](char const* name, Range range, long long kept) {
                return acceptValue(name, text, value, range, path, kept);
            };
            long long const anyInt = std::numeric_limits<int>::max();
            if (is("MemoryAPI")) {
                setMemoryAPI(text.toString().toLower());
            } else if (is("MemoryPurgeSec")) {
                if (accept("MemoryPurgeSec", {0, anyInt}, memoryPurgeSec))
                    memoryPurgeSec = value;
            } else if (is("MaxMemoryMB")) {
                maxMemory = static_cast<int64_t>(value) * 1024 * 1024;
            } else if (is("MemoryPageSize")) {
                if (accept("MemoryPageSize", {1, kMaxPageSize}, memoryPageSize))
                    memoryPageSize = static_cast<unsigned int>(value);
            } else if (is("MemoryPagesInPool")) {
                memoryPagesInPool = value;
            } else if (is("ChunkSizeMB")) {
                if (accept("ChunkSizeMB", {1, kMaxChunkSizeMB}, chunkSize))
                    chunkSize = value * 1024 * 1024;
            } else if (is("NumRequestsPerFile")) {
                if (accept("NumRequestsPerFile", {1, kMaxRequestsPerFile}, numRequestsPerFile))
                    numRequestsPerFile = value;
            } else if (is("MaxRequestsTotal")) {
                if (accept("MaxRequestsTotal", {1, anyInt}, maxRequestsTotal))
                    maxRequestsTotal = value;
            } else if (is("MaxReadAheadRequests")) {
                maxReadAheadRequests = value;
            } else if (is("ContainerFileMaxAgeSec")) {
                if (accept("ContainerFileMaxAgeSec", {0, anyInt}, containerFileMaxAgeSec))
                    containerFileMaxAgeSec = value;
            } else if (is("ConnectionMaxAgeSec")) {
                // Also CURLOPT_MAXAGE_CONN, which refuses a negative age.
                if (accept("ConnectionMaxAgeSec", {0, anyInt}, connectionMaxAgeSec))
                    connectionMaxAgeSec = value;
            } else if (is("Verbosity")) {
                verbosity = value;
            } else if (is("WatchConfigFile")) {
                watchConfigFile = value > 0;
            } else if (is("Enabled")) {
                LmDcmFileLoader::setCloudReaderEnabled(QVariant(text.toString()).toBool());
            } else {
                log->tracef(2, kCategory, "Unknown config parameter '%s' in %s",
                            key.toString().toLocal8Bit().constData(), pathText.constData());
            }
            xml.skipCurrentElement();
        }
    }
    if (xml.hasError())
        log->tracef(2, kCategory, "Error reading config file %s: %s", pathText.constData(),
                    xml.errorString().toLocal8Bit().constData());
    else
        log->tracef(1, kCategory, "Read config file %s", pathText.constData());
}

void Config::setMemoryAPI(QString const& name)
{
    MemoryAPI api = MEMORY_API_UNSET;
    if (name == QLatin1String("malloc"))
        api = MEMORY_API_MALLOC;
    else if (name == QLatin1String("mmap"))
        api = MEMORY_API_MMAP;
    if (api == MEMORY_API_UNSET) {
        getTheLogInstance()->tracef(2, kCategory, "Unknown memory API '%s' in %s",
                                    name.toLocal8Bit().constData(), configFile.toLocal8Bit().constData());
        return;
    }
    if (memoryAPI != MEMORY_API_UNSET && memoryAPI != api) {
        getTheLogInstance()->tracef(2, kCategory, "Memory API changed, please restart client");
        return;
    }
    memoryAPI = api;
}

void Config::checkAndAdjustConfig()
{
    // A chunk never ends inside a page. The limits of readConfig keep this
    // within an int.
    if (memoryPageSize > 0 && chunkSize % memoryPageSize != 0)
        chunkSize = static_cast<int>((chunkSize / memoryPageSize + 1) * memoryPageSize);
    if (memoryAPI == MEMORY_API_UNSET)
        memoryAPI = MEMORY_API_MALLOC;
}

} // namespace Kz
