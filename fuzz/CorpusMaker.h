// Seed files for the tag file fuzzer, made from real DICOM files.
//
// Shared by the tagfile_make_corpus program and the replay test, so that the
// corpus a developer fuzzes from and the one the tests replay are made the
// same way.
#pragma once

#include <QString>
#include <QStringList>

namespace MdxFuzz {

// Reads every DICOM file under dicomFolder (recursively), builds one tag
// file per study, gives each series volumes and previews so that every
// record type of the format is present, and writes each study in all three
// compression modes into outFolder as "studyNN-modeM.tc" (NN in order of
// Study Instance UID). Returns the paths written, sorted; empty when no file
// could be read.
QStringList makeCorpus(QString const& dicomFolder, QString const& outFolder);

} // namespace MdxFuzz
