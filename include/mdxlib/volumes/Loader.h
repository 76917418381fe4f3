// Serving clients from tag files.
//
// A client asks for one stored DICOM object or one volume by path. The
// path of a stored object is "<folder>/<studyUID>/<sopUID>_<suffix>.dcm",
// maybe followed by "?QA=<n>", so the study's tag file can answer without
// the file being opened; the file is read only when the tag file cannot
// answer. The loader keeps every tag file it read until clear(), also the
// empty one of a study that has none, which is never looked for again. A
// Loader is not locked: it belongs to one thread at a time.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/LmSessionContextID.h>

#include <QByteArray>
#include <QMap>

#include <memory>

namespace Mdx {

class Item;
class TagFile;
class Volume;

class MDX_EXPORT Loader
{
public:
    Loader();
    ~Loader();
    Loader(Loader const&) = delete;
    Loader& operator=(Loader const&) = delete;

    // Forgets all tag files.
    void clear();
    // Adds or replaces the tag file of a study.
    void addTagFile(QByteArray const& studyUID, std::shared_ptr<TagFile> const& tagFile);

    // The SOP and study UIDs of "<...>/<studyUID>/<sopUID>_<suffix>.dcm":
    // false (both empty) when the path does not end in ".dcm" or has no
    // folder before the SOP UID.
    static bool extractUIDs(char const* path, QByteArray& sopUID, QByteArray& studyUID);
    // The suffix of a stored object's file name: "<sop>_<suffix>.dcm" gives
    // "<suffix>", a name without "_" its whole stem, anything not ending in
    // ".dcm" nothing. A query "?QA=<n>" behind the name is cut off, and n
    // goes to qaNumber when that is given.
    static QByteArray extractSuffix(char const* path, int* qaNumber);

    // The image from the study's tag file, with path recorded as its file;
    // otherwise the file itself (loadDcmDataset). Null when neither works.
    std::shared_ptr<Item> loadMetaData(char const* path, QByteArray const& sopUID, QByteArray const& studyUID,
                                       LmSessionContextID session);
    // The file's dataset in a view that owns it. size -1 parses through the
    // file loader (any source); size 0 or more reads that many bytes of a
    // local file first and parses them from memory. Null, with an error in
    // the log, on any failure.
    std::shared_ptr<Item> loadDcmDataset(char const* path, int size, LmSessionContextID session);
    // The study's tag file: read once, then kept. A study without a tag file
    // gets an empty one, and is not looked for again.
    std::shared_ptr<TagFile> tagFileForStudy(QByteArray const& studyUID);

    // The volume of a series that the volume file path names (its
    // "_part<n>" gives the number, counted from 1; none means the first),
    // provided the stored file-name suffix matches the path's. Owned by the
    // series; null with a trace otherwise.
    static Volume* loadVolume(char const* path, QByteArray const& seriesUID, TagFile const& tagFile);
    Volume* loadVolume(char const* path, QByteArray const& seriesUID, QByteArray const& studyUID);

private:
    QMap<QByteArray, std::shared_ptr<TagFile>> mTagFiles;
};

} // namespace Mdx
