// Uses only what the installed library exports.
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tagfile/TagFile.h>

#include <cstdio>

int main()
{
    Mdx::TagFile file;
    (void)file;

    Mdx::TagFile::setMetaFolder("/tmp/x");
    std::printf("meta folder: %s\n", Mdx::TagFile::metaFolder());

    getTheLogInstance()->printf("consumer: linked against the installed library");
    return 0;
}
