/* The immutable flag of files and folders, through the inode-flags ioctl. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

/* Changes FS_IMMUTABLE_FL of the open `fd` to `set`, leaving the other flags (append-only among
 * them) alone. 0, or -1 with errno. */
static int change_immutable(int fd, bool set)
{
    int flags = 0;  /* the kernel reads and writes an int, whatever the ioctl's name says */
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) < 0)
        return -1;
    const int wanted = set ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    if (wanted != flags && ioctl(fd, FS_IOC_SETFLAGS, &wanted) < 0)
        return -1;
    return 0;
}

int utils_clear_immutable(int fd)
{
    return change_immutable(fd, false);
}

int utils_set_immutable(int fd)
{
    return change_immutable(fd, true);
}

int utils_clear_immutable_at(int folder, const char *name)
{
    const int fd = openat(folder, name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    int result = change_immutable(fd, false);
    const int saved = errno;
    if (close(fd) < 0 && result == 0)
        return -1;
    errno = saved;
    return result;
}
