#include <mdxlib/platform/volumefile/OndraMeshBuilder.h>

#include <mdxlib/platform/ExDicomUtilities.h>
#include <mdxlib/platform/HxParamBundle.h>
#include <mdxlib/platform/McSOPInstanceUtility.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dctk.h"

#include <algorithm>
#include <cmath>
#include <cstring>

struct OndraMeshBuilder::Image
{
    std::string sopUID;
    std::string seriesUID;
    double position[3] = {0, 0, 0};
    double orientation[6] = {0, 0, 0, 0, 0, 0};
    double spacing[2] = {1, 1}; // between rows, between columns
    double normalPosition = 0;  // position along the slice normal
    int rows = 0;
    int columns = 0;
    bool isSigned = false;
    std::vector<uint16_t> pixels;
    HxParamBundle dicom{"DICOM"};
};

namespace {

McResult fail(std::string message)
{
    return McResult::failure(std::move(message));
}

bool getDoubles(DcmDataset& dataset, DcmTagKey const& key, int count, double* out)
{
    for (int i = 0; i < count; ++i) {
        Float64 value = 0;
        if (dataset.findAndGetFloat64(key, value, static_cast<unsigned long>(i)).bad())
            return false;
        out[i] = value;
    }
    return true;
}

void normal(double const* o, double* n)
{
    n[0] = o[1] * o[5] - o[2] * o[4];
    n[1] = o[2] * o[3] - o[0] * o[5];
    n[2] = o[0] * o[4] - o[1] * o[3];
}

template <typename T> std::vector<char> toBytes(std::vector<T> const& values)
{
    std::vector<char> bytes(values.size() * sizeof(T));
    if (!values.empty())
        std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

// The attributes whose values all images share: those of the first image
// that every other image has with the same text.
HxParamBundle sharedAttributes(std::vector<HxParamBundle const*> const& images)
{
    HxParamBundle shared = *images.front();
    for (size_t i = 1; i < images.size(); ++i) {
        std::vector<std::string> differing;
        for (int p = 0; p < shared.nParameters(); ++p) {
            HxParameter const* mine = shared.parameter(p);
            HxParameter const* theirs = images[i]->find(mine->name().c_str());
            if (!theirs || theirs->getString() != mine->getString())
                differing.push_back(mine->name());
        }
        for (std::string const& name : differing)
            shared.remove(name.c_str());
    }
    return shared;
}

} // namespace

OndraMeshBuilder::OndraMeshBuilder() = default;
OndraMeshBuilder::~OndraMeshBuilder() = default;

McResult OndraMeshBuilder::addImage(DcmDataset& dataset)
{
    std::unique_ptr<Image> image(new Image);
    OFString text;
    if (dataset.findAndGetOFString(DCM_SOPInstanceUID, text).bad() || text.empty())
        return fail("no SOP Instance UID");
    image->sopUID = text.c_str();
    if (dataset.findAndGetOFString(DCM_SeriesInstanceUID, text).good())
        image->seriesUID = text.c_str();
    Sint32 frames = 1;
    if (dataset.findAndGetSint32(DCM_NumberOfFrames, frames).good() && frames > 1)
        return fail("multi-frame images are not supported when building volumes");
    Uint16 rows = 0, columns = 0, samples = 1, bitsAllocated = 0, representation = 0;
    dataset.findAndGetUint16(DCM_SamplesPerPixel, samples);
    dataset.findAndGetUint16(DCM_PixelRepresentation, representation);
    if (dataset.findAndGetUint16(DCM_Rows, rows).bad() ||
        dataset.findAndGetUint16(DCM_Columns, columns).bad() ||
        dataset.findAndGetUint16(DCM_BitsAllocated, bitsAllocated).bad() || rows == 0 || columns == 0)
        return fail("no image size");
    if (samples != 1 || (bitsAllocated != 8 && bitsAllocated != 16))
        return fail("only grey images of 8 or 16 bits make volumes");
    if (!getDoubles(dataset, DCM_ImagePositionPatient, 3, image->position) ||
        !getDoubles(dataset, DCM_ImageOrientationPatient, 6, image->orientation))
        return fail("no Image Position or Orientation (Patient)");
    getDoubles(dataset, DCM_PixelSpacing, 2, image->spacing);
    if (!(image->spacing[0] > 0) || !(image->spacing[1] > 0))
        return fail("Pixel Spacing is not positive");
    image->rows = rows;
    image->columns = columns;
    image->isSigned = representation == 1 && bitsAllocated == 16;

    ExDicomUtilities::registerDecoders();
    if (dataset.chooseRepresentation(EXS_LittleEndianExplicit, nullptr).bad())
        return fail("the pixel data cannot be decoded");
    size_t const count = size_t(rows) * columns;
    image->pixels.resize(count);
    if (bitsAllocated == 16) {
        Uint16 const* values = nullptr;
        unsigned long n = 0;
        if (dataset.findAndGetUint16Array(DCM_PixelData, values, &n).bad() || !values || n < count)
            return fail("the pixel data is missing or short");
        std::copy(values, values + count, image->pixels.begin());
    } else {
        Uint8 const* values = nullptr;
        unsigned long n = 0;
        if (dataset.findAndGetUint8Array(DCM_PixelData, values, &n).bad() || !values || n < count)
            return fail("the pixel data is missing or short");
        std::copy(values, values + count, image->pixels.begin());
    }
    ExDicomUtilities::copyToParamBundle(&dataset, image->dicom);

    if (!mImages.empty()) {
        Image const& first = *mImages.front();
        if (image->seriesUID != first.seriesUID)
            return fail("belongs to another series than the first image");
        if (image->rows != first.rows || image->columns != first.columns || image->isSigned != first.isSigned)
            return fail("its size or pixel type differs from the first image");
        for (int i = 0; i < 6; ++i)
            if (std::fabs(image->orientation[i] - first.orientation[i]) > 1e-4)
                return fail("its orientation differs from the first image");
        for (auto const& other : mImages)
            if (other->sopUID == image->sopUID)
                return fail("the same SOP Instance UID twice");
    }
    double n[3];
    normal(image->orientation, n);
    image->normalPosition = n[0] * image->position[0] + n[1] * image->position[1] + n[2] * image->position[2];
    mImages.push_back(std::move(image));
    return McResult::success();
}

McResult OndraMeshBuilder::build(int numParts, std::vector<std::unique_ptr<OndraMesh>>& meshes) const
{
    meshes.clear();
    if (mImages.empty())
        return fail("no images");
    int const numSlices = static_cast<int>(mImages.size());
    if (numParts < 1 || numParts > numSlices)
        return fail("the number of parts must lie between 1 and the number of images");
    std::vector<Image const*> slices;
    for (auto const& image : mImages)
        slices.push_back(image.get());
    std::stable_sort(slices.begin(), slices.end(),
                     [](Image const* a, Image const* b) { return a->normalPosition < b->normalPosition; });
    double spacing = 1.0;
    if (numSlices > 1) {
        spacing = (slices.back()->normalPosition - slices.front()->normalPosition) / (numSlices - 1);
        if (!(spacing > 1e-6))
            return fail("the images share one position");
        // Two images at one place would make the slices uneven, and the
        // volume's geometry wrong from there on.
        for (int i = 1; i < numSlices; ++i)
            if (slices[size_t(i)]->normalPosition - slices[size_t(i) - 1]->normalPosition < spacing * 0.01)
                return fail("images " + slices[size_t(i) - 1]->sopUID + " and " + slices[size_t(i)]->sopUID +
                            " lie at the same position");
    }
    int begin = 0;
    for (int part = 0; part < numParts; ++part) {
        // As even as possible: the first parts take one slice more.
        int const size = numSlices / numParts + (part < numSlices % numParts ? 1 : 0);
        std::vector<Image const*> slab(slices.begin() + begin, slices.begin() + begin + size);
        begin += size;
        std::unique_ptr<OndraMesh> mesh(new OndraMesh);
        McResult built = buildSlab(slab, spacing, part, numParts, *mesh);
        if (!built)
            return built;
        meshes.push_back(std::move(mesh));
    }
    return McResult::success();
}

McResult OndraMeshBuilder::buildSlab(std::vector<Image const*> const& slices, double sliceSpacing, int part,
                                     int numParts, OndraMesh& mesh) const
{
    Image const& first = *slices.front();
    int const nx = first.columns, ny = first.rows, nz = static_cast<int>(slices.size());
    size_t const sliceSize = size_t(nx) * ny;
    bool const isSigned = first.isSigned;
    auto value = [&](int x, int y, int z) -> int {
        uint16_t const v = slices[size_t(z)]->pixels[size_t(y) * nx + x];
        return isSigned ? static_cast<int16_t>(v) : v;
    };

    std::vector<uint16_t> level0(sliceSize * nz);
    int minValue = isSigned ? 32767 : 65535, maxValue = isSigned ? -32768 : 0;
    for (int z = 0; z < nz; ++z) {
        std::copy(slices[size_t(z)]->pixels.begin(), slices[size_t(z)]->pixels.end(),
                  level0.begin() + static_cast<std::ptrdiff_t>(sliceSize * z));
        for (size_t i = 0; i < sliceSize; ++i) {
            int const v =
                isSigned ? static_cast<int16_t>(level0[sliceSize * z + i]) : level0[sliceSize * z + i];
            minValue = std::min(minValue, v);
            maxValue = std::max(maxValue, v);
        }
    }

    // Half resolution: the mean of each 2x2x2 block; an odd last row,
    // column or slice is left out.
    int const hx = std::max(1, nx / 2), hy = std::max(1, ny / 2), hz = std::max(1, nz / 2);
    std::vector<uint16_t> level1(size_t(hx) * hy * hz);
    for (int z = 0; z < hz; ++z)
        for (int y = 0; y < hy; ++y)
            for (int x = 0; x < hx; ++x) {
                long sum = 0;
                int n = 0;
                for (int dz = 0; dz < 2 && 2 * z + dz < nz; ++dz)
                    for (int dy = 0; dy < 2 && 2 * y + dy < ny; ++dy)
                        for (int dx = 0; dx < 2 && 2 * x + dx < nx; ++dx) {
                            sum += value(2 * x + dx, 2 * y + dy, 2 * z + dz);
                            ++n;
                        }
                long const mean = static_cast<long>(std::floor(static_cast<double>(sum) / n + 0.5));
                level1[(size_t(z) * hy + y) * hx + x] = static_cast<uint16_t>(mean);
            }

    int const span = maxValue - minValue + 1;
    int const numBins = std::min(span, kMaxHistogramBins);
    std::vector<uint64_t> bins(size_t(numBins), 0);
    for (uint16_t raw : level0) {
        int const v = isSigned ? static_cast<int16_t>(raw) : raw;
        bins[size_t((int64_t(v) - minValue) * numBins / span)]++;
    }

    HxParamBundle& params = mesh.parameters();
    params.set("BoundingBox", std::vector<double>{0.0, (nx - 1) * first.spacing[1], 0.0,
                                                  (ny - 1) * first.spacing[0], 0.0, (nz - 1) * sliceSpacing});
    double n[3];
    normal(first.orientation, n);
    std::vector<double> matrix(16, 0.0);
    for (int r = 0; r < 3; ++r) {
        matrix[size_t(r) * 4 + 0] = first.orientation[r];
        matrix[size_t(r) * 4 + 1] = first.orientation[3 + r];
        matrix[size_t(r) * 4 + 2] = n[r];
        matrix[size_t(r) * 4 + 3] = first.position[r];
    }
    matrix[15] = 1.0;
    params.set("TransformationMatrix", matrix);
    params.set("DataMinMax", std::vector<int>{minValue, maxValue});
    params.set("HistogramRange", std::vector<double>{double(minValue), double(maxValue)});
    params.setNum("Part", part);
    params.setNum("NumParts", numParts);

    std::vector<HxParamBundle const*> bundles;
    for (Image const* image : slices)
        bundles.push_back(&image->dicom);
    *params.bundle("DICOM", true) = sharedAttributes(bundles);
    char const* slope = first.dicom.findTag(0x0028, 0x1053);
    char const* intercept = first.dicom.findTag(0x0028, 0x1052);
    params.setReal("DataWindowScale", slope ? std::atof(slope) : 1.0);
    params.setReal("DataWindowBias", intercept ? std::atof(intercept) : 0.0);
    if (char const* padding = first.dicom.findTag(0x0028, 0x0120))
        params.setNum("PaddingValue", std::atoi(padding));
    HxParamBundle* uids = params.bundle("SOPInstanceUIDs", true);
    for (size_t i = 0; i < slices.size(); ++i)
        uids->set(("UID" + std::to_string(i)).c_str(), McSOPInstanceUtility::entry(slices[i]->sopUID));

    int const type = isSigned ? OndraMesh::TypeInt16 : OndraMesh::TypeUInt16;
    // Small sections first: a reader of a forward-only stream reaches the
    // histogram and the half-resolution level before the full voxels.
    mesh.addLocation("Histogram", {numBins});
    mesh.addLocation("Lattice1", {nx, ny, nz});
    mesh.addLocation("Lattice2", {hx, hy, hz});
    mesh.addData("Histogram", "Histogram", OndraMesh::TypeUInt64, 1, toBytes(bins));
    mesh.addData("Lattice2", "Level1_Data0", type, 1, toBytes(level1));
    mesh.addData("Lattice1", "Level0_Data0", type, 1, toBytes(level0));
    return McResult::success();
}
