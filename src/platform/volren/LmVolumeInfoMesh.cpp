// A preview slice from a volume file.
#include <mdxlib/platform/LmVolumeInfo.h>

#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/McTypedData2D.h>
#include <mdxlib/platform/volumefile/OndraMesh.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

// The element types of volume files as preview data types; -1 for none.
int previewType(int meshType)
{
    switch (meshType) {
    case OndraMesh::TypeUInt8:
        return McTypedData2D::UInt8;
    case OndraMesh::TypeUInt16:
        return McTypedData2D::UInt16;
    case OndraMesh::TypeInt16:
        return McTypedData2D::Int16;
    case OndraMesh::TypeInt32:
        return McTypedData2D::Int32;
    case OndraMesh::TypeFloat:
        return McTypedData2D::Float32;
    default:
        return -1;
    }
}

OndraMesh::Data* voxelLevel(OndraMesh& mesh, char const* name)
{
    OndraMesh::Data* data = mesh.findData(nullptr, 0, 1, name);
    OndraMesh::Location const* lattice = data ? data->lattice() : nullptr;
    return lattice && lattice->dims.size() == 3 && previewType(data->type()) >= 0 ? data : nullptr;
}

double firstNumber(HxParamBundle const* dicom, char const* name, bool& found)
{
    std::string text;
    found = dicom && dicom->findString(name, text) && !text.empty();
    return found ? std::atof(text.c_str()) : 0.0;
}

template <typename T> void valueRange(unsigned char const* pixels, size_t count, float& low, float& high)
{
    for (size_t i = 0; i < count; ++i) {
        T value;
        std::memcpy(&value, pixels + i * sizeof(T), sizeof(T));
        low = std::min(low, static_cast<float>(value));
        high = std::max(high, static_cast<float>(value));
    }
}

void sliceRange(LmVolumeInfo const& info, float& low, float& high)
{
    unsigned char const* pixels = info.mBuffer.data();
    size_t const count = static_cast<size_t>(info.mWidth) * static_cast<size_t>(info.mHeight);
    low = 1e30f;
    high = -1e30f;
    switch (info.mDataType) {
    case McTypedData2D::UInt8:
        valueRange<unsigned char>(pixels, count, low, high);
        break;
    case McTypedData2D::UInt16:
        valueRange<unsigned short>(pixels, count, low, high);
        break;
    case McTypedData2D::Int16:
        valueRange<short>(pixels, count, low, high);
        break;
    case McTypedData2D::Int32:
        valueRange<int>(pixels, count, low, high);
        break;
    default:
        valueRange<float>(pixels, count, low, high);
        break;
    }
}

} // namespace

std::unique_ptr<LmVolumeInfo> LmVolumeInfo::readVolumeInfo(OndraMesh* mesh, int index, unsigned long maxWidth,
                                                           unsigned long maxHeight, QString const& name)
{
    (void)maxWidth; // the converter fits the slice into the box
    (void)maxHeight;
    McLogFile* log = getTheLogInstance();
    QByteArray const printable = name.toLocal8Bit();
    OndraMesh::Data* full = mesh ? voxelLevel(*mesh, "Level0_Data0") : nullptr;
    OndraMesh::Data* low = mesh ? voxelLevel(*mesh, "Level1_Data0") : nullptr;
    OndraMesh::Data* data = low ? low : full;
    if (!data) {
        log->tracef(McLogFile::LevelDebug, "TagFile", "No voxels for a preview in %s", printable.constData());
        return nullptr;
    }
    std::vector<int> const& dims = data->lattice()->dims;
    int const fullSlices = full ? full->lattice()->dims[2] : dims[2];
    int slice = fullSlices > 0 ? static_cast<int>(static_cast<long long>(index) * dims[2] / fullSlices) : 0;
    slice = std::clamp(slice, 0, dims[2] - 1);
    if (!data->isLoaded() && !data->readData().ok()) {
        log->tracef(McLogFile::LevelDebug, "TagFile", "Voxels of %s could not be read",
                    printable.constData());
        return nullptr;
    }
    auto info = std::make_unique<LmVolumeInfo>();
    info->mDataType = previewType(data->type());
    info->mComponents = 1;
    info->mWidth = dims[0];
    info->mHeight = dims[1];
    int const element = McTypedData2D::bytesOf(info->mDataType);
    info->mPixelStride = element;
    info->mRowStride = element * dims[0];
    size_t const sliceBytes = static_cast<size_t>(info->mRowStride) * static_cast<size_t>(dims[1]);
    auto const* bytes = static_cast<unsigned char const*>(data->data());
    if (!bytes || data->byteSize() < sliceBytes * static_cast<size_t>(slice + 1))
        return nullptr;
    info->mBuffer.assign(bytes + sliceBytes * static_cast<size_t>(slice),
                         bytes + sliceBytes * static_cast<size_t>(slice + 1));
    info->mPixels = info->mBuffer.data();

    // Pixel aspect from the voxel size of the full level.
    double box[6];
    if (mesh->findReal("BoundingBox", 6, box) && dims[0] > 1 && dims[1] > 1) {
        double const sx = (box[1] - box[0]) / (dims[0] - 1);
        double const sy = (box[3] - box[2]) / (dims[1] - 1);
        if (sx > 0.0 && sy > 0.0)
            info->mPixelAspect = static_cast<float>(sx / sy);
    }

    HxParamBundle const* dicom = mesh->dicomAll();
    bool haveCenter = false;
    bool haveWidth = false;
    double const center = firstNumber(dicom, "G0028-1050", haveCenter);
    double const width = firstNumber(dicom, "G0028-1051", haveWidth);
    double scale = 1.0;
    double bias = 0.0;
    mesh->findReal("DataWindowScale", 1, &scale);
    mesh->findReal("DataWindowBias", 1, &bias);
    if (haveCenter && haveWidth && width > 0.0 && scale != 0.0) {
        info->mMinValue = static_cast<float>((center - width * 0.5 - bias) / scale);
        info->mMaxValue = static_cast<float>((center + width * 0.5 - bias) / scale);
    } else {
        sliceRange(*info, info->mMinValue, info->mMaxValue);
    }
    if (dicom) {
        std::string photometric;
        dicom->findString("G0028-0004", photometric);
        info->mInverted = photometric.find("MONOCHROME1") != std::string::npos;
    }
    return info;
}
