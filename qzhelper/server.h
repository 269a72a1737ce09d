/* The helper's side of the wire protocol: request lines and their data in; REPLY lines, reply
 * data and descriptors out. */
#ifndef QZHELPER_SERVER_H
#define QZHELPER_SERVER_H

#include "peer_check.h"
#include "outbox.h"

#include <stddef.h>
#include <stdint.h>

/* The longest request line accepted (a longer one is answered with E2BIG), and the largest
 * data block (a larger one is read, dropped and answered with E2BIG). */
#define HELPER_MAX_REQUEST_LINE (64 * 1024)
#define HELPER_MAX_REQUEST_DATA (64 * 1024 * 1024)

/* While more reply bytes than this wait for the client, the helper reads no more requests:
 * a client that sends without reading cannot make it hold ever more memory. */
#define HELPER_MAX_PENDING_REPLIES (64 * 1024 * 1024)

/* The most descriptors offered to one client that the helper keeps open; the oldest offer is
 * withdrawn (its descriptor closed) to make room for a new one. */
#define HELPER_MAX_HELD_DESCRIPTORS 64

struct held_descriptor {
    uint32_t id;
    int fd;
};

struct server {
    struct helper_client client;
    char *in;                         /* received bytes not yet handled: in[start..end) */
    size_t start, end, capacity;
    int skipping_line;                /* dropping the rest of a line that is too long */
    unsigned long long skip_after_line;   /* data bytes that follow that line */
    unsigned long long skip_data;     /* data bytes still to drop */
    struct outbox out;
    /* Descriptors offered, oldest first. An offer stands until the client sends ABORT for its
     * command (each GET_FD gets a duplicate), or until newer offers push it out. */
    struct held_descriptor held[HELPER_MAX_HELD_DESCRIPTORS];
    size_t held_count;
};

void server_init(struct server *server, const struct helper_client *client);
void server_free(struct server *server);

/* Reads what `socket` has now, without waiting. Returns 1 while input goes on, 0 at its end,
 * or -1 with errno set. */
long server_read(struct server *server, int socket);

/* Handles the complete requests received so far, queueing the answers, until more than
 * HELPER_MAX_PENDING_REPLIES bytes of answers wait. */
void server_handle(struct server *server);

/* True while the answers waiting allow reading more requests. */
int server_wants_input(const struct server *server);

/* True when a complete request or part of one has been received and not yet handled. */
int server_has_input(const struct server *server);

#endif /* QZHELPER_SERVER_H */
