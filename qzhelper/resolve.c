/* Path resolution; see resolve.h. The walk keeps the text still to resolve in one buffer: a
 * followed link's target takes the place of the component that named it. */
#include "resolve.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

/* Kernel file systems that linux/magic.h does not name. */
#define HELPER_CONFIGFS_MAGIC 0x62656570
#define HELPER_FUSECTL_MAGIC 0x65735543

int helper_check_file_system(int fd)
{
    struct statfs fs;
    if (fstatfs(fd, &fs) != 0)
        return errno;
    switch ((unsigned long)fs.f_type) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case CGROUP_SUPER_MAGIC:
    case CGROUP2_SUPER_MAGIC:
    case DEBUGFS_MAGIC:
    case TRACEFS_MAGIC:
    case SECURITYFS_MAGIC:
    case BPF_FS_MAGIC:
    case PSTOREFS_MAGIC:
    case EFIVARFS_MAGIC:
    case BINFMTFS_MAGIC:
    case HELPER_CONFIGFS_MAGIC:
    case HELPER_FUSECTL_MAGIC:
        return EACCES;
    default:
        return 0;
    }
}

static int open_root(void)
{
    return open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
}

/* Replaces the folder in `*folder` by `next`. */
static void move_to(int *folder, int next)
{
    close(*folder);
    *folder = next;
}

int helper_resolve(const struct helper_client *client, const char *path, int follow_final, struct resolved *out)
{
    if (path[0] != '/')
        return EINVAL;
    char pending[PATH_MAX];
    if (strlen(path) >= sizeof(pending))
        return ENAMETOOLONG;
    strcpy(pending, path);

    int folder = open_root();
    if (folder < 0)
        return errno;
    int status = 0, links = 0;
    size_t at = 0;
    for (;;) {
        while (pending[at] == '/')
            at++;
        if (pending[at] == '\0') {   /* the path names the folder reached */
            strcpy(out->name, ".");
            break;
        }
        size_t end = at;
        while (pending[end] != '\0' && pending[end] != '/')
            end++;
        if (end - at > NAME_MAX) {
            status = ENAMETOOLONG;
            break;
        }
        char component[NAME_MAX + 1];
        memcpy(component, pending + at, end - at);
        component[end - at] = '\0';
        size_t next = end;
        while (pending[next] == '/')
            next++;
        /* A final component with a slash after it must be a folder: it is followed. */
        const int final = pending[next] == '\0', plain_final = final && next == end;

        if (strcmp(component, ".") == 0) {
            at = next;
            continue;
        }
        if (strcmp(component, "..") == 0) {   /* ".." of the root is the root */
            const int parent = openat(folder, "..", O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (parent < 0) {
                status = errno;
                break;
            }
            move_to(&folder, parent);
            at = next;
            continue;
        }
        if (plain_final && !follow_final) {
            strcpy(out->name, component);
            break;
        }
        const int object = openat(folder, component, O_PATH | O_NOFOLLOW | O_CLOEXEC);
        if (object < 0) {
            if (final && errno == ENOENT) {   /* a name to create */
                strcpy(out->name, component);
                break;
            }
            status = errno;
            break;
        }
        struct stat st;
        if (fstat(object, &st) != 0) {
            status = errno;
            close(object);
            break;
        }
        if (S_ISLNK(st.st_mode)) {
            /* Someone else's link could lead anywhere the helper may go. */
            if ((st.st_uid != 0 && st.st_uid != client->uid) || ++links > HELPER_MAX_LINKS) {
                status = ELOOP;
                close(object);
                break;
            }
            char target[PATH_MAX];
            const ssize_t length = readlinkat(object, "", target, sizeof(target));
            close(object);
            if (length <= 0 || (size_t)length >= sizeof(target)) {
                status = length < 0 ? errno : length == 0 ? ENOENT : ENAMETOOLONG;
                break;
            }
            target[length] = '\0';
            char joined[PATH_MAX];
            if ((size_t)snprintf(joined, sizeof(joined), "%s%s", target, pending + end) >= sizeof(joined)) {
                status = ENAMETOOLONG;
                break;
            }
            strcpy(pending, joined);
            at = 0;
            if (target[0] == '/') {
                const int root = open_root();
                if (root < 0) {
                    status = errno;
                    break;
                }
                move_to(&folder, root);
            }
            continue;
        }
        if (plain_final) {
            close(object);
            strcpy(out->name, component);
            break;
        }
        if (!S_ISDIR(st.st_mode)) {
            close(object);
            status = ENOTDIR;
            break;
        }
        move_to(&folder, object);
        at = next;
    }
    if (status == 0)
        status = helper_check_file_system(folder);
    if (status != 0) {
        close(folder);
        return status;
    }
    out->folder = folder;
    return 0;
}
