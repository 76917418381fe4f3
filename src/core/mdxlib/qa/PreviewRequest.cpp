#include <mdxlib/qa/PreviewRequest.h>

#include <mdxlib/platform/McLogFile.h>

#include <utility>

namespace Mdx {

namespace {

PreviewMaker& maker()
{
    static PreviewMaker installed;
    return installed;
}

} // namespace

void setPreviewMaker(PreviewMaker newMaker)
{
    maker() = std::move(newMaker);
}

bool requestPreview(TagFile& tagFile, QByteArray const& sopUID, QByteArray const& path)
{
    if (!maker()) {
        getTheLogInstance()->tracef(McLogFile::LevelDebug, "TagFile", "No preview maker for image %s (%s)",
                                    sopUID.constData(), path.constData());
        return false;
    }
    return maker()(tagFile, sopUID, path);
}

} // namespace Mdx
