/* The copy engine: one object of any type, and for a folder (on request) everything beneath it.
 *
 * The destination is created by the source's type, then its metadata is carried over in a fixed
 * order (extended attributes, access control lists, owner and group, the attribute list). A
 * failure after the destination was touched deletes it again, unless the failure's errno is
 * EEXIST; each failing step reports its own line, innermost first, and errno stays the failing
 * step's. */
#include "utils_private.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#define LINK_ROOM_STEP 256
#define LINK_ROOM_MAX 0xFFFFF

/* What stays the same through one copy_file call. */
struct copy_context {
    const copy_file_options *options;   /* may be null */
    bool superuser;
};

static bool copy_object(const struct copy_context *context, const char *source, const char *destination,
                        int32_t destination_device, unsigned char type_hint);

bool copy_file(const char *source, const char *destination, const copy_file_options *options)
{
    const struct copy_context context = { options, geteuid() == 0 };
    return copy_object(&context, source, destination, -1, DT_UNKNOWN);
}

/* Runs `make` on the destination; when something is in the way (EEXIST), deletes it and, if
 * that worked, runs `make` once more. Reports `site` when it still fails. */
static bool make_replacing(const char *destination, int (*make)(const char *, mode_t, dev_t), mode_t mode,
                           dev_t device, unsigned site)
{
    int result = make(destination, mode, device);
    if (result < 0 && errno == EEXIST && delete_file_object(destination) == 0)
        result = make(destination, mode, device);
    if (result < 0) {
        utils_report_path(destination, site);
        return false;
    }
    return true;
}

static int make_fifo(const char *path, mode_t mode, dev_t device)
{
    (void)device;
    return mkfifo(path, mode);
}

/* Reads the text of the link at `source`, however long, and recreates it at `destination`. */
static bool copy_link(const char *source, const char *destination)
{
    size_t room = LINK_ROOM_STEP;
    char *text = malloc(room);
    ssize_t length;
    for (;;) {
        if (!text) {
            utils_report_path(source, UTILS_SITE_COPY_READ_LINK);
            return false;
        }
        length = readlink(source, text, room - 1);
        /* Linux cuts a text that does not fit without saying so: a full buffer may be cut. */
        if (length == (ssize_t)(room - 1)) {
            errno = ENAMETOOLONG;
            length = -1;
        }
        if (length >= 0 || errno != ENAMETOOLONG || room > LINK_ROOM_MAX)
            break;
        room += LINK_ROOM_STEP;
        char *grown = realloc(text, room);
        if (!grown)
            free(text);
        text = grown;
    }
    if (length < 0) {
        utils_report_path(source, UTILS_SITE_COPY_READ_LINK);
        free(text);
        return false;
    }
    text[length] = '\0';
    int result = symlink(text, destination);
    if (result < 0 && errno == EEXIST && delete_file_object(destination) == 0)
        result = symlink(text, destination);
    if (result < 0)
        utils_report_path(destination, UTILS_SITE_COPY_MAKE_LINK);
    const int saved = errno;
    free(text);
    errno = saved;
    return result == 0;
}

/* Creates the destination folder owner-only, or reuses a folder already there (clearing its
 * immutable flag and, for anyone but the superuser, adding owner write permission), or replaces
 * a non-folder. Sets *device to the device of the folder. */
static bool make_folder(const char *destination, bool superuser, int32_t *device, struct known_owner *current)
{
    if (mkdir(destination, 0700) < 0) {
        if (errno != EEXIST) {
            utils_report_path(destination, UTILS_SITE_COPY_MAKE_FOLDER);
            return false;
        }
        struct statx existing;
        if (statx(AT_FDCWD, destination, AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_MODE, &existing) < 0) {
            utils_report_path(destination, UTILS_SITE_COPY_EXISTING_FOLDER);
            return false;
        }
        if (S_ISDIR(existing.stx_mode)) {
            if (existing.stx_attributes & STATX_ATTR_IMMUTABLE)
                (void)utils_clear_immutable(destination);
            if (!superuser && !(existing.stx_mode & S_IWUSR))
                (void)chmod(destination, (existing.stx_mode & 07777) | S_IWUSR);
        } else if (unlink(destination) < 0 || mkdir(destination, 0700) < 0) {
            utils_report_path(destination, UTILS_SITE_COPY_REPLACE_BY_FOLDER);
            return false;
        }
    }
    struct stat folder;
    if (stat(destination, &folder) < 0) {
        utils_report_path(destination, UTILS_SITE_COPY_FOLDER_STATUS);
        return false;
    }
    *device = utils_device_number(folder.st_dev);
    *current = (struct known_owner) { true, folder.st_uid, folder.st_gid };
    return true;
}

/* Copies the entries of the folder `source` into `destination` on the volume `device`. */
static bool copy_entries(const struct copy_context *context, const char *source, const char *destination,
                         int32_t device)
{
    bool ok = false;
    char *source_path = NULL, *destination_path = NULL;
    DIR *folder = opendir(source);
    if (!folder) {
        utils_report_path(source, UTILS_SITE_COPY_OPEN_FOLDER);
        return false;
    }
    source_path = malloc(UTILS_PATH_ROOM);
    if (!source_path) {
        utils_report_error(UTILS_SITE_COPY_SOURCE_BUFFER);
        goto out;
    }
    destination_path = malloc(UTILS_PATH_ROOM);
    if (!destination_path) {
        utils_report_error(UTILS_SITE_COPY_DESTINATION_BUFFER);
        goto out;
    }
    const size_t source_base = utils_path_start(source_path, source);
    const size_t destination_base = utils_path_start(destination_path, destination);
    const struct dirent *entry;
    while ((entry = utils_next_entry(folder, source, UTILS_SITE_COPY_READ_ENTRY))) {
        utils_path_put_name(source_path, source_base, entry->d_name);
        utils_path_put_name(destination_path, destination_base, entry->d_name);
        if (!copy_object(context, source_path, destination_path, device, entry->d_type)
            && !(context->options->flags & COPY_FILE_KEEP_GOING)) {
            utils_report_error(UTILS_SITE_COPY_ENTRY);
            goto out;
        }
    }
    if (errno != 0)
        goto out;
    ok = true;
out:;
    const int saved = errno;
    free(source_path);
    free(destination_path);
    closedir(folder);
    errno = saved;
    return ok;
}

/* Closes the descriptors a data copy left open; a failing close of the destination (its data
 * may not have reached the volume) fails the copy when nothing else had. */
static bool close_pair(struct copy_pair *pair, bool ok)
{
    int saved = errno;
    if (pair->destination_fd >= 0 && close(pair->destination_fd) < 0 && ok) {
        utils_report_path(pair->destination, UTILS_SITE_DATA_WRITE);
        ok = false;
        saved = errno;
    }
    if (pair->source_fd >= 0)
        close(pair->source_fd);
    pair->source_fd = pair->destination_fd = -1;
    errno = saved;
    return ok;
}

/* Opens a source that its folder listed as a regular file and reads its status from the
 * descriptor, which saves looking its path up twice more. -1 when it is not one after all, or
 * cannot be opened: the caller then takes the usual way, which reports what is wrong. */
static int open_listed_file(const char *source, struct statx *status)
{
    const int fd = open(source, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    if (statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS, status) < 0 || !S_ISREG(status->stx_mode)) {
        close(fd);
        return -1;
    }
    return fd;
}

static bool copy_object(const struct copy_context *context, const char *source, const char *destination,
                        int32_t destination_device, unsigned char type_hint)
{
    const copy_file_options *options = context->options;
    if (options && options->filter && !options->filter(options->context, source, options, destination_device))
        return true;

    struct statx status;
    const int source_fd = type_hint == DT_REG ? open_listed_file(source, &status) : -1;
    if (source_fd < 0 && statx(AT_FDCWD, source, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &status) < 0) {
        utils_report_path(source, UTILS_SITE_COPY_SOURCE_STATUS);
        return false;
    }
    const dev_t source_volume = makedev(status.stx_dev_major, status.stx_dev_minor);
    const mode_t type = status.stx_mode & S_IFMT;
    struct copy_pair pair = { source, destination, source_fd, -1 };
    struct known_owner current = { false, 0, 0 };
    int32_t device = destination_device;
    bool created = false;
    switch (type) {
    case S_IFIFO:
        created = make_replacing(destination, make_fifo, 0600, 0, UTILS_SITE_COPY_MAKE_PIPE);
        break;
    case S_IFCHR:
    case S_IFBLK:
    case S_IFSOCK:
        /* The node's device argument is the device of the volume holding the source. */
        created = make_replacing(destination, mknod, type | 0600, source_volume, UTILS_SITE_COPY_MAKE_NODE);
        break;
    case S_IFDIR:
        created = make_folder(destination, context->superuser, &device, &current)
                && (!options || !(options->flags & COPY_FILE_RECURSIVE)
                    || copy_entries(context, source, destination, device));
        break;
    case S_IFREG:
        /* Linux files have no resource fork (the fork path of a regular file names nothing), so
         * the data stream is all there is. Its descriptors stay open for the metadata. */
        created = utils_copy_data_stream(source_fd, source, destination, &pair, &current);
        if (!created)
            utils_report_error(UTILS_SITE_COPY_DATA);
        break;
    case S_IFLNK:
        created = copy_link(source, destination);
        break;
    default:
        errno = ENOTSUP;
        utils_report_path(source, UTILS_SITE_COPY_UNSUPPORTED_TYPE);
        return false;   /* nothing was touched */
    }

    bool ok = false;
    if (created) {
        struct xattr_listing listing;
        uid_t owner;
        gid_t group;
        ok = utils_copy_extended_attributes(&pair, &listing)
                && (type == S_IFLNK || utils_copy_access_control_lists(&pair, type == S_IFDIR, &listing))
                && utils_copy_owner(&pair, context->superuser, status.stx_uid, status.stx_gid, device, &current,
                                    options, &owner, &group)
                && utils_copy_attribute_list(&pair, context->superuser, utils_device_number(source_volume), device,
                                             owner, group);
    }
    ok = close_pair(&pair, ok);
    if (!ok) {
        const int saved = errno;
        if (saved != EEXIST)
            (void)delete_file_object(destination);
        errno = saved;
    }
    return ok;
}
