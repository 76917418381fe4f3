#include <mdxlib/volumes/Loader.h>

#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McWatch.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/ItemOF.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcfilefo.h"
#include "dcmtk/dcmdata/dcistrmb.h"

#include <QFile>

#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace Mdx {

namespace {

char const kCategory[] = "MdxLoader";

bool isSeparator(char c)
{
    return c == '/' || c == '\\';
}

std::shared_ptr<Item> viewOf(DcmDataset* dataset)
{
    return std::make_shared<ItemOF>(std::shared_ptr<DcmDataset>(dataset));
}

} // namespace

Loader::Loader() = default;

Loader::~Loader()
{
    clear();
}

void Loader::clear()
{
    mTagFiles.clear();
}

void Loader::addTagFile(QByteArray const& studyUID, std::shared_ptr<TagFile> const& tagFile)
{
    mTagFiles.insert(studyUID, tagFile);
}

bool Loader::extractUIDs(char const* path, QByteArray& sopUID, QByteArray& studyUID)
{
    sopUID.clear();
    studyUID.clear();
    int const length = path ? static_cast<int>(std::strlen(path)) : 0;
    if (length < 6 || std::strcmp(path + length - 4, ".dcm") != 0)
        return false;
    // The suffix's '_' lies in the name: the search stops at the folder.
    int underscore = length - 5;
    while (underscore >= 0 && path[underscore] != '_' && !isSeparator(path[underscore]))
        --underscore;
    if (underscore >= 0 && path[underscore] != '_')
        underscore = -1;
    int sopStart = underscore < 0 ? length - 5 : underscore - 1;
    while (sopStart >= 0 && !isSeparator(path[sopStart]))
        --sopStart;
    if (sopStart < 0)
        return false;
    // Without "_" the SOP UID runs to the extension: only the suffix may be
    // missing from a stored object's name.
    int const sopEnd = underscore < 0 ? length - 4 : underscore;
    if (sopEnd < sopStart + 1)
        return false;
    sopUID = QByteArray(path + sopStart + 1, sopEnd - sopStart - 1);
    int studyStart = sopStart - 1;
    while (studyStart >= 0 && !isSeparator(path[studyStart]))
        --studyStart;
    // Without a folder before it the study UID starts at the second
    // character, as a relative path's first one is taken for a separator.
    int const from = studyStart < 0 ? 1 : studyStart + 1;
    studyUID = from < sopStart ? QByteArray(path + from, sopStart - from) : QByteArray();
    return true;
}

QByteArray Loader::extractSuffix(char const* path, int* qaNumber)
{
    if (!path)
        return QByteArray();
    int const length = static_cast<int>(std::strlen(path));
    int nameStart = length;
    while (nameStart > 0 && !isSeparator(path[nameStart - 1]))
        --nameStart;

    // The name ends at the first '?' behind the separator; a query may carry
    // the number of a QA record.
    int nameEnd = length;
    for (int i = length - 1; i >= nameStart; --i) {
        if (path[i] != '?')
            continue;
        nameEnd = i;
        if (qaNumber) {
            if (char const* qa = std::strstr(path + i + 1, "QA="))
                *qaNumber = std::atoi(qa + 3);
        }
    }

    static constexpr char kExtension[] = ".dcm";
    int const extensionLength = static_cast<int>(sizeof kExtension) - 1;
    if (nameEnd < 6 || nameEnd - nameStart < extensionLength ||
        std::strncmp(path + nameEnd - extensionLength, kExtension, extensionLength) != 0)
        return QByteArray();

    int const stemEnd = nameEnd - extensionLength;
    int suffixStart = stemEnd;
    while (suffixStart > nameStart && path[suffixStart - 1] != '_')
        --suffixStart;
    return QByteArray(path + suffixStart, stemEnd - suffixStart);
}

std::shared_ptr<TagFile> Loader::tagFileForStudy(QByteArray const& studyUID)
{
    std::shared_ptr<TagFile>& entry = mTagFiles[studyUID];
    if (entry)
        return entry;
    McWatch watch;
    entry = std::make_shared<TagFile>();
    if (entry->readCacheFileForStudy(studyUID.constData(), false))
        getTheLogInstance()->printf("Tag file %s read in %d msec", entry->path().toLocal8Bit().constData(),
                                    static_cast<int>(watch.elapsedMsec()));
    else
        getTheLogInstance()->warnf("No tag file found for study %s", studyUID.constData());
    return entry;
}

std::shared_ptr<Item> Loader::loadMetaData(char const* path, QByteArray const& sopUID,
                                           QByteArray const& studyUID, LmSessionContextID session)
{
    if (!studyUID.isEmpty()) {
        std::shared_ptr<TagFile> const tagFile = tagFileForStudy(studyUID);
        int qa = 0;
        QByteArray const suffix = extractSuffix(path, &qa);
        // The path goes onto the image itself, not into a view's copy, so
        // that a later read of its pixels opens the file of this request.
        if (TagMap* image = tagFile->findImage(sopUID, suffix, qa)) {
            image->putAndInsertValue(Tags::DicomFilePath, VR_LO, QByteArray(path));
            if (std::shared_ptr<Item> item = tagFile->findImageEx(sopUID, QByteArray(), 0))
                return item;
        }
    }
    return loadDcmDataset(path, -1, session);
}

std::shared_ptr<Item> Loader::loadDcmDataset(char const* path, int size, LmSessionContextID session)
{
    McLogFile* log = getTheLogInstance();
    if (size < 0) {
        LmDcmFileLoader loader(LmDcmFileLoader::MODE_DEFAULT);
        loader.sessionContext = session;
        OFCondition const status = loader.loadFile(path, EXS_Unknown, EGL_noChange, 4096, ERM_autoDetect);
        if (status.bad()) {
            log->errorf("Could not load %s: %s", path, status.text());
            return nullptr;
        }
        return viewOf(loader.fileFormat().getAndRemoveDataset());
    }

    std::vector<char> buffer;
    try {
        buffer.resize(static_cast<size_t>(size));
    } catch (std::bad_alloc const&) {
        log->errorf("%s: Could not allocate %lld bytes.", path, static_cast<long long>(size));
        return nullptr;
    }
    QFile file(QString::fromLocal8Bit(path));
    if (!file.open(QIODevice::ReadOnly)) {
        log->errorf("Could not open %s", path);
        return nullptr;
    }
    qint64 const got = size > 0 ? file.read(buffer.data(), size) : 0;
    if (got < size) {
        log->errorf("%s: Could only read %d of %d bytes", path, static_cast<int>(got < 0 ? 0 : got), size);
        return nullptr;
    }
    DcmInputBufferStream stream;
    stream.setBuffer(buffer.data(), static_cast<offile_off_t>(size));
    stream.setEos();
    DcmFileFormat format;
    format.transferInit();
    OFCondition const status = format.read(stream, EXS_Unknown, EGL_noChange, DCM_MaxReadLength);
    format.transferEnd();
    if (status.bad()) {
        log->errorf("Could not load %s from buffer stream: %s", path, status.text());
        return nullptr;
    }
    return viewOf(format.getAndRemoveDataset());
}

Volume* Loader::loadVolume(char const* path, QByteArray const& seriesUID, TagFile const& tagFile)
{
    McLogFile* log = getTheLogInstance();
    TagMap const* series = tagFile.findSeries(seriesUID);
    if (!series) {
        log->tracef(0, kCategory, "Series %s not found in tag map", seriesUID.constData());
        return nullptr;
    }
    // The part number lies in the file's name; a folder called "x_part2"
    // says nothing about the volume.
    char const* name = path;
    for (char const* c = path; *c; ++c) {
        if (isSeparator(*c))
            name = c + 1;
    }
    int index = 0;
    if (char const* part = std::strstr(name, "_part"))
        index = std::atoi(part + 5) - 1;
    if (index < 0 || index >= series->volumes().size()) {
        log->tracef(2, kCategory, "Illegal volume index. Cannot load volume from tag file (%s).", path);
        return nullptr;
    }
    Volume* volume = series->volumes()[index];
    if (volume->mFileNameSuffix.isEmpty()) {
        log->tracef(2, kCategory, "No filename suffix. Cannot load volume from tag file (%s).", path);
        return nullptr;
    }
    // A stored "0" stands for any name: such files were written before names
    // told their variant.
    if (volume->mFileNameSuffix == "0" || volume->mFileNameSuffix == Volume::fileNameSuffix(path))
        return volume;
    log->tracef(2, kCategory, "Filename suffix does not match. Cannot load volume from tag file (%s).", path);
    return nullptr;
}

Volume* Loader::loadVolume(char const* path, QByteArray const& seriesUID, QByteArray const& studyUID)
{
    if (studyUID.isEmpty()) {
        getTheLogInstance()->tracef(0, kCategory, "StudyInstanceUID is empty (%s)", path);
        return nullptr;
    }
    return loadVolume(path, seriesUID, *tagFileForStudy(studyUID));
}

} // namespace Mdx
