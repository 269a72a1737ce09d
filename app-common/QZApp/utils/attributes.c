/* The last metadata step of a copy: modification time, permission bits and the immutable flag,
 * as far as both volumes keep them. The access time is never carried. Everything is read from
 * the status the copy read once and written through the destination's descriptor. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/* Sets the permission bits of the destination: through its descriptor, or the magic link of a
 * path-only one (a symbolic link never gets here). */
static int set_mode(const struct copy_record *record, mode_t mode)
{
    if (!record->destination_path_only)
        return fchmod(record->destination_fd, mode);
    char via[UTILS_FD_PATH_ROOM];
    return chmod(utils_fd_path(record->destination_fd, via), mode);
}

bool utils_copy_attribute_list(const struct copy_record *record)
{
    const char *source = record->source, *destination = record->destination;
    const int fd = record->destination_fd;
    const struct volume_capabilities *from =
            utils_volume_capabilities_fd(record->source_fd, source, record->source_device);
    const uint32_t from_common = from ? from->common : 0;   /* the next lookup may overwrite it */
    const struct volume_capabilities *to =
            from ? utils_volume_capabilities_fd(fd, destination, record->destination_device) : NULL;
    if (!to) {
        utils_report_error(UTILS_SITE_CAPABILITIES);
        return false;
    }
    const uint32_t carried = from_common & to->common & UTILS_ATTR_CARRIED;

    /* Everything carried must have been read. */
    const struct statx *status = &record->status;
    if (((carried & UTILS_ATTR_MODTIME) && !(status->stx_mask & STATX_MTIME))
        || ((carried & UTILS_ATTR_ACCESSMASK) && (status->stx_mask & (STATX_MODE | STATX_UID | STATX_GID))
                                                         != (STATX_MODE | STATX_UID | STATX_GID))) {
        errno = EINVAL;
        utils_report_path(source, UTILS_SITE_ATTRIBUTES_LENGTH);
        return false;
    }

    const bool link = S_ISLNK(status->stx_mode);
    if (carried & UTILS_ATTR_MODTIME) {
        const struct timespec times[2] = {
            { .tv_sec = 0, .tv_nsec = UTIME_OMIT },
            { .tv_sec = status->stx_mtime.tv_sec, .tv_nsec = status->stx_mtime.tv_nsec },
        };
        if (utimensat(fd, "", times, AT_EMPTY_PATH) < 0) {
            utils_report_path(destination, UTILS_SITE_ATTRIBUTES_WRITE);
            return false;
        }
    }
    if ((carried & UTILS_ATTR_ACCESSMASK) && !link) {
        mode_t mode = status->stx_mode & 07777;
        if (record->owner != status->stx_uid)
            mode &= ~(mode_t)S_ISUID;
        if (record->group != status->stx_gid)
            mode &= ~(mode_t)S_ISGID;
        if (set_mode(record, mode) < 0) {
            utils_report_path(destination, UTILS_SITE_ATTRIBUTES_WRITE);
            return false;
        }
    }
    /* Only the superuser may set the immutable flag on Linux; it comes last, as it forbids
     * every change after it. */
    if ((carried & UTILS_ATTR_FLAGS) && (status->stx_attributes & STATX_ATTR_IMMUTABLE) && record->superuser
        && (S_ISREG(status->stx_mode) || S_ISDIR(status->stx_mode)) && utils_set_immutable(fd) < 0) {
        utils_report_path(destination, UTILS_SITE_ATTRIBUTES_WRITE);
        return false;
    }
    return true;
}
