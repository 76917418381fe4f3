/* The exported tag-file update job: edits and moves of images, and updates
 * of the file suffixes of images and volumes, described in job XML.
 *
 * Plain C strings in (UTF-8 or Latin-1), 1 for success and 0 for failure
 * out; no exception leaves these functions.
 */
#ifndef MDXLIB_UPDATETAGFILE_H
#define MDXLIB_UPDATETAGFILE_H

#include <mdxlib/Export.h>

#include <wchar.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Applies jobXml to the tag file of studyUID (and, for a move, of the study
 * it names) for the numImages images in imageUIDs; fileNames gives each
 * image's path (entries may be null). Entries of fileNames that contain
 * "Level1" are dropped from the local file cache afterwards, whatever the
 * outcome. */
MDX_EXPORT int UpdateTagFile(const char* jobXml, const char* studyUID, int numImages, const char** imageUIDs,
                             const char** fileNames);

/* The same with wide strings of 32-bit UCS-4 characters. */
MDX_EXPORT int UpdateTagFileW(const wchar_t* jobXml, const wchar_t* studyUID, int numImages,
                              const wchar_t** imageUIDs, const wchar_t** fileNames);

#ifdef __cplusplus
}
#endif

#endif
