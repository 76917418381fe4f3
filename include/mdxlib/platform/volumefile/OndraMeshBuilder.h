// Makes volume files from a series of single-frame DICOM images: sorts the
// slices along the normal of their orientation, takes the geometry from
// Image Position and Orientation (Patient) and Pixel Spacing, and gives
// each volume (or each slab, when the volume is split into parts) its
// full-resolution level, a half-resolution level and a histogram.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McResult.h>
#include <mdxlib/platform/volumefile/OndraMesh.h>

#include <memory>
#include <string>
#include <vector>

class DcmDataset;

class MDX_EXPORT OndraMeshBuilder
{
public:
    OndraMeshBuilder();
    ~OndraMeshBuilder();

    // Takes the attributes and pixels of one image (compressed pixels are
    // decoded, which changes the dataset's representation). Fails with the
    // reason when the image cannot be a slice of the volume begun by the
    // images before it.
    McResult addImage(DcmDataset& dataset);
    int numImages() const { return static_cast<int>(mImages.size()); }

    // The volume as numParts slabs of consecutive slices (1 to the number
    // of images), each one mesh with all sections loaded.
    McResult build(int numParts, std::vector<std::unique_ptr<OndraMesh>>& meshes) const;

    // Number of bins of the histograms written: one per value, at most this.
    static constexpr int kMaxHistogramBins = 1024;

private:
    struct Image;
    McResult buildSlab(std::vector<Image const*> const& slices, double sliceSpacing, int part, int numParts,
                       OndraMesh& mesh) const;

    std::vector<std::unique_ptr<Image>> mImages;
};
