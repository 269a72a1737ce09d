/* Shared by the units of the plain utilities; not installed. */
#ifndef QZAPP_UTILS_PRIVATE_H
#define QZAPP_UTILS_PRIVATE_H

#include <QZApp/utils.h>

#include <dirent.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The source unit named in the utilities' fatal assertion reports. */
#define UTILS_SOURCE_UNIT "app-common/QZApp/utils"

/* "PATH: strerror(errno) (at utils:SITE)\n" on standard error; errno is preserved. */
QZUTILS_EXPORT void utils_report_path(const char *path, unsigned site);
/* "utils:SITE: error (errno)\n" on standard error; errno is preserved. */
QZUTILS_EXPORT void utils_report_error(unsigned site);

/* Largest data buffer of a file or extended-attribute copy: 8 MiB. */
#define UTILS_COPY_BUFFER_MAX ((size_t)8 * 1024 * 1024)

/* Folder walks (folder_walk.c). Entry paths are built in buffers of UTILS_PATH_ROOM bytes:
 * a path that does not fit is cut, so that the nested call fails on a wrong name rather than
 * overrunning the buffer. */
#define UTILS_PATH_ROOM 1024

/* Puts `folder` and a '/' into `buffer`; returns where entry names go. */
size_t utils_path_start(char *buffer, const char *folder);
/* Puts `name` behind the first `base` bytes; false when it had to be cut. */
bool utils_path_put_name(char *buffer, size_t base, const char *name);
/* The next entry of `folder` other than "." and "..", or null: at the end with errno 0, or
 * after a failure of the reader, which is reported with `path` and `site`. */
const struct dirent *utils_next_entry(DIR *folder, const char *path, unsigned site);

/* The immutable flag (file_flags.c). Only regular files and folders carry flags; the object is
 * opened without following a final link and without blocking. */

/* Clears the immutable flag of `path`, keeping its other flags: 0, or -1 with errno. */
int utils_clear_immutable(const char *path);
/* Sets the immutable flag of `path`, or of the open `fd` when it is not -1, keeping the other
 * flags: 0, or -1 with errno. */
int utils_set_immutable(const char *path, int fd);

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
 * not written last. Null after a report (sites 222, 234, 239, 257). */
QZUTILS_EXPORT const struct volume_capabilities *utils_volume_capabilities(const char *path, int32_t device);
/* Test hooks: how many volumes were queried so far, and emptying the cache. */
QZUTILS_EXPORT unsigned long utils_volume_capability_queries(void);
QZUTILS_EXPORT void utils_volume_capabilities_reset(void);

/* The objects a copy step works on: paths, and descriptors where they are open (-1 where
 * not). A descriptor stands for the same object as its path and saves looking the path up. */
struct copy_pair {
    const char *source;
    const char *destination;
    int source_fd;
    int destination_fd;
};

/* Metadata of a copied object (metadata.c, attributes.c), in this order. */

/* What listing the source's extended attributes learnt about its access control lists. */
struct xattr_listing {
    bool listed;           /* the names were listed, so the two flags below are known */
    bool access_acl;       /* "system.posix_acl_access" was among them */
    bool default_acl;      /* "system.posix_acl_default" was among them */
};

/* The owner and group the destination has now, when known, so that an owner change that
 * changes nothing is not made. */
struct known_owner {
    bool known;
    uid_t owner;
    gid_t group;
};

/* Copies the extended attributes (sites 819, 827, 832, 845, each followed by 499). */
bool utils_copy_extended_attributes(const struct copy_pair *pair, struct xattr_listing *listing);
/* Copies the access control list, and a folder's default list (sites 512, 519). */
bool utils_copy_access_control_lists(const struct copy_pair *pair, bool folder, const struct xattr_listing *listing);
/* Gives the destination its owner and group and tells which were applied (site 528). */
bool utils_copy_owner(const struct copy_pair *pair, bool superuser, uid_t source_owner, gid_t source_group,
                      int32_t destination_device, const struct known_owner *current,
                      const copy_file_options *options, uid_t *applied_owner, gid_t *applied_group);
/* Carries modification time, permission bits and the immutable flag as both volumes keep them
 * (sites 538, 551, 582, 587). Only when this succeeds is the copy of the object a success. */
bool utils_copy_attribute_list(const struct copy_pair *pair, bool superuser, int32_t source_device,
                               int32_t destination_device, uid_t applied_owner, gid_t applied_group);

/* Copies the data of a regular file (datastream.c): from the open descriptor `source_fd`, or
 * from `source` opened here when it is -1, to `destination`, created or truncated (sites 660,
 * 698, 703). With `kept`, the descriptors stay open for the caller (source_fd and
 * destination_fd, to be closed by it) and `current` tells the destination's owner. */
bool utils_copy_data_stream(int source_fd, const char *source, const char *destination, struct copy_pair *kept,
                            struct known_owner *current);

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
