// The metadata cache of one study.
//
// A TagFile owns a tree of TagMap nodes (study over series over image) that
// stores only differences, plus indexes by series and SOP Instance UID. It is
// read from its cache file or built image by image from DICOM files, then
// optimised and written. One TagFile stands for one study: an image of
// another study is refused.
//
// The tree hangs from a shared pointer to the study node, so that readers
// holding a study node may outlive the TagFile. A TagFile is used by one
// thread at a time; the static options are set once at start-up.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/tags/TagMap.h>

#include <QByteArray>
#include <QFile>
#include <QMap>
#include <QString>

#include <functional>
#include <memory>
#include <vector>

class DcmDataset;
class QDataStream;
class QTextStream;

namespace Lmg {
class DicomDirectoryEntry;
class SeriesInfo;
} // namespace Lmg

namespace Mdx {

struct VolumeInfo;
class Item;
struct QAData;
struct QASeriesMove;

class MDX_EXPORT TagFile
{
public:
    TagFile();
    TagFile(TagFile&& other) noexcept;
    ~TagFile();

    TagFile(TagFile const&) = delete;
    TagFile& operator=(TagFile const&) = delete;

    void clear();
    void close();

    // ---- Adding images ----

    // What became of a file or image offered to the tree: Added, or why it
    // stayed out.
    enum class AddResult
    {
        Added,
        Unreadable, // the file could not be opened
        Damaged,    // a DICOM file (it has the "DICM" mark) that does not parse, e.g. truncated
        NotDicom,   // no "DICM" mark, and it does not parse as a bare data set either
        NoUIDs,     // parsed, but without a Study or SOP Instance UID
        OtherStudy, // the tree holds another study
        Duplicate   // the tree holds this SOP Instance UID already
    };

    // Loads a DICOM file's header (values above 4 KB stay on disk) into a new
    // flat image map that the caller owns. Null when the file gives no image
    // the tree could index, with the reason in *result. Logs nothing: the
    // caller knows whether a file that is not DICOM is worth a message. Only
    // regular files are opened: a FIFO would block, a device is no file.
    static TagMap* loadImage(char const* dicomFilePath, AddResult* result = nullptr);
    // The Study, Series or SOP Instance UID of an image as the tree indexes
    // it: the value as text whatever its VR, without trailing padding.
    static QByteArray uidOf(TagMap const* image, DcmTagKey const& key);

    // Loads the file's header and adds it. Null when the file can't be read
    // (logged) or the image is refused; *result, when given, says which.
    TagMap* addDicomFile(char const* dicomFilePath, char const* fileName, bool replace,
                         AddResult* result = nullptr);
    TagMap* addDataset(DcmDataset* dataset, char const* fileName, bool replace);
    // Takes ownership of image in every case: the result is image when it
    // entered the tree, null when it was refused (and deleted). The image's
    // own UIDs are stored as UI text, also where its file held them as UN.
    TagMap* addTagMap(TagMap* image, char const* fileName, bool replace, AddResult* result = nullptr);
    bool addSeries(int count, DcmDataset** datasets, char const** fileNames);
    bool addSeries(TagMap* series);

    // ---- Finding ----

    TagMap* findImage(QByteArray const& sopInstanceUID);
    TagMap const* findImage(QByteArray const& sopInstanceUID) const;
    // The image as stored under suffix (an empty suffix is not checked),
    // with the QA corrections of qaVersion applied once (none below 1).
    // Null for an unknown image or, with a warning, a suffix that differs.
    TagMap* findImage(QByteArray const& sopInstanceUID, QByteArray const& suffix, int qaVersion);
    // The same as an item view that shares the study's tree, so that it may
    // outlive this tag file; empty when the image or its study is unknown.
    std::shared_ptr<Item> findImageEx(QByteArray const& sopInstanceUID, QByteArray const& suffix,
                                      int qaVersion);
    TagMap* findSeries(QByteArray const& seriesInstanceUID);
    TagMap const* findSeries(QByteArray const& seriesInstanceUID) const;
    // In order of SOP Instance UID.
    std::vector<TagMap const*> findImages(std::function<bool(TagMap const*)> predicate) const;

    // ---- Removing ----

    // A flat copy of the image, which the caller owns; the image leaves the
    // tree. An emptied series stays until deleteEmptyNodes.
    TagMap* takeImage(QByteArray const& sopInstanceUID);
    int removeSeries(int count, char const** seriesUIDs);
    int removeImages(int count, char const** sopInstanceUIDs);
    void deleteEmptyNodes();

    // ---- The cache file ----
    //
    // One file per study under the meta folder, its path derived from the
    // MD5 of the study UID. Writers overwrite in place without a lock or a
    // rename; readers of a half-written file fail cleanly and retry or
    // rebuild, which is why the format carries its own lengths.

    static QString cacheFilePathForStudy(char const* studyUID);
    // Writes to the study's path; with no study left, deletes the file that
    // readCacheFile kept open.
    bool writeCacheFile();
    bool writeCacheFile(char const* path) const;
    bool writeCacheFile(QDataStream& stream) const;
    bool readCacheFileForStudy(char const* studyUID, bool keepOpen);
    // With keepOpen the file stays open (read-write) for a following
    // writeCacheFile() of the same file. studyUID, when given, must be the
    // study in the file.
    bool readCacheFile(QString const& path, char const* studyUID, bool keepOpen);
    // After a failed read with keepOpen: whether it failed because another
    // process held the writer's lock all the while (the file may be fine).
    bool lockedOut() const { return mLockedOut; }
    bool readCacheFile(QDataStream& stream, char const* studyUID);

    // ---- Merging and the client's read ----

    // Folds this tree (one study, as received) into the study's tag file,
    // series by series: a series that arrives again replaces the stored
    // one whole, an image that arrives again replaces the stored one. The
    // file is held with the writer's lock from read to write. True when the
    // file was written; the tree then is the merged file. False when the
    // file could not be opened, read or written, or holds another study:
    // the tree then still holds the new data (try again later), and the
    // file is as it was, apart from a write that broke off half-way.
    bool mergeIntoCacheFile();
    // Reads the study's tag file while the catalog is asked for the study
    // and its series, then syncs the two (syncWithDatabase). False when the
    // catalog does not know the study, a query failed or the file could not
    // be read. Throws std::system_error when no thread can be started.
    bool readAndSync(char const* studyUID, char const* requester);

    // ---- Volumes and series analysis ----

    // Makes a Volume from each record of one series, numbered by position
    // in infos, and marks each known image with its volume numbers in
    // (0006,7103). A record without any known image makes no volume, but
    // its number stays used. With keepFileName the volume remembers the
    // record's file name. The caller keeps ownership of the records.
    void addVolumeInfo(std::vector<VolumeInfo*> const& infos, bool keepFileName);
    // Has no effect; volumes come from addVolumeInfo. Kept for its callers.
    void createVolumes();
    // createAbstractSeriesNumber, then createAbstractSeriesLocalizer.
    void createAbstractTags();
    // Display numbers (0006,7120) of the series with pixels: the Series
    // Number, and "7 (2)" and so on where several series share one.
    void createAbstractSeriesNumber();
    // Marks each image with (0006,7121): 1 when it is a localizer of its
    // series by its geometry, else 0.
    void createAbstractSeriesLocalizer();
    // Empties sopUIDs and fills it with the images that get 2D previews:
    // those outside volumes with pixels, a middle one of each kind of
    // stack, all of a short series.
    void selectPreviewImages2D(QList<QByteArray>& sopUIDs);

    // ---- Database sync ----
    //
    // Paths in a tag file read from disk can't be trusted: files move and
    // series go. The study's directory entry from the database (GetStudy,
    // then GetSeries with images) is what holds.

    // Gives every image and volume its present path from study and removes
    // the series the database does not list. True when everything the
    // database lists was found. An empty tag file, or one left without
    // series, becomes the skeleton of copyDatabaseValuesIntoTagMap (false).
    bool syncWithDatabase(std::shared_ptr<Lmg::DicomDirectoryEntry> study);
    // Replaces the tree by a skeleton built from the database alone: study,
    // series and bare images (UID, path, Pixel Data omitted), the study
    // marked with (0006,7107) = 1, so that a study can be shown before it
    // has been analysed.
    void copyDatabaseValuesIntoTagMap(Lmg::DicomDirectoryEntry const& study);
    // Puts each image's path of info into (0006,7100); with createImages the
    // images are made under series first. Images the tag file lacks clear
    // allFound. The result counts the images that got a path.
    int addDicomFilePaths(TagMap* series, Lmg::SeriesInfo* info, bool createImages, bool& allFound);
    // Gives the volume of entry's volume file (the part number in
    // "_part<n>" names it) its file name; with createVolume the volume is
    // made first.
    void addVolumeFilePath(TagMap* series, Lmg::DicomDirectoryEntry const& entry, bool createVolume);
    // Deletes the images of series that have no (0006,7100).
    void removeImagesWithoutFilename(TagMap* series);

    // ---- QA jobs ----

    // Carries out an edit or move job on the tag files of its studies (see
    // TagFileQA.cpp). False with the reason in error.
    static bool applyQA(QAData& job, QString& error);
    // Lets the volumes of a series follow images that moved to another
    // series, or drops them; called on the tag file that held the old series.
    void updateVolumesAfterQA(QASeriesMove& move);

    // ---- Previews and reports ----
    //
    // A preview is the image's first frame windowed, fitted into
    // sPreviewSize and stored as JPEG in (0006,7105); with it come the
    // quadrant numbers of breast images and the crop box of radiographs.
    // The reports print to standard output (or to the given stream).

    // For a dataset just read: the image of its SOP Instance UID.
    bool addPreview(DcmDataset* dataset, QString const& dicomFilePath);
    bool addPreview(TagMap* image, DcmDataset* dataset, QString const& dicomFilePath);
    // Loads the image's file itself.
    bool addPreview(QByteArray const& sopInstanceUID, QString const& dicomFilePath);
    // Study, series, images and volumes, one line each; detailed adds what
    // each node stores and the volumes' values.
    void listContent(bool detailed) const;
    void listContent(QTextStream& stream, bool detailed) const;
    // One image's attributes; an empty UID lists the whole file in detail.
    void dump(QByteArray const& sopInstanceUID) const;
    void dump(QTextStream& stream, QByteArray const& sopInstanceUID) const;
    // Writes every stored preview as a JPEG file into folder (the current
    // one when empty), named after the study, series and instance.
    void exportPreviews(QString const& folder) const;

    // ---- Other ----

    void optimizeAll();
    void getStatistics(int& numSeries, int& numImages, int& numVolumes, int& numPreviews, int& optimizeMsec,
                       int& readMsec, int& writeMsec, int& compressedSize, int& uncompressedSize,
                       int& unoptimizedSize, int& previewBytes) const;

    QMap<QByteArray, std::shared_ptr<TagMap>> const& studies() const { return mStudies; }
    QMap<QByteArray, TagMap*> const& series() const { return mSeries; }
    QMap<QByteArray, TagMap*> const& images() const { return mImages; }
    // The study node, or null for an empty file.
    TagMap* study() const { return mStudies.isEmpty() ? nullptr : mStudies.first().get(); }

    bool storeFilePaths() const { return mStoreFilePaths; }
    void setStoreFilePaths(bool store) { mStoreFilePaths = store; }
    QString const& path() const { return mPath; }

    // Root folder of tag files; backslashes become slashes, a final slash is
    // added, an empty folder means ".".
    static void setMetaFolder(char const* folder);
    // The configured folder when none was set.
    static char const* metaFolder();

    static int sCompressionMode;
    static QByteArray sMetaFolder;
    static int sDebugOptions;
    static int sPreviewSize[2];

private:
    void dropSeriesIfEmpty(TagMap* series);
    bool readPayload(QByteArray const& payload, QList<QByteArray> const& previews, char const* studyUID);

    QMap<QByteArray, std::shared_ptr<TagMap>> mStudies;
    QMap<QByteArray, TagMap*> mSeries;
    QMap<QByteArray, TagMap*> mImages;
    QFile mFile;
    QString mPath;
    bool mStoreFilePaths = false;
    bool mLockedOut = false;

    // Statistics; writing a file (a const operation) updates them.
    mutable int mCompressedSize = 0;
    mutable int mUncompressedSize = 0;
    mutable int mUnoptimizedSize = 0;
    mutable int mPreviewBytes = 0;
    int mOptimizeMsec = 0;
    int mReadMsec = 0;
    mutable int mWriteMsec = 0;
    mutable int mNumVolumes = 0;
    mutable int mNumPreviews = 0;
};

} // namespace Mdx

class LmMsg;
// A whole tag file as one text of a message, in its file form. Reading
// derives the display numbers and localizer marks, as a client needs them.
MDX_EXPORT LmMsg& operator<<(LmMsg& msg, Mdx::TagFile const& tagFile);
MDX_EXPORT LmMsg& operator>>(LmMsg& msg, Mdx::TagFile& tagFile);
