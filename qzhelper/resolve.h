/* Path resolution that a client cannot turn against the machine. */
#ifndef QZHELPER_RESOLVE_H
#define QZHELPER_RESOLVE_H

#include "peer_check.h"

#include <limits.h>

/* The most symbolic links one resolution follows. */
#define HELPER_MAX_LINKS 40

/* Where a path leads: the folder that holds its final component, open with O_PATH, and that
 * component's name ("." when the path names a folder through "/", "." or ".."). */
struct resolved {
    int folder;
    char name[NAME_MAX + 1];
};

/* Resolves the absolute `path` for `client` one component at a time: every folder is opened
 * with O_PATH | O_NOFOLLOW relative to the one before, and a symbolic link on the way is
 * followed only when root or the client owns it (ELOOP otherwise, and after
 * HELPER_MAX_LINKS links). With `follow_final` the final component is followed the same way;
 * without it, it is left as it is. Returns 0 and fills `out` (close out->folder), or an errno
 * value: EINVAL for a relative path, EACCES for one that ends on /proc, /sys or a kernel file
 * system mounted below them. */
int helper_resolve(const struct helper_client *client, const char *path, int follow_final, struct resolved *out);

/* 0 when the object open as `fd` may be acted on, EACCES when it lives on /proc, /sys or a
 * kernel file system mounted below them, or another errno value. */
int helper_check_file_system(int fd);

#endif /* QZHELPER_RESOLVE_H */
