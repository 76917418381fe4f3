// The generator's reading of volume files: one record per file, grouped by
// series, and the SUV crop box from voxels.
#include <mdxlib/generator/TagFileGenerator.h>

#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/curl/LmCurlDownload.h>
#include <mdxlib/pixels/PreviewGenerator.h>
#include <mdxlib/pixels/QuadrantNavigation.h>
#include <mdxlib/platform/LmHistogram.h>
#include <mdxlib/platform/LmVolume.h>
#include <mdxlib/platform/McFilename.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McSOPInstanceUtility.h>
#include <mdxlib/platform/McTypedData2D.h>
#include <mdxlib/platform/volumefile/OndraMesh.h>
#include <mdxlib/qa/QACache.h>
#include <mdxlib/suv/LmSUVStatistics.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/volumes/VolumeInfo.h>

#include <QFileInfo>
#include <QMap>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

namespace Mdx {

namespace {

// The value of a DICOM attribute as a volume file keeps it. Writers that
// tag values with their kind store "<kind>: <value>", and the value then
// starts two characters behind the first colon; ours store the plain value.
// A UID or a count never holds a colon, so a text without one is the value
// itself: reading it as "no value" would lose the series of every volume.
std::string dicomValue(HxParamBundle const* dicom, char const* name)
{
    HxParameter const* parameter = dicom ? dicom->findSorted(name) : nullptr;
    if (!parameter)
        return std::string();
    std::string const text = parameter->getString();
    size_t const colon = text.find(':');
    if (colon == std::string::npos)
        return text;
    return colon + 2 <= text.size() ? text.substr(colon + 2) : std::string();
}

// The first lattice of level 0 with three axes. Files name the levels on
// their sections ("Level0_Data0" on "Lattice1") or on their locations;
// both are looked at, locations first.
bool levelZeroDims(OndraMesh& mesh, McVec3i& dims)
{
    auto take = [&dims](OndraMesh::Location const* location) {
        if (!location || location->dims.size() != 3)
            return false;
        dims = McVec3i(location->dims[0], location->dims[1], location->dims[2]);
        return true;
    };
    for (OndraMesh::Location const& location : mesh.locations()) {
        if (location.name.compare(0, 6, "Level0") == 0 && take(&location))
            return true;
    }
    for (auto const& data : mesh.dataSections()) {
        if (data->name().compare(0, 6, "Level0") == 0 && take(data->lattice()))
            return true;
    }
    return false;
}

McVec3i latticeDims(OndraMesh::Data const* data)
{
    OndraMesh::Location const* lattice = data ? data->lattice() : nullptr;
    if (!lattice || lattice->dims.size() != 3)
        return McVec3i(0, 0, 0);
    return McVec3i(lattice->dims[0], lattice->dims[1], lattice->dims[2]);
}

// The SUV crop box from the coarsest level of the file's voxels.
McBox3i suvBoxOf(OndraMesh& mesh, McVec3i const& dims, McBox3f const& boundingBox)
{
    OndraMesh::Data* full = mesh.findData("Lattice1", 2, 1, "Level0_Data0");
    OndraMesh::Data* low = mesh.findData("Lattice2", 2, 1, "Level1_Data0");
    OndraMesh::Data* chosen = low ? low : full;
    McVec3i const lowDims = latticeDims(chosen);
    if (!chosen || lowDims.x == 0 || latticeDims(full).x == 0)
        return McBox3i();
    if (!chosen->isLoaded() && !chosen->readData().ok())
        return McBox3i();
    auto* voxels = static_cast<unsigned short*>(const_cast<void*>(chosen->data()));
    McBox3i const box = LmSUVStatistics::computeSUVBox(mesh.parameters(), dims, lowDims, boundingBox, voxels);
    return box.isValid() ? box : McBox3i();
}

// Cuts the query off a path; the number of a QA record it asks for, or 0.
int qaNumberOf(std::string& path)
{
    int qa = 0;
    size_t const question = path.find('?');
    if (question == std::string::npos)
        return 0;
    size_t const found = path.find("QA=", question + 1);
    if (found != std::string::npos)
        qa = std::atoi(path.c_str() + found + 3);
    path.resize(question);
    return qa;
}

} // namespace

VolumeInfo* TagFileGenerator::createVolumeInfo(char const* path, QByteArray& seriesUID)
{
    McLogFile* log = getTheLogInstance();
    mVolumeTimer.run();
    std::string file = path ? path : "";
    int const qa = qaNumberOf(file);

    std::unique_ptr<OndraMesh> mesh;
    // The download stream must outlive the mesh that fetches sections from
    // it on demand.
    std::unique_ptr<LmCurlDownloadStream> stream;
    if (McFilename::isUrl(file.c_str())) {
        stream = std::make_unique<LmCurlDownloadStream>(LmCurlClient::instance()->read(file, false));
        LmHttpStatus const& status = stream->httpStatus();
        if (status.responseCode < 200 || status.responseCode > 299 || status.curlError) {
            mVolumeTimer.stop();
            log->errorf("Reading %s failed: HTTP response code %d", file.c_str(), status.responseCode);
            return nullptr;
        }
        mesh.reset(OndraMesh::read(*stream, path, true, nullptr));
    } else {
        mesh.reset(OndraMesh::read(file.c_str(), true, nullptr));
    }
    mVolumeTimer.stop();
    if (!mesh) {
        log->tracef(McLogFile::LevelDebug, "TagFile", "Volume file %s could not be read", file.c_str());
        return nullptr;
    }
    if (qa > 0)
        QACache::instance().applyQA(*mesh->dicomAllCreate(), qa);

    auto info = std::make_unique<VolumeInfo>();
    info->fileName = QFileInfo(QString::fromStdString(file)).fileName().toStdString();
    HxParamBundle const* dicom = mesh->dicomAll();
    std::string const series = dicomValue(dicom, "G0020-000E");
    if (!series.empty())
        seriesUID = QByteArray::fromStdString(series);

    McSOPInstanceUtility::sopUIDList(mesh->bundle("SOPInstanceUIDs", false), info->frameUIDs);
    if (info->frameUIDs.empty()) {
        log->errorf("Could not get SOP list for 3D volume %s", file.c_str());
        return nullptr;
    }
    levelZeroDims(*mesh, info->dims);

    float box[6];
    if (mesh->findReal("BoundingBox", 6, box) || mesh->findReal("BoundingBox0", 6, box))
        info->boundingBox = McBox3f(box[0], box[1], box[2], box[3], box[4], box[5]);
    float matrix[16];
    if (mesh->findReal("TransformationMatrix", 16, matrix))
        std::memcpy(info->transformationMatrix.m, matrix, sizeof matrix);
    mesh->findReal("DataWindowScale", 1, &info->dataWindowScale);
    mesh->findReal("DataWindowBias", 1, &info->dataWindowBias);
    mesh->findReal("PrecisionLossBits", 1, &info->precisionLossBits);
    mesh->findNum("NumLossyCompressedImages", 1, &info->numLossyCompressedImages);
    mesh->findNum("NumberOfOverlayPlanes", 1, &info->numOverlayPlanes);

    if (mesh->findNum("PaddingValue", 1, &info->paddingValue))
        info->hasPaddingValue = true;
    int paddingMin = 0;
    int paddingMax = 0;
    if (mesh->findNum("PaddingRangeMin", 1, &paddingMin) &&
        mesh->findNum("PaddingRangeMax", 1, &paddingMax)) {
        info->paddingValue = paddingMin;
        info->paddingRangeMax = paddingMax;
        info->hasPaddingValue = info->hasPaddingRangeMax = true;
    }

    int suvBox[6];
    if (mesh->findNum("SUVCropBox", 6, suvBox))
        info->suvBox = McBox3i(suvBox[0], suvBox[1], suvBox[2], suvBox[3], suvBox[4], suvBox[5]);
    else if (LmSUVStatistics::supportsSUV(mesh->parameters()) && mesh->findReal("BoundingBox", 6, box))
        info->suvBox = suvBoxOf(*mesh, info->dims, info->boundingBox);

    for (auto const& data : mesh->dataSections()) {
        OndraMesh::Location const* lattice = data->lattice();
        if (data->name() != "Histogram" || !lattice || lattice->dims.size() != 1)
            continue;
        LmHistogram histogram;
        if (OndraMesh::readHistogram(data.get(), histogram).ok())
            info->histogram = histogram.bins();
        break;
    }
    int range[2];
    if (mesh->findNum("DataMinMax", 2, range)) {
        info->dataMin = range[0];
        info->dataMax = range[1];
    }

    if (static_cast<int>(info->frameUIDs.size()) != info->dims.z)
        log->warnf("Found %zu UIDs but %d slices in 3D volume %s", info->frameUIDs.size(), info->dims.z,
                   file.c_str());

    bool wantPreview = true;
    if (std::atoi(dicomValue(dicom, "G0028-0008").c_str()) < 2) {
        info->imageUIDs.swap(info->frameUIDs);
    } else {
        std::set<std::string> images;
        for (std::string const& frame : info->frameUIDs) {
            size_t const dot = frame.rfind('.');
            images.insert(dot != std::string::npos && dot > 0 ? frame.substr(0, dot) : frame);
        }
        info->imageUIDs.assign(images.begin(), images.end());
        // One multi-frame image split over several volume files: only its
        // first volume gets a preview.
        if (images.size() == 1) {
            QByteArray const uid = QByteArray::fromStdString(*images.begin());
            wantPreview = !mSeenMultiFrameImages.contains(uid);
            mSeenMultiFrameImages.insert(uid);
        }
    }
    if (!wantPreview)
        return info.release();

    std::string const modality = dicomValue(dicom, "G0008-0060");
    mPreviewTimer.run();
    QImage const image = PreviewGenerator::createPreviewImage(
        mesh.get(), file.c_str(), TagFile::sPreviewSize[0], TagFile::sPreviewSize[1], info->dims.z / 2);
    if (!image.isNull()) {
        info->previewData = PreviewGenerator::createPreviewData(image);
        if (modality == "MG" && mesh->dicomAll())
            QuadrantNavigation::computeImageBoxAndCenter(
                image, info->imageBoxAndCenter, QuadrantNavigation::checkOrientation(*mesh->dicomAll()));
    }
    mPreviewTimer.stop();
    return info.release();
}

void TagFileGenerator::addVolumeInfo(TagFile& tagFile, std::vector<std::string> const& volumeFiles)
{
    mSeenMultiFrameImages.clear();
    // Series in UID order; within a series, files in the catalog's order.
    QMap<QByteArray, std::vector<VolumeInfo*>> bySeries;
    int done = 0;
    for (std::string const& path : volumeFiles) {
        report("volumes", ++done, static_cast<int>(volumeFiles.size()));
        QByteArray seriesUID;
        if (VolumeInfo* info = createVolumeInfo(path.c_str(), seriesUID)) {
            bySeries[seriesUID].push_back(info);
            ++mCounts.volumes;
        }
    }
    for (auto records = bySeries.begin(); records != bySeries.end(); ++records) {
        tagFile.addVolumeInfo(records.value(), false);
        for (VolumeInfo* info : records.value())
            delete info;
    }
}

void TagFileGenerator::recomputeSUVBox(LmVolume* volume, McBox3i& box)
{
    box = McBox3i();
    if (!volume || !LmSUVStatistics::supportsSUV(volume) || !volume->data(0))
        return;
    LmVolumeData* full = volume->data(0);
    LmVolumeData* low = volume->data(1) ? volume->data(1) : full;
    LmVolumeData::ReadLock const lock = low->lockRead();
    void const* block = lock.block();
    if (!block || low->primType() != McTypedData2D::UInt16)
        return;
    box =
        LmSUVStatistics::computeSUVBox(volume->parameters(), full->dims(), low->dims(), volume->boundingBox(),
                                       static_cast<unsigned short*>(const_cast<void*>(block)));
}

} // namespace Mdx
