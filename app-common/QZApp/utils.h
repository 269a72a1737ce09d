/* QZApp's plain utilities: a C interface with no Qt.
 *
 * Every function reports each failing step as one line on standard error, either
 * "PATH: ERROR TEXT (at utils:SITE)" or "utils:SITE: error (ERRNO)", and leaves the cause in
 * errno, which reporting never changes. Nothing throws.
 */
#ifndef QZAPP_UTILS_H
#define QZAPP_UTILS_H

#include <stddef.h>

#if defined(QZAPPUTILS_BUILDING_LIBRARY)
#  define QZUTILS_EXPORT __attribute__((visibility("default")))
#else
#  define QZUTILS_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Guarded string buffers.
 *
 * A stringbuf handle points at a NUL-terminated text that can be passed wherever a plain string
 * is read. The heap block behind it holds the capacity and the guard bytes "sTRB" before the
 * text and "Strb" after the terminator; every operation but stringbuf_alloc and stringbuf_dup
 * checks both guards first and aborts the process when either is damaged. Growth is exact: an
 * append that does not fit grows the buffer to precisely the length needed.
 */
typedef char *stringbuf;

/* A buffer for `capacity` characters holding the empty text; null when out of memory. */
QZUTILS_EXPORT stringbuf stringbuf_alloc(size_t capacity);
/* Releases a buffer; null is ignored. */
QZUTILS_EXPORT void stringbuf_free(stringbuf buf);
/* A buffer whose capacity is exactly strlen(string), holding a copy of it; null if out of memory. */
QZUTILS_EXPORT stringbuf stringbuf_dup(const char *string);
/* The number of characters the buffer holds without growing (the terminator not counted). */
QZUTILS_EXPORT size_t stringbuf_capacity(stringbuf buf);
/* Resizes to `capacity`, keeping the text (the caller makes sure it still fits); returns the
 * possibly moved handle, or null with the old handle still valid and unchanged. */
QZUTILS_EXPORT stringbuf stringbuf_expand(stringbuf buf, size_t capacity);
/* Appends `string`, growing exactly as needed; null on failure with the old buffer intact. */
QZUTILS_EXPORT stringbuf stringbuf_append(stringbuf buf, const char *string);
/* Appends `component` as a path component: one leading '/' of it is dropped, and a '/' is put
 * in between unless the text already ends with one. Null if an append failed. */
QZUTILS_EXPORT stringbuf stringbuf_append_path_component(stringbuf buf, const char *component);

#ifdef __cplusplus
}
#endif

#endif /* QZAPP_UTILS_H */
