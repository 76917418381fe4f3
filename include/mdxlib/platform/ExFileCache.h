// A local cache of downloaded objects in a folder.
//
// Each entry is one file in the cache folder, named by the MD5 of its key
// (32 lower-case hexadecimal digits), so that any key, a URL or a path, is
// a safe file name. The folder is the parameter MDX_FILE_CACHE_FOLDER.
// Several processes may share the folder: entries are written under a
// temporary name and renamed into place, so a reader sees a whole entry or
// none.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>
#include <QString>

class MDX_EXPORT ExFileCache
{
public:
    ExFileCache();

    // Finds the folder and creates it when needed. maxBytes above 0 trims
    // the oldest entries until the cache holds no more than that. False
    // when no folder is configured or it can't be made.
    bool init(qint64 maxBytes);
    bool isInitialized() const { return !mFolder.isEmpty(); }
    QString const& folder() const { return mFolder; }

    // The path of key's entry (whether it exists or not); empty before init.
    QString entryPath(char const* key) const;
    bool hasBuffer(char const* key) const;
    bool putBuffer(char const* key, QByteArray const& bytes);
    bool getBuffer(char const* key, QByteArray& bytes) const;
    // True when the entry is gone, also when there was none.
    bool removeBuffer(char const* key);

private:
    void trim(qint64 maxBytes);

    QString mFolder;
};
