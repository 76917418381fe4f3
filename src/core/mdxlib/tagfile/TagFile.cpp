#include <mdxlib/tagfile/TagFile.h>

#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McWatch.h>
#include <mdxlib/platform/StorageManager.h>
#include <mdxlib/volumes/Loader.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QDataStream>

#include <string>

#include <sys/stat.h>

namespace Mdx {

int TagFile::sCompressionMode = 1;
QByteArray TagFile::sMetaFolder;
int TagFile::sDebugOptions = 0;
int TagFile::sPreviewSize[2] = {256, 256};

namespace {

constexpr unsigned int kMaxValueSize = 1024;
constexpr Uint32 kMaxReadLength = 4096;

OFCondition loadHeader(DcmFileFormat& fileFormat, char const* path)
{
    // Opening a FIFO would block the caller for good, and a device or a
    // socket is no DICOM file: only regular files (links followed) are read.
    struct stat status;
    if (::stat(path, &status) != 0 || !S_ISREG(status.st_mode))
        return EC_InvalidFilename;
    return fileFormat.loadFile(OFFilename(path), EXS_Unknown, EGL_noChange, kMaxReadLength, ERM_autoDetect);
}

// Why DCMTK could not load a file. DCMTK fails alike on a truncated file and
// on a text file, so the "DICM" mark behind the 128-byte preamble decides
// between a damaged DICOM file and something else. A bare data set without
// preamble that does not parse counts as not DICOM.
TagFile::AddResult loadFailure(char const* path)
{
    struct stat status;
    QFile file(QFile::decodeName(path));
    if (::stat(path, &status) != 0 || !S_ISREG(status.st_mode) || !file.open(QIODevice::ReadOnly))
        return TagFile::AddResult::Unreadable;
    QByteArray const head = file.read(132);
    return head.size() == 132 && head.endsWith("DICM") ? TagFile::AddResult::Damaged
                                                       : TagFile::AddResult::NotDicom;
}

// Rewrites an image's own UID element as UI holding the text the tree
// indexes it by, when the file stored it otherwise (UN, or padded). Every
// later reader of the tree, of its tag file and of what clients get from
// it then finds the UID as text, and under the key of the index.
void storeUID(TagMap* image, DcmTagKey const& key, QByteArray const& uid)
{
    TagElement const* element = image->elements().value(key, nullptr);
    if (element && !element->isMarker() && element->mVR != VR_SQ &&
        (element->mVR != VR_UI || element->mValue != uid))
        image->putAndInsertValue(key, VR_UI, uid);
}

// A UID of a data set read as addTagMap reads it from the image's map, so
// that the study and series an addSeries names are the ones it fills.
QByteArray datasetUID(DcmDataset* dataset, DcmTagKey const& key)
{
    DcmElement* element = nullptr;
    if (dataset->findAndGetElement(key, element).bad() || !element)
        return QByteArray();
    TagMap map;
    map.setElement(element);
    return TagFile::uidOf(&map, key);
}

void setResult(TagFile::AddResult* result, TagFile::AddResult value)
{
    if (result)
        *result = value;
}

} // namespace

TagFile::TagFile() = default;

TagFile::TagFile(TagFile&& other) noexcept
    : mStoreFilePaths(other.mStoreFilePaths)
    , mCompressedSize(other.mCompressedSize)
    , mUncompressedSize(other.mUncompressedSize)
    , mUnoptimizedSize(other.mUnoptimizedSize)
    , mPreviewBytes(other.mPreviewBytes)
    , mOptimizeMsec(other.mOptimizeMsec)
    , mReadMsec(other.mReadMsec)
    , mWriteMsec(other.mWriteMsec)
    , mNumVolumes(other.mNumVolumes)
    , mNumPreviews(other.mNumPreviews)
{
    mStudies.swap(other.mStudies);
    mSeries.swap(other.mSeries);
    mImages.swap(other.mImages);
    mPath.swap(other.mPath);
}

TagFile::~TagFile()
{
    clear();
}

void TagFile::clear()
{
    mImages.clear();
    mSeries.clear();
    mStudies.clear();
    mCompressedSize = mUncompressedSize = mUnoptimizedSize = mPreviewBytes = 0;
    mOptimizeMsec = mReadMsec = mWriteMsec = mNumVolumes = mNumPreviews = 0;
}

void TagFile::close()
{
    if (mFile.isOpen())
        mFile.close();
}

// ------------------------------------------------------------------ adding

TagMap* TagFile::loadImage(char const* dicomFilePath, AddResult* result)
{
    DcmFileFormat fileFormat;
    if (loadHeader(fileFormat, dicomFilePath).bad()) {
        setResult(result, loadFailure(dicomFilePath));
        return nullptr;
    }
    TagMap* image = TagMap::createTagMap(fileFormat.getDataset(), kMaxValueSize);
    if (uidOf(image, DCM_StudyInstanceUID).isEmpty() || uidOf(image, DCM_SOPInstanceUID).isEmpty()) {
        delete image;
        setResult(result, AddResult::NoUIDs);
        return nullptr;
    }
    setResult(result, AddResult::Added);
    return image;
}

QByteArray TagFile::uidOf(TagMap const* image, DcmTagKey const& key)
{
    // A writer that did not know these attributes stores them with VR UN,
    // and findAndGetString shows UN bytes in hex, cut after 22 bytes: two
    // images whose UIDs share a long prefix would then meet under one key
    // and one of them would be lost. A UID is text whatever VR the parser
    // gave it, so its bytes are taken as they are, without the padding.
    TagElement const* element = image->findElement(key);
    if (!element)
        return QByteArray();
    QByteArray text = element->mValue;
    while (text.endsWith('\0') || text.endsWith(' '))
        text.chop(1);
    return text;
}

TagMap* TagFile::addDicomFile(char const* dicomFilePath, char const* fileName, bool replace,
                              AddResult* result)
{
    DcmFileFormat fileFormat;
    OFCondition const status = loadHeader(fileFormat, dicomFilePath);
    if (status.bad()) {
        getTheLogInstance()->errorf("Could not load %s: %s", dicomFilePath, status.text());
        setResult(result, loadFailure(dicomFilePath));
        return nullptr;
    }
    return addTagMap(TagMap::createTagMap(fileFormat.getDataset(), kMaxValueSize), fileName, replace, result);
}

TagMap* TagFile::addDataset(DcmDataset* dataset, char const* fileName, bool replace)
{
    return addTagMap(TagMap::createTagMap(dataset, kMaxValueSize), fileName, replace);
}

TagMap* TagFile::addTagMap(TagMap* image, char const* fileName, bool replace, AddResult* result)
{
    QByteArray const studyUID = uidOf(image, DCM_StudyInstanceUID);
    QByteArray const seriesUID = uidOf(image, DCM_SeriesInstanceUID);
    QByteArray const sopUID = uidOf(image, DCM_SOPInstanceUID);

    if (!mStudies.isEmpty() && mStudies.firstKey() != studyUID) {
        delete image;
        setResult(result, AddResult::OtherStudy);
        return nullptr;
    }

    TagMap*& imageSlot = mImages[sopUID];
    if (imageSlot) {
        if (!replace) {
            delete image;
            setResult(result, AddResult::Duplicate);
            return nullptr;
        }
        TagMap* oldSeries = imageSlot->mParent;
        delete imageSlot; // unlinks itself from its series
        if (oldSeries && oldSeries->mChildren.isEmpty()) {
            mSeries.remove(uidOf(oldSeries, DCM_SeriesInstanceUID));
            delete oldSeries;
        }
    }
    imageSlot = image;
    storeUID(image, DCM_StudyInstanceUID, studyUID);
    storeUID(image, DCM_SeriesInstanceUID, seriesUID);
    storeUID(image, DCM_SOPInstanceUID, sopUID);

    TagMap*& seriesSlot = mSeries[seriesUID];
    bool const newSeries = seriesSlot == nullptr;
    if (newSeries)
        seriesSlot = new TagMap;
    TagMap* series = seriesSlot;
    series->addChildMap(image, TagMap::LevelImage);

    if (newSeries) {
        std::shared_ptr<TagMap>& study = mStudies[studyUID];
        if (!study)
            study = std::make_shared<TagMap>();
        study->addChildMap(series, TagMap::LevelSeries);
    }

    if (fileName)
        image->putAndInsertValue(Tags::FileSuffix, VR_LO, Loader::extractSuffix(fileName, nullptr));
    if (mStoreFilePaths)
        image->putAndInsertValue(Tags::DicomFilePath, VR_LO, QByteArray(fileName ? fileName : ""));
    setResult(result, AddResult::Added);
    return image;
}

bool TagFile::addSeries(int count, DcmDataset** datasets, char const** fileNames)
{
    if (count < 1 || !datasets || !datasets[0])
        return false;

    QByteArray const studyUID = datasetUID(datasets[0], DCM_StudyInstanceUID);
    if (!mStudies.isEmpty() && mStudies.firstKey() != studyUID)
        return false;

    std::shared_ptr<TagMap>& study = mStudies[studyUID];
    bool const newStudy = study == nullptr;
    if (newStudy) {
        study = std::make_shared<TagMap>();
        study->putAndInsertValue(DCM_StudyInstanceUID, VR_UI, studyUID);
        // Acting as an item sends every series through the merging path of
        // addChildMap, so the study keeps only its UID and each series all
        // of its own attributes.
        study->mIsItem = true;
    }
    for (int i = 0; i < count; ++i) {
        if (datasets[i])
            addTagMap(TagMap::createTagMap(datasets[i], kMaxValueSize), fileNames ? fileNames[i] : nullptr,
                      true);
    }

    TagMap* series = nullptr;
    if (newStudy) {
        study->mIsItem = false;
        if (!study->mChildren.isEmpty())
            series = study->mChildren.first();
    }
    if (!series) {
        series = mSeries.value(datasetUID(datasets[0], DCM_SeriesInstanceUID), nullptr);
    }
    if (!series)
        return false;
    series->optimizeAll();
    return true;
}

bool TagFile::addSeries(TagMap* series)
{
    if (!series)
        return false;
    QByteArray const studyUID = uidOf(series, DCM_StudyInstanceUID);
    auto const study = mStudies.constFind(studyUID);
    if (studyUID.isEmpty() || study == mStudies.cend())
        return false;
    QByteArray const seriesUID = uidOf(series, DCM_SeriesInstanceUID);
    if (seriesUID.isEmpty() || mSeries.contains(seriesUID))
        return false;
    study.value()->addChildMap(series, TagMap::LevelSeries);
    mSeries.insert(seriesUID, series);
    return true;
}

// ----------------------------------------------------------------- finding

TagMap* TagFile::findImage(QByteArray const& sopInstanceUID)
{
    return mImages.value(sopInstanceUID, nullptr);
}

TagMap const* TagFile::findImage(QByteArray const& sopInstanceUID) const
{
    return mImages.value(sopInstanceUID, nullptr);
}

TagMap* TagFile::findSeries(QByteArray const& seriesInstanceUID)
{
    return mSeries.value(seriesInstanceUID, nullptr);
}

TagMap const* TagFile::findSeries(QByteArray const& seriesInstanceUID) const
{
    return mSeries.value(seriesInstanceUID, nullptr);
}

std::vector<TagMap const*> TagFile::findImages(std::function<bool(TagMap const*)> predicate) const
{
    std::vector<TagMap const*> found;
    for (TagMap const* image : mImages) {
        if (predicate(image))
            found.push_back(image);
    }
    return found;
}

// ---------------------------------------------------------------- removing

TagMap* TagFile::takeImage(QByteArray const& sopInstanceUID)
{
    TagMap* image = mImages.value(sopInstanceUID, nullptr);
    if (!image)
        return nullptr;
    TagMap* copy = image->clone();
    if (image->mParent) {
        image->mParent->removeChildMap(image);
        image->mParent = nullptr;
    }
    mImages.remove(sopInstanceUID);
    delete image;
    return copy;
}

int TagFile::removeSeries(int count, char const** seriesUIDs)
{
    int removed = 0;
    for (int i = 0; i < count && seriesUIDs; ++i) {
        QByteArray const uid(seriesUIDs[i]);
        TagMap* series = mSeries.value(uid, nullptr);
        if (!series || !series->mParent)
            continue;
        for (TagMap const* image : series->mChildren)
            mImages.remove(uidOf(image, DCM_SOPInstanceUID));
        TagMap* study = series->mParent;
        study->removeChildMap(series);
        series->mParent = nullptr;
        mSeries.remove(uid);
        delete series;
        ++removed;
        if (study->mChildren.isEmpty())
            mStudies.remove(uidOf(study, DCM_StudyInstanceUID));
    }
    return removed;
}

int TagFile::removeImages(int count, char const** sopInstanceUIDs)
{
    int removed = 0;
    for (int i = 0; i < count && sopInstanceUIDs; ++i) {
        QByteArray const uid(sopInstanceUIDs[i]);
        TagMap* image = mImages.value(uid, nullptr);
        if (!image || !image->mParent)
            continue;
        TagMap* series = image->mParent;
        series->removeChildMap(image);
        image->mParent = nullptr;
        mImages.remove(uid);
        delete image;
        ++removed;
        dropSeriesIfEmpty(series);
    }
    return removed;
}

void TagFile::dropSeriesIfEmpty(TagMap* series)
{
    if (!series->mChildren.isEmpty() || !series->mParent)
        return;
    TagMap* study = series->mParent;
    mSeries.remove(uidOf(series, DCM_SeriesInstanceUID));
    study->removeChildMap(series);
    series->mParent = nullptr;
    delete series;
    if (study->mChildren.isEmpty())
        mStudies.remove(uidOf(study, DCM_StudyInstanceUID));
}

void TagFile::deleteEmptyNodes()
{
    for (QByteArray const& studyUID : mStudies.keys()) {
        TagMap* study = mStudies.value(studyUID).get();
        for (int i = study->mChildren.size() - 1; i >= 0; --i) {
            TagMap* series = study->mChildren[i];
            if (!series->mChildren.isEmpty() || !series->findElement(DCM_SeriesInstanceUID))
                continue;
            QByteArray const seriesUID = uidOf(series, DCM_SeriesInstanceUID);
            study->removeChildMap(series);
            series->mParent = nullptr;
            mSeries.remove(seriesUID);
            delete series;
        }
        if (study->mChildren.isEmpty())
            mStudies.remove(studyUID);
    }
}

// ------------------------------------------------------------------- other

void TagFile::optimizeAll()
{
    if (sDebugOptions & 2) {
        // The size the tree would have on disk, unpacked, before optimising.
        int const mode = sCompressionMode;
        sCompressionMode = 0;
        QByteArray bytes;
        QDataStream stream(&bytes, QIODevice::WriteOnly);
        writeCacheFile(stream);
        sCompressionMode = mode;
        mUnoptimizedSize = bytes.size();
    }
    McWatch watch;
    // Series first: what stays common to a series must be there when the
    // study is looked at.
    for (TagMap* series : mSeries)
        series->optimizeAll();
    for (auto const& study : mStudies)
        study->optimizeAll();
    deleteEmptyNodes();
    mOptimizeMsec = static_cast<int>(watch.elapsedMsec());
}

void TagFile::getStatistics(int& numSeries, int& numImages, int& numVolumes, int& numPreviews,
                            int& optimizeMsec, int& readMsec, int& writeMsec, int& compressedSize,
                            int& uncompressedSize, int& unoptimizedSize, int& previewBytes) const
{
    numSeries = mSeries.size();
    numImages = mImages.size();
    numVolumes = mNumVolumes;
    numPreviews = mNumPreviews;
    optimizeMsec = mOptimizeMsec;
    readMsec = mReadMsec;
    writeMsec = mWriteMsec;
    compressedSize = mCompressedSize;
    uncompressedSize = mUncompressedSize;
    unoptimizedSize = mUnoptimizedSize;
    previewBytes = mPreviewBytes;
}

void TagFile::setMetaFolder(char const* folder)
{
    QByteArray text(folder ? folder : "");
    text.replace('\\', '/');
    if (text.isEmpty())
        text = ".";
    if (!text.endsWith('/'))
        text.append('/');
    sMetaFolder = text;
    getTheLogInstance()->printf("Meta folder set to %s", sMetaFolder.constData());
}

char const* TagFile::metaFolder()
{
    if (sMetaFolder.isEmpty()) {
        std::string folder;
        Lmg::StorageManager::getMetaFolder(folder);
        setMetaFolder(folder.c_str());
    }
    return sMetaFolder.constData();
}

} // namespace Mdx
