/* The two report formats shared by every function of the utilities.
 *
 * Each line leaves in one write(), so that the lines of copies and deletions running on several
 * threads never mix within a line. */
#include "utils_private.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Formats one line and writes it to standard error in one call (a short write goes on with the
 * rest). */
static void __attribute__((format(printf, 1, 2))) write_line(const char *format, ...)
{
    char room[2048];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(room, sizeof room, format, arguments);
    va_end(arguments);
    if (length < 0)
        return;
    char *line = room;
    if ((size_t)length >= sizeof room) {   /* a path longer than the buffers of a walk */
        line = malloc((size_t)length + 1);
        if (!line)
            return;
        va_start(arguments, format);
        vsnprintf(line, (size_t)length + 1, format, arguments);
        va_end(arguments);
    }
    fflush(stderr);   /* whatever the process wrote there before comes first */
    for (size_t done = 0; done < (size_t)length;) {
        const ssize_t written = write(STDERR_FILENO, line + done, (size_t)length - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            break;
        done += (size_t)written;
    }
    if (line != room)
        free(line);
}

/* Reports a failed system call on a named object. */
void utils_report_path(const char *path, unsigned site)
{
    const int saved = errno;
    write_line("%s: %s (at utils:%u)\n", path, strerror(saved), site);
    errno = saved;
}

/* Reports a failure without a natural path (an allocation, a failed nested step). */
void utils_report_error(unsigned site)
{
    const int saved = errno;
    write_line("utils:%u: error (%d)\n", site, saved);
    errno = saved;
}
