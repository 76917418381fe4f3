// A tag file made to agree with the database: present paths of images and
// volume files, series the database no longer lists removed, and a skeleton
// study built from the database alone when no tag file exists yet.
//
// Nothing here fails hard: whatever the database lists but the tag file
// lacks is a warning, and the result false tells the caller so; the tag
// file stays usable.
#include <mdxlib/tagfile/TagFile.h>

#include <mdxlib/platform/Database.h>
#include <mdxlib/platform/DicomDirectoryEntry.h>
#include <mdxlib/platform/ExDicomUtilities.h>
#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/SeriesInfo.h>
#include <mdxlib/platform/WebService.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <algorithm>
#include <string>
#include <vector>

namespace Mdx {

namespace {

char const kCategory[] = "TagFile";

void warn(char const* format, char const* text)
{
    getTheLogInstance()->tracef(McLogFile::LevelWarning, kCategory, format, text);
}

QByteArray bytes(std::string const& text)
{
    return QByteArray(text.data(), static_cast<int>(text.size()));
}

// A catalog always exists (the default SQLite file), so "no database" means
// that this process was given none: neither SetDatabaseServer nor the
// parameter MDX_CATALOG names one. An empty directory entry from the default
// file then says nothing about the study, and must not empty its tag file.
bool databaseConfigured()
{
    return !GetDatabaseServer().empty() || !ExResource::getParameter("MDX_CATALOG", std::string()).empty();
}

bool hasFilePath(TagMap const* image)
{
    return image->findElement(Tags::DicomFilePath) != nullptr;
}

// The number behind the last "_part" of path, leading zeros passed over; -1
// when there is no "_part". Digits beyond what an int holds are ignored.
int partNumber(std::string const& path)
{
    size_t const at = path.rfind("_part");
    if (at == std::string::npos)
        return -1;
    int number = 0;
    for (size_t i = at + 5; i < path.size() && path[i] >= '0' && path[i] <= '9' && number < 100000000; ++i)
        number = number * 10 + (path[i] - '0');
    return number;
}

} // namespace

bool TagFile::syncWithDatabase(std::shared_ptr<Lmg::DicomDirectoryEntry> study)
{
    if (!study)
        return false;
    if (mStudies.isEmpty()) {
        copyDatabaseValuesIntoTagMap(*study);
        return false;
    }
    // With a database, a study without series has none left: all series of
    // the tag file go below.
    if (study->children.empty() && !databaseConfigured())
        return false;

    bool allFound = true;
    QMap<QByteArray, TagMap*> kept;
    for (auto const& entry : study->children) {
        if (!entry)
            continue;
        QByteArray const uid = bytes(entry->seriesUID);
        TagMap* series = mSeries.take(uid);
        if (!series) {
            warn("Series %s not found in tag map", uid.constData());
            allFound = false;
            continue;
        }
        kept.insert(uid, series);
        int count = addDicomFilePaths(series, entry->info.get(), false, allFound);
        addVolumeFilePath(series, *entry, false);
        bool hasVolume = entry->flags & Lmg::DicomDirectoryEntry::HasVolume;
        for (auto const& part : entry->children) {
            if (!part)
                continue;
            count += addDicomFilePaths(series, part->info.get(), false, allFound);
            addVolumeFilePath(series, *part, false);
            hasVolume |= (part->flags & Lmg::DicomDirectoryEntry::HasVolume) != 0;
        }
        // Images the database doesn't list are gone, unless the series has
        // a volume file (its images need not be listed) or no image got a
        // path at all. The count also holds images of other series the
        // database lists under this one, so the series' own images decide
        // too: a series is never emptied here.
        int const numImages = series->mChildren.size();
        if (!hasVolume && count >= 1 && count < numImages &&
            std::any_of(series->mChildren.cbegin(), series->mChildren.cend(), hasFilePath))
            removeImagesWithoutFilename(series);
    }

    // What is left in the index, the database does not know.
    QList<QByteArray> const unknown = mSeries.keys();
    std::vector<char const*> uids;
    for (QByteArray const& uid : unknown)
        uids.push_back(uid.constData());
    removeSeries(static_cast<int>(uids.size()), uids.data());
    mSeries = kept;

    if (mSeries.isEmpty()) {
        copyDatabaseValuesIntoTagMap(*study);
        return false;
    }
    return allFound;
}

void TagFile::copyDatabaseValuesIntoTagMap(Lmg::DicomDirectoryEntry const& study)
{
    auto node = std::make_shared<TagMap>();
    QByteArray const studyUID = bytes(study.studyUID);
    node->putAndInsertValue(DCM_StudyInstanceUID, VR_UI, studyUID);
    node->putAndInsertInt(Tags::FromDatabase, 1);

    // The indexes go with the old tree: left alone they would point into
    // deleted nodes.
    mImages.clear();
    mSeries.clear();
    mStudies.clear();
    mStudies.insert(studyUID, node);

    for (auto const& entry : study.children) {
        if (!entry || ExDicomUtilities::isSecondaryDataModality(entry->modality.c_str()))
            continue;
        QByteArray const uid = bytes(entry->seriesUID);
        // A series listed twice replaces the first, with its images.
        if (TagMap* old = mSeries.take(uid)) {
            for (TagMap const* image : qAsConst(old->mChildren))
                mImages.remove(uidOf(image, DCM_SOPInstanceUID));
            delete old;
        }
        // Linked, not merged with addChildMap: the first child of a node
        // hands its attributes to the node there, which would cost the
        // study its UID and mark, and later series would hide them.
        auto* series = new TagMap;
        series->mParent = node.get();
        node->mChildren.append(series);
        series->putAndInsertValue(DCM_SeriesInstanceUID, VR_UI, uid);
        series->putAndInsertString(DCM_SeriesNumber, QByteArray::number(entry->seriesNumber));
        series->putAndInsertString(DCM_SeriesDescription, bytes(entry->seriesDescription));
        series->putAndInsertString(DCM_Modality, bytes(entry->modality));
        series->putAndInsertString(DCM_SeriesDate, QByteArray::number(Lmg::dateReformat(entry->seriesDate)));
        series->putAndInsertString(DCM_SeriesTime, bytes(entry->seriesTime).replace(":", ""));
        series->putAndInsertString(DCM_StationName, bytes(entry->stationName));
        mSeries.insert(uid, series);

        bool allFound = true;
        addDicomFilePaths(series, entry->info.get(), true, allFound);
        addVolumeFilePath(series, *entry, true);
        for (auto const& part : entry->children) {
            if (!part)
                continue;
            addDicomFilePaths(series, part->info.get(), true, allFound);
            addVolumeFilePath(series, *part, true);
        }
    }
}

int TagFile::addDicomFilePaths(TagMap* series, Lmg::SeriesInfo* info, bool createImages, bool& allFound)
{
    if (!info || (createImages && !series))
        return 0;
    int count = 0;
    for (Lmg::SeriesImageRecord const& record : info->images) {
        QByteArray const uid = bytes(record.sopInstanceUID);
        TagMap* image = nullptr;
        if (createImages) {
            image = new TagMap;
            image->putAndInsertValue(DCM_SOPInstanceUID, VR_UI, uid);
            image->markAsOmitted(DCM_PixelData);
            // A same-named image leaves the tree as well as the index, so
            // that no node stays behind that nothing indexes.
            delete mImages.value(uid, nullptr);
            mImages.insert(uid, image);
            series->mChildren.append(image);
            image->mParent = series;
        } else {
            image = mImages.value(uid, nullptr);
        }
        if (image) {
            image->putAndInsertValue(Tags::DicomFilePath, VR_LO, bytes(record.filePath).replace('\\', '/'));
            ++count;
        } else {
            warn("Image %s not found in tag map", uid.constData());
            allFound = false;
        }
    }
    return count;
}

void TagFile::addVolumeFilePath(TagMap* series, Lmg::DicomDirectoryEntry const& entry, bool createVolume)
{
    if (!series || !(entry.flags & Lmg::DicomDirectoryEntry::HasVolume) || entry.volumeNumber == 1 ||
        entry.volumePath.empty())
        return;
    int index = 0;
    int const part = entry.volumeNumber > 0 ? partNumber(entry.volumePath) : -1;
    if (part >= 0) {
        if (part < 2)
            return;
        index = part - 1;
    }
    char const* path = entry.volumePath.c_str();
    if (createVolume) {
        if (index != series->mVolumes.size())
            getTheLogInstance()->tracef(McLogFile::LevelWarning, kCategory,
                                        "Invalid volume index %d (expected %d) for %s", index,
                                        series->mVolumes.size(), path);
        series->addBareVolume(new Volume(index));
    }
    if (index >= series->mVolumes.size()) {
        warn("Volume %s not found in tag map", path);
        return;
    }
    series->mVolumes[index]->setVolumeFileName(bytes(entry.volumePath));
}

void TagFile::removeImagesWithoutFilename(TagMap* series)
{
    if (!series)
        return;
    for (int i = series->mChildren.size() - 1; i >= 0; --i) {
        TagMap* image = series->mChildren[i];
        if (hasFilePath(image))
            continue;
        series->mChildren.removeAt(i);
        image->mParent = nullptr;
        mImages.remove(uidOf(image, DCM_SOPInstanceUID));
        delete image;
    }
}

} // namespace Mdx
