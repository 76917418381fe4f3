// The database functions the library calls: study and series directories,
// the files of a study, and QA records. All go to the catalog this process
// uses (Catalog::configuredConnection), through one connection per thread
// that is kept for the next call and dropped after a failure, so that a
// restarted server is found again. None throws: a failure is a failed
// McResult with its reason logged (category "Database").
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McResult.h>
#include <mdxlib/platform/ReplyFacade.h>
#include <mdxlib/platform/WsRequest.h>

#include <set>
#include <string>
#include <vector>

// Delivers the study of UID studyUID into reply (at most maxEntries
// entries; the catalog holds a study UID once, so that is one or none).
// requester names who asks; the catalog keeps no access rights per user, so
// it, request and the two flags (in the viewer: whether to include patient
// details and whether the UID must match exactly) are accepted and have no
// effect: a study is found by its exact UID and always with its patient
// name, patient id and date.
MDX_EXPORT McResult GetStudy(std::string const& requester, std::string const& studyUID,
                             Lmg::ReplyFacade* reply, Lmg::WsRequest const& request, bool withPatientDetails,
                             bool exactMatch, int maxEntries);

// Fills in the series of the entry in reply whose id is studyId: one child
// per series, by series number then UID, each with its parts (series whose
// parent it is) as children. level 4 and above also lists each series'
// images in its SeriesInfo; below 4 info stays null. offset skips that many
// series. flags is accepted for the viewer's callers (2: series of all
// kinds) and has no effect: every series is delivered.
MDX_EXPORT McResult GetSeries(int studyId, Lmg::ReplyFacade* reply, Lmg::WsRequest const& request, int level,
                              int offset, int flags);

// The files of a study for building its tag file: DICOM files by series
// number, series UID and path; volume files by series UID and ordinal; and
// the UIDs of the series that carry the generator mark. userName is accepted
// for the callers' sake; the catalog keeps no rights per user. A study id
// that does not exist gives success and three empty containers.
MDX_EXPORT McResult GetAllFilesOfStudy(std::string const& userName, int studyId,
                                       std::vector<std::string>& dicomFiles,
                                       std::vector<std::string>& volumeFiles,
                                       std::set<std::string>& seriesUIDs);

// The text of QA record qaId; empty when there is none.
MDX_EXPORT McResult GetQAData(int qaId, std::string& text);

namespace Lmg {

// The catalog's date text as the integer YYYYMMDD: "20010413",
// "2001-04-13", "2001/04/13", "2001.04.13", also with a time behind it. 0
// when the text holds no such date.
MDX_EXPORT int dateReformat(std::string const& date);

} // namespace Lmg
