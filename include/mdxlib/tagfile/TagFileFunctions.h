/* The exported plain functions of the tag file family.
 *
 * They take plain C strings (UTF-8 or Latin-1) and return plain values, so
 * that callers in any language can use them; none lets an exception out.
 * Results of the boolean kind are 1 for success and 0 for failure.
 */
#ifndef MDXLIB_TAGFILEFUNCTIONS_H
#define MDXLIB_TAGFILEFUNCTIONS_H

#include <mdxlib/Export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bit 0 of flags: debug messages; bit 1: timing lines of QA jobs. The
 * library's log goes to the server trace from here on. A non-null
 * databaseServer is kept as the database connection. */
MDX_EXPORT void ConfigureLogging(int flags, const char* databaseServer);

/* 1 when the study's tag file is gone (also when there was none), 0 when it
 * could not be deleted. */
MDX_EXPORT int DeleteTagFile(const char* studyUID);

/* Remove series or images from the study's tag file and write it back.
 * 1 on success and when there is no readable tag file; 0 when it could not
 * be written. */
MDX_EXPORT int DeleteSeriesInTagFile(const char* studyUID, int count, const char** seriesUIDs);
MDX_EXPORT int DeleteImagesInTagFile(const char* studyUID, int count, const char** imageUIDs);

/* The study's tag file, read while the catalog is asked and synced with it
 * (paths of today, series the catalog no longer lists removed), in its file
 * form: *data points at *size bytes that stay valid until the returned
 * handle is given to FreeTagFileData. Null (and *size 0, *data null) when
 * the study is unknown, a query failed or the tag file could not be read. */
MDX_EXPORT void* ReadAndSyncTagFileData(const char* studyUID, const char* requester, int* size,
                                        const char** data);

/* Frees a data handle returned by the library; null does nothing. */
MDX_EXPORT void FreeTagFileData(void* handle);

#ifdef __cplusplus
}
#endif

#endif
