// tagfile_make_corpus <DICOM folder> <output folder>
//
// Writes the seed corpus of the tag file fuzzer: one tag file per study
// found under the DICOM folder, in each compression mode.
#include "CorpusMaker.h"

#include "dcmtk/config/osconfig.h"
#include "dcmtk/oflog/oflog.h"

#include <QString>

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <DICOM folder> <output folder>\n", argv[0]);
        return 2;
    }
    // Sample folders hold files that are not DICOM, and DICOM files with
    // oddities; the ones that cannot be read are simply left out.
    OFLog::configure(OFLogger::FATAL_LOG_LEVEL);
    QStringList const written =
        MdxFuzz::makeCorpus(QString::fromLocal8Bit(argv[1]), QString::fromLocal8Bit(argv[2]));
    for (QString const& path : written)
        std::printf("%s\n", path.toLocal8Bit().constData());
    if (written.isEmpty()) {
        std::fprintf(stderr, "no DICOM study found under %s\n", argv[1]);
        return 1;
    }
    return 0;
}
