#include "CorpusMaker.h"

#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QMap>

#include <algorithm>
#include <string>
#include <vector>

namespace MdxFuzz {

namespace {

using Mdx::TagFile;
using Mdx::TagMap;
using Mdx::Volume;

// Headers only: values above this stay on disk, as when the viewer scans.
constexpr Uint32 kMaxReadLength = 4096;
// Slices per image in the made-up multi-frame volumes.
constexpr int kFramesPerImage = 2;

QStringList filesUnder(QString const& folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files, QDirIterator::Subdirectories | QDirIterator::FollowSymlinks);
    while (it.hasNext())
        files.append(it.next());
    files.sort();
    return files;
}

QByteArray studyOf(QString const& path)
{
    DcmFileFormat fileFormat;
    if (fileFormat
            .loadFile(OFFilename(path.toLocal8Bit().constData()), EXS_Unknown, EGL_noChange, kMaxReadLength,
                      ERM_autoDetect)
            .bad())
        return QByteArray();
    OFString uid;
    fileFormat.getDataset()->findAndGetOFString(DCM_StudyInstanceUID, uid);
    return QByteArray(uid.c_str());
}

Volume* addVolume(TagMap* series, QVector<TagMap*> const& images, McVec3i const& dims)
{
    auto* volume = new Volume(series->volumes().size());
    series->addBareVolume(volume);
    volume->setImages(images, series);
    volume->mDims = dims;
    return volume;
}

// The sorted SOP Instance UIDs of a volume's images.
std::vector<std::string> uidsOf(Volume const* volume)
{
    std::vector<std::string> uids;
    for (TagMap const* image : volume->mImages) {
        QByteArray uid;
        image->findAndGetString(DCM_SOPInstanceUID, uid);
        uids.push_back(uid.toStdString());
    }
    return uids;
}

std::vector<std::string> withFrames(std::vector<std::string> const& uids, int frames)
{
    std::vector<std::string> slices;
    for (std::string const& uid : uids)
        for (int f = 0; f < frames; ++f)
            slices.push_back(uid + "." + std::to_string(f));
    return slices;
}

// Sample studies have neither volumes nor previews, but the format's
// volume block has six slice mappings and optional extra data, and the
// fuzzer finds those far sooner by mutating them than by inventing them.
// One volume per mapping kind (the writer picks the kind from the shape).
void addVolumesAndPreviews(TagMap* series, int seriesIndex)
{
    QVector<TagMap*> const images = series->children().toVector();
    int const n = images.size();
    if (n == 0)
        return;
    int columns = 0;
    int rows = 0;
    images.first()->findAndGetInt(DCM_Columns, columns);
    images.first()->findAndGetInt(DCM_Rows, rows);
    columns = qMax(columns, 1);
    rows = qMax(rows, 1);

    // Identity, with a preview and all extra data.
    Volume* volume = addVolume(series, images, McVec3i(columns, rows, n));
    volume->setMultiFrameInfo({});
    volume->mBoundingBox = McBox3f(0.0f, float(columns), 0.0f, float(rows), 0.0f, float(n));
    volume->mVolumeFileName = "study-seed.exm";
    volume->mPreviewData = "volume preview " + QByteArray::number(seriesIndex);
    volume->mFileNameSuffix = Volume::fileNameSuffix(volume->mVolumeFileName.constData());
    volume->mHasPaddingValue = true;
    volume->mPaddingValue = 1000;
    volume->mHasPaddingRangeMax = true;
    volume->mPaddingRangeMax = 1010;
    volume->mNumLossyCompressedImages = 1;
    volume->mHistogram = LmHistogram({1, 2, 3, 4}, 0.0f, 4095.0f);
    volume->mNumOverlayPlanes = 1;
    volume->mSuvBox = McBox3i(0, columns - 1, 0, rows - 1, 0, n - 1);
    volume->mDataLevels = 0x81;

    // Reversed.
    volume = addVolume(series, images, McVec3i(columns, rows, n));
    std::vector<std::string> uids = uidsOf(volume);
    volume->setMultiFrameInfo(std::vector<std::string>(uids.rbegin(), uids.rend()));

    // Frames, as many as dims.z: unsigned shorts.
    volume = addVolume(series, images, McVec3i(columns, rows, n * kFramesPerImage));
    volume->setMultiFrameInfo(withFrames(uidsOf(volume), kFramesPerImage));

    // Images in another order, dims.z not their count: ints.
    volume = addVolume(series, images, McVec3i(columns, rows, n + 1));
    uids = uidsOf(volume);
    std::rotate(uids.begin(), uids.begin() + 1, uids.end());
    volume->setMultiFrameInfo(uids);

    // Frames, dims.z not their count: pairs of ints.
    volume = addVolume(series, images, McVec3i(columns, rows, n * kFramesPerImage + 1));
    volume->setMultiFrameInfo(withFrames(uidsOf(volume), kFramesPerImage));

    QByteArray indices;
    for (int i = 0; i < series->volumes().size(); ++i)
        indices.append(static_cast<char>(i));
    for (TagMap* image : images)
        image->putAndInsertValue(Mdx::Tags::VolumeIndices, Mdx::VR_OB, indices);
    images.first()->putAndInsertValue(Mdx::Tags::PreviewData, Mdx::VR_OB,
                                      "image preview " + QByteArray::number(seriesIndex));
}

} // namespace

QStringList makeCorpus(QString const& dicomFolder, QString const& outFolder)
{
    QDir const root(dicomFolder);
    QMap<QByteArray, QStringList> studies;
    for (QString const& path : filesUnder(dicomFolder)) {
        QByteArray const study = studyOf(path);
        if (!study.isEmpty())
            studies[study].append(path);
    }

    QStringList written;
    if (studies.isEmpty() || !QDir().mkpath(outFolder))
        return written;
    int const mode = TagFile::sCompressionMode;
    int index = 0;
    for (QStringList const& files : qAsConst(studies)) {
        TagFile file;
        file.setStoreFilePaths(true);
        for (QString const& path : files) {
            // Relative paths keep the corpus the same wherever the samples are.
            QByteArray const name = root.relativeFilePath(path).toLocal8Bit();
            file.addDicomFile(path.toLocal8Bit().constData(), name.constData(), false);
        }
        if (file.images().isEmpty())
            continue;
        int seriesIndex = 0;
        for (TagMap* series : file.series())
            addVolumesAndPreviews(series, seriesIndex++);
        file.optimizeAll();

        for (int m = 0; m <= 2; ++m) {
            TagFile::sCompressionMode = m;
            QString const path = QStringLiteral("%1/study%2-mode%3.tc")
                                     .arg(outFolder)
                                     .arg(index, 2, 10, QLatin1Char('0'))
                                     .arg(m);
            if (file.writeCacheFile(path.toLocal8Bit().constData()))
                written.append(path);
        }
        ++index;
    }
    TagFile::sCompressionMode = mode;
    written.sort();
    return written;
}

} // namespace MdxFuzz
