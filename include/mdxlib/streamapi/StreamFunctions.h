/* The exported plain functions of the stream family: test a path, read an
 * object by handle, delete it, copy it between any two kinds of location,
 * and get at the facts of DICOM video and encapsulated PDF objects. A path
 * may be a local file, a file-server path, a URL (plain, S3, Google, Azure,
 * WADO) or a member of a ".kz" container; the functions hide the choice.
 *
 * Strings are zero-terminated, UTF-8 or local text as the caller has it.
 * No function lets an exception out. They keep no state of their own and
 * may be called from any thread; a stream handle belongs to one thread at a
 * time. A handle is a pointer to a record that starts with a 64-bit kind
 * word: a pointer whose first word is no kind word is refused untouched.
 */
#ifndef MDXLIB_STREAMFUNCTIONS_H
#define MDXLIB_STREAMFUNCTIONS_H

#include <mdxlib/Export.h>

#ifdef __cplusplus
extern "C" {
#else
#include <stdbool.h>
#endif

/* True for a URL with a scheme, or a path with a member inside a ".kz"
 * container. */
MDX_EXPORT bool StringIsUrl(const char* path);

/* Opens a URL or container member for reading: 0 with *handle set, or -1.
 * Give the handle back with CloseStream. */
MDX_EXPORT int OpenStream(const char* url, void** handle);
/* The same for a byte range "first-last" (inclusive), or "first-" to the
 * end. *handle is written only on success. */
MDX_EXPORT int OpenStreamRange(const char* url, const char* range, void** handle);
/* The object's (or range's) length; -1 while a cloud file's length is
 * unknown; 0 for anything that is no handle. */
MDX_EXPORT long long StreamContentLength(void* handle);
/* Reads at most count bytes into buffer + offset: the count read, 0 at the
 * end of the object, -1 for anything that is no handle and for a transfer
 * that broke off before the end. */
MDX_EXPORT long long ReadBytes(void* handle, char* buffer, int offset, int count);
/* Closes and frees a handle; null and non-handles are left alone. */
MDX_EXPORT void CloseStream(void* handle);

/* Deletes the object at url; true when the server did. */
MDX_EXPORT bool SendDeleteRequest(const char* url);

/* The SOP Instance UID (into a 65-byte buffer), the number of frames, the
 * cine rate, and the offset and length of the first pixel fragment of a
 * DICOM video object, read without reading pixel data: 0, or 1 on failure
 * (the outputs are then cleared: empty UID, 0, 0, offset -1, length 0). */
MDX_EXPORT int GetVideoMetaInfo(const char* path, char* sopInstanceUid, unsigned long long* numberOfFrames,
                                unsigned long long* cineRate, unsigned long long* dataOffset,
                                unsigned int* dataLength);

/* Writes source, with the QA record that a "?QA=n" query in source names
 * applied, as a new DICOM file at the local path target: 0, or 1. */
MDX_EXPORT int CopyQA(const char* source, const char* target);
/* Copies the object at source to target (a local file, or an s3://, az://
 * or gs:// URL) in 1 MiB steps: 0, or 1. hash, when not null or empty, is
 * the lower-case hexadecimal MD5 of the whole and size, when above 0, its
 * length in bytes; a copy that doesn't match them fails. A failed copy
 * leaves no target behind and an existing local target as it was. */
MDX_EXPORT int CopyWithHashAndSize(const char* source, const char* target, const char* hash, long long size);
/* CopyWithHashAndSize(source, target, null, 0). */
MDX_EXPORT int Copy(const char* source, const char* target);

/* The document of a DICOM encapsulated PDF object: *data points at *length
 * bytes, owned by the returned handle, which FreeTagFileData frees. Null
 * (with *length 0 and *data null) on failure. */
MDX_EXPORT void* GetEncapsulatedPDF(const char* path, unsigned int* length, const char** data);

#ifdef __cplusplus
}
#endif

#endif
