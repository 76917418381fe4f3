// What is done with a tag file beside storing it: previews attached to
// images, a table of contents on standard output, and the stored previews
// exported as image files.
#include <mdxlib/pixels/CropBox.h>
#include <mdxlib/pixels/PreviewGenerator.h>
#include <mdxlib/pixels/QuadrantNavigation.h>
#include <mdxlib/platform/LmVolumeInfo.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/VR.h>
#include <mdxlib/volumes/Volume.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcfilefo.h"
#include "dcmtk/dcmimgle/dcmimage.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QTextStream>

#include <sys/stat.h>

#include <cstdio>

namespace Mdx {

namespace {

char const* const kCategory = "TagFile";
char const* const kRule = "----------------------------------------------------\n";

McLogFile& log()
{
    return *getTheLogInstance();
}

QByteArray localPath(QString const& path)
{
    return path.toLocal8Bit();
}

// For each child of parent, how many children share its number at key;
// numbers that only one child has are left out. The exported names of
// those that share one get a running count.
QMap<int, int> createNumberMap(TagMap* parent, DcmTagKey key)
{
    QMap<int, int> counts;
    for (TagMap const* child : parent->children()) {
        int number = 0;
        child->findAndGetInt(key, number);
        ++counts[number];
    }
    for (auto it = counts.begin(); it != counts.end();) {
        if (it.value() == 1)
            it = counts.erase(it);
        else
            ++it;
    }
    return counts;
}

// "        name      value                                # size"
void listValue(QTextStream& stream, QByteArray const& value, unsigned long size, char const* name)
{
    constexpr int NameWidth = 18;
    constexpr int ValueWidth = 37;
    QByteArray line(8, ' ');
    line += name;
    line += ' ';
    while (line.size() < 8 + NameWidth)
        line += ' ';
    int const valueStart = line.size();
    line += value;
    line += ' ';
    while (line.size() < valueStart + ValueWidth)
        line += ' ';
    stream << line << "# " << static_cast<qulonglong>(size) << '\n';
}

QByteArray text(TagMap const* node, DcmTagKey const& key)
{
    QByteArray value;
    node->findAndGetString(key, value);
    return value;
}

QByteArray number(double value)
{
    return QByteArray::number(value, 'g', 6);
}

void listVolumeValues(QTextStream& stream, Volume const& volume)
{
    listValue(stream, number(volume.rescaleSlope()), 4, "RescaleSlope");
    listValue(stream, number(volume.rescaleIntercept()), 4, "RescaleIntercept");
    if (volume.precisionBitLoss() != 0.0f)
        listValue(stream, number(volume.precisionBitLoss()), 4, "PrecisionBitLoss");
    if (volume.mNumLossyCompressedImages != 0)
        listValue(stream, QByteArray::number(volume.mNumLossyCompressedImages), 2,
                  "NumLossyCompressedImages");
    if (volume.mNumOverlayPlanes != 0)
        listValue(stream, QByteArray::number(volume.mNumOverlayPlanes), 2, "NumOverlayPlanes");
    if (volume.mHasPaddingValue)
        listValue(stream, QByteArray::number(volume.mPaddingValue), 3, "PaddingValue");
    QByteArray const hash = volume.volumeHash();
    if (!hash.isEmpty())
        listValue(stream, hash, static_cast<unsigned long>(hash.size()), "VolumeHash");
    McBox3i const& box = volume.getSUVBox();
    if (box.isValid()) {
        QByteArray limits;
        for (int axis = 0; axis < 3; ++axis)
            limits += QByteArray::number(box.min[axis]) + ' ' + QByteArray::number(box.max[axis]) + ' ';
        listValue(stream, limits.trimmed(), 12, "SUVCropBox");
    }
    LmHistogram const& histogram = volume.mHistogram;
    if (histogram.numBins() > 0) {
        listValue(stream, number(histogram.minValue()) + " .. " + number(histogram.maxValue()), 4,
                  "DataRange");
        QByteArray bins;
        bool cut = false;
        for (int i = 1; i < histogram.numBins(); ++i) {
            if (bins.size() >= 24) {
                cut = true;
                break;
            }
            if (!bins.isEmpty())
                bins += ' ';
            bins += QByteArray::number(static_cast<qulonglong>(histogram.bin(i)));
        }
        if (cut)
            bins += " ..";
        listValue(stream, bins, static_cast<unsigned long>(histogram.numBins()) * sizeof(uint64_t) / 2,
                  "Histogram");
    }
}

// "    Volume <3>  256 x 256 x 120, 120 images, preview, suffix abc"
void listVolume(QTextStream& stream, Volume const& volume, int position, bool detailed)
{
    stream << "    Volume <" << position << "> " << (position < 10 ? " " : "") << volume.mDims.x << " x "
           << volume.mDims.y << " x " << volume.mDims.z << ", " << volume.numImages()
           << (volume.numImages() == 1 ? " image" : " images");
    if (volume.hasPreview())
        stream << ", preview";
    if (!volume.mFileNameSuffix.isEmpty())
        stream << ", suffix " << volume.mFileNameSuffix;
    stream << '\n';
    if (detailed && !volume.mFileNameSuffix.isEmpty())
        listVolumeValues(stream, volume);
}

// Loads a whole DICOM file, pixels included. Only regular files: a FIFO
// would block for good.
OFCondition loadWholeFile(DcmFileFormat& fileFormat, QString const& path)
{
    QByteArray const local = localPath(path);
    struct stat status;
    if (::stat(local.constData(), &status) != 0 || !S_ISREG(status.st_mode))
        return EC_InvalidFilename;
    return fileFormat.loadFile(OFFilename(local.constData()), EXS_Unknown, EGL_noChange, DCM_MaxReadLength,
                               ERM_autoDetect);
}

// Decodes a stored preview and writes it; true when the file was written.
bool exportPreview(QByteArray const& data, QString const& path)
{
    QImage const image = QImage::fromData(data);
    if (image.isNull())
        return false;
    if (!image.save(path)) {
        log().tracef(McLogFile::LevelWarning, kCategory, "Error exporting preview %s",
                     localPath(path).constData());
        return false;
    }
    return true;
}

} // namespace

bool TagFile::addPreview(DcmDataset* dataset, QString const& dicomFilePath)
{
    char const* uid = nullptr;
    if (!dataset || dataset->findAndGetString(DCM_SOPInstanceUID, uid).bad() || !uid)
        return false;
    // A lookup that entered an empty slot for an unknown UID would leave a
    // null image in the index, which its readers (images(), the statistics,
    // the writer) take for a real one; an unknown UID adds nothing.
    TagMap* image = findImage(QByteArray(uid));
    return image ? addPreview(image, dataset, dicomFilePath) : false;
}

bool TagFile::addPreview(TagMap* image, DcmDataset* dataset, QString const& dicomFilePath)
{
    if (!image)
        return false;
    std::unique_ptr<DicomImage> pixelData;
    std::unique_ptr<LmVolumeInfo> info = LmVolumeInfo::readVolumeInfo(
        dataset, 1, static_cast<unsigned long>(std::max(sPreviewSize[0], 0)),
        static_cast<unsigned long>(std::max(sPreviewSize[1], 0)), dicomFilePath, &pixelData);
    QImage const preview = PreviewGenerator::convertToQImage(info.get(), sPreviewSize[0], sPreviewSize[1]);
    if (preview.isNull()) {
        log().tracef(McLogFile::LevelWarning, kCategory, "Could not create preview image for DICOM file: %s",
                     localPath(dicomFilePath).constData());
        return false;
    }
    QByteArray const jpeg = PreviewGenerator::createPreviewData(preview);
    // An encoder that failed has warned already; an empty preview stored
    // as if it were one would be reported as a success, and the numbers
    // derived from a picture that is not kept would describe nothing.
    if (jpeg.isEmpty())
        return false;
    bool const stored = image->putAndInsertValue(Tags::PreviewData, VR_OB, jpeg);
    QuadrantNavigation::process(preview, image);
    CropBox::process(pixelData.get(), image);
    return stored;
}

bool TagFile::addPreview(QByteArray const& sopInstanceUID, QString const& dicomFilePath)
{
    TagMap* image = findImage(sopInstanceUID);
    if (!image)
        return false;
    DcmFileFormat fileFormat;
    OFCondition const loaded = loadWholeFile(fileFormat, dicomFilePath);
    if (loaded.bad()) {
        log().tracef(McLogFile::LevelError, kCategory, "Could not load %s to create preview image: %s",
                     localPath(dicomFilePath).constData(), loaded.text());
        return false;
    }
    return addPreview(image, fileFormat.getDataset(), dicomFilePath);
}

void TagFile::listContent(bool detailed) const
{
    QTextStream stream(stdout);
    listContent(stream, detailed);
}

void TagFile::listContent(QTextStream& stream, bool detailed) const
{
    for (auto const& study : mStudies) {
        stream << kRule << "Study " << uidOf(study.get(), DCM_StudyInstanceUID) << '\n';
        if (detailed) {
            study->listContent(stream, 2);
            stream << '\n';
        }
        for (TagMap const* series : study->children()) {
            stream << "  Series <" << text(series, DCM_SeriesNumber) << ">\t"
                   << uidOf(series, DCM_SeriesInstanceUID) << '\n';
            if (detailed) {
                series->listContent(stream, 4);
                stream << '\n';
            }
            for (TagMap const* image : series->children()) {
                stream << "    Image <" << text(image, DCM_InstanceNumber) << ">\t"
                       << uidOf(image, DCM_SOPInstanceUID);
                QByteArray path;
                if (image->findAndGetString(Tags::DicomFilePath, path))
                    stream << ' ' << path;
                if (image->findElement(Tags::PreviewData))
                    stream << ", preview";
                stream << '\n';
                if (detailed) {
                    image->listContent(stream, 6);
                    stream << '\n';
                }
            }
            int position = 0;
            for (Volume const* volume : series->volumes())
                listVolume(stream, *volume, ++position, detailed);
        }
    }
    stream << kRule;
    stream.flush();
}

void TagFile::dump(QByteArray const& sopInstanceUID) const
{
    QTextStream stream(stdout);
    dump(stream, sopInstanceUID);
}

void TagFile::dump(QTextStream& stream, QByteArray const& sopInstanceUID) const
{
    if (sopInstanceUID.isEmpty()) {
        listContent(stream, true);
        return;
    }
    if (TagMap const* image = findImage(sopInstanceUID)) {
        image->dump(stream, 0);
        stream.flush();
    }
}

void TagFile::exportPreviews(QString const& folder) const
{
    QString target = folder.isEmpty() ? QDir::currentPath() : folder;
    if (!target.endsWith('/'))
        target += '/';
    int written = 0;
    for (auto study = mStudies.begin(); study != mStudies.end(); ++study) {
        // The first 8 hex digits of the digest that names the tag file.
        QByteArray const digest = QCryptographicHash::hash(study.key() + '\n', QCryptographicHash::Md5);
        QString prefix;
        for (int i = 0; i < 4; ++i)
            prefix += QString::asprintf("%02x", static_cast<unsigned char>(digest[i]));

        QMap<int, int> const sharedSeries = createNumberMap(study.value().get(), DCM_SeriesNumber);
        QMap<int, int> seriesCount;
        for (TagMap* series : study.value()->children()) {
            int seriesNumber = 0;
            series->findAndGetInt(DCM_SeriesNumber, seriesNumber);
            QString seriesName = prefix + "_Series_" + QString::number(seriesNumber);
            if (sharedSeries.contains(seriesNumber))
                seriesName += '_' + QString::number(++seriesCount[seriesNumber]);

            QMap<int, int> const sharedImages = createNumberMap(series, DCM_InstanceNumber);
            QMap<int, int> imageCount;
            for (TagMap const* image : series->children()) {
                int instance = 0;
                image->findAndGetInt(DCM_InstanceNumber, instance);
                QString name = seriesName + "_Image_" + QString::number(instance);
                // Counted for every image, with or without preview, so that
                // a name never depends on which neighbours have one.
                if (sharedImages.contains(instance))
                    name += '_' + QString::number(++imageCount[instance]);
                QByteArray const data = image->findPreviewData(nullptr);
                if (!data.isEmpty() && exportPreview(data, target + name + ".jpg"))
                    ++written;
            }
            int index = 0;
            for (Volume const* volume : series->volumes()) {
                QByteArray const data = volume->previewData();
                QString const path = target + seriesName + QString("_Volume_%2.jpg").arg(index++);
                if (!data.isEmpty() && exportPreview(data, path))
                    ++written;
            }
        }
    }
    // The log ends each message with its own line feed.
    if (written == 0)
        log().tracef(McLogFile::LevelInfo, kCategory, "No preview image written");
    else
        log().tracef(McLogFile::LevelInfo, kCategory, "%d preview image(s) written to %s", written,
                     localPath(target).constData());
}

} // namespace Mdx
