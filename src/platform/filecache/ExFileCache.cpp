#include <mdxlib/platform/ExFileCache.h>

#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <optional>
#include <string>

namespace {

char const kCategory[] = "FileCache";

} // namespace

ExFileCache::ExFileCache() = default;

bool ExFileCache::init(qint64 maxBytes)
{
    mFolder.clear();
    std::optional<std::string> const folder = ExResource::getParameter("MDX_FILE_CACHE_FOLDER");
    if (!folder || folder->empty())
        return false;
    QString const path = QString::fromStdString(*folder);
    if (!QDir().mkpath(path)) {
        getTheLogInstance()->tracef(McLogFile::LevelError, kCategory, "Could not create file cache folder %s",
                                    folder->c_str());
        return false;
    }
    mFolder = QDir(path).absolutePath() + '/';
    if (maxBytes > 0)
        trim(maxBytes);
    return true;
}

QString ExFileCache::entryPath(char const* key) const
{
    if (mFolder.isEmpty() || !key)
        return QString();
    QByteArray const digest = QCryptographicHash::hash(QByteArray(key), QCryptographicHash::Md5).toHex();
    return mFolder + QString::fromLatin1(digest);
}

bool ExFileCache::hasBuffer(char const* key) const
{
    QString const path = entryPath(key);
    return !path.isEmpty() && QFileInfo(path).isFile();
}

bool ExFileCache::putBuffer(char const* key, QByteArray const& bytes)
{
    QString const path = entryPath(key);
    if (path.isEmpty())
        return false;
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit()) {
        getTheLogInstance()->tracef(McLogFile::LevelError, kCategory, "Could not write cache entry %s: %s",
                                    path.toLocal8Bit().constData(),
                                    file.errorString().toLocal8Bit().constData());
        return false;
    }
    return true;
}

bool ExFileCache::getBuffer(char const* key, QByteArray& bytes) const
{
    bytes.clear();
    QString const path = entryPath(key);
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly))
        return false;
    bytes = file.readAll();
    return file.error() == QFileDevice::NoError;
}

bool ExFileCache::removeBuffer(char const* key)
{
    QString const path = entryPath(key);
    if (path.isEmpty())
        return false;
    if (!QFileInfo::exists(path) || QFile::remove(path))
        return true;
    getTheLogInstance()->tracef(McLogFile::LevelWarning, kCategory, "Could not remove cache entry %s",
                                path.toLocal8Bit().constData());
    return false;
}

void ExFileCache::trim(qint64 maxBytes)
{
    QFileInfoList entries = QDir(mFolder).entryInfoList(QDir::Files, QDir::Time | QDir::Reversed);
    qint64 total = 0;
    for (QFileInfo const& entry : entries)
        total += entry.size();
    for (QFileInfo const& entry : entries) {
        if (total <= maxBytes)
            break;
        if (QFile::remove(entry.filePath()))
            total -= entry.size();
    }
}
