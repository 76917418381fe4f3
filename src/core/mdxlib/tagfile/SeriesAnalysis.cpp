// Tags that no DICOM file holds, derived from all images of a study: the
// display number of each series, whether an image is a localizer, and which
// 2D images get previews.
#include <mdxlib/tagfile/TagFile.h>

#include <mdxlib/platform/McCutBoxPlane.h>
#include <mdxlib/platform/McPlane.h>
#include <mdxlib/platform/McVec3f.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

namespace Mdx {

namespace {

// One series in the ordering of display numbers. The texts are read when a
// comparison first needs them; most groups have a single series.
struct SeriesData
{
    TagMap* series = nullptr;
    int number = 0;

    QByteArray const& date() { return text(mDate, mHaveDate, DCM_SeriesDate); }
    QByteArray const& time() { return text(mTime, mHaveTime, DCM_SeriesTime); }
    QByteArray const& uid() { return text(mUID, mHaveUID, DCM_SeriesInstanceUID); }

private:
    QByteArray const& text(QByteArray& value, bool& have, DcmTagKey const& key)
    {
        if (!have) {
            series->findAndGetString(key, value);
            have = true;
        }
        return value;
    }
    QByteArray mDate;
    QByteArray mTime;
    QByteArray mUID;
    bool mHaveDate = false;
    bool mHaveTime = false;
    bool mHaveUID = false;
};

bool seriesLessThan(SeriesData* a, SeriesData* b)
{
    if (int const c = std::strcmp(a->date().constData(), b->date().constData()))
        return c < 0;
    if (int const c = std::strcmp(a->time().constData(), b->time().constData()))
        return c < 0;
    return std::strcmp(a->uid().constData(), b->uid().constData()) < 0;
}

int instanceNumber(TagMap const* image)
{
    int number = 0;
    image->findAndGetInt(DCM_InstanceNumber, number);
    return number;
}

bool imaNumberLessThan(TagMap const* a, TagMap const* b)
{
    return instanceNumber(a) < instanceNumber(b);
}

// The image in the middle by Instance Number stands for a whole stack.
void addMiddleImageAsPreview(QList<TagMap*>& images, QList<TagMap*>& selected)
{
    if (images.isEmpty())
        return;
    // Stable, so that images with equal numbers keep their order in the
    // series and the choice does not depend on the sort's implementation.
    std::stable_sort(images.begin(), images.end(), imaNumberLessThan);
    selected.append(images[images.size() / 2]);
}

// Number of Frames absent or 1: an image with a single plane.
bool isSingleFrame(TagMap const* image)
{
    if (!image->findElement(DCM_NumberOfFrames))
        return true;
    int frames = 0;
    image->findAndGetInt(DCM_NumberOfFrames, frames);
    return frames == 1;
}

// The plane of a single-frame image in patient coordinates, or the zero
// plane when the image has none or its orientation is broken.
McPlane getLocalizerPlane(TagMap const* image)
{
    if (!isSingleFrame(image))
        return McPlane();
    TagElement const* position = image->findElement(DCM_ImagePositionPatient);
    TagElement const* orientation = image->findElement(DCM_ImageOrientationPatient);
    if (!position || !orientation || position->isOmittedMarker() || orientation->isOmittedMarker())
        return McPlane();
    QByteArray positionText;
    QByteArray orientationText;
    position->getValueAsString(positionText);
    orientation->getValueAsString(orientationText);
    McVec3f point;
    McVec3f row;
    McVec3f column;
    if (std::sscanf(positionText.constData(), "%g\\%g\\%g", &point.x, &point.y, &point.z) != 3)
        return McPlane();
    if (std::sscanf(orientationText.constData(), "%g\\%g\\%g\\%g\\%g\\%g", &row.x, &row.y, &row.z, &column.x,
                    &column.y, &column.z) != 6)
        return McPlane();
    row.normalize();
    column.normalize();
    // Row and column that are not at a right angle describe no image plane.
    if (!(std::fabs(row.dot(column)) < 0.001f))
        return McPlane();
    return McPlane(row.cross(column), point);
}

bool isValidPlane(McPlane const& plane)
{
    McVec3f const& n = plane.normal();
    if (std::isnan(n.x) || std::isnan(n.y) || std::isnan(n.z))
        return false;
    float const length2 = n.length2();
    return length2 >= 0.999f && length2 <= 1.001f;
}

void setLocalizer(TagMap* image, bool localizer)
{
    image->putAndInsertInt(Tags::AbstractLocalizer, localizer ? 1 : 0);
}

// A series without volumes: an image is a localizer when its plane is at a
// right angle to more than half of the series' images. A scout across a
// stack of slices is the typical case.
void markLocalizersOfPlainSeries(QList<TagMap*> const& candidates)
{
    std::map<McVec3f, QList<TagMap*>> byNormal;
    int total = 0;
    for (TagMap* image : candidates) {
        McPlane const plane = getLocalizerPlane(image);
        if (!isValidPlane(plane)) {
            setLocalizer(image, false);
            continue;
        }
        byNormal[plane.normal()].append(image);
        ++total;
    }

    int const half = total / 2;
    int localizers = 0;
    for (auto const& [normal, images] : byNormal) {
        int perpendicular = 0;
        for (auto const& [other, otherImages] : byNormal) {
            if (perpendicular > half)
                break; // the answer can't change any more
            if (other == normal)
                continue;
            if (std::fabs(normal.dot(other)) < 0.25f)
                perpendicular += otherImages.size();
        }
        bool const localizer = perpendicular > half;
        for (TagMap* image : images)
            setLocalizer(image, localizer);
        if (localizer)
            localizers += images.size();
    }

    // When every plane is a localizer of the others (three single images at
    // right angles), none of them is one of a stack: nothing is a localizer.
    if (localizers == total) {
        for (auto const& entry : byNormal)
            for (TagMap* image : entry.second)
                setLocalizer(image, false);
    }
}

// A series with volumes: an image is a localizer when it cuts across (more
// than 45 degrees to the slices) volumes that hold more than half of the
// series' slices.
void markLocalizersOfSeriesWithVolumes(TagMap const* series, QList<TagMap*> const& candidates)
{
    for (Volume const* volume : series->volumes()) {
        for (TagMap* image : volume->mImages)
            setLocalizer(image, false);
    }

    std::vector<McVec3f> points;
    for (TagMap* image : candidates) {
        // A mark that is there stays: the images of the volumes got theirs
        // above, and the others theirs when the file was built or read, so
        // volumes added later or a file read back do not change them. What
        // an image shows counts, since optimising may hold the mark in the
        // series.
        if (image->findElement(Tags::AbstractLocalizer))
            continue;
        McPlane const plane = getLocalizerPlane(image);
        if (!isValidPlane(plane)) {
            setLocalizer(image, false);
            continue;
        }
        int allSlices = 0;
        int cutSlices = 0;
        for (Volume const* volume : series->volumes()) {
            allSlices += volume->mDims.z;
            McPlane local = plane;
            local.transformInv(volume->mTransformationMatrix);
            if (std::fabs(local.normal().z) < 0.707f &&
                McCutBoxPlane::cutPlane(volume->mBoundingBox, local, points))
                cutSlices += volume->mDims.z;
        }
        setLocalizer(image, allSlices / 2 < cutSlices);
    }
}

} // namespace

void TagFile::createAbstractTags()
{
    createAbstractSeriesNumber();
    createAbstractSeriesLocalizer();
}

void TagFile::createAbstractSeriesNumber()
{
    // Series without pixels (reports, presentation states) get no number:
    // the viewer does not show them as series.
    std::vector<SeriesData> data;
    data.reserve(static_cast<size_t>(mSeries.size()));
    for (TagMap* series : qAsConst(mSeries)) {
        if (series->mChildren.isEmpty() || !series->mChildren.first()->findElement(DCM_PixelData))
            continue;
        SeriesData entry;
        entry.series = series;
        series->findAndGetInt(DCM_SeriesNumber, entry.number);
        data.push_back(entry);
    }

    std::map<int, std::vector<SeriesData*>> groups;
    for (SeriesData& entry : data)
        groups[entry.number].push_back(&entry);

    for (auto& [number, group] : groups) {
        QByteArray const text = QByteArray::number(number);
        if (group.size() == 1) {
            group.front()->series->putAndInsertValue(Tags::AbstractSeriesNumber, VR_LO, text);
            continue;
        }
        // Several series under one number: the order of acquisition tells
        // them apart, and the UID makes the order total.
        std::sort(group.begin(), group.end(), seriesLessThan);
        for (size_t k = 0; k < group.size(); ++k) {
            group[k]->series->putAndInsertValue(Tags::AbstractSeriesNumber, VR_LO,
                                                text + " (" + QByteArray::number(static_cast<int>(k + 1)) +
                                                    ")");
        }
    }
}

void TagFile::createAbstractSeriesLocalizer()
{
    for (TagMap* series : qAsConst(mSeries)) {
        int volumeImages = 0;
        for (Volume const* volume : series->volumes())
            volumeImages += volume->mImages.size();

        QList<TagMap*> candidates;
        for (TagMap* image : qAsConst(series->mChildren)) {
            if (isSingleFrame(image) && image->findElement(DCM_ImagePositionPatient) &&
                image->findElement(DCM_ImageOrientationPatient))
                candidates.append(image);
            else
                setLocalizer(image, false);
        }

        // Volumes decide only when they account for the images; a series
        // with more loose images than volume images is judged by its planes.
        if (series->volumes().isEmpty() || volumeImages < candidates.size())
            markLocalizersOfPlainSeries(candidates);
        else
            markLocalizersOfSeriesWithVolumes(series, candidates);
    }
}

void TagFile::selectPreviewImages2D(QList<QByteArray>& sopUIDs)
{
    static char const kSkippedClass[] = "1.2.840.10008.5.1.4.1.1.66.4";
    static char const kFirstPrefix[] = "1.2.840.10008.5.1.4.1.1.6";
    static char const kSecondPrefix[] = "1.2.840.10008.5.1.4.1.1.7";
    // A stack this long shows as one image; shorter ones are browsed image
    // by image and each gets its own preview.
    constexpr int kStackSize = 20;

    sopUIDs.clear();
    for (TagMap* series : qAsConst(mSeries)) {
        QList<TagMap*> selected;
        QList<TagMap*> lists[4];
        for (TagMap* image : qAsConst(series->mChildren)) {
            // Images of volumes have the volume's preview.
            if (image->findElement(Tags::VolumeIndices) || !image->findElement(DCM_PixelData))
                continue;
            QByteArray sopClass;
            image->findAndGetString(DCM_SOPClassUID, sopClass);
            if (sopClass == kSkippedClass)
                continue;
            int frames = 0;
            if (image->findElement(DCM_NumberOfFrames) && image->findAndGetInt(DCM_NumberOfFrames, frames) &&
                frames >= 2) {
                selected.append(image);
                continue;
            }
            // Plain prefix tests on purpose: every class whose number merely
            // begins with these digits falls in the same list.
            if (sopClass.startsWith(kFirstPrefix)) {
                lists[0].append(image);
                continue;
            }
            if (sopClass.startsWith(kSecondPrefix)) {
                lists[1].append(image);
                continue;
            }
            QByteArray imageType;
            image->findAndGetString(DCM_ImageType, imageType);
            if (imageType.contains("LOCALIZER")) {
                lists[2].append(image);
                continue;
            }
            QByteArray modality;
            image->findAndGetString(DCM_Modality, modality);
            if (modality == "MR") {
                QByteArray description;
                image->findAndGetString(DCM_SeriesDescription, description);
                description = description.toUpper();
                if (description.contains("LOC") || description.contains("SCOUT")) {
                    lists[2].append(image);
                    continue;
                }
            }
            lists[3].append(image);
        }
        for (int i = 0; i < 3; ++i)
            addMiddleImageAsPreview(lists[i], selected);
        if (lists[3].size() < kStackSize)
            selected.append(lists[3]);
        else
            addMiddleImageAsPreview(lists[3], selected);

        for (TagMap const* image : qAsConst(selected)) {
            QByteArray uid;
            image->findAndGetString(DCM_SOPInstanceUID, uid);
            sopUIDs.append(uid);
        }
    }
}

} // namespace Mdx
