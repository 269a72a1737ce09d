/* Reading a process's start time; see process_start_time.h. */
#include "process_start_time.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Field 22 lies well within the first kilobyte: the fields before it are the process id, a
 * short command name and numbers. */
#define STAT_ROOM 1024

unsigned long long helper_process_start_time(pid_t pid)
{
    char path[64], text[STAT_ROOM];
    snprintf(path, sizeof(path), "/proc/%ld/stat", (long)pid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        errno = ESRCH;
        return 0;
    }
    size_t length = 0;
    int error = 0;
    while (length < sizeof(text) - 1) {
        const ssize_t got = read(fd, text + length, sizeof(text) - 1 - length);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            error = errno;
        if (got <= 0)
            break;
        length += (size_t)got;
    }
    close(fd);
    if (error != 0) {
        errno = error;
        return 0;
    }
    text[length] = '\0';

    /* The command name (field 2) may hold blanks and parentheses: count from the last ')'. */
    const char *field = strrchr(text, ')');
    for (int number = 2; field && number < 22; number++)
        field = strchr(field + 1, ' ');
    if (!field || field[1] < '0' || field[1] > '9') {
        errno = EINVAL;
        return 0;
    }
    char *end;
    const unsigned long long start = strtoull(field + 1, &end, 10);
    if ((*end != ' ' && *end != '\n' && *end != '\0') || start == 0) {
        errno = EINVAL;
        return 0;
    }
    return start;
}
