/* The peer check; see peer_check.h. */
#include "peer_check.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

unsigned long long helper_process_start_time(pid_t pid)
{
    char path[64], text[1024];
    snprintf(path, sizeof(path), "/proc/%ld/stat", (long)pid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    const ssize_t length = read(fd, text, sizeof(text) - 1);
    const int saved = errno;
    close(fd);
    if (length <= 0) {
        errno = length < 0 ? saved : EINVAL;
        return 0;
    }
    text[length] = '\0';

    /* The command name (field 2) may hold blanks and parentheses: count from the last ')'. */
    const char *field = strrchr(text, ')');
    for (int number = 2; field && number < 22; number++)
        field = strchr(field + 1, ' ');
    if (!field) {
        errno = EINVAL;
        return 0;
    }
    char *end;
    const unsigned long long start = strtoull(field + 1, &end, 10);
    if (end == field + 1 || start == 0) {
        errno = EINVAL;
        return 0;
    }
    return start;
}

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
    return 0;
}
