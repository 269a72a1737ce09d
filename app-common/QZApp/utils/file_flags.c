/* The immutable flag of files and folders, through the inode-flags ioctl. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

/* Opens `path` for the ioctl (unless `open_fd` is given) and changes FS_IMMUTABLE_FL to `set`, leaving the other flags
 * (append-only among them) alone. 0, or -1 with errno. */
static int change_immutable(const char *path, int open_fd, bool set)
{
    int result = -1;
    const int fd = open_fd >= 0 ? open_fd : open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    int flags = 0;  /* the kernel reads and writes an int, whatever the ioctl's name says */
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) < 0)
        goto out;
    const int wanted = set ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    if (wanted != flags && ioctl(fd, FS_IOC_SETFLAGS, &wanted) < 0)
        goto out;
    result = 0;
out:
    if (fd == open_fd)
        return result;
    if (result < 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
    } else if (close(fd) < 0) {
        result = -1;
    }
    return result;
}

int utils_clear_immutable(const char *path)
{
    return change_immutable(path, -1, false);
}

int utils_set_immutable(const char *path, int fd)
{
    return change_immutable(path, fd, true);
}
