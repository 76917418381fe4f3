// Edit and move jobs on existing tag files, and what they do to volumes.
//
// An Edit changes images within one study's tag file; a Move takes images
// out of one study's file, changes them and puts them into another's. An
// image whose Series Instance UID changes goes to another series, and the
// volumes of both series follow it or are dropped.
//
// Each changed image gets a history block in element 0x21 of the "Lumora"
// block of group 0071 (base64 text): one group numbers it (0071,0021), the
// other (0071,1021); both name the same element of the creator's block,
// which is where TagMap's private lookup puts either. The QA cache writes
// and reads the same element, so both kinds of history share one text.
#include <mdxlib/tagfile/TagFile.h>

#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McWatch.h>
#include <mdxlib/qa/PreviewRequest.h>
#include <mdxlib/qa/QAData.h>
#include <mdxlib/qa/QASeriesMove.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <unistd.h>

namespace Mdx {

namespace {

char const kCategory[] = "TagFile";
char const kCreator[] = "Lumora";
DcmTagKey const kHistoryKey(0x0071, 0x0021);
DcmTagKey const kIssuerKey(0x0010, 0x0021);

enum class ReadState
{
    Absent,
    Read,
    Unreadable
};

// Reads a study's tag file to change it (kept open and locked). A file that
// is there but can't be read (damaged, unreadable, or locked by another
// writer) is told apart from none: a job must not take it for an empty one.
ReadState readForUpdate(TagFile& file, QByteArray const& studyUID)
{
    if (file.readCacheFileForStudy(studyUID.constData(), true))
        return ReadState::Read;
    file.close();
    file.clear();
    return QFileInfo::exists(TagFile::cacheFilePathForStudy(studyUID.constData())) ? ReadState::Unreadable
                                                                                   : ReadState::Absent;
}

// Whether a tag file can be made at the study's path: its folder exists or
// can be made, and is writable.
bool canCreate(QByteArray const& studyUID)
{
    QString const folder = QFileInfo(TagFile::cacheFilePathForStudy(studyUID.constData())).absolutePath();
    return QDir().mkpath(folder) && ::access(QFile::encodeName(folder).constData(), W_OK) == 0;
}

QByteArray cutTrailingCarets(QByteArray text)
{
    while (text.endsWith('^'))
        text.chop(1);
    return text;
}

// Whether the new value is really another value: weight and size within
// 0.001 and person names up to trailing "^" are the same.
bool isRealChange(DcmTagKey const& key, QByteArray const& current, QByteArray const& value)
{
    if (current == value)
        return false;
    if (key == DCM_PatientSize || key == DCM_PatientWeight)
        return std::fabs(std::atof(current.constData()) - std::atof(value.constData())) > 0.001;
    if (key == DCM_ReferringPhysicianName || key == DCM_PatientName)
        return cutTrailingCarets(current) != cutTrailingCarets(value);
    return true;
}

QByteArray keyLine(DcmTagKey const& key)
{
    char text[16];
    std::snprintf(text, sizeof text, "%04x-%04x\n", key.getGroup(), key.getElement());
    return QByteArray(text);
}

QByteArray historyHead(QAData const& job)
{
    QDateTime time;
    if (!job.timestamp.isEmpty())
        time = QDateTime::fromString(QString::fromLatin1(job.timestamp), QStringLiteral("yyyyMMddhhmmss"));
    if (!time.isValid())
        time = QDateTime::currentDateTime();
    QByteArray head = time.toString(QStringLiteral("yyyyMMddhhmmss")).toLatin1();
    if (!job.login.isEmpty())
        head += ' ' + job.login;
    return head;
}

// The identity check: an image passes when it has the expected patient and
// issuer, or already the new ones.
bool identityFits(TagMap const* image, QAData const& job)
{
    if (job.expectedPatientID.isNull() && job.expectedIssuer.isNull())
        return true;
    QByteArray patient;
    QByteArray issuer;
    image->findAndGetString(DCM_PatientID, patient);
    image->findAndGetString(kIssuerKey, issuer);
    bool const patientBad = !job.expectedPatientID.isNull() && job.expectedPatientID != patient &&
                            (job.newPatientID.isNull() || job.newPatientID != patient);
    bool const issuerBad = !job.expectedIssuer.isNull() && job.expectedIssuer != issuer &&
                           (job.newIssuer.isNull() || job.newIssuer != issuer);
    return !patientBad && !issuerBad;
}

// The value the job leaves in key: its last element for key, else the
// image's own.
QByteArray valueAfterJob(TagMap const* image, QAData const& job, DcmTagKey const& key)
{
    QByteArray value = TagFile::uidOf(image, key);
    for (QAData::Element const& element : job.elements) {
        if (DcmTagKey(element.group, element.element) == key)
            value = element.value.toLatin1();
    }
    return value;
}

// Drops the volumes of a series together with every image's volume
// indices (0006,7103), wherever in the series they are stored: a stale index
// would name a volume that a later volume file brings in its place.
void dropVolumes(TagMap* series)
{
    series->clearVolumes();
    series->deleteElement(Tags::VolumeIndices);
    for (TagMap* image : series->children())
        image->deleteElement(Tags::VolumeIndices);
    // A new study takes its first series' values up: hidden there, not
    // deleted, as other series may inherit them.
    if (series->findElement(Tags::VolumeIndices))
        series->markAsMissing(Tags::VolumeIndices);
}

struct Counts
{
    int changed = 0;
    int notFound = 0;
    int skipped = 0;
    int moved = 0;
};

} // namespace

bool TagFile::applyQA(QAData& job, QString& error)
{
    McWatch total;
    McWatch readWatch;
    if (job.oldSUID == job.suid)
        job.oldSUID.clear();
    bool const isMove = !job.oldSUID.isEmpty();

    TagFile source;
    TagFile target;
    ReadState const sourceState = isMove ? readForUpdate(source, job.oldSUID) : ReadState::Absent;
    ReadState const targetState = readForUpdate(target, job.suid);
    // A file that is there but can't be read is never overwritten, and the
    // job is not reported as done: taken as empty, an Edit would find no
    // image and say success, and a Move would replace the damaged target
    // with nothing but the moved images. Nothing has been taken out yet.
    if (sourceState == ReadState::Unreadable || targetState == ReadState::Unreadable) {
        error = QStringLiteral("Read error");
        return false;
    }
    if (source.mStudies.isEmpty() && target.mStudies.isEmpty())
        return true;
    int const readMsec = static_cast<int>(readWatch.elapsedMsec());

    TagFile& working = isMove ? source : target;
    // A Move writes its source first. Before anything is taken out, the
    // target must be able to take the images: an absent target file is
    // created, which its folder must allow.
    if (isMove && targetState == ReadState::Absent && !canCreate(job.suid)) {
        error = QStringLiteral("Write error");
        return false;
    }
    QByteArray const head = historyHead(job);
    QByteArray const targetStudy = target.mStudies.isEmpty() ? job.suid : target.mStudies.firstKey();
    std::vector<QASeriesMove> moves;
    Counts counts;

    for (int i = 0; i < job.imageUIDs.size(); ++i) {
        QByteArray const& uid = job.imageUIDs[i];
        TagMap* image = working.findImage(uid);
        if (!image) {
            ++counts.notFound;
            continue;
        }
        TagMap* moveFrom = isMove ? image->mParent : nullptr;
        if (!identityFits(image, job)) {
            ++counts.skipped;
            continue;
        }
        // An image that would change series must be one the target takes:
        // an image of another study would be refused there after it has
        // left its place, and be lost.
        bool const changesSeries =
            valueAfterJob(image, job, DCM_SeriesInstanceUID) != uidOf(image, DCM_SeriesInstanceUID);
        if ((isMove || changesSeries) && valueAfterJob(image, job, DCM_StudyInstanceUID) != targetStudy) {
            getTheLogInstance()->tracef(McLogFile::LevelWarning, kCategory,
                                        "Image %s would not belong to study %s: left where it is",
                                        uid.constData(), targetStudy.constData());
            ++counts.skipped;
            continue;
        }

        QByteArray changes;
        bool previewWanted = false;
        for (QAData::Element const& element : job.elements) {
            DcmTagKey const key(element.group, element.element);
            if (key == DCM_PixelData) {
                // Pixel Data is not written: the change asks for a new preview.
                if (image->findElement(Tags::PreviewData))
                    previewWanted = true;
                char text[16];
                std::snprintf(text, sizeof text, "%04x-%04x\n\n", key.getGroup(), key.getElement());
                changes += text;
                changes += element.value.toUtf8();
                changes += '\n';
                continue;
            }
            TagElement const* existing = image->findElement(key);
            if (existing && (existing->mVR == VR_SQ || dynamic_cast<TagSequence const*>(existing)))
                continue; // a sequence has no text to replace
            QByteArray current;
            image->findAndGetString(key, current);
            QByteArray const value = element.value.toLatin1();
            if (!isRealChange(key, current, value))
                continue;
            if (key == DCM_SeriesInstanceUID)
                moveFrom = image->mParent;
            changes += keyLine(key);
            changes += QString::fromLatin1(current).toUtf8();
            changes += '\n';
            changes += element.value.toUtf8();
            changes += '\n';
            image->putAndInsertString(key, value);
        }

        if (!changes.isEmpty()) {
            // Histories of edit jobs are kept as written, in UTF-8, without
            // the escapes of the QA cache's own blocks.
            QByteArray history;
            QByteArray encoded;
            if (image->findAndGetString(kHistoryKey, kCreator, encoded))
                history = QByteArray::fromBase64(encoded);
            history += head;
            history += '\n';
            history += changes;
            history += '\n';
            image->putAndInsertValue(kHistoryKey, kCreator, VR_UT, history.toBase64());
            ++counts.changed;
        }

        if (moveFrom) {
            TagMap* added = target.addTagMap(working.takeImage(uid), nullptr, true);
            if (added) {
                ++counts.moved;
                TagMap* newSeries = added->mParent;
                auto const same = std::find_if(moves.begin(), moves.end(), [&](QASeriesMove const& move) {
                    return move.oldSeries == moveFrom && move.newSeries == newSeries;
                });
                if (same != moves.end()) {
                    ++same->numImages;
                    ++same->numVolumeImages;
                    same->imageMap.insert(image, added);
                } else {
                    QASeriesMove move;
                    move.oldSeries = moveFrom;
                    move.newSeries = newSeries;
                    move.numImages = 1;
                    move.numVolumeImages = 1;
                    move.imageMap.insert(image, added);
                    moves.push_back(move);
                }
                image = added;
            }
        }

        if (previewWanted && i < job.fileNames.size() && !job.fileNames[i].isNull()) {
            // Copies: the job's texts wrap the caller's strings, which a
            // maker that keeps them must not outlive.
            requestPreview(target, QByteArray(uid.constData(), uid.size()),
                           QByteArray(job.fileNames[i].constData(), job.fileNames[i].size()));
        }
    }

    // Images of one series that went to several series split it: no part
    // keeps the volumes, whose images now lie apart. The old series is then
    // dealt with once, and never touched again once it is deleted.
    for (QASeriesMove const& move : moves) {
        auto const sameOld = [&](QASeriesMove const& other) { return other.oldSeries == move.oldSeries; };
        if (std::count_if(moves.begin(), moves.end(), sameOld) > 1) {
            dropVolumes(move.oldSeries);
            dropVolumes(move.newSeries);
        }
    }
    for (QASeriesMove& move : moves) {
        if (std::find(working.mSeries.cbegin(), working.mSeries.cend(), move.oldSeries) !=
            working.mSeries.cend())
            working.updateVolumesAfterQA(move);
    }

    if (isMove) {
        source.deleteEmptyNodes();
        if (!source.writeCacheFile() && !source.mStudies.isEmpty())
            getTheLogInstance()->tracef(McLogFile::LevelWarning, kCategory,
                                        "Source tag file of study %s not written", job.oldSUID.constData());
    }
    // Images that entered the target change it too, even when none of their
    // tags changed: left unwritten, they would be gone from both files.
    if (counts.changed > 0 || counts.moved > 0) {
        target.optimizeAll();
        if (!target.writeCacheFile()) {
            error = QStringLiteral("Write error");
            return false;
        }
    }
    if (sDebugOptions & 1)
        getTheLogInstance()->tracef(
            McLogFile::LevelInfo, kCategory,
            "%s: Total=%d Read=%d Optimize=%d Write=%d (%d images, %d changed, %d not found, "
            "%d skipped)",
            isMove ? "Move" : "Edit", static_cast<int>(total.elapsedMsec()), readMsec, target.mOptimizeMsec,
            target.mWriteMsec, job.imageUIDs.size(), counts.changed, counts.notFound, counts.skipped);
    return true;
}

void TagFile::updateVolumesAfterQA(QASeriesMove& move)
{
    TagMap* oldSeries = move.oldSeries;
    TagMap* newSeries = move.newSeries;
    if (!oldSeries || !newSeries || oldSeries == newSeries)
        return;
    if (!oldSeries->mChildren.isEmpty()) {
        // The series was split: neither part has its volumes any more.
        dropVolumes(newSeries);
        dropVolumes(oldSeries);
        return;
    }
    if (move.numImages != move.numVolumeImages || newSeries->mChildren.size() != move.numImages) {
        dropVolumes(newSeries);
    } else {
        // The images keep their volume indices (0006,7103): the volumes
        // keep their order, so only the volumes themselves are replaced.
        qDeleteAll(newSeries->mVolumes);
        newSeries->mVolumes = oldSeries->mVolumes;
        oldSeries->mVolumes.clear();
        // One pass per volume; a bare volume lists the series itself.
        for (Volume* volume : qAsConst(newSeries->mVolumes)) {
            for (TagMap*& image : volume->mImages) {
                auto const moved = move.imageMap.constFind(image);
                if (moved != move.imageMap.cend())
                    image = moved.value();
                else if (image == oldSeries)
                    image = newSeries;
            }
        }
    }
    QByteArray const seriesUID = uidOf(oldSeries, DCM_SeriesInstanceUID);
    if (TagMap* parent = oldSeries->mParent) {
        parent->removeChildMap(oldSeries);
        oldSeries->mParent = nullptr;
    }
    if (mSeries.value(seriesUID, nullptr) == oldSeries)
        mSeries.remove(seriesUID);
    delete oldSeries;
}

} // namespace Mdx
