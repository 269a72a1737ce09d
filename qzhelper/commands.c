/* The command words; see commands.h. */
#include "commands.h"

#include "acl.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
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

/* Opens like open(2) but gives a file it creates to the client: an existing file is opened
 * as it is, a missing one is created exclusively and handed over, and a file that appears in
 * between is opened again. Returns a descriptor or -1 with errno set. */
static int open_for_client(const struct helper_client *client, const char *path, int flags, mode_t mode)
{
    const int tmpfile = (flags & O_TMPFILE) == O_TMPFILE;
    for (int attempt = 0; attempt < 16; attempt++) {
        int created = tmpfile || (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL);
        int fd = -1;
        if (!created && (flags & O_CREAT)) {
            fd = open(path, flags & ~O_CREAT);
            if (fd < 0 && errno == ENOENT) {
                fd = open(path, flags | O_EXCL, mode);
                if (fd < 0 && errno == EEXIST)
                    continue;   /* it appeared meanwhile: open it as it is */
                created = 1;
            }
        } else {
            fd = open(path, flags, mode);
        }
        if (fd < 0)
            return -1;
        if (created && fchown(fd, client->uid, client->gid) != 0) {
            const int saved = errno;
            if (!tmpfile)
                unlink(path);
            close(fd);
            errno = saved;
            return -1;
        }
        return fd;
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
    const int fd = kind == 1 ? open_for_client(client, argv[1], open_flags, (mode_t)mode)
                             : open(argv[1], open_flags, (mode_t)mode);
    if (fd < 0) {
        result->status = errno;
        return;
    }
    result->fd = fd;
}

static void run_chown(int argc, char **argv, struct helper_result *result)
{
    unsigned long uid, gid;
    if (argc != 4 || parse_number(argv[2], 10, UINT_MAX, &uid) != 0
        || parse_number(argv[3], 10, UINT_MAX, &gid) != 0) {
        result->status = EINVAL;
        return;
    }
    if (fchownat(AT_FDCWD, argv[1], (uid_t)uid, (gid_t)gid, AT_SYMLINK_NOFOLLOW) != 0)
        result->status = errno;
}

static void run_unlink(int argc, char **argv, struct helper_result *result)
{
    if (argc != 2) {
        result->status = EINVAL;
        return;
    }
    if (unlink(argv[1]) != 0)
        result->status = errno;
}

static void run_authorise(int argc, char **argv, struct helper_result *result)
{
    unsigned long perms, uid;
    if (argc != 4 || parse_number(argv[2], 16, 7, &perms) != 0
        || parse_number(argv[3], 10, UINT_MAX - 1, &uid) != 0) {
        result->status = EINVAL;
        return;
    }
    result->status = helper_authorise(argv[1], (unsigned)perms, uid);
}

static void run_revoke(int argc, char **argv, struct helper_result *result)
{
    unsigned long uid;
    if (argc != 3 || parse_number(argv[1], 10, UINT_MAX - 1, &uid) != 0) {
        result->status = EINVAL;
        return;
    }
    result->status = helper_revoke(argv[2], uid);
}

static void run_authorise_global(int argc, char **argv, struct helper_result *result)
{
    unsigned long perms;
    if (argc != 3 || parse_number(argv[2], 10, 7, &perms) != 0) {
        result->status = EINVAL;
        return;
    }
    result->status = helper_authorise_global(argv[1], (unsigned)perms);
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
        run_chown(argc, argv, result);
    } else if (strcmp(word, "unlink") == 0) {
        run_unlink(argc, argv, result);
    } else if (strcmp(word, "authorise") == 0) {
        run_authorise(argc, argv, result);
    } else if (strcmp(word, "revoke") == 0) {
        run_revoke(argc, argv, result);
    } else if (strcmp(word, "authorise_global") == 0) {
        run_authorise_global(argc, argv, result);
    } else if (strcmp(word, "echo") == 0 && argc == 1) {
        result->data = data;
        result->length = length;
    } else {
        result->status = EINVAL;
    }
}
