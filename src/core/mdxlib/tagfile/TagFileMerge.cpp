// Folding a partial tree into the study's tag file, the client's read path
// (the tag file read while the database is asked), and the tag file on a
// message.
//
// Receiving processes each hold a small TagFile of what they have just
// stored and merge it, series by series, into the one file of the study.
// They do so at the same time, so the merge holds the writer's lock (see
// FileLock.h) from its read to its write, and it never writes over a file it
// could not read: that may be another program's file, or a damaged tag file
// that the next build must see as such rather than find replaced.
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tagfile/TagFileFunctions.h>

#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/DicomDirectoryEntry.h>
#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McWatch.h>
#include <mdxlib/platform/ReplyFacade.h>
#include <mdxlib/platform/StorageManager.h>
#include <mdxlib/platform/WsRequest.h>
#include <mdxlib/tags/TagMap.h>

#include "FileLock.h"

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QBuffer>
#include <QDataStream>
#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QThread>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <thread>

namespace Mdx {

namespace {

char const kMergeCategory[] = "TagMerge";
char const kClientCategory[] = "mdx";
constexpr qint64 kOpenWindowMsec = 1999;

McLogFile& log()
{
    return *getTheLogInstance();
}

QByteArray local(QString const& path)
{
    return QFile::encodeName(path);
}

// A failure of the merge: its message, traced once where the merge gives
// the caller its data back.
struct MergeFailure
{
    std::string text;
};

template <typename... Args> [[noreturn]] void failMerge(char const* format, Args... args)
{
    char buffer[1024];
    std::snprintf(buffer, sizeof buffer, format, args...);
    throw MergeFailure{buffer};
}

// Opens path read-write with the writer's lock, retrying with short random
// waits for about two seconds while another process holds it. Empty reason
// on success.
std::string openLocked(QFile& file, QString const& path, McWatch const& watch)
{
    std::string reason;
    for (;;) {
        if (file.open(QIODevice::ReadWrite)) {
            int error = 0;
            FileLockResult const lock = lockForUpdate(file.handle(), path, &error);
            if (lock == FileLockResult::Locked)
                return {};
            file.close();
            reason = describe(lock, error);
            if (lock == FileLockResult::Failed)
                return reason;
        } else {
            reason = file.errorString().toStdString();
        }
        if (watch.elapsedMsec() > kOpenWindowMsec)
            return reason;
        QThread::msleep(static_cast<unsigned long>(std::rand() % 15 + 15));
    }
}

// Writes bytes over file from its start and cuts what a longer content left
// behind. The room is claimed first: on a full disk (or past a size limit)
// that fails before a single byte of the old content is overwritten, so the
// file keeps what it held. Empty reason on success.
std::string overwrite(QFile& file, QByteArray const& bytes)
{
    int const fd = file.handle();
    int const status = ::posix_fallocate(fd, 0, static_cast<off_t>(bytes.size()));
    // Filesystems without the call are written without the reservation.
    if (status != 0 && status != EOPNOTSUPP && status != ENOSYS)
        return std::strerror(status);
    if (!file.seek(0) || file.write(bytes) != bytes.size() || !file.resize(bytes.size()) || !file.flush())
        return file.errorString().toStdString();
    return {};
}

} // namespace

bool TagFile::mergeIntoCacheFile()
{
    if (mStudies.isEmpty()) {
        log().tracef(McLogFile::LevelWarning, kMergeCategory, "No images, cannot update tag file");
        return false;
    }
    QByteArray const studyUID = mStudies.firstKey();

    // The new data, kept whole until the file is written: a failure at any
    // step gives it back to the caller, who may try again.
    QByteArray newData;
    {
        QBuffer buffer(&newData);
        buffer.open(QIODevice::WriteOnly);
        QDataStream out(&buffer);
        if (!writeCacheFile(out)) {
            log().tracef(McLogFile::LevelError, kMergeCategory, "Could not hold the new data of study %s",
                         studyUID.constData());
            return false;
        }
    }
    QMap<QByteArray, std::shared_ptr<TagMap>> newStudies;
    QMap<QByteArray, TagMap*> newSeries;
    QMap<QByteArray, TagMap*> newImages;
    newStudies.swap(mStudies);
    newSeries.swap(mSeries);
    newImages.swap(mImages);
    bool treeTouched = false;

    QString const path = cacheFilePathForStudy(studyUID.constData());
    QFile file(path);
    McWatch const watch;
    try {
        QString const folder = QFileInfo(path).path();
        if (!QDir(folder).exists() && !QDir().mkpath(folder)) {
            log().tracef(McLogFile::LevelError, kMergeCategory, "Could not create meta folder %s",
                         local(folder).constData());
            mStudies.swap(newStudies);
            mSeries.swap(newSeries);
            mImages.swap(newImages);
            return false;
        }
        std::string const openError = openLocked(file, path, watch);
        if (!openError.empty())
            failMerge("Could not open %s for read-write: %s", local(path).constData(), openError.c_str());

        if (file.size() == 0) {
            // A new tag file: the data goes in as it came.
            mStudies.swap(newStudies);
            mSeries.swap(newSeries);
            mImages.swap(newImages);
        } else {
            QDataStream in(&file);
            // Read without naming the study, so that a file of another study
            // is told apart from a damaged one.
            if (!readCacheFile(in, nullptr))
                failMerge("Could not read tag file %s", local(path).constData());
            if (mStudies.size() != 1)
                failMerge("Tag file %s contains %d studies (expected 1)", local(path).constData(),
                          static_cast<int>(mStudies.size()));
            if (mStudies.firstKey() != studyUID)
                failMerge("Tag file %s contains wrong study, expected %s", local(path).constData(),
                          studyUID.constData());

            treeTouched = true;
            TagMap* study = mStudies.first().get();
            TagMap* newStudy = newStudies.first().get();
            for (auto it = newSeries.cbegin(); it != newSeries.cend(); ++it) {
                TagMap* series = it.value();
                QSet<QByteArray> arriving;
                for (TagMap const* image : series->children())
                    arriving.insert(uidOf(image, DCM_SOPInstanceUID));
                // An image that arrives again replaces the one on file,
                // wherever that one was.
                for (QByteArray const& sop : qAsConst(arriving)) {
                    if (TagMap* old = mImages.take(sop))
                        delete old;
                }
                TagMap*& slot = mSeries[it.key()];
                if (slot) {
                    // A series that arrives again replaces the stored one
                    // whole; its images that did not arrive again go with it.
                    int lost = 0;
                    for (TagMap const* image : slot->children()) {
                        // The index must not keep nodes that are deleted
                        // here: a lookup after the merge would reach freed
                        // memory.
                        mImages.remove(uidOf(image, DCM_SOPInstanceUID));
                        ++lost;
                    }
                    if (mStoreFilePaths && lost > 0)
                        log().tracef(McLogFile::LevelError, kMergeCategory,
                                     "Tag file %s: series %s added again, %d images lost",
                                     local(path).constData(), it.key().constData(), lost);
                    delete slot;
                }
                slot = series;
                // It takes along what it inherited from the new study, then
                // keeps only what differs from the stored one.
                series->copyFromParent();
                newStudy->removeChildMap(series);
                study->addChildMap(series, TagMap::LevelSeries);
                for (TagMap* image : series->children())
                    mImages[uidOf(image, DCM_SOPInstanceUID)] = image;
            }
            newSeries.clear();
            newImages.clear();
            deleteEmptyNodes();
            study->optimizeAll();
        }

        QByteArray merged;
        {
            QBuffer buffer(&merged);
            buffer.open(QIODevice::WriteOnly);
            QDataStream out(&buffer);
            if (!writeCacheFile(out))
                failMerge("Could not write %s: the merged data could not be encoded", local(path).constData());
        }
        std::string const writeError = overwrite(file, merged);
        if (!writeError.empty())
            failMerge("Could not write %s: %s", local(path).constData(), writeError.c_str());
        file.close();
        if (file.error() != QFileDevice::NoError)
            failMerge("Could not write %s: %s", local(path).constData(),
                      file.errorString().toLocal8Bit().constData());
        mPath = path;
        return true;
    } catch (MergeFailure const& failure) {
        log().tracef(McLogFile::LevelError, kMergeCategory, "%s", failure.text.c_str());
    }
    file.close();
    // The caller gets the new data back. Once series have moved into the
    // stored tree the pieces no longer make the new tree: it is read again
    // from the copy taken at the start.
    if (treeTouched) {
        newStudies.clear();
        QBuffer buffer(&newData);
        buffer.open(QIODevice::ReadOnly);
        QDataStream in(&buffer);
        readCacheFile(in, nullptr);
    } else {
        clear();
        mStudies.swap(newStudies);
        mSeries.swap(newSeries);
        mImages.swap(newImages);
    }
    return false;
}

bool TagFile::readAndSync(char const* studyUID, char const* requester)
{
    Lmg::StorageManager::retrieveStorageVolumes();
    Lmg::WsRequest request;
    request.requester = requester ? requester : "";
    request.studyUID = studyUID ? studyUID : "";
    Lmg::ReplyFacade reply;
    McResult const found = GetStudy(request.requester, request.studyUID, &reply, request, false, true, 1000);
    if (!found.ok())
        return false;
    if (reply.entries.empty()) {
        log().tracef(McLogFile::LevelDebug, kClientCategory, "Could not find study %s", request.studyUID.c_str());
        return false;
    }
    std::shared_ptr<Lmg::DicomDirectoryEntry> const entry = reply.entries.front();

    // The series are asked for while the file is read. The file is read on
    // the second thread and the query runs on this one: each thread has its
    // own catalog connection, and this thread's is open already, while a
    // new thread would first have to connect, which costs more than the
    // overlap gains. The reading thread touches only the tag file, this one
    // only the request and the reply, until the join.
    bool read = false;
    std::thread reader([&] {
        try {
            read = readCacheFileForStudy(request.studyUID.c_str(), false);
        } catch (std::exception const& e) {
            log().tracef(McLogFile::LevelError, kClientCategory, "Reading tag file for study %s failed: %s",
                         request.studyUID.c_str(), e.what());
        } catch (...) {
            log().tracef(McLogFile::LevelError, kClientCategory, "Reading tag file for study %s failed",
                         request.studyUID.c_str());
        }
    });
    McResult series = McResult::failure("the series query did not run");
    try {
        series = GetSeries(entry->id, &reply, request, 4, 0, 2);
    } catch (...) {
        reader.join();
        throw;
    }
    reader.join();

    if (!read) {
        log().tracef(McLogFile::LevelError, kClientCategory, "Could not read tag file for study %s",
                     request.studyUID.c_str());
        return false;
    }
    // Without its series the entry lists nothing, and the sync would take
    // every series out of what the client gets: a database that failed
    // between the two queries must not look like a study that was emptied.
    if (!series.ok()) {
        log().tracef(McLogFile::LevelError, kClientCategory, "Could not query the series of study %s: %s",
                     request.studyUID.c_str(), series.message().c_str());
        clear();
        return false;
    }
    syncWithDatabase(entry);
    return true;
}

} // namespace Mdx

LmMsg& operator<<(LmMsg& msg, Mdx::TagFile const& tagFile)
{
    QByteArray bytes;
    {
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        QDataStream out(&buffer);
        tagFile.writeCacheFile(out);
    }
    return msg << bytes;
}

LmMsg& operator>>(LmMsg& msg, Mdx::TagFile& tagFile)
{
    QByteArray bytes;
    msg >> bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    QDataStream in(&buffer);
    tagFile.readCacheFile(in, nullptr);
    tagFile.createAbstractSeriesNumber();
    tagFile.createAbstractSeriesLocalizer();
    return msg;
}

void* ReadAndSyncTagFileData(const char* studyUID, const char* requester, int* size, const char** data)
{
    try {
        Lmg::StorageManager::setServerOS(true);
        if (size)
            *size = 0;
        if (data)
            *data = nullptr;
        if (!studyUID)
            return nullptr;
        Mdx::TagFile tagFile;
        if (!tagFile.readAndSync(studyUID, requester))
            return nullptr;
        auto* bytes = new QByteArray;
        bool written = false;
        {
            QBuffer buffer(bytes);
            buffer.open(QIODevice::WriteOnly);
            QDataStream out(&buffer);
            written = tagFile.writeCacheFile(out);
        }
        if (!written) {
            getTheLogInstance()->tracef(McLogFile::LevelError, "mdx",
                                        "Could not write tag file for study %s to data stream", studyUID);
            delete bytes;
            return nullptr;
        }
        if (size)
            *size = bytes->size();
        if (data)
            *data = bytes->constData();
        getTheLogInstance()->tracef(McLogFile::LevelDebug, "mdx", "Loaded and synced tag file for study %s (%d bytes)",
                                    studyUID, static_cast<int>(bytes->size()));
        return bytes;
    } catch (std::exception const& e) {
        getTheLogInstance()->tracef(McLogFile::LevelError, "mdx", "ReadAndSyncTagFileData failed: %s", e.what());
    } catch (...) {
        getTheLogInstance()->tracef(McLogFile::LevelError, "mdx", "ReadAndSyncTagFileData failed");
    }
    return nullptr;
}
