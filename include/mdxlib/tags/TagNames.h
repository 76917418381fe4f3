// Attributes named by text.
//
// Callers name DICOM attributes in QA jobs, paths into sequences and
// configuration: as "(gggg,eeee)", by today's dictionary name, by a retired
// name, or by a name that an earlier DICOM dictionary used.
#pragma once

#include <mdxlib/Export.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctagkey.h"

#include <map>
#include <string>

// Resolves name into key. Always true: an unknown name leaves key as it was,
// so callers preset it to (FFFF,FFFF). Thread-safe; resolved names are cached.
MDX_EXPORT bool parseDicomTag(char const* name, DcmTagKey& key);
// "(gggg,eeee)", exactly 11 characters, hexadecimal fields.
MDX_EXPORT bool isExpliciteDicomTagRepresentation(char const* text, DcmTagKey& key);
// The name of a reserved attribute of group 0006 ("MDX_FileSuffix" for
// (0006,7101)), which no DICOM dictionary knows; null for any other key.
MDX_EXPORT char const* reservedTagName(DcmTagKey const& key);
// Earlier dictionary names to today's.
MDX_EXPORT std::map<std::string, std::string> createLegacyDicomTags();
