/* The two report formats shared by every function of the utilities. */
#include "utils_private.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

/* Reports a failed system call on a named object. */
void utils_report_path(const char *path, unsigned site)
{
    const int saved = errno;
    fprintf(stderr, "%s: %s (at utils:%u)\n", path, strerror(saved), site);
    errno = saved;
}

/* Reports a failure without a natural path (an allocation, a failed nested step). */
void utils_report_error(unsigned site)
{
    const int saved = errno;
    fprintf(stderr, "utils:%u: error (%d)\n", site, saved);
    errno = saved;
}
