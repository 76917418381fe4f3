#include <mdxlib/tagfile/TagFileFunctions.h>

#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/tagfile/TagFile.h>

#include <QByteArray>
#include <QFileInfo>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <unistd.h>

namespace {

constexpr int kDeleteRetries = 5;
constexpr int kDeleteRetryMsec = 10;

// Routes the library's log into the server trace: "[category] text" is split
// into its category and text.
void logFileCallback(int level, std::string const& message)
{
    if (level < 0 || level > 3)
        return;
    std::string category;
    std::string text = message;
    size_t const open = message.find('[');
    size_t const close = message.find(']');
    if (close != std::string::npos && close + 1 < message.size())
        text = message.substr(std::min(close + 2, message.size()));
    if (open != std::string::npos && close != std::string::npos && open < close)
        category = message.substr(open + 1, close - open - 1);
    WriteTrace(level, category.c_str(), "%s", text.c_str());
}

void reportUnexpected(char const* function, char const* what)
{
    try {
        WriteTrace(3, "TagFile", "%s failed: %s", function, what);
    } catch (...) {
    }
}

template <typename Body> int guarded(char const* function, int onError, Body body)
{
    try {
        return body();
    } catch (std::exception const& e) {
        reportUnexpected(function, e.what());
    } catch (...) {
        reportUnexpected(function, "unknown exception");
    }
    return onError;
}

int removeFromTagFile(char const* studyUID, int count, char const** uids, bool series)
{
    if (!studyUID)
        return 1;
    Mdx::TagFile tagFile;
    if (!tagFile.readCacheFileForStudy(studyUID, true)) {
        // Another writer held the file all the while: nothing was deleted,
        // and saying so is the caller's cue to try again.
        if (tagFile.lockedOut())
            return 0;
        // A file that is there but can't be opened for writing is a file
        // that can't be changed, not one that is missing.
        QFileInfo const info(Mdx::TagFile::cacheFilePathForStudy(studyUID));
        if (info.exists() && !info.isWritable()) {
            getTheLogInstance()->tracef(McLogFile::LevelError, "TagFile", "Tag file %s is not writable",
                                        info.filePath().toLocal8Bit().constData());
            return 0;
        }
        return 1; // nothing to delete from
    }
    if (series)
        tagFile.removeSeries(count, uids);
    else
        tagFile.removeImages(count, uids);
    return tagFile.writeCacheFile() ? 1 : 0;
}

} // namespace

void ConfigureLogging(int flags, const char* databaseServer)
{
    guarded("ConfigureLogging", 0, [&] {
        bool const debug = (flags & 1) != 0;
        int const timings = (flags >> 1) & 1;
        if (databaseServer)
            SetDatabaseServer(databaseServer);
        McLogFile* log = getTheLogInstance();
        log->setLogLevel(debug ? McLogFile::LevelDebug : McLogFile::LevelInfo);
        log->setWriteCallback(logFileCallback);
        Mdx::TagFile::sDebugOptions = (Mdx::TagFile::sDebugOptions & ~1) | timings;
        if (debug)
            log->printf("Configure logging: debug=%d timings=%d", 1, timings);
        return 0;
    });
}

int DeleteTagFile(const char* studyUID)
{
    return guarded("DeleteTagFile", 0, [&] {
        if (!studyUID)
            return 0;
        QByteArray const path = Mdx::TagFile::cacheFilePathForStudy(studyUID).toLatin1();
        if (unlink(path.constData()) == 0 || errno == ENOENT)
            return 1;
        int error = errno;
        for (int attempt = 1; attempt <= kDeleteRetries; ++attempt) {
            QThread::msleep(kDeleteRetryMsec);
            if (unlink(path.constData()) == 0 || errno == ENOENT) {
                getTheLogInstance()->tracef(McLogFile::LevelDebug, "TagFile",
                                            "Tag file %s successfully deleted after %d retries",
                                            path.constData(), attempt);
                return 1;
            }
            error = errno;
        }
        getTheLogInstance()->tracef(McLogFile::LevelError, "TagFile",
                                    "Tag file %s could not be deleted (errno %d): %s", path.constData(),
                                    error, std::strerror(error));
        return 0;
    });
}

int DeleteSeriesInTagFile(const char* studyUID, int count, const char** seriesUIDs)
{
    return guarded("DeleteSeriesInTagFile", 0,
                   [&] { return removeFromTagFile(studyUID, count, seriesUIDs, true); });
}

int DeleteImagesInTagFile(const char* studyUID, int count, const char** imageUIDs)
{
    return guarded("DeleteImagesInTagFile", 0,
                   [&] { return removeFromTagFile(studyUID, count, imageUIDs, false); });
}

void FreeTagFileData(void* handle)
{
    delete static_cast<QByteArray*>(handle);
}
