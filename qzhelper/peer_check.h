/* Who the helper serves: the socket peer, checked against its authorization block. */
#ifndef QZHELPER_PEER_CHECK_H
#define QZHELPER_PEER_CHECK_H

#include <QZApp/helper/helper_protocol.h>

#include <stddef.h>
#include <sys/types.h>

struct helper_client {
    pid_t pid;
    uid_t uid;
    gid_t gid;
    unsigned long long start_time;   /* of process pid, in clock ticks since boot */
};

/* Reads the 32-byte authorization block from `socket` and compares it with the peer's
 * credentials (SO_PEERCRED) and that process's start time. Returns 0 and fills `client`, or -1
 * with a one-line reason in `reason`. */
int helper_accept_client(int socket, struct helper_client *client, char *reason, size_t size);

#endif /* QZHELPER_PEER_CHECK_H */
