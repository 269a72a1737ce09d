/* The peer check; see peer_check.h. */
#include "peer_check.h"

#include <QZApp/helper/process_start_time.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

/* Reads exactly `length` bytes; -1 at an error or a premature end. */
static int read_exactly(int socket, void *bytes, size_t length)
{
    size_t have = 0;
    while (have < length) {
        const ssize_t got = recv(socket, (char *)bytes + have, length - have, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return -1;
        have += (size_t)got;
    }
    return 0;
}

int helper_accept_client(int socket, struct helper_client *client, char *reason, size_t size)
{
    struct ucred peer;
    socklen_t peer_size = sizeof(peer);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &peer_size) != 0) {
        snprintf(reason, size, "standard input is not a client's socket (%s)", strerror(errno));
        return -1;
    }

    struct helper_authorization block;
    if (read_exactly(socket, &block, sizeof(block)) != 0) {
        snprintf(reason, size, "the client sent no authorization block");
        return -1;
    }
    if (block.pid != (int32_t)peer.pid || block.uid != (uint32_t)peer.uid) {
        snprintf(reason, size, "authorization block names process %ld of user %lu, but the peer is process %ld of user %lu",
                 (long)block.pid, (unsigned long)block.uid, (long)peer.pid, (unsigned long)peer.uid);
        return -1;
    }
    const unsigned long long started = helper_process_start_time(peer.pid);
    if (started == 0 || started != block.start_time) {
        snprintf(reason, size, "authorization block does not match the start time of process %ld", (long)peer.pid);
        return -1;
    }
    client->pid = peer.pid;
    client->uid = peer.uid;
    client->gid = peer.gid;
    client->start_time = started;
    return 0;
}
