/* The command words; see commands.h. */
#include "commands.h"

#include "acl.h"
#include "authority.h"
#include "resolve.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* A whole unsigned number in `base` no larger than `limit`; -1 when `text` is not one. */
static int parse_number(const char *text, int base, unsigned long limit, unsigned long *value)
{
    if (!isxdigit((unsigned char)text[0]))
        return -1;   /* no sign, no blank */
    char *end;
    errno = 0;
    const unsigned long parsed = strtoul(text, &end, base);
    if (errno != 0 || end == text || *end != '\0' || parsed > limit)
        return -1;
    *value = parsed;
    return 0;
}

/* Refuses before anything is looked up, so that a client without authority learns nothing
 * about the file system: EINVAL for a relative path, EACCES without authority. */
static int admit(const struct helper_client *client, const char *path, enum helper_action action)
{
    if (path[0] != '/')
        return EINVAL;
    return helper_authorize(client, action);
}

/* The object `name` in `folder`, open with O_PATH and not followed, if the helper may act on
 * it; -1 with errno set otherwise. */
static int open_object(int folder, const char *name)
{
    const int object = openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (object < 0)
        return -1;
    const int status = helper_check_file_system(object);
    if (status != 0) {
        close(object);
        errno = status;
        return -1;
    }
    return object;
}

/* Opens the existing object open as `object` (O_PATH) with `flags`, without waiting: FIFOs and
 * sockets are refused with EPERM, device nodes need the device action. The descriptor keeps
 * O_NONBLOCK only when `flags` asked for it. Returns a descriptor or -1 with errno set. */
static int reopen(const struct helper_client *client, int object, int flags)
{
    struct stat st;
    if (fstat(object, &st) != 0)
        return -1;
    if (S_ISLNK(st.st_mode)) {   /* not to be followed, or put there since the path was resolved */
        errno = ELOOP;
        return -1;
    }
    if (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) {
        errno = EPERM;
        return -1;
    }
    if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) {
        const int status = helper_authorize(client, HELPER_OPEN_DEVICE);
        if (status != 0) {
            errno = status;
            return -1;
        }
    }
    /* Through the descriptor, so that what was checked is what is opened. */
    char self[64];
    snprintf(self, sizeof(self), "/proc/self/fd/%d", object);
    const int fd = open(self, (flags & ~(O_CREAT | O_EXCL | O_NOFOLLOW)) | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0 && !(flags & O_NONBLOCK) && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

/* Gives the file open as `fd`, just created, to the client; on failure it is removed (`name`
 * in `folder`, unless it has none) and closed. Returns 0 or -1 with errno set. */
static int hand_over(const struct helper_client *client, int fd, int folder, const char *name)
{
    if (fchown(fd, client->uid, client->gid) == 0)
        return 0;
    const int saved = errno;
    if (name)
        unlinkat(folder, name, 0);
    close(fd);
    errno = saved;
    return -1;
}

/* Opens like open(2), through `resolved`: an existing object is opened as it is (see reopen),
 * a missing one is created exclusively with `mode` less its set-user-id, set-group-id and
 * sticky bits, and one that appears in between is opened again. With `for_client` a file it
 * creates is given to the client. Returns a descriptor or -1 with errno set. */
static int open_resolved(const struct helper_client *client, const struct resolved *resolved, int flags,
                         mode_t mode, int for_client)
{
    mode &= 0777;
    if ((flags & O_TMPFILE) == O_TMPFILE) {
        const int folder = open_object(resolved->folder, resolved->name);
        if (folder < 0)
            return -1;
        const int fd = openat(folder, ".", flags | O_CLOEXEC, mode);
        close(folder);
        return fd < 0 || !for_client || hand_over(client, fd, -1, NULL) == 0 ? fd : -1;
    }
    for (int attempt = 0; attempt < 16; attempt++) {
        const int object = open_object(resolved->folder, resolved->name);
        if (object >= 0) {
            if ((flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL)) {
                close(object);
                errno = EEXIST;
                return -1;
            }
            const int fd = reopen(client, object, flags);
            const int saved = errno;
            close(object);
            errno = saved;
            return fd;
        }
        if (errno != ENOENT || !(flags & O_CREAT))
            return -1;
        const int fd = openat(resolved->folder, resolved->name, flags | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd < 0 && errno == EEXIST)
            continue;   /* it appeared meanwhile: open it as it is */
        if (fd < 0 || !for_client || hand_over(client, fd, resolved->folder, resolved->name) == 0)
            return fd;
        return -1;
    }
    errno = EAGAIN;
    return -1;
}

static void run_access(const struct helper_client *client, int argc, char **argv, struct helper_result *result)
{
    unsigned long flags, mode, kind;
    if ((argc != 5 && argc != 6)
        || parse_number(argv[2], 16, UINT_MAX, &flags) != 0
        || parse_number(argv[3], 16, 07777, &mode) != 0
        || parse_number(argv[4], 10, 2, &kind) != 0 || kind == 0) {
        result->status = EINVAL;
        return;
    }
    /* The helper has no terminal of its own to acquire. */
    const int open_flags = (int)flags | O_NOCTTY;
    const int reads = (open_flags & O_ACCMODE) == O_RDONLY && !(open_flags & (O_CREAT | O_TRUNC | O_TMPFILE));
    if ((result->status = admit(client, argv[1], reads ? HELPER_READ_FILE : HELPER_WRITE_FILE)) != 0)
        return;
    struct resolved resolved;
    const int follow = !(open_flags & O_NOFOLLOW) || (open_flags & O_TMPFILE) == O_TMPFILE;
    if ((result->status = helper_resolve(client, argv[1], follow, &resolved)) != 0)
        return;
    const int fd = open_resolved(client, &resolved, open_flags, (mode_t)mode, kind == 1);
    if (fd < 0)
        result->status = errno;
    else
        result->fd = fd;
    close(resolved.folder);
}

static void run_chown(const struct helper_client *client, int argc, char **argv, struct helper_result *result)
{
    unsigned long uid, gid;
    if (argc != 4 || parse_number(argv[2], 10, UINT_MAX, &uid) != 0
        || parse_number(argv[3], 10, UINT_MAX, &gid) != 0) {
        result->status = EINVAL;
        return;
    }
    struct resolved resolved;
    if ((result->status = admit(client, argv[1], HELPER_CHANGE_OWNER)) != 0
        || (result->status = helper_resolve(client, argv[1], 0, &resolved)) != 0)
        return;
    const int object = open_object(resolved.folder, resolved.name);
    if (object < 0 || fchownat(object, "", (uid_t)uid, (gid_t)gid, AT_EMPTY_PATH) != 0)
        result->status = errno;
    if (object >= 0)
        close(object);
    close(resolved.folder);
}

static void run_unlink(const struct helper_client *client, int argc, char **argv, struct helper_result *result)
{
    if (argc != 2) {
        result->status = EINVAL;
        return;
    }
    struct resolved resolved;
    if ((result->status = admit(client, argv[1], HELPER_DELETE)) != 0
        || (result->status = helper_resolve(client, argv[1], 0, &resolved)) != 0)
        return;
    if (unlinkat(resolved.folder, resolved.name, 0) != 0)
        result->status = errno;
    close(resolved.folder);
}

/* Applies one access list command to `path`, which is not followed at its end. */
static int change_acl(const struct helper_client *client, const char *path, int (*change)(int, unsigned, unsigned long),
                      unsigned perms, unsigned long uid)
{
    int status = admit(client, path, HELPER_CHANGE_ACL);
    struct resolved resolved;
    if (status != 0 || (status = helper_resolve(client, path, 0, &resolved)) != 0)
        return status;
    const int object = open_object(resolved.folder, resolved.name);
    status = object < 0 ? errno : change(object, perms, uid);
    if (object >= 0)
        close(object);
    close(resolved.folder);
    return status;
}

static int authorise_user(int object, unsigned perms, unsigned long uid)
{
    return helper_authorise(object, perms, uid);
}

static int revoke_user(int object, unsigned perms, unsigned long uid)
{
    (void)perms;
    return helper_revoke(object, uid);
}

static int authorise_others(int object, unsigned perms, unsigned long uid)
{
    (void)uid;
    return helper_authorise_global(object, perms);
}

static void run_authorise(const struct helper_client *client, int argc, char **argv, struct helper_result *result)
{
    unsigned long perms, uid;
    if (argc != 4 || parse_number(argv[2], 16, 7, &perms) != 0
        || parse_number(argv[3], 10, UINT_MAX - 1, &uid) != 0) {
        result->status = EINVAL;
        return;
    }
    result->status = change_acl(client, argv[1], authorise_user, (unsigned)perms, uid);
}

static void run_revoke(const struct helper_client *client, int argc, char **argv, struct helper_result *result)
{
    unsigned long uid;
    if (argc != 3 || parse_number(argv[1], 10, UINT_MAX - 1, &uid) != 0) {
        result->status = EINVAL;
        return;
    }
    result->status = change_acl(client, argv[2], revoke_user, 0, uid);
}

static void run_authorise_global(const struct helper_client *client, int argc, char **argv, struct helper_result *result)
{
    unsigned long perms;
    if (argc != 3 || parse_number(argv[2], 10, 7, &perms) != 0) {
        result->status = EINVAL;
        return;
    }
    result->status = change_acl(client, argv[1], authorise_others, (unsigned)perms, 0);
}

void helper_run_command(const struct helper_client *client, int argc, char **argv,
                        const void *data, size_t length, struct helper_result *result)
{
    memset(result, 0, sizeof(*result));
    result->fd = -1;
    const char *word = argc > 0 ? argv[0] : "";
    if (strcmp(word, "access") == 0) {
        run_access(client, argc, argv, result);
    } else if (strcmp(word, "chown") == 0) {
        run_chown(client, argc, argv, result);
    } else if (strcmp(word, "unlink") == 0) {
        run_unlink(client, argc, argv, result);
    } else if (strcmp(word, "authorise") == 0) {
        run_authorise(client, argc, argv, result);
    } else if (strcmp(word, "revoke") == 0) {
        run_revoke(client, argc, argv, result);
    } else if (strcmp(word, "authorise_global") == 0) {
        run_authorise_global(client, argc, argv, result);
    } else if (strcmp(word, "echo") == 0 && argc == 1) {
        result->data = data;
        result->length = length;
    } else {
        result->status = EINVAL;
    }
}
