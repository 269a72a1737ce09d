/* A scriptable stand-in for a helper program, for the channel's tests.
 *
 * Each run records every byte it reads to "record.N" in the folder QZ_FAKE_HELPER_DIR (N counts
 * the runs there), reads the 32-byte authorization block and follows the script in
 * QZ_FAKE_HELPER_SCRIPT, one action per line:
 *   read                 read up to the end of the next line
 *   send TEXT            write TEXT, in which \n stands for a newline (without TEXT: only pause)
 *   sendfd N PATH TEXT   write TEXT with N (1 or 2) descriptors of PATH in one SCM_RIGHTS message
 *   exit                 exit at once
 * Each write is followed by a pause of 50 ms, so that the receiver reads it on its own. After the
 * last action it reads until its input ends, and then exits; like a helper running as another
 * user, it does not stop for the client's SIGTERM, so everything the client sent is recorded.
 */
#include <err.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static int record_fd = -1;

/* Reads and records one byte; exits at the end of the input. */
static char read_byte(void)
{
    char c;
    const ssize_t got = read(STDIN_FILENO, &c, 1);
    if (got <= 0)
        exit(got == 0 ? 0 : 3);
    if (write(record_fd, &c, 1) != 1)
        err(3, "record");
    return c;
}

static void send_text(const char *text, int count, const char *path)
{
    char bytes[1 << 16];
    size_t length = 0;
    for (; *text; text++)
        bytes[length++] = text[0] == '\\' && text[1] == 'n' ? (text++, '\n') : text[0];
    int fds[2] = { -1, -1 };
    for (int i = 0; i < count; i++)
        if ((fds[i] = open(path, O_RDONLY)) < 0)
            err(3, "%s", path);
    union {
        struct cmsghdr header;
        char space[CMSG_SPACE(sizeof(fds))];
    } control = { 0 };
    struct iovec part = { bytes, length };
    struct msghdr message = { .msg_iov = &part, .msg_iovlen = 1 };
    if (count > 0) {
        message.msg_control = control.space;
        message.msg_controllen = CMSG_SPACE(sizeof(int) * (size_t)count);
        struct cmsghdr *rights = CMSG_FIRSTHDR(&message);
        *rights = (struct cmsghdr) { .cmsg_len = CMSG_LEN(sizeof(int) * (size_t)count), .cmsg_level = SOL_SOCKET, .cmsg_type = SCM_RIGHTS };
        memcpy(CMSG_DATA(rights), fds, sizeof(int) * (size_t)count);
    }
    if (sendmsg(STDOUT_FILENO, &message, MSG_NOSIGNAL) != (ssize_t)length)
        err(3, "sendmsg");
    for (int i = 0; i < count; i++)
        close(fds[i]);
    nanosleep(&(struct timespec) { 0, 50 * 1000000 }, NULL);
}

int main(void)
{
    const char *dir = getenv("QZ_FAKE_HELPER_DIR"), *script = getenv("QZ_FAKE_HELPER_SCRIPT");
    if (!dir || !script || signal(SIGTERM, SIG_IGN) == SIG_ERR)
        return 2;
    char path[4096];
    for (int run = 1; record_fd < 0; run++) {
        snprintf(path, sizeof(path), "%s/record.%d", dir, run);
        if ((record_fd = open(path, O_WRONLY | O_CREAT | O_EXCL, 0666)) < 0 && errno != EEXIST)
            err(3, "%s", path);
    }
    for (int i = 0; i < 32; i++)
        read_byte();
    static char copy[1 << 17];
    if (snprintf(copy, sizeof(copy), "%s", script) >= (int)sizeof(copy))
        errx(2, "script too long");
    char *rest = copy, *line;
    while ((line = strsep(&rest, "\n"))) {
        char *argument = strchr(line, ' ');
        if (argument)
            *argument++ = '\0';
        if (strcmp(line, "read") == 0) {
            while (read_byte() != '\n') {
            }
        } else if (strcmp(line, "send") == 0) {
            send_text(argument ? argument : "", 0, NULL);
        } else if (strcmp(line, "sendfd") == 0) {
            char *file = argument ? strchr(argument, ' ') : NULL, *text = file ? strchr(file + 1, ' ') : NULL;
            if (!text)
                errx(2, "sendfd N PATH TEXT");
            *file++ = *text++ = '\0';
            send_text(text, atoi(argument), file);
        } else if (strcmp(line, "exit") == 0) {
            return 0;
        } else if (line[0] != '\0') {
            errx(2, "unknown action %s", line);
        }
    }
    for (;;)
        read_byte();
}
