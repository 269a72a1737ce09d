/* A scriptable stand-in for a helper program, for the channel's tests.
 *
 * QZ_FAKE_HELPER_DIR names a folder holding "script" (or "script.N" for the N-th helper
 * started there). Each run records every byte it reads to "record.N" in that folder and runs
 * its script, one action per line:
 *   auth                read the 32-byte authorization block
 *   read                read one request line (and its data); {id} is now its identifier,
 *                       {1}, {2}, ... those of the first, second, ... request
 *   reply STATUS SIZE   read a request and answer "{id} REPLY STATUS SIZE\n"
 *   serve               answer every request with "ID REPLY 0 0" until the input ends
 *   send TEXT           write TEXT (escapes \n \t \\ \xHH; {id}, {N} as above)
 *   sendfd PATH TEXT    write TEXT with a descriptor of PATH as SCM_RIGHTS
 *   sendfds2 PATH TEXT  write TEXT with two descriptors of PATH in one control message
 *   sleep MS            pause
 *   eof                 read (and record) until the input ends
 *   exit STATUS         exit at once
 * Without an action left, it exits with status 0.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static int record_fd = -1;
static unsigned ids[1024];
static int id_count;
static char pending[1 << 16];
static size_t pending_length;

static void die(const char *what)
{
    fprintf(stderr, "fake helper: %s: %s\n", what, strerror(errno));
    exit(3);
}

static void record(const void *bytes, size_t length)
{
    if (length > 0 && write(record_fd, bytes, length) != (ssize_t)length)
        die("record");
}

/* Reads more input into `pending`; 0 at the end of input. */
static size_t fill(void)
{
    if (pending_length == sizeof(pending))
        die("request too long");
    const ssize_t got = read(STDIN_FILENO, pending + pending_length, sizeof(pending) - pending_length);
    if (got < 0)
        die("read");
    record(pending + pending_length, (size_t)got);
    pending_length += (size_t)got;
    return (size_t)got;
}

static void take(size_t length)
{
    memmove(pending, pending + length, pending_length - length);
    pending_length -= length;
}

/* Reads one request line and any data after it; returns its identifier, or exits at the end. */
static unsigned read_request(void)
{
    char *newline;
    while (!(newline = memchr(pending, '\n', pending_length)))
        if (fill() == 0)
            exit(0);
    unsigned id = 0, length = 0;
    if (sscanf(pending, "%u+%u", &id, &length) < 2)
        length = 0;
    const size_t whole = (size_t)(newline - pending) + 1 + length;
    while (pending_length < whole)
        if (fill() == 0)
            exit(0);
    take(whole);
    if (id_count < 1024)
        ids[id_count++] = id;
    return id;
}

/* Expands escapes and {id}/{N} in `text` into `out`; returns the length. */
static size_t expand(const char *text, char *out)
{
    size_t length = 0;
    while (*text) {
        if (text[0] == '\\' && text[1]) {
            text++;
            switch (*text) {
            case 'n': out[length++] = '\n'; break;
            case 't': out[length++] = '\t'; break;
            case 'x': {
                unsigned value;
                sscanf(text + 1, "%2x", &value);
                out[length++] = (char)value;
                text += 2;
                break;
            }
            default: out[length++] = *text; break;
            }
            text++;
        } else if (text[0] == '{') {
            const char *close = strchr(text, '}');
            unsigned value = 0;
            if (strncmp(text, "{id}", 4) == 0)
                value = id_count ? ids[id_count - 1] : 0;
            else if (atoi(text + 1) >= 1 && atoi(text + 1) <= id_count)
                value = ids[atoi(text + 1) - 1];
            length += (size_t)sprintf(out + length, "%u", value);
            text = close ? close + 1 : text + 1;
        } else {
            out[length++] = *text++;
        }
    }
    return length;
}

static void send_with_descriptors(const char *bytes, size_t length, const char *path, int count)
{
    int fds[2] = { -1, -1 };
    for (int i = 0; i < count; i++)
        if ((fds[i] = open(path, O_RDONLY)) < 0)
            die(path);
    union {
        struct cmsghdr header;
        char space[CMSG_SPACE(sizeof(fds))];
    } control;
    memset(&control, 0, sizeof(control));
    struct iovec part = { (void *)bytes, length };
    struct msghdr message = { .msg_iov = &part, .msg_iovlen = 1, .msg_control = control.space,
                              .msg_controllen = CMSG_SPACE(sizeof(int) * (size_t)count) };
    struct cmsghdr *rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int) * (size_t)count);
    memcpy(CMSG_DATA(rights), fds, sizeof(int) * (size_t)count);
    if (sendmsg(STDOUT_FILENO, &message, MSG_NOSIGNAL) != (ssize_t)length)
        die("sendmsg");
    for (int i = 0; i < count; i++)
        close(fds[i]);
}

static void send_text(const char *text)
{
    static char out[1 << 16];
    const size_t length = expand(text, out);
    if (send(STDOUT_FILENO, out, length, MSG_NOSIGNAL) != (ssize_t)length)
        die("send");
}

int main(void)
{
    const char *dir = getenv("QZ_FAKE_HELPER_DIR");
    if (!dir)
        return 2;
    char path[4096];
    int run = 1;
    for (;; run++) {
        snprintf(path, sizeof(path), "%s/record.%d", dir, run);
        record_fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_APPEND, 0666);
        if (record_fd >= 0)
            break;
        if (errno != EEXIST)
            die(path);
    }
    snprintf(path, sizeof(path), "%s/script.%d", dir, run);
    FILE *script = fopen(path, "r");
    if (!script) {
        snprintf(path, sizeof(path), "%s/script", dir);
        script = fopen(path, "r");
    }
    if (!script)
        die(path);

    char line[1 << 16];
    while (fgets(line, sizeof(line), script)) {
        line[strcspn(line, "\n")] = '\0';
        char *argument = strchr(line, ' ');
        if (argument)
            *argument++ = '\0';
        if (strcmp(line, "auth") == 0) {
            while (pending_length < 32)
                if (fill() == 0)
                    return 0;
            take(32);
        } else if (strcmp(line, "read") == 0) {
            read_request();
        } else if (strcmp(line, "reply") == 0) {
            char text[128];
            const unsigned id = read_request();
            snprintf(text, sizeof(text), "%u REPLY %s\n", id, argument ? argument : "0 0");
            if (send(STDOUT_FILENO, text, strlen(text), MSG_NOSIGNAL) < 0)
                die("send");
        } else if (strcmp(line, "serve") == 0) {
            for (;;) {
                char text[64];
                snprintf(text, sizeof(text), "%u REPLY 0 0\n", read_request());
                if (send(STDOUT_FILENO, text, strlen(text), MSG_NOSIGNAL) < 0)
                    die("send");
            }
        } else if (strcmp(line, "send") == 0) {
            send_text(argument ? argument : "");
        } else if (strcmp(line, "sendfd") == 0 || strcmp(line, "sendfds2") == 0) {
            char *text = argument ? strchr(argument, ' ') : NULL;
            if (!text)
                return 2;
            *text++ = '\0';
            static char out[1 << 16];
            send_with_descriptors(out, expand(text, out), argument, strcmp(line, "sendfd") == 0 ? 1 : 2);
        } else if (strcmp(line, "sleep") == 0) {
            const long ms = argument ? atol(argument) : 0;
            struct timespec pause = { ms / 1000, (ms % 1000) * 1000000 };
            nanosleep(&pause, NULL);
        } else if (strcmp(line, "eof") == 0) {
            while (fill() > 0)
                pending_length = 0;
        } else if (strcmp(line, "exit") == 0) {
            return argument ? atoi(argument) : 0;
        } else if (line[0] != '\0' && line[0] != '#') {
            fprintf(stderr, "fake helper: unknown action %s\n", line);
            return 2;
        }
    }
    return 0;
}
