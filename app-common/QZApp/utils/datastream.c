/* The data of a regular file: copied in the kernel where the two volumes allow it, and through
 * one page-aligned buffer of at most 8 MiB with positioned reads and writes otherwise. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#define CREATE_FLAGS (O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC)

/* Opens the destination for the data, created with mode 0600. A regular file in the way is
 * truncated and overwritten; anything else in the way (a folder, link, device, pipe), and a file
 * that cannot be opened (immutable, no permission), is deleted first. The source itself (the
 * same name, or a hard link to it) is never truncated: that fails with EEXIST, which also keeps
 * the clean-up from deleting it. The file is checked after it was opened, never before only, so
 * that nothing swapped in meanwhile is truncated. The descriptor, or -1 after reporting
 * UTILS_SITE_DATA_OPEN. */
static int open_destination(const struct copy_record *record)
{
    const int folder = record->destination_folder;
    const char *name = record->destination_name;
    int fd = openat(folder, name, CREATE_FLAGS, 0600);
    if (fd >= 0 || errno != EEXIST)
        goto out;
    struct statx existing;
    if (statx(folder, name, AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_INO, &existing) == 0
        && S_ISREG(existing.stx_mode)) {
        if (utils_same_object(&existing, &record->status)) {
            errno = EEXIST;
            goto out;
        }
        fd = openat(folder, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (fd < 0 && errno != EPERM && errno != EACCES && errno != ELOOP)
            goto out;
        if (fd >= 0) {
            struct statx opened;
            const bool same = statx(fd, "", AT_EMPTY_PATH, STATX_TYPE | STATX_INO, &opened) == 0
                    && S_ISREG(opened.stx_mode) && utils_same_object(&opened, &existing);
            if (same && ftruncate(fd, 0) == 0)
                goto out;
            const int saved = errno;
            close(fd);
            fd = -1;
            if (same) {   /* it could not be truncated */
                errno = saved;
                goto out;
            }
            /* something else was put there meanwhile: it goes, as anything else in the way */
        }
    }
    if (utils_delete_at(folder, name, record->destination) == 0)
        fd = openat(folder, name, CREATE_FLAGS, 0600);
out:
    if (fd < 0)
        utils_report_path(record->destination, UTILS_SITE_DATA_OPEN);
    return fd;
}

/* Writes all `length` bytes at `offset`, retrying interrupted and short writes. */
static bool write_all(int fd, const char *bytes, size_t length, off_t offset)
{
    while (length > 0) {
        const ssize_t written = pwrite(fd, bytes, length, offset);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        bytes += written;
        length -= (size_t)written;
        offset += written;
    }
    return true;
}

/* Copies from `offset` on through the buffer until `remaining` bytes were read or the source
 * ends early (a file that shrank is not an error). */
static bool copy_through_buffer(int in, int out, const char *source, const char *destination,
                                off_t offset, off_t remaining, size_t size)
{
    const size_t room = size < UTILS_COPY_BUFFER_MAX ? size : UTILS_COPY_BUFFER_MAX;
    void *buffer = NULL;
    const int error = posix_memalign(&buffer, (size_t)sysconf(_SC_PAGESIZE), room);
    if (error) {
        errno = error;
        return false;
    }
    bool ok = false;
    while (remaining > 0) {
        const size_t wanted = (off_t)room < remaining ? room : (size_t)remaining;
        const ssize_t got = pread(in, buffer, wanted, offset);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            utils_report_path(source, UTILS_SITE_DATA_READ);
            goto out;
        }
        if (got == 0)
            break;
        if (!write_all(out, buffer, (size_t)got, offset)) {
            utils_report_path(destination, UTILS_SITE_DATA_WRITE);
            goto out;
        }
        offset += got;
        remaining -= got;
    }
    ok = true;
out:;
    const int saved = errno;
    free(buffer);
    errno = saved;
    return ok;
}

/* The source open for reading: the record's descriptor, or the object it holds path-only
 * opened again through its magic link (the same object, whatever its name is now). */
static int readable_source(struct copy_record *record)
{
    if (!record->source_path_only)
        return record->source_fd;
    char via[UTILS_FD_PATH_ROOM];
    const int fd = open(utils_fd_path(record->source_fd, via), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    close(record->source_fd);
    record->source_fd = fd;
    record->source_path_only = false;
    return fd;
}

bool utils_copy_data_stream(struct copy_record *record)
{
    const char *source = record->source, *destination = record->destination;
    const int in = readable_source(record);
    if (in < 0)
        return false;
    const off_t size = (off_t)record->status.stx_size;
    const int out = open_destination(record);
    if (out < 0)
        return false;
    record->destination_fd = out;
    record->destination_path_only = false;
    struct stat created;
    record->current.known = fstat(out, &created) == 0;
    record->current.owner = created.st_uid;
    record->current.group = created.st_gid;
    /* One piece for the whole size: only worth asking for when the data takes more than one
     * transfer, since a single transfer is laid out in one piece anyway. Its result does not
     * matter. */
    if (size > (off_t)UTILS_COPY_BUFFER_MAX)
        (void)fallocate(out, FALLOC_FL_KEEP_SIZE, 0, size);

    /* In the kernel first, at most 8 MiB per call. Whatever stops it (volumes that cannot, or a
     * failure) hands the rest to the buffer, which reports a failure on the side it belongs to. */
    off_t offset = 0, remaining = size;
    while (remaining > 0) {
        loff_t in_offset = offset, out_offset = offset;
        const size_t wanted = remaining < (off_t)UTILS_COPY_BUFFER_MAX ? (size_t)remaining : UTILS_COPY_BUFFER_MAX;
        const ssize_t copied = copy_file_range(in, &in_offset, out, &out_offset, wanted, 0);
        if (copied < 0 && errno == EINTR)
            continue;
        if (copied <= 0)
            break;
        offset += copied;
        remaining -= copied;
    }
    return remaining <= 0 || copy_through_buffer(in, out, source, destination, offset, remaining, (size_t)size);
}
