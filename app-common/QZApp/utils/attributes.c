/* The last metadata step of a copy: modification time, permission bits and the immutable flag,
 * as far as both volumes keep them. The access time is never carried. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool utils_copy_attribute_list(const struct copy_pair *pair, bool superuser, int32_t source_device,
                               int32_t destination_device, uid_t applied_owner, gid_t applied_group)
{
    const char *source = pair->source, *destination = pair->destination;
    const int fd = pair->destination_fd;
    const struct volume_capabilities *from = utils_volume_capabilities(source, source_device);
    const uint32_t from_common = from ? from->common : 0;   /* the next lookup may overwrite it */
    const struct volume_capabilities *to = from ? utils_volume_capabilities(destination, destination_device) : NULL;
    if (!to) {
        utils_report_error(UTILS_SITE_CAPABILITIES);
        return false;
    }
    const uint32_t carried = from_common & to->common & UTILS_ATTR_CARRIED;

    struct statx status;
    const unsigned wanted = STATX_TYPE | STATX_MODE | STATX_UID | STATX_GID | STATX_MTIME;
    const int got = pair->source_fd >= 0 ? statx(pair->source_fd, "", AT_EMPTY_PATH, wanted, &status)
                                          : statx(AT_FDCWD, source, AT_SYMLINK_NOFOLLOW, wanted, &status);
    if (got < 0) {
        utils_report_path(source, UTILS_SITE_ATTRIBUTES_READ);
        return false;
    }
    /* Everything carried must have been read. */
    if (((carried & UTILS_ATTR_MODTIME) && !(status.stx_mask & STATX_MTIME))
        || ((carried & UTILS_ATTR_ACCESSMASK) && (status.stx_mask & (STATX_MODE | STATX_UID | STATX_GID))
                                                         != (STATX_MODE | STATX_UID | STATX_GID))) {
        errno = EINVAL;
        utils_report_path(source, UTILS_SITE_ATTRIBUTES_LENGTH);
        return false;
    }

    const bool link = S_ISLNK(status.stx_mode);
    if (carried & UTILS_ATTR_MODTIME) {
        const struct timespec times[2] = {
            { .tv_sec = 0, .tv_nsec = UTIME_OMIT },
            { .tv_sec = status.stx_mtime.tv_sec, .tv_nsec = status.stx_mtime.tv_nsec },
        };
        if ((fd >= 0 ? futimens(fd, times) : utimensat(AT_FDCWD, destination, times, AT_SYMLINK_NOFOLLOW)) < 0) {
            utils_report_path(destination, UTILS_SITE_ATTRIBUTES_WRITE);
            return false;
        }
    }
    if ((carried & UTILS_ATTR_ACCESSMASK) && !link) {
        mode_t mode = status.stx_mode & 07777;
        if (applied_owner != status.stx_uid)
            mode &= ~(mode_t)S_ISUID;
        if (applied_group != status.stx_gid)
            mode &= ~(mode_t)S_ISGID;
        if ((fd >= 0 ? fchmod(fd, mode) : fchmodat(AT_FDCWD, destination, mode, 0)) < 0) {
            utils_report_path(destination, UTILS_SITE_ATTRIBUTES_WRITE);
            return false;
        }
    }
    /* Only the superuser may set the immutable flag on Linux; it comes last, as it forbids
     * every change after it. */
    if ((carried & UTILS_ATTR_FLAGS) && (status.stx_attributes & STATX_ATTR_IMMUTABLE) && superuser
        && (S_ISREG(status.stx_mode) || S_ISDIR(status.stx_mode)) && utils_set_immutable(destination, fd) < 0) {
        utils_report_path(destination, UTILS_SITE_ATTRIBUTES_WRITE);
        return false;
    }
    return true;
}
