/* The helper's queue of outgoing bytes and descriptors, sent without blocking so that the
 * helper always goes on reading its client's requests. */
#ifndef QZHELPER_OUTBOX_H
#define QZHELPER_OUTBOX_H

#include <stddef.h>

struct outbox_message;

struct outbox {
    struct outbox_message *head, *tail;
    size_t pending;   /* bytes queued and not yet sent */
};

/* Queues a copy of `length` bytes; `fd`, unless -1, travels with the first of them as
 * SCM_RIGHTS and is closed here once sent (or when the queue is freed). Returns 0, or -1 with
 * errno set (the descriptor is then still the caller's). */
int outbox_add(struct outbox *box, const void *bytes, size_t length, int fd);

/* True when nothing waits to be sent. */
int outbox_empty(const struct outbox *box);

/* The number of bytes that wait to be sent. */
size_t outbox_pending(const struct outbox *box);

/* Sends what the socket takes now (all of it when `wait` is set). Returns 0, or -1 with errno
 * set when the peer is gone. */
int outbox_send(struct outbox *box, int socket, int wait);

/* Drops everything still queued. */
void outbox_free(struct outbox *box);

#endif /* QZHELPER_OUTBOX_H */
