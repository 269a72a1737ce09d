/* The reference helper's request reader (identifiers, data lengths, GET_FD, ABORT, lines too
 * long, data too large) fed arbitrary bytes in pieces. The command words are replaced by a
 * stand-in that checks its arguments, echoes the data and offers a descriptor for "access",
 * so nothing on the machine is touched. */
#include "server.h"

#include "commands.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

void helper_run_command(const struct helper_client *client, int argc, char **argv,
                        const void *data, size_t length, struct helper_result *result)
{
    (void)client;
    for (int i = 0; i < argc; i++)
        if (!argv[i])
            abort();
    if (argv[argc] != NULL)
        abort();
    *result = (struct helper_result) { .status = argc > 0 ? 0 : EINVAL, .fd = -1, .data = data, .length = length };
    if (argc > 0 && strcmp(argv[0], "access") == 0)
        result->fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct helper_client client = { 1, 0, 0, 0 };
    struct server server;
    server_init(&server, &client);
    /* Pieces of varying size, as reads would deliver them. */
    for (size_t at = 0, piece; at < size; at += piece) {
        piece = 1 + (data[at] % 61) * 17;
        if (piece > size - at)
            piece = size - at;
        if (server.capacity - server.end < piece) {
            if (!(server.in = realloc(server.in, server.end + piece)))
                abort();
            server.capacity = server.end + piece;
        }
        memcpy(server.in + server.end, data + at, piece);
        server.end += piece;
        server_handle(&server);
    }
    server_free(&server);
    return 0;
}
