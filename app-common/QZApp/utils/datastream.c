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
 * same path, or a hard link to it) is never truncated: that fails with EEXIST, which also keeps
 * the clean-up from deleting it. The descriptor, or -1 after reporting UTILS_SITE_DATA_OPEN. */
static int open_destination(const char *destination, const struct stat *source)
{
    int fd = open(destination, CREATE_FLAGS, 0600);
    if (fd >= 0 || errno != EEXIST)
        goto out;
    struct stat existing;
    if (lstat(destination, &existing) == 0 && S_ISREG(existing.st_mode)) {
        if (existing.st_dev == source->st_dev && existing.st_ino == source->st_ino) {
            errno = EEXIST;
            goto out;
        }
        fd = open(destination, O_RDWR | O_TRUNC | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
        if (fd >= 0 || (errno != EPERM && errno != EACCES))
            goto out;
    }
    if (delete_file_object(destination) == 0)
        fd = open(destination, CREATE_FLAGS, 0600);
out:
    if (fd < 0)
        utils_report_path(destination, UTILS_SITE_DATA_OPEN);
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

bool utils_copy_data_stream(int source_fd, const char *source, const char *destination, struct copy_pair *kept,
                            struct known_owner *current)
{
    bool ok = false;
    int in = source_fd, out = -1;
    if (in < 0) {
        in = open(source, O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
        if (in < 0)
            return false;
    }
    struct stat status;
    if (fstat(in, &status) < 0)
        goto out;
    out = open_destination(destination, &status);
    if (out < 0)
        goto out;
    if (current) {
        struct stat created;
        current->known = fstat(out, &created) == 0;
        current->owner = created.st_uid;
        current->group = created.st_gid;
    }
    /* One piece for the whole size: only worth asking for when the data takes more than one
     * transfer, since a single transfer is laid out in one piece anyway. Its result does not
     * matter. */
    if (status.st_size > (off_t)UTILS_COPY_BUFFER_MAX)
        (void)fallocate(out, FALLOC_FL_KEEP_SIZE, 0, status.st_size);

    /* In the kernel first, at most 8 MiB per call. Whatever stops it (volumes that cannot, or a
     * failure) hands the rest to the buffer, which reports a failure on the side it belongs to. */
    off_t offset = 0, remaining = status.st_size;
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
    if (remaining > 0 && !copy_through_buffer(in, out, source, destination, offset, remaining, (size_t)status.st_size))
        goto out;
    ok = true;
out:;
    int saved = errno;
    if (ok && kept) {
        kept->source_fd = in;
        kept->destination_fd = out;
        return true;
    }
    if (out >= 0 && close(out) < 0 && ok) {
        utils_report_path(destination, UTILS_SITE_DATA_WRITE);
        ok = false;
        saved = errno;
    }
    if (source_fd < 0)
        close(in);
    errno = saved;
    return ok;
}
