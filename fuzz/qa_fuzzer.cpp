// Fuzz target for the texts of the QA layer: the QA record (parsed and
// applied to a tag map, with the history it writes read back by the next
// application) and the job XML of UpdateTagFile.
//
// Any input must end in a record that applies, or in a job that fails
// cleanly: no crash, no sanitizer report, no exception out of the exported
// function. The job runs against an empty meta folder, so no tag file is
// ever written.
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/qa/QACache.h>
#include <mdxlib/qa/UpdateTagFile.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QTemporaryDir>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

bool setUp()
{
    getTheLogInstance()->setLogLevel(McLogFile::LevelError + 1);
    static QTemporaryDir folder;
    Mdx::TagFile::setMetaFolder(folder.path().toLocal8Bit().constData());
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size)
{
    static bool const ready = setUp();
    (void)ready;
    std::string const text(reinterpret_cast<char const*>(data), size);

    QACache cache([&text](int, std::string& out) {
        out = text;
        return McResult();
    });
    Mdx::TagMap image;
    image.putAndInsertString(DCM_PatientID, "PID1");
    image.putAndInsertString(DCM_PatientName, "Doe^John");
    cache.applyQA(image, 1);
    QByteArray history;
    bool const written = image.findAndGetString(DcmTagKey(0x0071, 0x1021), "Lumora", history);
    cache.applyQA(image, 1); // reads the history back
    // A record without steps writes no history.
    if (cache.find(1)->changes.empty() && written)
        std::abort();

    char const* uid = "1.2.3.4";
    char const* path = nullptr;
    UpdateTagFile(text.c_str(), "1.2.3", 1, &uid, &path);
    return 0;
}
