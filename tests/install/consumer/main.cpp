// Uses only what the installed library exports.
#include <mdxlib/pixels/PreviewGenerator.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/streamapi/StreamFunctions.h>
#include <mdxlib/tagfile/TagFile.h>

#include <cstdio>

int main()
{
    Mdx::TagFile file;
    (void)file;

    Mdx::TagFile::setMetaFolder("/tmp/x");
    std::printf("meta folder: %s\n", Mdx::TagFile::metaFolder());

    // Qt Gui comes with the library: its public headers use QImage.
    QImage preview(8, 8, QImage::Format_RGB32);
    preview.fill(qRgb(40, 80, 120));
    std::printf("preview: %d bytes of JPEG\n",
                static_cast<int>(Mdx::PreviewGenerator::createPreviewData(preview).size()));

    // The stream family keeps its C names.
    std::printf("s3://b/k is a URL: %d\n", StringIsUrl("s3://b/k") ? 1 : 0);

    getTheLogInstance()->printf("consumer: linked against the installed library");
    return 0;
}
