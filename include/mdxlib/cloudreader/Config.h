// The numbers that steer the cloud reader: memory, chunk sizes, transfers at
// once, how long containers and connections stay.
//
// The defaults stand until cloud-reader.xml says otherwise. The file lies in
// "<DICOMWEB_PATH>/<folder>/cloud-reader.xml", where folder is the parameter
// MDX_CLOUD_READER_FOLDER (default "exconverter.x64"); DICOMWEB_PATH is read
// through ExResource::getParameter. The file is a root element of any name
// with "Entry" elements below it, each with a "key" and a "value".
//
// Fields are written by the constructor and by whoever calls setConfigFile
// or updateFromFile (at start-up), and read without a lock.
#pragma once

#include <mdxlib/Export.h>

#include <QDateTime>
#include <QString>

#include <cstdint>

class QIODevice;

namespace Kz {

class MDX_EXPORT Config
{
public:
    enum MemoryAPI : int32_t
    {
        MEMORY_API_UNSET = 0,
        MEMORY_API_MALLOC = 1,
        MEMORY_API_MMAP = 2
    };

    // The defaults; then the file under DICOMWEB_PATH, if there is one.
    Config();

    // The defaults alone, whatever the environment says.
    struct DefaultsOnly
    {
    };
    explicit Config(DefaultsOnly);

    // "<dicomwebPath with / for \>/<folder>/cloud-reader.xml"
    static QString filePath(QString const& dicomwebPath);

    void setConfigFile(QString const& path);
    // Reads the file again if watching is on and it changed; true if it was read.
    bool updateFromFile();
    void readConfig();
    // The entries of a cloud-reader.xml text; path names it in messages.
    void readConfig(QIODevice& device, QString const& path);
    void setMemoryAPI(QString const& name);
    void checkAndAdjustConfig();

    MemoryAPI memoryAPI = MEMORY_API_UNSET;
    int memoryPurgeSec = 6;
    int64_t maxMemory = 2048ll * 1024 * 1024;
    unsigned int memoryPageSize = 16384;
    int64_t memoryPagesInPool = 32768;
    int chunkSize = 12 * 1024 * 1024;
    int numRequestsPerFile = 8;
    int64_t maxRequestsTotal = 100;
    int64_t maxReadAheadRequests = 75;
    int containerFileMaxAgeSec = 60;
    int connectionMaxAgeSec = 30;
    int verbosity = 0;
    QString configFile;
    QDateTime lastModified;
    bool watchConfigFile = false;
};

} // namespace Kz
