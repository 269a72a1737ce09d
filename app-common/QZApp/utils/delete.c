/* Deleting a file-system object, and for a folder everything beneath it, depth first.
 *
 * Below the named object every step goes by descriptor: a folder is opened relative to its
 * parent without following a link, and its entries are removed by name in it. A folder swapped
 * for a link while the walk goes on therefore fails at its own step (ELOOP, ENOTDIR) instead of
 * leading the walk elsewhere. The walk stays on the file system of the named object: a folder of
 * another mount inside the tree (a bind mount of the same file system included) is not entered
 * (EXDEV). The root folder is never deleted. */
#include "utils_private.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* The mount the named object is on: its mount id, or its device where the kernel tells none. */
struct tree_mount {
    bool by_id;
    uint64_t id;
};

static struct tree_mount mount_of(const struct statx *status)
{
    if (status->stx_mask & STATX_MNT_ID)
        return (struct tree_mount) { true, status->stx_mnt_id };
    return (struct tree_mount) { false, ((uint64_t)status->stx_dev_major << 32) | status->stx_dev_minor };
}

static int delete_object(int parent, const char *name, const char *path, const struct tree_mount *tree,
                         struct work_pool *pool);

/* Whether `name` in `folder` is the root folder, however it was spelled. */
static bool is_root(int folder, const char *name)
{
    struct statx object, root;
    return statx(folder, name, AT_SYMLINK_NOFOLLOW, STATX_INO, &object) == 0
        && statx(AT_FDCWD, "/", 0, STATX_INO, &root) == 0 && utils_same_object(&object, &root);
}

int utils_delete_at(int folder, const char *name, const char *path)
{
    if (is_root(folder, name)) {
        errno = EPERM;
        utils_report_path("/", UTILS_SITE_DELETE_STATUS);
        return -1;
    }
    return delete_object(folder, name, path, NULL, NULL);
}

int delete_file_object_parallel(const char *path, unsigned threads)
{
    struct named_object named;
    if (utils_open_named(path, &named) < 0) {
        if (errno != ENOENT)
            utils_report_path(path, UTILS_SITE_DELETE_STATUS);
        return -1;
    }
    int result = -1;
    if (is_root(named.folder, named.name)) {
        errno = EPERM;
        utils_report_path("/", UTILS_SITE_DELETE_STATUS);
    } else {
        struct work_pool *pool = utils_pool_start(threads);
        result = delete_object(named.folder, named.name, path, NULL, pool);
        utils_pool_stop(pool);
    }
    utils_close_named(&named);
    return result;
}

int delete_file_object(const char *path)
{
    return delete_file_object_parallel(path, 1);
}

static int delete_folder(int parent, const char *name, const char *path, mode_t mode, const struct tree_mount *tree,
                         struct work_pool *pool);

/* Deletes `name` in `parent` (shown as `path`); `tree` is the mount of the named object, null
 * for the named object itself. */
static int delete_object(int parent, const char *name, const char *path, const struct tree_mount *tree,
                         struct work_pool *pool)
{
    struct statx status;
    if (statx(parent, name, AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_MODE, &status) < 0) {
        if (errno != ENOENT)
            utils_report_path(path, UTILS_SITE_DELETE_STATUS);
        return -1;
    }
    /* Only the immutable flag is cleared; append-only stays and stops the removal. */
    if (status.stx_attributes & STATX_ATTR_IMMUTABLE)
        (void)utils_clear_immutable_at(parent, name);
    if (S_ISDIR(status.stx_mode))
        return delete_folder(parent, name, path, status.stx_mode, tree, pool);
    /* A symbolic link goes itself, never what it points to. */
    if (unlinkat(parent, name, 0) < 0) {
        utils_report_path(path, UTILS_SITE_DELETE_UNLINK);
        return -1;
    }
    return 0;
}

/* Opens the folder `name` in `parent` for reading, on the mount `tree` (its own for the named
 * object): a DIR, or null after reporting UTILS_SITE_DELETE_OPEN_FOLDER. */
static DIR *open_folder(int parent, const char *name, const char *path, const struct tree_mount **tree,
                        struct tree_mount *own)
{
    const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct statx opened;
    if (fd < 0 || statx(fd, "", AT_EMPTY_PATH, STATX_MNT_ID, &opened) < 0)
        goto fail;
    *own = mount_of(&opened);
    if (!*tree)   /* the named folder: the walk stays on its mount */
        *tree = own;
    else if (own->by_id != (*tree)->by_id || own->id != (*tree)->id) {
        errno = EXDEV;
        goto fail;
    }
    DIR *folder = fdopendir(fd);
    if (folder)
        return folder;
fail:
    utils_report_path(path, UTILS_SITE_DELETE_OPEN_FOLDER);
    if (fd >= 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
    }
    return NULL;
}

/* An entry of a folder handed to another thread: its folder (held open by the folder's walk,
 * which waits for it), and its path, the name at its end. */
struct delete_item {
    struct work_item item;
    int folder;
    const struct tree_mount *tree;
    struct work_pool *pool;
    size_t name_at;
    char path[];
};

static void delete_item(struct work_item *item, bool cancelled)
{
    struct delete_item *entry = (struct delete_item *)item;
    if (!cancelled && delete_object(entry->folder, entry->path + entry->name_at, entry->path, entry->tree, entry->pool) < 0) {
        utils_report_path(entry->path, UTILS_SITE_DELETE_ENTRY);
        utils_group_fail(item->group, errno, true);
    }
    free(entry);
}

/* Hands the entry at the end of `path` over to the pool; false when out of memory. */
static bool hand_over(struct work_group *group, int folder, const char *path, size_t base,
                      const struct tree_mount *tree)
{
    const size_t length = strlen(path);
    struct delete_item *entry = malloc(sizeof *entry + length + 1);
    if (!entry)
        return false;
    *entry = (struct delete_item) { { NULL, NULL, delete_item }, folder, tree, group->pool, base };
    memcpy(entry->path, path, length + 1);
    utils_pool_submit(group, &entry->item);
    return true;
}

/* Empties the folder `name` in `parent` and removes it. With a pool, folders among its entries
 * go to other threads while they want work. */
static int delete_folder(int parent, const char *name, const char *path, mode_t mode, const struct tree_mount *tree,
                         struct work_pool *pool)
{
    int result = -1;
    struct work_group group = { .pool = pool };
    if (geteuid() != 0 && !(mode & S_IWUSR))
        (void)fchmodat(parent, name, (mode & 07777) | S_IWUSR, AT_SYMLINK_NOFOLLOW);
    struct tree_mount own;
    DIR *folder = open_folder(parent, name, path, &tree, &own);
    if (!folder)
        return -1;
    char *entry_path = malloc(UTILS_PATH_ROOM);
    if (!entry_path) {
        utils_report_error(UTILS_SITE_DELETE_PATH_BUFFER);
        goto out;
    }
    const size_t base = utils_path_start(entry_path, path);
    const struct dirent *entry;
    while ((entry = utils_next_entry(folder, path, UTILS_SITE_DELETE_READ_ENTRY))) {
        /* An entry whose path does not fit is not touched: its reports could not name it. */
        if (!utils_path_put_name(entry_path, base, entry->d_name)) {
            errno = ENAMETOOLONG;
            utils_report_path(entry_path, UTILS_SITE_DELETE_STATUS);
            utils_report_path(entry_path, UTILS_SITE_DELETE_ENTRY);
            goto out;
        }
        if (utils_group_stopping(&group))
            break;   /* an entry handed over failed */
        /* What is known not to be a folder goes at once; only when that fails (an immutable
         * entry, say) does the entry take the whole way, which then reports. */
        if (entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN && unlinkat(dirfd(folder), entry->d_name, 0) == 0)
            continue;
        if (pool && entry->d_type == DT_DIR && utils_pool_wants_work(pool)
            && hand_over(&group, dirfd(folder), entry_path, base, tree))
            continue;
        if (delete_object(dirfd(folder), entry->d_name, entry_path, tree, pool) < 0) {
            utils_report_path(entry_path, UTILS_SITE_DELETE_ENTRY);
            goto out;
        }
    }
    if (!utils_group_finish(&group, errno))
        goto out;
    /* What stands at the name now goes only if it is an (empty) folder: a link put there fails. */
    if (unlinkat(parent, name, AT_REMOVEDIR) < 0) {
        utils_report_path(path, UTILS_SITE_DELETE_REMOVE_FOLDER);
        goto out;
    }
    result = 0;
out:;
    if (result < 0)   /* after a failure of this thread's own, what was handed over stops */
        utils_group_abandon(&group);
    const int saved = errno;
    free(entry_path);
    closedir(folder);
    errno = saved;
    return result;
}
