#include <mdxlib/qa/PreviewRequest.h>

#include <mdxlib/tagfile/TagFile.h>

#include <QFile>

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
    if (maker())
        return maker()(tagFile, sopUID, path);
    return tagFile.addPreview(sopUID, QFile::decodeName(path));
}

} // namespace Mdx
