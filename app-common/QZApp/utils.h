/* QZApp's plain utilities: a C interface with no Qt.
 *
 * Every function reports each failing step as one line on standard error, either
 * "PATH: ERROR TEXT (at utils:SITE)" or "utils:SITE: error (ERRNO)", and leaves the cause in
 * errno, which reporting never changes. Nothing throws.
 */
#ifndef QZAPP_UTILS_H
#define QZAPP_UTILS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <plist/plist.h>

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

/* Copying and deleting file-system objects.
 *
 * Both work on objects themselves, never on what a symbolic link points to. They are safe to run
 * on several threads at once (the process-wide cache of volume capabilities is shared under a
 * lock), and on request they spread one copy or deletion over several threads of their own.
 */

/* Bits of copy_file_options.flags. */
#define COPY_FILE_RECURSIVE  0x1u /* copy the entries of folders, and theirs */
#define COPY_FILE_OWNER      0x2u /* give every copied object `owner` instead of the source's */
#define COPY_FILE_GROUP      0x4u /* give every copied object `group` instead of the source's */
#define COPY_FILE_KEEP_GOING 0x8u /* go on with the next entry when one entry of a folder fails */
#define COPY_FILE_HARD_LINKS 0x10u /* objects that are hard links of each other in the source are
                                      hard links of each other in the copy (the first one copied
                                      is linked to; if its copy failed, later ones are copied on
                                      their own) */
#define COPY_FILE_PARALLEL   0x20u /* copy the entries of folders on `threads` threads, the
                                      caller's included; see copy_file */

typedef struct copy_file_options copy_file_options;

/* Called once for every object before it is copied, with the caller's context, the source path,
 * the options and the device number of the volume that holds the destination's parent folder
 * (-1 when not yet known). Returning false skips the object, and a skipped folder's entries. */
typedef bool (*copy_file_filter)(void *context, const char *source, const copy_file_options *options,
                                 int32_t destination_device);

struct copy_file_options {
    uint32_t flags;           /* COPY_FILE_* */
    uint32_t owner;           /* user id given with COPY_FILE_OWNER */
    uint32_t group;           /* group id given with COPY_FILE_GROUP */
    void *context;            /* handed to `filter` unchanged */
    copy_file_filter filter;  /* may be null */
    uint32_t threads;         /* with COPY_FILE_PARALLEL only (not read otherwise): how many threads */
};

/* Copies the object at `source` to `destination`: data, extended attributes, access control
 * lists, owner and group (when run by the superuser), modification time, permission bits and the
 * immutable flag (superuser only), as far as both volumes keep them. A regular file at the
 * destination is truncated and overwritten, any other non-folder replaced, and a folder there
 * merged into. `options` may be null: no recursion, the source's owner and group. True when the
 * object (and, as the flags demand, its entries) was copied. On failure the destination object
 * is deleted, a merged folder with all it held, unless errno is EEXIST (which is also what
 * copying a file onto itself gives); each failing step has reported its line, innermost first,
 * and errno holds the failing step's cause. */
QZUTILS_EXPORT bool copy_file(const char *source, const char *destination, const copy_file_options *options);
/* With COPY_FILE_PARALLEL and `threads` of 2 or more, the entries of folders are copied on that
 * many threads; the result, the copy and errno (set on the caller's thread) are as without it.
 * `filter` is called from one thread at a time (not necessarily the caller's), and in no fixed
 * order. Each report line is written whole; the lines of one failing object come in their order,
 * innermost first, though lines of other objects may come between them. Without keep-going, the
 * entries of a folder not yet begun when one fails are not copied, and the folder is deleted
 * once those under way have finished. */

/* Deletes the object at `path`, and for a folder everything beneath it, clearing the immutable
 * flag and adding owner write permission to folders on the way. 0 when it is gone, -1 with
 * errno set otherwise; a path that does not exist gives -1 with ENOENT and no report. */
QZUTILS_EXPORT int delete_file_object(const char *path);
/* delete_file_object on `threads` threads, the caller's included (fewer than 2: on the caller's
 * thread alone). errno is set on the caller's thread. When an entry fails, the entries of its
 * folder not yet begun are left alone and the deletion fails once those under way have ended;
 * each failing entry's lines come in their order, innermost first. */
QZUTILS_EXPORT int delete_file_object_parallel(const char *path, unsigned threads);

/* Running tools. Neither writes report lines; -1 is their only failure signal. */

/* Starts argv[0] (a path, not searched for along PATH) with the null-terminated vector `argv`
 * and an empty environment, and waits for it: its exit status (0 to 255), or -1 when it could
 * not be started or was ended by a signal. */
QZUTILS_EXPORT int run_toolx(char *const argv[]);
/* Builds the argument vector from printf-style formats, one format and its arguments per
 * element, ended by a null format, and runs it with run_toolx:
 *     run_tool("/bin/echo", "-n", "%s-%d", "a", 7, (char *)NULL);
 * Only d i o u x X (lengths hh h l ll j t z), s and a A e E f F g G (none, l or L) are accepted,
 * without '*' widths or precisions and without "%%"; anything else gives -1 before anything
 * starts. */
QZUTILS_EXPORT int run_tool(const char *format, ...);

/* Property lists (XML or binary) read from a file; null for anything else, with errno telling
 * why: that of the failed open or read, or EINVAL for a file that holds no readable list
 * (including one nested more than 512 levels deep). The caller frees the result with
 * plist_free(). */
QZUTILS_EXPORT plist_t plist_from_file(const char *path);

#ifdef __cplusplus
}
#endif

#endif /* QZAPP_UTILS_H */
