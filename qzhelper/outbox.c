/* The outgoing queue; see outbox.h. */
#include "outbox.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

struct outbox_message {
    struct outbox_message *next;
    int fd;
    size_t length, offset;
    char bytes[];
};

int outbox_add(struct outbox *box, const void *bytes, size_t length, int fd)
{
    struct outbox_message *message = malloc(sizeof(*message) + length);
    if (!message)
        return -1;
    message->next = NULL;
    message->fd = fd;
    message->length = length;
    message->offset = 0;
    memcpy(message->bytes, bytes, length);
    if (box->tail)
        box->tail->next = message;
    else
        box->head = message;
    box->tail = message;
    box->pending += length;
    return 0;
}

int outbox_empty(const struct outbox *box)
{
    return box->head == NULL;
}

size_t outbox_pending(const struct outbox *box)
{
    return box->pending;
}

/* The most messages one sendmsg gathers. */
#define OUTBOX_GATHER 64

/* One sendmsg of what is left of the first messages: a message that carries a descriptor
 * starts a send of its own, and the descriptor goes with its first byte. */
static ssize_t send_some(int socket, struct outbox_message *first, int wait)
{
    struct iovec parts[OUTBOX_GATHER];
    size_t count = 0;
    for (struct outbox_message *message = first; message && count < OUTBOX_GATHER; message = message->next) {
        if (message != first && message->fd >= 0)
            break;
        parts[count].iov_base = message->bytes + message->offset;
        parts[count].iov_len = message->length - message->offset;
        count++;
    }
    union {
        struct cmsghdr header;
        char space[CMSG_SPACE(sizeof(int))];
    } control;
    struct msghdr header = { .msg_iov = parts, .msg_iovlen = count };
    if (first->fd >= 0) {
        memset(&control, 0, sizeof(control));
        header.msg_control = control.space;
        header.msg_controllen = sizeof(control.space);
        struct cmsghdr *rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(rights), &first->fd, sizeof(int));
    }
    return sendmsg(socket, &header, MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT));
}

int outbox_send(struct outbox *box, int socket, int wait)
{
    while (box->head) {
        const ssize_t result = send_some(socket, box->head, wait);
        if (result < 0 && errno == EINTR)
            continue;
        if (result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && !wait)
            return 0;
        if (result < 0)
            return -1;
        if (box->head->fd >= 0) {
            close(box->head->fd);   /* the receiver has its own reference now */
            box->head->fd = -1;
        }
        /* Retire what was sent whole; the rest of a message stays at the head. */
        size_t sent = (size_t)result;
        box->pending -= sent;
        while (box->head) {
            struct outbox_message *message = box->head;
            const size_t left = message->length - message->offset;
            if (sent < left) {
                message->offset += sent;
                break;
            }
            sent -= left;
            box->head = message->next;
            free(message);
        }
        if (!box->head)
            box->tail = NULL;
    }
    return 0;
}

void outbox_free(struct outbox *box)
{
    while (box->head) {
        struct outbox_message *message = box->head;
        box->head = message->next;
        if (message->fd >= 0)
            close(message->fd);
        free(message);
    }
    box->tail = NULL;
    box->pending = 0;
}
