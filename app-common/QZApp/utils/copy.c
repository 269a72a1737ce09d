/* The copy engine: one object of any type, and for a folder (on request) everything beneath it.
 *
 * The destination is created by the source's type, then its metadata is carried over in a fixed
 * order (extended attributes, access control lists, owner and group, the attribute list). A
 * failure after the destination was touched deletes it again, unless the failure's errno is
 * EEXIST; each failing step reports its own line, innermost first, and errno stays the failing
 * step's.
 *
 * The two named paths are resolved as the system resolves them up to their last component, which
 * is never followed. Below them the copy goes by descriptor: each object is found by its name in
 * an open folder without following a link, opened once, and every later step works on that
 * descriptor. A folder of either tree swapped for a link while the copy goes on therefore makes
 * that entry fail (or copies the link as a link); it never leads the copy out of the two trees. */
#include "utils_private.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <search.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#define LINK_ROOM_STEP 256
#define LINK_ROOM_MAX 0xFFFFF
#define STATUS_WANTED (STATX_BASIC_STATS)
/* How far up the destination's folders the check for a copy into itself looks. */
#define ANCESTORS_MAX 4096

/* Objects of the source with more than one name, met during a copy with COPY_FILE_HARD_LINKS:
 * what became of the first of each set. The copy of the first one is held open while more of
 * its set are to come, and later ones are linked to it through its descriptor, never a path. */
enum link_state { LINK_PENDING, LINK_READY, LINK_NONE };

struct link_set {
    uint64_t device, inode;        /* the source object */
    enum link_state state;         /* its copy is under way, done and held, or failed or not held */
    int copy;                      /* the copy, when ready */
    uint32_t left;                 /* names of the set not yet met */
};

struct link_table {
    pthread_mutex_t lock;
    pthread_cond_t settled;        /* a set left LINK_PENDING */
    void *root;                    /* tsearch tree of struct link_set */
    unsigned held, held_max;       /* descriptors held, and how many may be */
};

/* What stays the same through one copy_file call. */
struct copy_context {
    const copy_file_options *options;   /* may be null */
    bool superuser;
    struct work_pool *pool;             /* null unless the copy runs on several threads */
    pthread_mutex_t *filter_lock;       /* with a pool: the filter is called under it */
    struct link_table *links;           /* null unless hard links are kept */
};

/* Where an object of the copy is: the folder holding it (-1 when the folder of a named path
 * could not be opened, with the cause in `error`), its name there and its report text. */
struct place {
    int folder;
    const char *name;
    const char *path;
    int error;
};

static bool copy_object(const struct copy_context *context, const struct place *from, const struct place *to,
                        int32_t destination_device, unsigned char type_hint);

static int compare_sets(const void *a, const void *b)
{
    const struct link_set *x = a, *y = b;
    if (x->device != y->device)
        return x->device < y->device ? -1 : 1;
    return x->inode < y->inode ? -1 : x->inode > y->inode;
}

static void free_set(void *node)
{
    struct link_set *set = node;
    if (set->state == LINK_READY)
        close(set->copy);
    free(set);
}

bool copy_file(const char *source, const char *destination, const copy_file_options *options)
{
    const uint32_t flags = options ? options->flags : 0;
    pthread_mutex_t filter_lock = PTHREAD_MUTEX_INITIALIZER;
    struct link_table links = { PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, NULL, 0, 16 };
    struct rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY && files.rlim_cur / 4 > links.held_max)
        links.held_max = (unsigned)(files.rlim_cur / 4 < 65536 ? files.rlim_cur / 4 : 65536);
    const struct copy_context context = {
        options,
        geteuid() == 0,
        (flags & COPY_FILE_PARALLEL) && (flags & COPY_FILE_RECURSIVE) ? utils_pool_start(options->threads) : NULL,
        &filter_lock,
        flags & COPY_FILE_HARD_LINKS ? &links : NULL,
    };
    struct named_object named_source, named_destination;
    struct place from = { -1, NULL, source, 0 }, to = { -1, NULL, destination, 0 };
    if (utils_open_named(source, &named_source) == 0) {
        from.folder = named_source.folder;
        from.name = named_source.name;
    } else {
        from.error = errno;
        named_source.text = NULL;
        named_source.folder = AT_FDCWD;
    }
    if (utils_open_named(destination, &named_destination) == 0) {
        to.folder = named_destination.folder;
        to.name = named_destination.name;
    } else {
        to.error = errno;
        named_destination.text = NULL;
        named_destination.folder = AT_FDCWD;
    }
    const bool ok = copy_object(&context, &from, &to, -1, DT_UNKNOWN);
    const int saved = errno;
    utils_pool_stop(context.pool);
    tdestroy(links.root, free_set);
    utils_close_named(&named_source);
    utils_close_named(&named_destination);
    errno = saved;
    return ok;
}

/* How an object with more than one name is to be copied. */
enum link_claim { LINK_FIRST, LINK_TO, LINK_ALONE };

/* Looks the source object up among the sets met so far: the first of its set (the caller then
 * settles the set), one to link to the copy `*copy` (a descriptor of the caller's own), or one
 * to copy on its own. Waits while the first of its set is being copied on another thread. */
static enum link_claim claim_link(struct link_table *table, const struct statx *status, struct link_set **found,
                                  int *copy)
{
    struct link_set key = { ((uint64_t)status->stx_dev_major << 32) | status->stx_dev_minor, status->stx_ino,
                            LINK_PENDING, -1, 0 };
    enum link_claim claim = LINK_ALONE;
    pthread_mutex_lock(&table->lock);
    struct link_set **node = tfind(&key, &table->root, compare_sets);
    if (!node) {
        struct link_set *set = malloc(sizeof *set);
        if (set)
            *set = key;
        if (set && tsearch(set, &table->root, compare_sets)) {
            *found = set;
            claim = LINK_FIRST;
        } else {
            free(set);
        }
    } else {
        struct link_set *set = *node;
        while (set->state == LINK_PENDING)
            pthread_cond_wait(&table->settled, &table->lock);
        if (set->state == LINK_READY) {
            *copy = fcntl(set->copy, F_DUPFD_CLOEXEC, 0);
            claim = *copy >= 0 ? LINK_TO : LINK_ALONE;
            if (set->left > 0 && --set->left == 0) {   /* the last of its set: nothing more links to it */
                close(set->copy);
                set->state = LINK_NONE;
                table->held--;
            }
        }
    }
    pthread_mutex_unlock(&table->lock);
    return claim;
}

/* Settles the set whose first object was copied, to `copy` (a descriptor the table then owns),
 * or, with -1, as one whose later objects are copied on their own. */
static void settle_link(struct link_table *table, struct link_set *set, const struct statx *status, int copy)
{
    pthread_mutex_lock(&table->lock);
    if (copy >= 0 && table->held < table->held_max) {
        set->state = LINK_READY;
        set->copy = copy;
        set->left = status->stx_nlink - 1;
        table->held++;
    } else {
        if (copy >= 0)
            close(copy);
        set->state = LINK_NONE;
    }
    pthread_cond_broadcast(&table->settled);
    pthread_mutex_unlock(&table->lock);
}

/* Makes the destination another name of `copy`, replacing what is in the way. The object
 * reached through the descriptor's magic link is the copy itself, a symbolic link included. */
static bool link_copy(const struct copy_record *record, int copy)
{
    char via[UTILS_FD_PATH_ROOM];
    const int folder = record->destination_folder;
    const char *name = record->destination_name;
    utils_fd_path(copy, via);
    int result = linkat(AT_FDCWD, via, folder, name, AT_SYMLINK_FOLLOW);
    if (result < 0 && errno == EEXIST && utils_delete_at(folder, name, record->destination) == 0)
        result = linkat(AT_FDCWD, via, folder, name, AT_SYMLINK_FOLLOW);
    return result == 0;
}

/* Opens the source object without following a link and without blocking and reads its status,
 * once for the whole copy of the object. A regular file or folder is opened for reading where
 * that is allowed; anything else, and what may not be read, is held path-only. The folder's
 * listing says what an entry was: for a file or folder one open is tried first. False with errno. */
static bool open_source(struct copy_record *record, unsigned char type_hint)
{
    const int folder = record->source_folder;
    const char *name = record->source_name;
    int fd = -1;
    if (type_hint == DT_REG || type_hint == DT_DIR) {
        fd = openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC
                                          | (type_hint == DT_DIR ? O_DIRECTORY : 0));
        if (fd >= 0 && (statx(fd, "", AT_EMPTY_PATH, STATUS_WANTED, &record->status) < 0
                        || !(S_ISREG(record->status.stx_mode) || S_ISDIR(record->status.stx_mode)))) {
            close(fd);
            fd = -1;
        }
        if (fd >= 0) {
            record->source_fd = fd;
            return true;
        }
    }
    fd = openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return false;
    if (statx(fd, "", AT_EMPTY_PATH, STATUS_WANTED, &record->status) < 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return false;
    }
    record->source_fd = fd;
    record->source_path_only = true;
    /* A folder's entries and a file's data want it open for reading: the same folder through
     * ".", the file by its name again if that still names the same file. */
    int readable = -1;
    if (S_ISDIR(record->status.stx_mode)) {
        readable = openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    } else if (S_ISREG(record->status.stx_mode)) {
        readable = openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        struct statx again;
        if (readable >= 0 && (statx(readable, "", AT_EMPTY_PATH, STATX_INO, &again) < 0
                              || !utils_same_object(&again, &record->status))) {
            close(readable);
            readable = -1;
        }
    }
    if (readable >= 0) {
        close(fd);
        record->source_fd = readable;
        record->source_path_only = false;
    }
    return true;
}

/* Opens what was just created at the destination, path-only, and checks that it is of `type`:
 * something else put there meanwhile fails with ELOOP (a link) or EEXIST (anything else), and is
 * not touched. The caller reports. */
static bool hold_created(struct copy_record *record, mode_t type)
{
    const int fd = openat(record->destination_folder, record->destination_name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return false;
    record->destination_fd = fd;
    record->destination_path_only = true;
    struct statx created;
    if (statx(fd, "", AT_EMPTY_PATH, STATX_TYPE | STATX_UID | STATX_GID, &created) < 0)
        return false;
    if ((created.stx_mode & S_IFMT) != type) {
        errno = S_ISLNK(created.stx_mode) ? ELOOP : EEXIST;
        return false;
    }
    record->current = (struct known_owner) { true, created.stx_uid, created.stx_gid };
    return true;
}

/* Makes a named pipe (`device` unused), device node or socket. */
static int make_node(const struct copy_record *record, mode_t mode, dev_t device)
{
    if (S_ISFIFO(mode))
        return mkfifoat(record->destination_folder, record->destination_name, mode & 07777);
    return mknodat(record->destination_folder, record->destination_name, mode, device);
}

/* Makes the node; when something is in the way (EEXIST), deletes it and, if that worked, makes
 * it once more. Reports `site` when it still fails. */
static bool make_replacing(struct copy_record *record, mode_t mode, dev_t device, unsigned site)
{
    int result = make_node(record, mode, device);
    if (result < 0 && errno == EEXIST
        && utils_delete_at(record->destination_folder, record->destination_name, record->destination) == 0)
        result = make_node(record, mode, device);
    if (result < 0 || !hold_created(record, mode & S_IFMT)) {
        utils_report_path(record->destination, site);
        return false;
    }
    return true;
}

/* Reads the text of the source link, however long, and recreates it at the destination. */
static bool copy_link(struct copy_record *record)
{
    size_t room = LINK_ROOM_STEP;
    char *text = malloc(room);
    ssize_t length;
    for (;;) {
        if (!text) {
            utils_report_path(record->source, UTILS_SITE_COPY_READ_LINK);
            return false;
        }
        length = readlinkat(record->source_fd, "", text, room - 1);
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
        utils_report_path(record->source, UTILS_SITE_COPY_READ_LINK);
        free(text);
        return false;
    }
    text[length] = '\0';
    const int folder = record->destination_folder;
    const char *name = record->destination_name;
    int result = symlinkat(text, folder, name);
    if (result < 0 && errno == EEXIST && utils_delete_at(folder, name, record->destination) == 0)
        result = symlinkat(text, folder, name);
    if (result < 0 || !hold_created(record, S_IFLNK)) {
        utils_report_path(record->destination, UTILS_SITE_COPY_MAKE_LINK);
        result = -1;
    }
    const int saved = errno;
    free(text);
    errno = saved;
    return result == 0;
}

/* Opens the destination folder, for reading where that is allowed, path-only otherwise. */
static int open_destination_folder(struct copy_record *record)
{
    const int folder = record->destination_folder;
    const char *name = record->destination_name;
    int fd = openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    record->destination_path_only = fd < 0 && errno == EACCES;
    if (record->destination_path_only)
        fd = openat(folder, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    record->destination_fd = fd;
    return fd;
}

/* Creates the destination folder owner-only, or reuses a folder already there (clearing its
 * immutable flag and, for anyone but the superuser, adding owner write permission), or replaces
 * a non-folder; then holds it open. Sets the record's destination device to the folder's. */
static bool make_folder(struct copy_record *record)
{
    const int folder = record->destination_folder;
    const char *name = record->destination_name;
    const char *destination = record->destination;
    bool reused = false;
    if (mkdirat(folder, name, 0700) < 0) {
        if (errno != EEXIST) {
            utils_report_path(destination, UTILS_SITE_COPY_MAKE_FOLDER);
            return false;
        }
        struct statx existing;
        if (statx(folder, name, AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_MODE, &existing) < 0) {
            utils_report_path(destination, UTILS_SITE_COPY_EXISTING_FOLDER);
            return false;
        }
        reused = S_ISDIR(existing.stx_mode);
        if (!reused && (unlinkat(folder, name, 0) < 0 || mkdirat(folder, name, 0700) < 0)) {
            utils_report_path(destination, UTILS_SITE_COPY_REPLACE_BY_FOLDER);
            return false;
        }
    }
    struct statx status;
    if (open_destination_folder(record) < 0
        || statx(record->destination_fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) < 0) {
        utils_report_path(destination, UTILS_SITE_COPY_FOLDER_STATUS);
        return false;
    }
    if (reused) {
        const int fd = record->destination_fd;
        const mode_t writable = (status.stx_mode & 07777) | S_IWUSR;
        char via[UTILS_FD_PATH_ROOM];
        if ((status.stx_attributes & STATX_ATTR_IMMUTABLE) && !record->destination_path_only)
            (void)utils_clear_immutable(fd);
        if (!record->superuser && !(status.stx_mode & S_IWUSR))
            (void)(record->destination_path_only ? chmod(utils_fd_path(fd, via), writable) : fchmod(fd, writable));
    }
    record->destination_device = utils_device_number(makedev(status.stx_dev_major, status.stx_dev_minor));
    record->current = (struct known_owner) { true, status.stx_uid, status.stx_gid };
    return true;
}

/* An entry of a folder handed to another thread: the two folders (held open by the folder's
 * copy, which waits for it) and its two paths, its name at their ends. */
struct copy_item {
    struct work_item item;
    const struct copy_context *context;
    int source_folder, destination_folder;
    int32_t destination_device;
    unsigned char type;
    size_t source_name_at, destination_name_at;
    char *destination;   /* behind the source path */
    char source[];
};

static void copy_item(struct work_item *item, bool cancelled)
{
    struct copy_item *entry = (struct copy_item *)item;
    const struct place from = { entry->source_folder, entry->source + entry->source_name_at, entry->source, 0 };
    const struct place to = { entry->destination_folder, entry->destination + entry->destination_name_at,
                              entry->destination, 0 };
    if (!cancelled && !copy_object(entry->context, &from, &to, entry->destination_device, entry->type)
        && !(entry->context->options->flags & COPY_FILE_KEEP_GOING)) {
        utils_report_error(UTILS_SITE_COPY_ENTRY);
        utils_group_fail(item->group, errno, true);
    }
    free(entry);
}

/* Hands the entry at the ends of the two paths over to the pool; false when out of memory. */
static bool hand_over(struct work_group *group, const struct copy_context *context, const struct place *from,
                      const struct place *to, size_t source_base, size_t destination_base, int32_t destination_device,
                      unsigned char type)
{
    const size_t source_length = strlen(from->path), destination_length = strlen(to->path);
    struct copy_item *entry = malloc(sizeof *entry + source_length + destination_length + 2);
    if (!entry)
        return false;
    *entry = (struct copy_item) { { NULL, NULL, copy_item }, context, from->folder, to->folder, destination_device,
                                  type, source_base, destination_base, entry->source + source_length + 1 };
    memcpy(entry->source, from->path, source_length + 1);
    memcpy(entry->destination, to->path, destination_length + 1);
    utils_pool_submit(group, &entry->item);
    return true;
}

/* Copies the entries of the source folder into the destination folder, both held by the record.
 * With a pool, entries go to other threads while they want work. */
static bool copy_entries(const struct copy_context *context, const struct copy_record *record)
{
    bool ok = false;
    char *source_path = NULL, *destination_path = NULL;
    struct work_group group = { .pool = context->pool };
    /* A stream of its own, so that the folder's descriptor stays the record's. */
    const int fd = record->source_path_only ? openat(record->source_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                                            : fcntl(record->source_fd, F_DUPFD_CLOEXEC, 0);
    DIR *folder = fd >= 0 ? fdopendir(fd) : NULL;
    if (!folder) {
        utils_report_path(record->source, UTILS_SITE_COPY_OPEN_FOLDER);
        if (fd >= 0)
            close(fd);
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
    const size_t source_base = utils_path_start(source_path, record->source);
    const size_t destination_base = utils_path_start(destination_path, record->destination);
    const bool keep_going = record->options->flags & COPY_FILE_KEEP_GOING;
    const struct dirent *entry;
    while ((entry = utils_next_entry(folder, record->source, UTILS_SITE_COPY_READ_ENTRY))) {
        if (utils_group_stopping(&group))
            break;   /* an entry handed over failed */
        bool copied;
        /* An entry whose paths do not fit is not copied: its reports and the filter could not
         * name it. */
        const bool source_whole = utils_path_put_name(source_path, source_base, entry->d_name);
        if (!source_whole || !utils_path_put_name(destination_path, destination_base, entry->d_name)) {
            errno = ENAMETOOLONG;
            utils_report_path(source_whole ? destination_path : source_path, UTILS_SITE_COPY_SOURCE_STATUS);
            copied = false;
        } else {
            const struct place from = { dirfd(folder), entry->d_name, source_path, 0 };
            const struct place to = { record->destination_fd, entry->d_name, destination_path, 0 };
            if (context->pool && utils_pool_wants_work(context->pool)
                && hand_over(&group, context, &from, &to, source_base, destination_base, record->destination_device,
                             entry->d_type))
                continue;
            copied = copy_object(context, &from, &to, record->destination_device, entry->d_type);
        }
        if (!copied && !keep_going) {
            utils_report_error(UTILS_SITE_COPY_ENTRY);
            goto out;
        }
    }
    ok = utils_group_finish(&group, errno);
out:;
    if (!ok)   /* after a failure of this thread's own, what was handed over stops */
        utils_group_abandon(&group);
    const int saved = errno;
    free(source_path);
    free(destination_path);
    closedir(folder);
    errno = saved;
    return ok;
}

/* Closes the record's descriptors; a failing close of a regular file's destination (its data may
 * not have reached the volume) fails the copy when nothing else had. */
static bool close_record(struct copy_record *record, bool ok)
{
    int saved = errno;
    if (record->destination_fd >= 0 && close(record->destination_fd) < 0 && ok
        && S_ISREG(record->status.stx_mode) && !record->destination_path_only) {
        utils_report_path(record->destination, UTILS_SITE_DATA_WRITE);
        ok = false;
        saved = errno;
    }
    if (record->source_fd >= 0)
        close(record->source_fd);
    record->source_fd = record->destination_fd = -1;
    errno = saved;
    return ok;
}

/* Whether the destination is the source folder or lies below it: going up through ".." from the
 * destination, or from its folder when it is not a folder yet, meets the source. */
static bool inside_source(const struct copy_record *record)
{
    int current = openat(record->destination_folder, record->destination_name,
                         O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (current < 0)
        current = openat(record->destination_folder, ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    bool inside = false;
    struct statx below = { 0 }, here;
    for (int level = 0; current >= 0 && level < ANCESTORS_MAX; level++) {
        if (statx(current, "", AT_EMPTY_PATH, STATX_INO, &here) < 0 || (level > 0 && utils_same_object(&here, &below)))
            break;   /* at the root, ".." is the root again */
        if (utils_same_object(&here, &record->status)) {
            inside = true;
            break;
        }
        const int up = openat(current, "..", O_PATH | O_DIRECTORY | O_CLOEXEC);
        close(current);
        current = up;
        below = here;
    }
    if (current >= 0)
        close(current);
    return inside;
}

/* The site of the step that creates an object of `type` at the destination. */
static unsigned creation_site(mode_t type)
{
    switch (type) {
    case S_IFIFO:
        return UTILS_SITE_COPY_MAKE_PIPE;
    case S_IFDIR:
        return UTILS_SITE_COPY_MAKE_FOLDER;
    case S_IFREG:
        return UTILS_SITE_DATA_OPEN;
    case S_IFLNK:
        return UTILS_SITE_COPY_MAKE_LINK;
    default:
        return UTILS_SITE_COPY_MAKE_NODE;
    }
}

static bool copy_object(const struct copy_context *context, const struct place *from, const struct place *to,
                        int32_t destination_device, unsigned char type_hint)
{
    const copy_file_options *options = context->options;
    if (options && options->filter) {
        if (context->pool)
            pthread_mutex_lock(context->filter_lock);
        const bool wanted = options->filter(options->context, from->path, options, destination_device);
        if (context->pool)
            pthread_mutex_unlock(context->filter_lock);
        if (!wanted)
            return true;
    }

    struct copy_record record = {
        .source = from->path,
        .destination = to->path,
        .source_folder = from->folder,
        .destination_folder = to->folder,
        .source_name = from->name,
        .destination_name = to->name,
        .source_fd = -1,
        .destination_fd = -1,
        .destination_device = destination_device,
        .superuser = context->superuser,
        .options = options,
    };
    if (from->folder == -1)
        errno = from->error;
    if (from->folder == -1 || !open_source(&record, type_hint)) {
        utils_report_path(from->path, UTILS_SITE_COPY_SOURCE_STATUS);
        return false;
    }
    const struct statx *status = &record.status;
    const dev_t source_volume = makedev(status->stx_dev_major, status->stx_dev_minor);
    const mode_t type = status->stx_mode & S_IFMT;
    record.source_device = utils_device_number(source_volume);
    /* Only the superuser gives a copy away; anyone else's copy is theirs. */
    record.owner = !context->superuser ? geteuid()
                 : options && (options->flags & COPY_FILE_OWNER) ? (uid_t)options->owner : status->stx_uid;
    record.group = !context->superuser ? getgid()
                 : options && (options->flags & COPY_FILE_GROUP) ? (gid_t)options->group : status->stx_gid;

    bool refused = false;
    if (type != S_IFIFO && type != S_IFCHR && type != S_IFBLK && type != S_IFSOCK && type != S_IFDIR
        && type != S_IFREG && type != S_IFLNK) {
        errno = ENOTSUP;
        utils_report_path(from->path, UTILS_SITE_COPY_UNSUPPORTED_TYPE);
        refused = true;
    } else if (to->folder == -1) {
        errno = to->error;
        utils_report_path(to->path, creation_site(type));
        if (type == S_IFREG)
            utils_report_error(UTILS_SITE_COPY_DATA);
        refused = true;
    } else if (type == S_IFDIR && destination_device < 0 && inside_source(&record)) {
        /* A folder copied into itself or below itself would never end. */
        errno = EINVAL;
        utils_report_path(to->path, UTILS_SITE_COPY_MAKE_FOLDER);
        refused = true;
    }
    if (refused) {   /* nothing was touched */
        close_record(&record, false);
        return false;
    }

    /* Another name of an object copied before becomes another name of its copy. */
    struct link_set *first_of_set = NULL;
    if (context->links && type != S_IFDIR && status->stx_nlink > 1) {
        int copy = -1;
        const enum link_claim claim = claim_link(context->links, status, &first_of_set, &copy);
        if (claim == LINK_TO) {
            const bool linked = link_copy(&record, copy);
            close(copy);
            if (linked) {
                close_record(&record, true);
                return true;
            }
            /* not possible here (another volume, too many links): a copy of its own instead */
        }
    }

    bool created = false;
    switch (type) {
    case S_IFIFO:
        created = make_replacing(&record, S_IFIFO | 0600, 0, UTILS_SITE_COPY_MAKE_PIPE);
        break;
    case S_IFCHR:
    case S_IFBLK:
    case S_IFSOCK:
        /* The node's device argument is the device of the volume holding the source. */
        created = make_replacing(&record, type | 0600, source_volume, UTILS_SITE_COPY_MAKE_NODE);
        break;
    case S_IFDIR:
        created = make_folder(&record)
                && (!options || !(options->flags & COPY_FILE_RECURSIVE) || copy_entries(context, &record));
        break;
    case S_IFREG:
        /* Linux files have no resource fork (the fork path of a regular file names nothing), so
         * the data stream is all there is. */
        created = utils_copy_data_stream(&record);
        if (!created)
            utils_report_error(UTILS_SITE_COPY_DATA);
        break;
    case S_IFLNK:
        created = copy_link(&record);
        break;
    }

    bool ok = false;
    if (created) {
        struct xattr_listing listing;
        ok = utils_copy_extended_attributes(&record, &listing)
                && (type == S_IFLNK || utils_copy_access_control_lists(&record, &listing))
                && utils_copy_owner(&record)
                && utils_copy_attribute_list(&record);
    }
    int kept = -1;   /* the copy, for later names of its set */
    if (first_of_set && ok)
        kept = fcntl(record.destination_fd, F_DUPFD_CLOEXEC, 0);
    ok = close_record(&record, ok);
    if (!ok) {
        const int saved = errno;
        if (saved != EEXIST)
            (void)utils_delete_at(to->folder, to->name, to->path);
        if (kept >= 0)
            close(kept);
        kept = -1;
        errno = saved;
    }
    if (first_of_set) {
        const int saved = errno;
        settle_link(context->links, first_of_set, status, kept);
        errno = saved;
    }
    return ok;
}
