// The lookups of a reader of one stored object: the image must match the
// file suffix it was stored under and carry the corrections of the QA
// version asked for.
#include <mdxlib/qa/QACache.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/ItemTM.h>

#include <mdxlib/platform/McLogFile.h>

#include "dcmtk/dcmdata/dcdeftag.h"

namespace Mdx {

namespace {

// A stored suffix may carry the file's extension: "abc.dcm" was stored for
// the suffix "abc". Anything else that differs is another object.
bool suffixMatches(QByteArray const& stored, QByteArray const& asked)
{
    return stored.isEmpty() || stored == asked || (stored.endsWith(".dcm") && stored.startsWith(asked));
}

} // namespace

TagMap* TagFile::findImage(QByteArray const& sopInstanceUID, QByteArray const& suffix, int qaVersion)
{
    TagMap* image = mImages.value(sopInstanceUID, nullptr);
    if (!image)
        return nullptr;
    if (!suffix.isEmpty()) {
        QByteArray stored;
        image->findAndGetString(Tags::FileSuffix, stored);
        if (!suffixMatches(stored, suffix)) {
            getTheLogInstance()->warnf("Invalid suffix, image %s not loaded from tag file",
                                       sopInstanceUID.constData());
            return nullptr;
        }
    }
    if (qaVersion < 1)
        return image;
    // The version may lie on the series, where optimising moved a value all
    // its images shared; inheritance makes that count for the image.
    int applied = 0;
    if (image->findAndGetInt(Tags::QAVersion, applied) && applied == qaVersion)
        return image;
    QACache::instance().applyQA(*image, qaVersion);
    image->putAndInsertInt(Tags::QAVersion, qaVersion);
    return image;
}

std::shared_ptr<Item> TagFile::findImageEx(QByteArray const& sopInstanceUID, QByteArray const& suffix,
                                           int qaVersion)
{
    TagMap* image = findImage(sopInstanceUID, suffix, qaVersion);
    if (!image)
        return nullptr;
    QByteArray studyUID;
    if (!image->findAndGetString(DCM_StudyInstanceUID, studyUID))
        return nullptr;
    while (studyUID.endsWith('\0') || studyUID.endsWith(' '))
        studyUID.chop(1);
    auto const it = mStudies.find(studyUID);
    if (it == mStudies.end() || !it.value())
        return nullptr;
    std::shared_ptr<TagMap> study = it.value();
    return std::make_shared<ItemTM>(*image, study);
}

} // namespace Mdx
