/* Deleting a file-system object, and for a folder everything beneath it, depth first. */
#include "utils_private.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static int delete_folder(const char *path, mode_t mode);

int delete_file_object(const char *path)
{
    struct statx status;
    if (statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_MODE, &status) < 0) {
        if (errno != ENOENT)
            utils_report_path(path, UTILS_SITE_DELETE_STATUS);
        return -1;
    }
    /* Only the immutable flag is cleared; append-only stays and stops the removal. */
    if (status.stx_attributes & STATX_ATTR_IMMUTABLE)
        (void)utils_clear_immutable(path);
    if (S_ISDIR(status.stx_mode))
        return delete_folder(path, status.stx_mode);
    /* A symbolic link goes itself, never what it points to. */
    if (unlink(path) < 0) {
        utils_report_path(path, UTILS_SITE_DELETE_UNLINK);
        return -1;
    }
    return 0;
}

/* Empties the folder at `path` (status mode `mode`) and removes it. */
static int delete_folder(const char *path, mode_t mode)
{
    int result = -1;
    if (geteuid() != 0 && !(mode & S_IWUSR))
        (void)chmod(path, (mode & 07777) | S_IWUSR);
    DIR *folder = opendir(path);
    if (!folder) {
        utils_report_path(path, UTILS_SITE_DELETE_OPEN_FOLDER);
        return -1;
    }
    char *entry_path = malloc(UTILS_PATH_ROOM);
    if (!entry_path) {
        utils_report_error(UTILS_SITE_DELETE_PATH_BUFFER);
        goto out;
    }
    const size_t base = utils_path_start(entry_path, path);
    const struct dirent *entry;
    while ((entry = utils_next_entry(folder, path, UTILS_SITE_DELETE_READ_ENTRY))) {
        const bool whole = utils_path_put_name(entry_path, base, entry->d_name);
        /* What is known not to be a folder goes at once; only when that fails (an immutable
         * entry, say) does the entry take the whole way, which then reports. */
        if (entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN && whole
            && unlinkat(dirfd(folder), entry->d_name, 0) == 0)
            continue;
        if (delete_file_object(entry_path) < 0) {
            utils_report_path(entry_path, UTILS_SITE_DELETE_ENTRY);
            goto out;
        }
    }
    if (errno != 0)
        goto out;
    if (rmdir(path) < 0) {
        utils_report_path(path, UTILS_SITE_DELETE_REMOVE_FOLDER);
        goto out;
    }
    result = 0;
out:;
    const int saved = errno;
    free(entry_path);
    closedir(folder);
    errno = saved;
    return result;
}
