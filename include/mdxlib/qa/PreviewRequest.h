// Where an edit job that touches Pixel Data asks for a new preview of an
// image: TagFile::addPreview from the image's file, unless the host process
// installs a maker of its own (one that renders elsewhere, or a test's).
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
// Makes the preview through the installed maker, else addPreview; false
// when it failed (the job goes on without it).
MDX_EXPORT bool requestPreview(TagFile& tagFile, QByteArray const& sopUID, QByteArray const& path);

} // namespace Mdx
