/* qzhelper: the reference privileged helper of the QZApp helper channel.
 *
 * Started by a client with one Unix-domain stream socket as standard input and output. It
 * reads the client's 32-byte authorization block and checks it against the socket peer, then
 * serves request lines until its input ends: see server.c for the protocol and commands.h for
 * the command words. Diagnostics go to standard error, which it shares with the client.
 *
 * To act with privileges it is started as root by a launcher (pkexec with a polkit action);
 * it will not run set-user-id or set-group-id. Running as another user than its client, it
 * asks polkit about every command (authority.h). It starts with an empty environment and the
 * root folder as its working folder, so that nothing its launcher's caller set steers it.
 */
#include "authority.h"

#include "peer_check.h"
#include "server.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(void)
{
    if (geteuid() != getuid() || getegid() != getgid()) {
        fprintf(stderr, "qzhelper: will not run set-user-id or set-group-id (real user %lu, effective user %lu): "
                        "install it as a plain program and start it as root through a launcher such as pkexec\n",
                (unsigned long)getuid(), (unsigned long)geteuid());
        return 1;
    }

    if (clearenv() != 0 || chdir("/") != 0) {
        fprintf(stderr, "qzhelper: cannot clear the environment or enter the root folder: %s\n", strerror(errno));
        return 1;
    }

    struct helper_client client;
    char reason[256];
    if (helper_accept_client(STDIN_FILENO, &client, reason, sizeof(reason)) != 0) {
        fprintf(stderr, "qzhelper: %s\n", reason);
        return 1;
    }

    struct server server;
    server_init(&server, &client);
    int status = 0;
    for (;;) {
        server_handle(&server);
        /* Answer at once; wait for the socket only when it is full. */
        if (!outbox_empty(&server.out) && outbox_send(&server.out, STDOUT_FILENO, 0) != 0)
            break;   /* the client is gone */
        /* While the client does not read its answers, read no more of its requests. */
        struct pollfd watched[2] = {
            { .fd = STDIN_FILENO, .events = server_wants_input(&server) ? POLLIN : 0 },
            { .fd = STDOUT_FILENO, .events = outbox_empty(&server.out) ? 0 : POLLOUT },
        };
        if (poll(watched, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            fprintf(stderr, "qzhelper: poll: %s\n", strerror(errno));
            status = 1;
            break;
        }
        if ((watched[1].revents & (POLLOUT | POLLERR | POLLHUP)) && outbox_send(&server.out, STDOUT_FILENO, 0) != 0)
            break;   /* the client is gone */
        if (watched[0].revents & (POLLIN | POLLERR | POLLHUP)) {
            const long got = server_read(&server, STDIN_FILENO);
            if (got < 0 && errno != ECONNRESET) {
                fprintf(stderr, "qzhelper: reading requests: %s\n", strerror(errno));
                status = 1;
            }
            if (got <= 0) {
                /* The client ended its requests: answer what came, then finish. */
                size_t handled;
                do {
                    handled = server.start;
                    server_handle(&server);
                } while (outbox_send(&server.out, STDOUT_FILENO, 1) == 0 && server_has_input(&server)
                         && server.start != handled);
                break;
            }
        }
    }
    server_free(&server);
    helper_authority_close();
    return status;
}
