/* The privileged helper's plain C interface.
 *
 * perform_helper_command() runs one command through the process's shared helper connection and
 * blocks until the helper has replied. The wrappers below build the argument vectors of the
 * helper's file operations. Any number of threads may call at once.
 *
 *     int fd = auth_open("/var/lib/app/state", O_RDONLY);   // falls back to the helper on EACCES
 *     if (auth_unlink("/var/lib/app/old") == -1)
 *         perror("auth_unlink");
 */
#ifndef QZAPP_HELPER_COMMAND_H
#define QZAPP_HELPER_COMMAND_H

#include <QZApp/helper/helper_protocol.h>

#include <stdint.h>

#if defined(QZAPP_BUILDING_LIBRARY)
#  define QZHELPER_EXPORT __attribute__((visibility("default")))
#else
#  define QZHELPER_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Called for each progress line of a command, on the connection's receiver thread, while the
 * caller is blocked; a non-zero result asks the helper to abort the command. It must not wait
 * for the same command. */
typedef int32_t (*helper_progress_callback)(const char *progress, void *context);

/* One command. Owned by the caller and kept alive until perform_helper_command() returns. */
struct helper_command {
    int32_t argc;                 /* entries in argv */
    const char *const *argv;      /* UTF-8 strings: the command word, then its arguments */
    int32_t *fd;                  /* if not null: receives the descriptor the helper offers */
    void **reply_data;            /* if not null: a malloc'ed copy of the reply data (free it),
                                     or null when there is none */
    uint32_t *reply_length;       /* the reply data's length; required with reply_data (without
                                     it the command is not sent and the result is 10002) */
    helper_progress_callback progress;   /* may be null */
    void *context;                /* passed back to progress unchanged */
    uint32_t data_length;         /* bytes of data to send after the command line; 0 = none */
    const void *data;
};
typedef struct helper_command helper_command;

/* Sends the command and waits for the reply. Returns 0, HELPER_STATUS_FAILED (10002) when an
 * argument is not UTF-8, the helper cannot be reached, it goes away first, or a requested
 * descriptor does not come (*fd is then -1), or the helper's own status (an errno value for
 * the file operations). Reply data is stored whatever the status. */
QZHELPER_EXPORT int32_t perform_helper_command(helper_command *command);

/* The library's own bit in auth_open()'s flags: a file the helper creates is given to the
 * calling user instead of staying the helper's (sent as open kind 1 instead of 2). */
#define AUTH_O_CALLER_OWNS ((int)0x80000000)

/* Asks the helper to open `path` with `flags` and `mode` (the native open(2) values) and open
 * kind `kind` (1: a file it creates goes to the caller; 2: it stays the helper's); `extra` is
 * sent as a sixth argument when not null. Returns the status; on 0 *fd holds the descriptor. */
QZHELPER_EXPORT int32_t auth_openx(const char *path, unsigned flags, unsigned mode, unsigned kind,
                                   const char *extra, int32_t *fd);
/* open(2) that asks the helper when the caller gets EACCES. The mode follows O_CREAT or
 * O_TMPFILE, as for open(2). Returns a descriptor, or -1 with errno set (10002 when the helper
 * could not be reached). Other failures of the direct open never reach the helper. */
QZHELPER_EXPORT int auth_open(const char *path, int flags, ...);

/* Grants user `uid` the permission bits `perms` (r 4, w 2, x 1) on `path` through an access
 * control list entry. Returns the status. */
QZHELPER_EXPORT int32_t authorise_access(const char *path, unsigned perms, unsigned uid);
/* Removes user `uid`'s access control list entry from `path`. Returns the status. */
QZHELPER_EXPORT int32_t revoke_access(const char *path, unsigned uid);
/* Grants every other user the permission bits `perms` on `path`. Returns the status. */
QZHELPER_EXPORT int32_t authorise_global(const char *path, unsigned perms);

/* lchown(2) through the helper (a final symbolic link is not followed): 0, or -1 with errno. */
QZHELPER_EXPORT int auth_chown(const char *path, unsigned uid, unsigned gid);
/* unlink(2) through the helper: 0, or -1 with errno. */
QZHELPER_EXPORT int auth_unlink(const char *path);

#ifdef __cplusplus
}
#endif

#endif /* QZAPP_HELPER_COMMAND_H */
