/* Shared by the units of the plain utilities; not installed. */
#ifndef QZAPP_UTILS_PRIVATE_H
#define QZAPP_UTILS_PRIVATE_H

#include <QZApp/utils.h>

#include "report_sites.h"

#include <dirent.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Report identifiers of the utilities' one fatal assertion, the buffer guard check: the source
 * unit and line its report names. Fixed, never taken from __FILE__ or __LINE__. */
#define UTILS_SOURCE_UNIT "app-common/QZApp/utils"
#define UTILS_GUARD_CHECK_LINE 40

/* "PATH: strerror(errno) (at utils:SITE)\n" on standard error; errno is preserved. SITE is one
 * of the UTILS_SITE_* report identifiers (report_sites.h). */
QZUTILS_EXPORT void utils_report_path(const char *path, unsigned site);
/* "utils:SITE: error (errno)\n" on standard error; errno is preserved. */
QZUTILS_EXPORT void utils_report_error(unsigned site);

/* Largest data buffer of a file or extended-attribute copy: 8 MiB. */
#define UTILS_COPY_BUFFER_MAX ((size_t)8 * 1024 * 1024)

/* Folder walks (folder_walk.c). A walk works on descriptors: every object below a named one is
 * found by its name in an open folder, never by a path, so that a folder swapped for a link
 * while the walk goes on cannot lead it elsewhere. Paths are built beside it, for the report
 * lines and the copy filter only, in buffers of UTILS_PATH_ROOM bytes: an entry whose path does
 * not fit is not acted on (ENAMETOOLONG). */
#define UTILS_PATH_ROOM 1024

/* Puts `folder` and a '/' into `buffer`; returns where entry names go. */
size_t utils_path_start(char *buffer, const char *folder);
/* Puts `name` behind the first `base` bytes; false when it had to be cut. */
bool utils_path_put_name(char *buffer, size_t base, const char *name);
/* The next entry of `folder` other than "." and "..", or null: at the end with errno 0, or
 * after a failure of the reader, which is reported with `path` and `site`. */
const struct dirent *utils_next_entry(DIR *folder, const char *path, unsigned site);

/* A path the caller named, split into the folder that holds its last component, opened as the
 * system resolves it (links followed), and that last component, which is left to the caller.
 * Trailing slashes are dropped; a path of slashes only names "." in "/". */
struct named_object {
    int folder;          /* a path-only descriptor, or AT_FDCWD for a name without a slash */
    const char *name;    /* the last component */
    char *text;          /* the copy `name` points into */
};
/* 0, or -1 with errno (nothing to close then). */
int utils_open_named(const char *path, struct named_object *named);
void utils_close_named(struct named_object *named);

/* "/proc/self/fd/N" for `fd`: how the calls without a descriptor form (extended attributes, access
 * control lists, permission bits) reach an object held by a path-only (O_PATH) descriptor. The
 * magic link leads to the object itself, even to a symbolic link. */
#define UTILS_FD_PATH_ROOM 32
const char *utils_fd_path(int fd, char buffer[UTILS_FD_PATH_ROOM]);

/* Whether two statuses name the same object. */
bool utils_same_object(const struct statx *a, const struct statx *b);

/* Threads of a parallel copy or deletion (work_pool.c). A walk hands entries to the pool as
 * items while it wants work, and does them itself otherwise; a folder then waits for the items
 * it handed over (working the queue meanwhile) before it goes on to its own last steps. */
#define UTILS_POOL_THREADS_MAX 64

struct work_pool;
struct work_group;

struct work_item {
    struct work_item *next;
    struct work_group *group;
    /* Does the item (only gives up when `cancelled`: its group stopped) and frees it. */
    void (*run)(struct work_item *item, bool cancelled);
};

/* The items one folder handed over. Lives with the folder, which waits for them all. */
struct work_group {
    struct work_pool *pool;   /* null: no pool, nothing is handed over */
    unsigned pending;
    bool stopping;            /* items not yet begun are cancelled */
    bool failed;
    int error;                /* the errno of the first failure */
};

/* A pool of `threads` threads, the caller's included (at most UTILS_POOL_THREADS_MAX); null
 * for fewer than 2, or when out of memory: the work then stays on the caller's thread. */
struct work_pool *utils_pool_start(unsigned threads);
/* Waits for the threads to end; every group must have been waited for. Null is ignored. */
void utils_pool_stop(struct work_pool *pool);
/* Whether handing an item over now keeps a thread from idling. */
bool utils_pool_wants_work(struct work_pool *pool);
void utils_pool_submit(struct work_group *group, struct work_item *item);
/* Returns once every item of the group is finished; errno is kept. */
void utils_group_wait(struct work_group *group);
/* Records a failed item (the first failure's errno is kept); `stop` cancels what has not begun. */
void utils_group_fail(struct work_group *group, int error, bool stop);
bool utils_group_stopping(struct work_group *group);
/* The end of a folder's entries: waits for the items handed over, then gives false with errno
 * set to the first failure among them, or, when none failed, whether errno (what reading the
 * folder left, `read_error`) is 0, with errno set to it. */
bool utils_group_finish(struct work_group *group, int read_error);
/* After a failure of the caller's own: cancels what has not begun and waits for the rest;
 * errno is kept. Does nothing without a pool. */
void utils_group_abandon(struct work_group *group);

/* Deletion by descriptor (delete.c): deletes `name` in `folder`, and everything beneath it,
 * reporting with `path`, as delete_file_object does with a path (the root folder refused
 * included). The copy clears obstacles and removes its partial copies with it. */
int utils_delete_at(int folder, const char *name, const char *path);

/* The immutable flag (file_flags.c), on an object opened for reading (the flags ioctl takes no
 * path-only descriptor). Only regular files and folders carry flags. The other flags are kept:
 * 0, or -1 with errno. */
int utils_clear_immutable(int fd);
int utils_set_immutable(int fd);
/* Clears the flag of `name` in `folder`, opened without following a link and without blocking. */
int utils_clear_immutable_at(int folder, const char *name);

/* Volume capabilities (volume_capabilities.c).
 *
 * The common attributes a volume keeps, as bits of one word; a copy carries those that both
 * its source's and its destination's volume keep, limited to UTILS_ATTR_CARRIED (creation,
 * change and backup dates and Finder information are in that set but no Linux volume keeps
 * them). Owner and group are not carried by the attribute list but set on their own, and only
 * where the destination volume keeps them. */
#define UTILS_ATTR_MODTIME    0x00400u
#define UTILS_ATTR_OWNER      0x08000u
#define UTILS_ATTR_GROUP      0x10000u
#define UTILS_ATTR_ACCESSMASK 0x20000u
#define UTILS_ATTR_FLAGS      0x40000u
#define UTILS_ATTR_CARRIED    0x66E00u

struct volume_capabilities {
    uint32_t common;   /* UTILS_ATTR_* the volume keeps */
    int32_t device;    /* the volume's device number */
};

/* A device number folded into the signed 32 bits that options and the cache carry; never -1. */
int32_t utils_device_number(dev_t device);
/* The capabilities of the volume with `device` that holds `path`; a negative device is read
 * from the path's own status first. Of the two entries of the cache, a miss overwrites the one
 * not written last. Null after a report (UTILS_SITE_VOLUME_*). */
QZUTILS_EXPORT const struct volume_capabilities *utils_volume_capabilities(const char *path, int32_t device);
/* The same for the object open as `fd` (any descriptor, path-only ones included), which stands
 * for `path`: the path is only shown in reports. */
const struct volume_capabilities *utils_volume_capabilities_fd(int fd, const char *path, int32_t device);
/* Test hooks: how many volumes were queried so far, and emptying the cache. */
QZUTILS_EXPORT unsigned long utils_volume_capability_queries(void);
QZUTILS_EXPORT void utils_volume_capabilities_reset(void);

/* The owner and group the destination has now, when known, so that an owner change that
 * changes nothing is not made. */
struct known_owner {
    bool known;
    uid_t owner;
    gid_t group;
};

/* One object of a copy as every step sees it, read and decided once and handed down. Each side
 * is found by its name in an open folder (AT_FDCWD for a named path without a slash) and, once
 * it exists, held open: regular files and folders for reading where that is allowed, anything
 * else (and what may not be read) through a path-only (O_PATH) descriptor. The paths are the
 * texts report lines show; no step looks them up. */
struct copy_record {
    const char *source, *destination;             /* report texts */
    int source_folder, destination_folder;        /* the folders holding them */
    const char *source_name, *destination_name;   /* their names there */
    int source_fd, destination_fd;                /* the objects themselves, -1 when not open */
    bool source_path_only, destination_path_only; /* the descriptor is a path-only one */
    struct statx status;                          /* the source's, read once */
    int32_t source_device;                        /* the source's volume */
    int32_t destination_device;                   /* the destination's volume, -1 when unknown */
    bool superuser;                               /* the copy runs as the superuser */
    uid_t owner;                                  /* the owner and group the copy is to have */
    gid_t group;
    struct known_owner current;                   /* the destination's own, as far as known */
    const copy_file_options *options;             /* may be null */
};

/* Metadata of a copied object (metadata.c, attributes.c), in this order. */

/* What listing the source's extended attributes learnt about its access control lists. */
struct xattr_listing {
    bool listed;           /* the names were listed, so the two flags below are known */
    bool access_acl;       /* "system.posix_acl_access" was among them */
    bool default_acl;      /* "system.posix_acl_default" was among them */
};

/* Copies the extended attributes (UTILS_SITE_XATTR_*, each followed by UTILS_SITE_XATTR). */
bool utils_copy_extended_attributes(const struct copy_record *record, struct xattr_listing *listing);
/* Copies the access control list, and a folder's default list (UTILS_SITE_ACL_READ,
 * UTILS_SITE_ACL_SET). */
bool utils_copy_access_control_lists(const struct copy_record *record, const struct xattr_listing *listing);
/* Gives the destination the record's owner and group where its volume keeps them, unless it has
 * them already (UTILS_SITE_OWNER; when the destination's volume cannot be looked up, its report
 * and then UTILS_SITE_CAPABILITIES). Only the superuser's copies change hands. */
bool utils_copy_owner(const struct copy_record *record);
/* Carries modification time, permission bits and the immutable flag as both volumes keep them
 * (UTILS_SITE_CAPABILITIES after a volume lookup's own report, UTILS_SITE_ATTRIBUTES_*). Only
 * when this succeeds is the copy of the object a success. */
bool utils_copy_attribute_list(const struct copy_record *record);

/* Copies the data of a regular file (datastream.c) from the record's source, reopened for
 * reading when it is held path-only, to its destination, created or truncated, whose descriptor
 * and owner the record then holds (UTILS_SITE_DATA_*; a source that cannot be opened and a buffer
 * that cannot be allocated fail without a line of their own). */
bool utils_copy_data_stream(struct copy_record *record);

/* The tool runner's format walk (run_tool.c).
 *
 * The kinds of argument a format consumes, one character each: 'i' int, 'l' long, 'q' long
 * long, 'j' intmax_t, 't' ptrdiff_t, 'z' size_t, 'p' pointer, 'd' double, 'D' long double.
 * Writes at most `room` kinds (no terminator) and returns how many the format consumes, or -1
 * when it holds a conversion that is not accepted. */
QZUTILS_EXPORT int utils_run_tool_format_walk(const char *format, char *kinds, size_t room);

/* Property lists nested deeper than this are refused: the top value is at depth 0, and a value
 * at this depth is still read. The parser builds and frees its tree recursively, and so do the
 * walks of a list, so the limit is what keeps them from running out of stack. */
#define UTILS_PLIST_DEPTH_MAX 512

/* The property list in `length` bytes (XML or binary), as plist_from_file reads a file's
 * (plist.c); null with errno EINVAL for anything else. */
QZUTILS_EXPORT plist_t utils_plist_from_memory(const char *bytes, size_t length);

#ifdef __cplusplus
}
#endif

#endif /* QZAPP_UTILS_PRIVATE_H */
