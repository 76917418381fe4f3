// Where an edit job that touches Pixel Data asks for a new preview of an
// image. Preview images are made elsewhere; until a maker is installed the
// request is only logged, and the job goes on.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>

#include <functional>

namespace Mdx {

class TagFile;

// Makes the preview of image sopUID of tagFile from the file at path; true
// when the preview was stored.
using PreviewMaker = std::function<bool(TagFile& tagFile, QByteArray const& sopUID, QByteArray const& path)>;

// Installs maker for all later jobs; an empty one removes it. Set once at
// start-up, like the other process-wide options.
MDX_EXPORT void setPreviewMaker(PreviewMaker maker);
// Asks the installed maker for the preview; false when there is none or it
// failed.
MDX_EXPORT bool requestPreview(TagFile& tagFile, QByteArray const& sopUID, QByteArray const& path);

} // namespace Mdx
