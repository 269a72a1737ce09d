/* The data of a regular file: shared with the source where the volume can share extents (a
 * clone), otherwise copied in the kernel where the two volumes allow it, and through one
 * page-aligned buffer of at most 8 MiB with positioned reads and writes otherwise. A sparse file
 * keeps its holes. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <sys/ioctl.h>
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

/* One file's data buffer: page-aligned, of at most 8 MiB, allocated when first needed. */
struct data_buffer {
    void *bytes;
    size_t room;
};

/* Copies `length` bytes at `offset` through the buffer. Sets `*ended` when the source ends
 * early (a file that shrank is not an error). */
static bool copy_through_buffer(int in, int out, const char *source, const char *destination,
                                struct data_buffer *buffer, off_t offset, off_t length, bool *ended)
{
    if (!buffer->bytes) {
        const int error = posix_memalign(&buffer->bytes, (size_t)sysconf(_SC_PAGESIZE), buffer->room);
        if (error) {
            buffer->bytes = NULL;
            errno = error;
            return false;
        }
    }
    while (length > 0) {
        const size_t wanted = (off_t)buffer->room < length ? buffer->room : (size_t)length;
        const ssize_t got = pread(in, buffer->bytes, wanted, offset);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            utils_report_path(source, UTILS_SITE_DATA_READ);
            return false;
        }
        if (got == 0) {
            *ended = true;
            break;
        }
        if (!write_all(out, buffer->bytes, (size_t)got, offset)) {
            utils_report_path(destination, UTILS_SITE_DATA_WRITE);
            return false;
        }
        offset += got;
        length -= got;
    }
    return true;
}

/* Copies `length` bytes at `offset`: in the kernel first, at most 8 MiB per call; whatever stops
 * it (volumes that cannot, or a failure) hands the rest to the buffer, which reports a failure on
 * the side it belongs to. */
static bool copy_range(int in, int out, const char *source, const char *destination, struct data_buffer *buffer,
                       off_t offset, off_t length, bool *ended)
{
    while (length > 0) {
        loff_t in_offset = offset, out_offset = offset;
        const size_t wanted = length < (off_t)UTILS_COPY_BUFFER_MAX ? (size_t)length : UTILS_COPY_BUFFER_MAX;
        const ssize_t copied = copy_file_range(in, &in_offset, out, &out_offset, wanted, 0);
        if (copied < 0 && errno == EINTR)
            continue;
        if (copied <= 0)
            break;
        offset += copied;
        length -= copied;
    }
    return length <= 0 || copy_through_buffer(in, out, source, destination, buffer, offset, length, ended);
}

/* A sparse file, extent by extent: only the ranges holding data are copied, the holes between
 * them stay holes, and the length is set at the end (shorter if the source shrank meanwhile). */
static bool copy_extents(int in, int out, const char *source, const char *destination, struct data_buffer *buffer,
                         off_t size)
{
    off_t offset = 0;
    bool ended = false;
    while (offset < size && !ended) {
        const off_t data = lseek(in, offset, SEEK_DATA);
        if (data < 0 && errno == ENXIO)
            break;   /* no data beyond `offset`: a hole up to the end, or the file ends sooner */
        const off_t hole = data < 0 ? -1 : lseek(in, data, SEEK_HOLE);
        if (hole < 0) {
            utils_report_path(source, UTILS_SITE_DATA_READ);
            return false;
        }
        if (data >= size)
            break;
        const off_t end = hole < size ? hole : size;
        if (!copy_range(in, out, source, destination, buffer, data, end - data, &ended))
            return false;
        offset = end;
    }
    struct stat now;
    const off_t length = fstat(in, &now) == 0 && now.st_size < size ? now.st_size : size;
    if (ftruncate(out, length) < 0) {
        utils_report_path(destination, UTILS_SITE_DATA_WRITE);
        return false;
    }
    return true;
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
    /* Volumes that can share extents share them: the whole file at once. */
    if (size > 0 && ioctl(out, FICLONE, in) == 0)
        return true;

    struct data_buffer buffer = { NULL, (size_t)size < UTILS_COPY_BUFFER_MAX ? (size_t)size : UTILS_COPY_BUFFER_MAX };
    bool ok, ended = false;
    /* A file that takes less room than its length has holes, which the copy keeps. */
    if ((record->status.stx_mask & STATX_BLOCKS) && (off_t)(record->status.stx_blocks * 512) < size) {
        ok = copy_extents(in, out, source, destination, &buffer, size);
    } else {
        /* One piece for the whole size: only worth asking for when the data takes more than one
         * transfer, since a single transfer is laid out in one piece anyway. Its result does
         * not matter. */
        if (size > (off_t)UTILS_COPY_BUFFER_MAX)
            (void)fallocate(out, FALLOC_FL_KEEP_SIZE, 0, size);
        ok = copy_range(in, out, source, destination, &buffer, 0, size, &ended);
    }
    const int saved = errno;
    free(buffer.bytes);
    errno = saved;
    return ok;
}
