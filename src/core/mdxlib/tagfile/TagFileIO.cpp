// The cache file of a study: path, format, compression, reading, writing.
//
// Layout (outer layer big-endian, as QDataStream writes it):
//   "TaCa", version 0, reserved, format 2, compression mode,
//   payload length (int32), payload, preview count (uint32),
//   previews (uint32 length + bytes each).
// The payload unpacks to records: type (0 study, 1 series, 2 image,
// 3 volumes), body length, body. Format 1 files, which end with their
// payload and have no previews, are still read. A file holds one study, and
// its series and images each under a UID of their own, as a TagFile does.
//
// Reading any byte sequence ends in false with a logged reason or in a
// consistent tree: every length is checked against what is left before
// anything is allocated.
#include <mdxlib/tagfile/TagFile.h>

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/platform/Lzma.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McWatch.h>
#include <mdxlib/tagfile/Compression.h>

#include "FileLock.h"
#include <mdxlib/tags/TagMapSerializer.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QCryptographicHash>
#include <QDataStream>
#include <QDir>
#include <QFileInfo>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/types.h>

#include <utility>
#include <vector>

namespace Mdx {

namespace {

// Adds uid to an index unless it is there, with one search: the UIDs of a
// study share long prefixes, so each comparison is a long memcmp.
bool insertUnique(QMap<QByteArray, TagMap*>& index, QByteArray const& uid, TagMap* node)
{
    auto const pos = index.lowerBound(uid);
    if (pos != index.end() && pos.key() == uid)
        return false;
    index.insert(pos, uid, node);
    return true;
}

using IndexEntries = std::vector<std::pair<QByteArray, TagMap*>>;

// Fills an empty index from entries, all at once: sorted first, then added
// behind the last key, which QMap does without a search. The UIDs of a study
// share a long prefix, so the sort compares only what follows it; inserting
// them one by one would compare every byte of the prefix a dozen times for
// each. Fails, with the UID held twice, when a UID comes twice.
bool fillIndex(IndexEntries& entries, QMap<QByteArray, TagMap*>& index, QByteArray* twice)
{
    size_t prefix = entries.empty() ? 0 : static_cast<size_t>(entries.front().first.size());
    char const* first = entries.empty() ? nullptr : entries.front().first.constData();
    for (auto const& entry : entries) {
        char const* uid = entry.first.constData();
        size_t const common = std::min(prefix, static_cast<size_t>(entry.first.size()));
        prefix = static_cast<size_t>(std::mismatch(first, first + common, uid).first - first);
    }
    // QByteArray's order: bytes as unsigned, then the shorter first.
    std::sort(entries.begin(), entries.end(), [prefix](auto const& a, auto const& b) {
        size_t const sizeA = static_cast<size_t>(a.first.size());
        size_t const sizeB = static_cast<size_t>(b.first.size());
        int const c = std::memcmp(a.first.constData() + prefix, b.first.constData() + prefix,
                                  std::min(sizeA, sizeB) - prefix);
        return c != 0 ? c < 0 : sizeA < sizeB;
    });
    auto const same = std::adjacent_find(entries.begin(), entries.end(),
                                         [](auto const& a, auto const& b) { return a.first == b.first; });
    if (same != entries.end()) {
        *twice = same->first;
        return false;
    }
    for (auto const& entry : entries)
        index.insert(index.cend(), entry.first, entry.second);
    return true;
}

char const kCategory[] = "TagFile";
char const kMagic[4] = {'T', 'a', 'C', 'a'};
constexpr quint8 kFormat = 2;
constexpr quint8 kOldFormat = 1;
constexpr int kMessageCapacity = 0x20000;
constexpr int kReadChunk = 0x40000;
constexpr size_t kKeptBufferBytes = 16 << 20;
constexpr int kOpenRetries = 20;
constexpr int kOpenRetryMsec = 20;
// Deflate's limit of expansion, applied to every mode.
constexpr int kMaxPackingRatio = 1032;

enum RecordType : unsigned char
{
    RecordStudy = 0,
    RecordSeries = 1,
    RecordImage = 2,
    RecordVolumes = 3
};

McLogFile& log()
{
    return *getTheLogInstance();
}

// Reads exactly count bytes in chunks, so that a length field that lies
// costs no more memory than the bytes that are really there.
bool readExactly(QDataStream& stream, qint64 count, QByteArray& out)
{
    out.clear();
    while (out.size() < count) {
        int const chunk = static_cast<int>(qMin<qint64>(kReadChunk, count - out.size()));
        int const at = out.size();
        out.resize(at + chunk);
        int const read = stream.readRawData(out.data() + at, chunk);
        if (read != chunk) {
            out.resize(at + qMax(read, 0));
            return false;
        }
    }
    return true;
}

// The same into a buffer that keeps its memory from one read to the next.
bool readExactly(QDataStream& stream, qint64 count, std::vector<char>& out)
{
    out.clear();
    while (static_cast<qint64>(out.size()) < count) {
        size_t const at = out.size();
        int const chunk = static_cast<int>(qMin<qint64>(kReadChunk, count - static_cast<qint64>(at)));
        out.resize(at + static_cast<size_t>(chunk));
        int const read = stream.readRawData(out.data() + at, chunk);
        if (read != chunk) {
            out.resize(at + static_cast<size_t>(qMax(read, 0)));
            return false;
        }
    }
    return true;
}

// The packed and the unpacked payload of the last read on this thread, kept
// for the next: after a large tree has been freed, a fresh block of a
// payload's size makes the heap first sort every small block just freed
// (glibc's consolidation), which costs a read as much as the inflating.
// Buffers beyond kKeptBufferBytes are given back after the read.
struct ReadBuffers
{
    std::vector<char> stored;
    std::vector<char> payload;

    void trim()
    {
        for (std::vector<char>* buffer : {&stored, &payload}) {
            if (buffer->capacity() > kKeptBufferBytes)
                std::vector<char>().swap(*buffer);
        }
    }
};

ReadBuffers& readBuffers()
{
    thread_local ReadBuffers buffers;
    return buffers;
}

bool readPreviews(QDataStream& stream, QList<QByteArray>& previews)
{
    quint32 count = 0;
    stream >> count;
    if (stream.status() != QDataStream::Ok)
        return false;
    for (quint32 i = 0; i < count; ++i) {
        quint32 length = 0;
        stream >> length;
        if (stream.status() != QDataStream::Ok)
            return false;
        if (length == 0xFFFFFFFFu) {
            previews.append(QByteArray());
            continue;
        }
        QByteArray bytes;
        if (!readExactly(stream, length, bytes))
            return false;
        previews.append(bytes);
    }
    return true;
}

QByteArray readToEnd(QDataStream& stream)
{
    QByteArray bytes;
    QByteArray chunk(kReadChunk, Qt::Uninitialized);
    while (!stream.atEnd()) {
        int const read = stream.readRawData(chunk.data(), kReadChunk);
        if (read <= 0)
            break;
        bytes.append(chunk.constData(), read);
    }
    return bytes;
}

QByteArray localPathOf(QString const& path)
{
    return QFile::encodeName(path);
}

// Creates the folder of path and its parents one level at a time, so that a
// failure comes with the system's reason (QDir::mkpath gives none).
bool makeFolderFor(QString const& path)
{
    QByteArray const folder = localPathOf(QFileInfo(path).absolutePath());
    struct stat info = {};
    if (::stat(folder.constData(), &info) == 0 && S_ISDIR(info.st_mode))
        return true;
    int error = 0;
    for (int end = 1; end <= folder.size(); ++end) {
        if (end < folder.size() && folder[end] != '/')
            continue;
        QByteArray const part = folder.left(end);
        if (::mkdir(part.constData(), 0777) != 0 && errno != EEXIST) {
            error = errno;
            break;
        }
    }
    if (error == 0 && (::stat(folder.constData(), &info) != 0 || !S_ISDIR(info.st_mode)))
        error = ENOTDIR;
    if (error == 0)
        return true;
    log().tracef(McLogFile::LevelError, kCategory, "Could not create folder %s: %s", folder.constData(),
                 std::strerror(error));
    return false;
}

// Closes file; a close that fails (the last buffered bytes not written, or
// the system refusing the close) is reported with the reason.
bool closeChecked(QFile& file)
{
    file.close();
    if (file.error() == QFileDevice::NoError)
        return true;
    log().tracef(McLogFile::LevelError, kCategory, "Could not close %s: %s",
                 localPathOf(file.fileName()).constData(), file.errorString().toLocal8Bit().constData());
    return false;
}

// Writes the tag file into file, open for writing at its start, and closes
// it. cutTail drops what an earlier, longer content left behind the end.
// Every step is checked, so that a file that did not get all of its bytes
// is never reported as written; the first failure is logged with its reason.
bool writeAndClose(TagFile const& tagFile, QFile& file, bool cutTail)
{
    QDataStream stream(&file);
    char const* step = nullptr;
    if (!tagFile.writeCacheFile(stream))
        step = "write";
    else if (cutTail && !file.resize(file.pos()))
        step = "truncate";
    else if (!file.flush())
        step = "flush";
    if (step) {
        log().tracef(McLogFile::LevelError, kCategory, "Could not write %s (%s): %s",
                     localPathOf(file.fileName()).constData(), step,
                     file.errorString().toLocal8Bit().constData());
        file.close();
        return false;
    }
    return closeChecked(file);
}

bool openForWriting(QFile& file)
{
    if (file.open(QIODevice::WriteOnly))
        return true;
    log().tracef(McLogFile::LevelError, kCategory, "Could not open %s for writing: %s",
                 localPathOf(file.fileName()).constData(), file.errorString().toLocal8Bit().constData());
    return false;
}

} // namespace

QString TagFile::cacheFilePathForStudy(char const* studyUID)
{
    QByteArray text(studyUID ? studyUID : "");
    text.append('\n');
    QByteArray const digits = QCryptographicHash::hash(text, QCryptographicHash::Md5).toHex();
    return QString::fromLocal8Bit(metaFolder()) + QString::fromLatin1(digits.left(2)) + '/' +
           QString::fromLatin1(digits.mid(2, 2)) + '/' + QString::fromLatin1(digits.mid(4)) + ".tc";
}

// ------------------------------------------------------------------ writing

bool TagFile::writeCacheFile(QDataStream& stream) const
{
    McWatch watch;
    LmMsg msg;
    msg.reset(0, kMessageCapacity);
    TagMapSerializer serializer;
    QList<QByteArray> previews;
    mNumVolumes = 0;

    for (auto const& study : mStudies) {
        msg << static_cast<unsigned char>(RecordStudy);
        serializer.serialize(study.get(), msg, previews);
        for (TagMap const* series : study->children()) {
            msg << static_cast<unsigned char>(RecordSeries);
            serializer.serialize(series, msg, previews);
            for (TagMap const* image : series->children()) {
                msg << static_cast<unsigned char>(RecordImage);
                serializer.serialize(image, msg, previews);
            }
            if (!series->volumes().isEmpty()) {
                msg << static_cast<unsigned char>(RecordVolumes);
                serializer.serializeVolumes(series, msg, previews);
                mNumVolumes += series->volumes().size();
            }
        }
    }
    if (msg.size() > 0x7FFFFFF0u) {
        log().tracef(McLogFile::LevelError, kCategory, "Tag file payload of %zu bytes is too large",
                     msg.size());
        return false;
    }

    mPreviewBytes = 0;
    for (QByteArray const& preview : previews)
        mPreviewBytes += preview.size();
    mNumPreviews = previews.size();

    auto const* plain = reinterpret_cast<unsigned char const*>(msg.dataPtr());
    int const plainSize = static_cast<int>(msg.size());
    QByteArray stored;
    int mode = sCompressionMode;
    if (mode == 2) {
        McDArray<unsigned char> packed;
        McResult const result = lzmaCompress(packed, plain, plainSize);
        if (!result) {
            log().tracef(McLogFile::LevelError, kCategory, "%s", result.message().c_str());
            return false;
        }
        stored = QByteArray(reinterpret_cast<char const*>(packed.data()), static_cast<int>(packed.size()));
        // A payload that packs better than deflate ever could would be
        // refused by readers as a decompression bomb: store it as mode 1.
        if (static_cast<qint64>(plainSize) > static_cast<qint64>(stored.size()) * kMaxPackingRatio)
            mode = 1;
    }
    if (mode == 1) {
        stored = qxCompress(plain, plainSize);
    } else if (mode != 2) {
        stored = QByteArray(msg.dataPtr(), plainSize);
    }

    stream.writeRawData(kMagic, 4);
    stream << quint8(0) << quint8(0) << kFormat << quint8(mode);
    stream << qint32(stored.size());
    stream.writeRawData(stored.constData(), stored.size());
    stream << previews;

    int const overhead = mPreviewBytes + 4 * mNumPreviews + 16;
    mCompressedSize = stored.size() + overhead;
    mUncompressedSize = plainSize + overhead;
    mWriteMsec = static_cast<int>(watch.elapsedMsec());
    return stream.status() == QDataStream::Ok;
}

bool TagFile::writeCacheFile()
{
    if (mStudies.isEmpty()) {
        if (!mFile.isOpen())
            return false;
        closeChecked(mFile);
        if (!mFile.remove()) {
            log().tracef(McLogFile::LevelError, kCategory, "Could not remove %s: %s",
                         localPathOf(mPath).constData(), mFile.errorString().toLocal8Bit().constData());
            return false;
        }
        return true;
    }
    QString const path = cacheFilePathForStudy(mStudies.firstKey().constData());
    // A file kept open by readCacheFile is rewritten in place, from its
    // start; the stale tail a shorter content leaves is cut off.
    bool const reopened = mFile.isOpen();
    if (reopened) {
        if (!mFile.seek(0)) {
            log().tracef(McLogFile::LevelError, kCategory, "Could not write %s (seek): %s",
                         localPathOf(path).constData(), mFile.errorString().toLocal8Bit().constData());
            mFile.close();
            return false;
        }
    } else {
        mFile.setFileName(path);
        if (!makeFolderFor(path) || !openForWriting(mFile))
            return false;
    }
    bool const written = writeAndClose(*this, mFile, reopened);
    mPath = path;
    if (written && log().debugEnabled())
        log().tracef(McLogFile::LevelDebug, kCategory, "Written tag file %s in %d msec",
                     localPathOf(path).constData(), mWriteMsec);
    return written;
}

bool TagFile::writeCacheFile(char const* path) const
{
    QFile file(QString::fromLocal8Bit(path));
    if (!makeFolderFor(file.fileName()) || !openForWriting(file) || !writeAndClose(*this, file, false))
        return false;
    if (log().debugEnabled())
        log().tracef(McLogFile::LevelDebug, kCategory, "Written tag file %s in %d msec", path, mWriteMsec);
    return true;
}

// ------------------------------------------------------------------ reading

bool TagFile::readCacheFileForStudy(char const* studyUID, bool keepOpen)
{
    return readCacheFile(cacheFilePathForStudy(studyUID), studyUID, keepOpen);
}

bool TagFile::readCacheFile(QString const& path, char const* studyUID, bool keepOpen)
{
    McWatch watch;
    if (mFile.isOpen()) {
        log().tracef(McLogFile::LevelWarning, kCategory, "Tag file already opened");
        return false;
    }
    clear();
    mPath = path;
    mFile.setFileName(path);
    QByteArray const localPath = path.toLocal8Bit();

    if (keepOpen) {
        // Kept open for a following write: the writer's lock is taken with
        // the open (see FileLock.h). Another process may hold the file for a
        // moment while it writes; a file deleted meanwhile is not made anew.
        mLockedOut = false;
        for (int retries = 0;; ++retries) {
            if (!mFile.exists())
                return false;
            if (mFile.open(QIODevice::ReadWrite)) {
                int error = 0;
                FileLockResult const lock = lockForUpdate(mFile.handle(), path, &error);
                if (lock == FileLockResult::Locked)
                    break;
                mFile.close();
                if (lock == FileLockResult::Failed || retries >= kOpenRetries) {
                    mLockedOut = lock == FileLockResult::Busy;
                    log().tracef(McLogFile::LevelWarning, kCategory, "Could not open %s for read-write: %s",
                                 localPath.constData(), describe(lock, error));
                    return false;
                }
            } else if (mFile.error() == QFileDevice::OpenError || retries >= kOpenRetries) {
                return false;
            }
            QThread::msleep(kOpenRetryMsec);
        }
    } else if (!mFile.open(QIODevice::ReadOnly)) {
        if (log().debugEnabled() || mFile.error() != QFileDevice::OpenError)
            log().tracef(McLogFile::LevelWarning, kCategory, "Could not open %s: %s", localPath.constData(),
                         mFile.errorString().toLocal8Bit().constData());
        return false;
    }

    QDataStream stream(&mFile);
    bool const ok = readCacheFile(stream, studyUID);
    if (!keepOpen || !ok)
        closeChecked(mFile);
    mReadMsec = static_cast<int>(watch.elapsedMsec());
    if (!ok)
        log().tracef(McLogFile::LevelInfo, kCategory, "Could not read %s", localPath.constData());
    else if (log().debugEnabled())
        log().tracef(McLogFile::LevelDebug, kCategory, "Cache file read in %d msec", mReadMsec);
    return ok;
}

bool TagFile::readCacheFile(QDataStream& stream, char const* studyUID)
{
    clear();
    char magic[4] = {};
    if (stream.readRawData(magic, 4) != 4 || memcmp(magic, kMagic, 4) != 0) {
        log().tracef(McLogFile::LevelError, kCategory, "Tag file has incorrect header");
        return false;
    }
    quint8 version = 0;
    quint8 reserved = 0;
    quint8 format = 0;
    quint8 mode = 0;
    stream >> version >> reserved >> format >> mode;
    if (stream.status() != QDataStream::Ok || version != 0) {
        log().tracef(McLogFile::LevelError, kCategory,
                     stream.status() != QDataStream::Ok ? "Tag file seems to be truncated"
                                                        : "Tag file has unsupported version");
        return false;
    }

    ReadBuffers& buffers = readBuffers();
    std::vector<char>& stored = buffers.stored;
    QList<QByteArray> previews;
    if (format == kOldFormat) {
        QByteArray const bytes = readToEnd(stream);
        stored.assign(bytes.constData(), bytes.constData() + bytes.size());
    } else {
        qint32 length = -1;
        stream >> length;
        if (stream.status() != QDataStream::Ok || length < 0 || !readExactly(stream, length, stored) ||
            !readPreviews(stream, previews)) {
            log().tracef(McLogFile::LevelError, kCategory, "Tag file seems to be truncated");
            buffers.trim();
            return false;
        }
    }
    int const storedSize = static_cast<int>(stored.size());

    // A payload that does not unpack is refused here with its own reason:
    // read on as empty, it would only surface as a file without a study.
    // The nodes copy what they keep, so the payload is read in place.
    QByteArray payload;
    McDArray<unsigned char> unpacked;
    if (mode == 2) {
        // No more than deflate could unpack from as many bytes: a hostile
        // payload costs memory in proportion to its size, never gigabytes.
        McResult const result =
            lzmaUncompress(unpacked, reinterpret_cast<unsigned char const*>(stored.data()), storedSize,
                           static_cast<long long>(storedSize) * kMaxPackingRatio + 64);
        if (!result) {
            log().tracef(McLogFile::LevelError, kCategory, "Tag file payload could not be unpacked: %s",
                         result.message().c_str());
            buffers.trim();
            return false;
        }
        // Read in place: a copy of a payload that may be hundreds of
        // megabytes would double the peak.
        payload = QByteArray::fromRawData(reinterpret_cast<char const*>(unpacked.data()),
                                          static_cast<int>(unpacked.size()));
    } else if (mode == 1) {
        // An empty result is a failure unless the length in front says 0.
        bool const ok = qxUncompress(stored.data(), storedSize, buffers.payload);
        bool const emptyByDesign = storedSize > 4 && std::all_of(stored.begin(), stored.begin() + 4,
                                                                 [](char byte) { return byte == 0; });
        if ((!ok || buffers.payload.empty()) && !emptyByDesign) {
            log().tracef(McLogFile::LevelError, kCategory, "Tag file payload could not be unpacked");
            buffers.trim();
            return false;
        }
        payload = QByteArray::fromRawData(buffers.payload.data(), static_cast<int>(buffers.payload.size()));
    } else if (mode == 0) {
        payload = QByteArray::fromRawData(stored.data(), storedSize);
    } else {
        log().tracef(McLogFile::LevelError, kCategory, "Tag file has unsupported compression format");
        buffers.trim();
        return false;
    }

    mPreviewBytes = 0;
    for (QByteArray const& preview : qAsConst(previews))
        mPreviewBytes += preview.size();
    mNumPreviews = previews.size();
    int const overhead = mPreviewBytes + 4 * mNumPreviews + 16;
    mCompressedSize = storedSize + overhead;
    mUncompressedSize = payload.size() + overhead;
    mUnoptimizedSize = 0;
    mNumVolumes = 0;

    bool const read = readPayload(payload, previews, studyUID);
    payload.clear(); // before the buffers it may point into change
    buffers.trim();
    if (!read) {
        clear();
        log().tracef(McLogFile::LevelError, kCategory, "Tag file seems to be truncated");
        return false;
    }
    if (mStudies.isEmpty()) {
        if (studyUID)
            log().tracef(McLogFile::LevelWarning, kCategory, "Tag file does not hold study %s", studyUID);
        else
            log().tracef(McLogFile::LevelError, kCategory, "Tag file holds no study");
        return false;
    }
    return true;
}

bool TagFile::readPayload(QByteArray const& payload, QList<QByteArray> const& previews, char const* studyUID)
{
    LmMsg in(payload.constData(), static_cast<size_t>(payload.size()));
    QByteArray wantedStudy(studyUID ? studyUID : "");
    bool compareStudy = studyUID != nullptr;
    bool skipping = true;
    TagMap* study = nullptr;
    TagMap* series = nullptr;
    // The images are indexed once all are read (see fillIndex).
    IndexEntries images;
    images.reserve(in.bytesAvailable() / 1024);

    while (in.bytesAvailable() > 0) {
        unsigned char type = 0;
        in >> type;
        int const length = TagMap::readLength(in);
        char const* bytes = in.readRawBytes(static_cast<size_t>(length));
        if (!bytes)
            return false;
        LmMsg body(bytes, static_cast<size_t>(length));

        switch (type) {
        case RecordStudy: {
            // A file holds one study. Once it is in, a later study record
            // can only be skipped, and is without being built: unpacked
            // payloads can be large, and one of nothing but empty study
            // records would otherwise build and drop a node every 3 bytes.
            if (!mStudies.isEmpty()) {
                skipping = true;
                break;
            }
            skipping = false;
            auto node = std::make_shared<TagMap>();
            node->deserialize(body, nullptr, previews);
            if (body.failed())
                return false;
            QByteArray uid;
            node->findAndGetString(DCM_StudyInstanceUID, uid);
            if (compareStudy && uid != wantedStudy) {
                skipping = true;
                break;
            }
            mStudies.insert(uid, node);
            study = node.get();
            series = nullptr;
            compareStudy = false;
            break;
        }
        case RecordSeries: {
            if (skipping)
                break;
            auto* node = new TagMap;
            node->deserialize(body, study, previews); // owned by the study from here
            if (body.failed())
                return false;
            QByteArray uid;
            node->findAndGetString(DCM_SeriesInstanceUID, uid);
            // The indexes must name every node of the tree: the writer never
            // stores a UID twice, so a file that does is damaged, and a node
            // shadowed in the index would be out of reach of every removal.
            if (!insertUnique(mSeries, uid, node)) {
                log().tracef(McLogFile::LevelError, kCategory, "Tag file holds series %.64s twice",
                             uid.constData());
                return false;
            }
            series = node;
            break;
        }
        case RecordImage: {
            if (skipping || !series)
                break;
            auto* node = new TagMap;
            node->deserialize(body, series, previews);
            if (body.failed())
                return false;
            QByteArray uid;
            node->findAndGetString(DCM_SOPInstanceUID, uid);
            images.emplace_back(uid, node);
            break;
        }
        case RecordVolumes:
            if (skipping || !series)
                break;
            // One block per series; a second would number its volumes
            // from 0 again, next to the first block's.
            if (!series->volumes().isEmpty()) {
                log().tracef(McLogFile::LevelError, kCategory,
                             "Tag file holds the volumes of a series twice");
                return false;
            }
            series->deserializeVolumes(body, previews);
            if (body.failed())
                return false;
            mNumVolumes += series->volumes().size();
            break;
        default:
            break; // a record of a later version: skipped by its length
        }
    }
    if (in.failed())
        return false;
    QByteArray twice;
    if (!fillIndex(images, mImages, &twice)) {
        log().tracef(McLogFile::LevelError, kCategory, "Tag file holds image %.64s twice", twice.constData());
        return false;
    }
    return true;
}

} // namespace Mdx
