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
    return 0;
}

int outbox_empty(const struct outbox *box)
{
    return box->head == NULL;
}

/* One sendmsg of what is left of `message`, with its descriptor the first time. */
static ssize_t send_part(int socket, struct outbox_message *message, int wait)
{
    struct iovec part = { message->bytes + message->offset, message->length - message->offset };
    union {
        struct cmsghdr header;
        char space[CMSG_SPACE(sizeof(int))];
    } control;
    struct msghdr header = { .msg_iov = &part, .msg_iovlen = 1 };
    if (message->fd >= 0) {
        memset(&control, 0, sizeof(control));
        header.msg_control = control.space;
        header.msg_controllen = sizeof(control.space);
        struct cmsghdr *rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(rights), &message->fd, sizeof(int));
    }
    return sendmsg(socket, &header, MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT));
}

int outbox_send(struct outbox *box, int socket, int wait)
{
    while (box->head) {
        struct outbox_message *message = box->head;
        if (message->offset < message->length) {
            const ssize_t sent = send_part(socket, message, wait);
            if (sent < 0 && errno == EINTR)
                continue;
            if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && !wait)
                return 0;
            if (sent < 0)
                return -1;
            message->offset += (size_t)sent;
            if (message->fd >= 0) {
                close(message->fd);   /* the receiver has its own reference now */
                message->fd = -1;
            }
            if (message->offset < message->length)
                continue;
        }
        box->head = message->next;
        if (!box->head)
            box->tail = NULL;
        free(message);
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
}
