/* The wire protocol, helper side; see server.h. Every request line with an identifier gets
 * exactly one REPLY, except "ID GET_FD" (answered with a newline that carries the descriptor)
 * and "ID ABORT" (which lets go of an offered descriptor). A line without an identifier is
 * logged on standard error and skipped; serving goes on. */
#include "server.h"

#include "commands.h"
#include "split.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

/* The parts of a request line "ID[+LENGTH] TEXT". */
struct request {
    int has_id;
    uint32_t id;
    int has_data;
    unsigned long long data_length;
    int malformed;        /* an identifier, but the rest is not a request */
    const char *text;
    size_t text_length;
};

void server_init(struct server *server, const struct helper_client *client)
{
    memset(server, 0, sizeof(*server));
    server->client = *client;
}

void server_free(struct server *server)
{
    free(server->in);
    outbox_free(&server->out);
    for (size_t i = 0; i < server->held_count; i++)
        close(server->held[i].fd);
    memset(server, 0, sizeof(*server));
}

/* Logs one line on standard error, with the bytes of `line` made printable. */
static void log_line(const char *what, const char *line, size_t length)
{
    fprintf(stderr, "qzhelper: %s: ", what);
    for (size_t i = 0; i < length && i < 200; i++) {
        const unsigned char c = (unsigned char)line[i];
        if (c >= 0x20 && c < 0x7f)
            fputc(c, stderr);
        else
            fprintf(stderr, "\\x%02x", c);
    }
    fputs(length > 200 ? "...\n" : "\n", stderr);
}

/* Reads a decimal number of at most `limit` from line[*at]; -1 when there is none. */
static int read_decimal(const char *line, size_t length, size_t *at, unsigned long long limit,
                        unsigned long long *value)
{
    size_t i = *at;
    unsigned long long number = 0;
    while (i < length && line[i] >= '0' && line[i] <= '9') {
        number = number * 10 + (unsigned)(line[i] - '0');
        if (number > limit)
            return -1;
        i++;
    }
    if (i == *at)
        return -1;
    *at = i;
    *value = number;
    return 0;
}

static void parse_request(const char *line, size_t length, struct request *request)
{
    memset(request, 0, sizeof(*request));
    size_t at = 0;
    unsigned long long number;
    if (read_decimal(line, length, &at, UINT32_MAX, &number) != 0)
        return;
    request->has_id = 1;
    request->id = (uint32_t)number;
    if (at < length && line[at] == '+') {
        at++;
        if (read_decimal(line, length, &at, UINT32_MAX, &request->data_length) != 0) {
            request->malformed = 1;
            return;
        }
        request->has_data = request->data_length != 0;
    }
    if (at >= length || line[at] != ' ') {
        request->malformed = 1;
        return;
    }
    request->text = line + at + 1;
    request->text_length = length - at - 1;
}

static void reply(struct server *server, uint32_t id, int status, long long size, const void *data, size_t length)
{
    char line[64];
    const int written = snprintf(line, sizeof(line), "%u REPLY %d %lld\n", id, status, size);
    if (outbox_add(&server->out, line, (size_t)written, -1) != 0
        || (length > 0 && outbox_add(&server->out, data, length, -1) != 0)) {
        fprintf(stderr, "qzhelper: cannot queue the reply to command %u: %s\n", id, strerror(errno));
        exit(1);   /* the client would wait for ever; ending the connection completes its commands */
    }
}

/* Keeps `fd` offered for command `id` until the client sends ABORT for it; when the table is
 * full, the oldest offer is closed to make room. */
static void hold_descriptor(struct server *server, uint32_t id, int fd)
{
    for (size_t i = 0; i < server->held_count; i++) {
        if (server->held[i].id == id) {   /* an old offer under a reused identifier */
            close(server->held[i].fd);
            server->held[i].fd = fd;
            return;
        }
    }
    if (server->held_count == HELPER_MAX_HELD_DESCRIPTORS) {
        close(server->held[0].fd);
        memmove(&server->held[0], &server->held[1], (server->held_count - 1) * sizeof(server->held[0]));
        server->held_count--;
    }
    server->held[server->held_count++] = (struct held_descriptor){ id, fd };
}

/* The index of the offer for `id`, or -1 when there is none. */
static long find_offer(const struct server *server, uint32_t id)
{
    for (size_t i = 0; i < server->held_count; i++) {
        if (server->held[i].id == id)
            return (long)i;
    }
    return -1;
}

/* Withdraws the offer for `id` and closes its descriptor, if there is one. */
static void withdraw_offer(struct server *server, uint32_t id)
{
    const long at = find_offer(server, id);
    if (at < 0)
        return;
    close(server->held[at].fd);
    memmove(&server->held[at], &server->held[at + 1], (server->held_count - (size_t)at - 1) * sizeof(server->held[0]));
    server->held_count--;
}

static void run_request(struct server *server, const struct request *request, const char *data)
{
    struct helper_args args;
    const int split = helper_split(request->text, request->text_length, &args);
    if (split != 0) {
        if (split == EINVAL)
            log_line("malformed command", request->text, request->text_length);
        reply(server, request->id, split, 0, NULL, 0);
        return;
    }
    struct helper_result result;
    helper_run_command(&server->client, args.argc, args.argv, data,
                       request->has_data ? (size_t)request->data_length : 0, &result);
    helper_args_free(&args);
    if (result.fd >= 0) {
        hold_descriptor(server, request->id, result.fd);
        reply(server, request->id, 0, -1, NULL, 0);
    }
    else
        reply(server, request->id, result.status, (long long)result.length, result.data, result.length);
}

static int text_is(const struct request *request, const char *word)
{
    return !request->has_data && request->text_length == strlen(word)
        && memcmp(request->text, word, request->text_length) == 0;
}

/* Handles one complete request whose data (if any) follows it in memory. */
static void dispatch(struct server *server, const struct request *request, const char *data)
{
    if (text_is(request, "GET_FD")) {
        /* Each fetch gets its own duplicate; the offer stands until ABORT. */
        const long at = find_offer(server, request->id);
        const int fd = at < 0 ? -1 : fcntl(server->held[at].fd, F_DUPFD_CLOEXEC, 0);
        if (at < 0) {
            fprintf(stderr, "qzhelper: command %u offers no descriptor\n", request->id);
        } else if (fd < 0 || outbox_add(&server->out, "\n", 1, fd) != 0) {
            if (fd >= 0)
                close(fd);
            fprintf(stderr, "qzhelper: cannot queue the descriptor of command %u\n", request->id);
        }
        return;
    }
    if (text_is(request, "ABORT")) {
        withdraw_offer(server, request->id);
        return;   /* commands finish before the next request is read: nothing else to stop */
    }
    run_request(server, request, data);
}

/* Makes room for at least `wanted` unhandled bytes in the input buffer. */
static int reserve_input(struct server *server, size_t wanted)
{
    if (server->start > 0) {
        memmove(server->in, server->in + server->start, server->end - server->start);
        server->end -= server->start;
        server->start = 0;
    }
    if (wanted <= server->capacity)
        return 0;
    size_t capacity = server->capacity ? server->capacity : 4096;
    while (capacity < wanted)
        capacity *= 2;
    char *grown = realloc(server->in, capacity);
    if (!grown)
        return -1;
    server->in = grown;
    server->capacity = capacity;
    return 0;
}

long server_read(struct server *server, int socket)
{
    if (server->end == server->capacity && reserve_input(server, server->end - server->start + 4096) != 0)
        return -1;
    for (;;) {
        const ssize_t got = recv(socket, server->in + server->end, server->capacity - server->end, MSG_DONTWAIT);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return 1;   /* woken without data: nothing ended */
        if (got <= 0)
            return (long)got;
        server->end += (size_t)got;
        return 1;
    }
}

int server_wants_input(const struct server *server)
{
    return outbox_pending(&server->out) <= HELPER_MAX_PENDING_REPLIES;
}

int server_has_input(const struct server *server)
{
    return server->end > server->start;
}

void server_handle(struct server *server)
{
    while (server_wants_input(server)) {
        const size_t held = server->end - server->start;
        if (held == 0)
            return;
        char *bytes = server->in + server->start;
        if (server->skip_data > 0) {
            const size_t dropped = server->skip_data < held ? (size_t)server->skip_data : held;
            server->start += dropped;
            server->skip_data -= dropped;
            if (server->skip_data > 0)
                return;
            continue;
        }
        const char *newline = memchr(bytes, '\n', held);
        if (server->skipping_line) {
            if (!newline) {
                server->start = server->end;
                return;
            }
            server->start += (size_t)(newline - bytes) + 1;
            server->skipping_line = 0;
            server->skip_data = server->skip_after_line;
            continue;
        }

        struct request request;
        if (!newline) {
            if (held > HELPER_MAX_REQUEST_LINE) {
                /* Answer from what the line began with, then drop the rest of it. */
                parse_request(bytes, held, &request);
                if (request.has_id) {
                    reply(server, request.id, E2BIG, 0, NULL, 0);
                    server->skip_after_line = request.has_data ? request.data_length : 0;
                } else {
                    log_line("request line too long", bytes, held);
                    server->skip_after_line = 0;
                }
                server->skipping_line = 1;
                server->start = server->end;
            }
            return;
        }

        const size_t line_length = (size_t)(newline - bytes);
        parse_request(bytes, line_length, &request);
        if (!request.has_id) {
            if (line_length > 0)
                log_line("request without an identifier", bytes, line_length);
            server->start += line_length + 1;
            continue;
        }
        if (request.malformed) {
            log_line("malformed request", bytes, line_length);
            reply(server, request.id, EINVAL, 0, NULL, 0);
            server->start += line_length + 1;
            continue;
        }
        if (line_length > HELPER_MAX_REQUEST_LINE
            || (request.has_data && request.data_length > HELPER_MAX_REQUEST_DATA)) {
            reply(server, request.id, E2BIG, 0, NULL, 0);
            server->start += line_length + 1;
            server->skip_data = request.data_length;
            continue;
        }
        const size_t whole = line_length + 1 + (size_t)request.data_length;
        if (held < whole) {
            if (reserve_input(server, whole) == 0)
                return;   /* the data is still on its way */
            reply(server, request.id, ENOMEM, 0, NULL, 0);
            server->start += line_length + 1;
            server->skip_data = request.data_length;
            continue;
        }
        dispatch(server, &request, bytes + line_length + 1);
        server->start += whole;
    }
}
