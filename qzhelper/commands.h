/* The command words the helper carries out. */
#ifndef QZHELPER_COMMANDS_H
#define QZHELPER_COMMANDS_H

#include "peer_check.h"

#include <stddef.h>

struct helper_result {
    int status;          /* 0 or an errno value */
    int fd;              /* a descriptor to offer (REPLY size -1), or -1 */
    const void *data;    /* reply data, or null */
    size_t length;
};

/* Carries out one command:
 *   access PATH FLAGS MODE KIND [EXTRA]  open(2) with FLAGS and MODE (hexadecimal); KIND 1
 *                                        gives a file it creates to the client, 2 keeps it the
 *                                        helper's; EXTRA is reserved. Offers the descriptor.
 *   chown PATH UID GID                   lchown(2)
 *   unlink PATH                          unlink(2)
 *   authorise PATH PERMS UID             adds PERMS (hexadecimal, r 4 w 2 x 1) to user UID's
 *                                        access control list entry
 *   revoke UID PATH                      removes user UID's entry
 *   authorise_global PATH PERMS          adds PERMS (decimal) to the entry of all other users
 *   echo                                 replies with the request's data
 * An unknown word or malformed arguments give EINVAL, and so does a relative PATH. Every
 * command but echo first needs the client's authority for its kind of operation (EACCES
 * without it), then resolves PATH safely (resolve.h). A final symbolic link is never followed
 * except by access, which follows what open(2) follows. Access opens without waiting, refuses
 * FIFOs and sockets (EPERM), opens device nodes only with the device authority and creates
 * files without set-user-id, set-group-id and sticky bits. */
void helper_run_command(const struct helper_client *client, int argc, char **argv,
                        const void *data, size_t length, struct helper_result *result);

#endif /* QZHELPER_COMMANDS_H */
