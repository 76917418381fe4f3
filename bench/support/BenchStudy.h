// The benchmark study: a CT examination of thousands of images in five
// series, written as a scanner would from the real header of the installed
// sample pydicom/CT_small.dcm, so that the attribute mix (public and
// private, strings and binary) is real and only what changes from image to
// image is generated. Shared by the benchmarks that need a large study.
#pragma once

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QString>

#include <functional>
#include <string>
#include <vector>

namespace benchstudy {

constexpr int kSeries = 5;

// pydicom/CT_small.dcm under $MDX_SAMPLES, $XDG_CACHE_HOME/mdxlib/samples or
// ~/.cache/mdxlib/samples; empty when none is installed.
QString findCtSample();

// Writes the study of images files (at least kSeries) from source into
// folder: series by series, slice by slice along z, the times stepping with
// the table. Each file carries a zero 512x512 16-bit slice, so the folder
// weighs what a real one does. Returns the file paths; exits on a failed
// write.
std::vector<std::string> writeStudy(DcmFileFormat& source, QString const& folder, int images);

// The same study image by image without files: sets on dataset what changes
// from image to image and calls visit(series, index) with dataset ready for
// image index (from 0) of series (from 0). writeStudy saves each one.
void forEachImage(DcmDataset* dataset, int images, std::function<void(int series, int index)> const& visit);

// Loads the CT sample (given, else findCtSample()) into source; false, with
// the reason on standard error, when there is none.
bool loadCtSample(QString const& given, DcmFileFormat& source);

std::string format(char const* pattern, ...) __attribute__((format(printf, 1, 2)));

} // namespace benchstudy
