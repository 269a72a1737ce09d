/* Property lists read from a file: XML or binary, nothing else. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Reads the whole file at `path`: a heap block the caller frees, or null. */
static char *read_file(const char *path, size_t *length)
{
    char *bytes = NULL;
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return NULL;
    struct stat status;
    if (fstat(fd, &status) < 0 || !S_ISREG(status.st_mode) || status.st_size > (off_t)UINT32_MAX)
        goto out;
    const size_t size = (size_t)status.st_size;
    bytes = malloc(size ? size : 1);
    if (!bytes)
        goto out;
    size_t done = 0;
    while (done < size) {
        const ssize_t got = read(fd, bytes + done, size - done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        done += (size_t)got;
    }
    *length = done;
out:
    close(fd);
    return bytes;
}

/* Whether `bytes` look like XML: optional byte-order mark and white space, then '<'. */
static bool looks_like_xml(const char *bytes, size_t length)
{
    size_t i = 0;
    if (length >= 3 && memcmp(bytes, "\xEF\xBB\xBF", 3) == 0)
        i = 3;
    while (i < length && strchr(" \t\r\n", bytes[i]) && bytes[i] != '\0')
        i++;
    return i < length && bytes[i] == '<';
}

plist_t plist_from_file(const char *path)
{
    size_t length = 0;
    char *bytes = read_file(path, &length);
    if (!bytes)
        return NULL;
    plist_t list = NULL;
    if (plist_is_binary(bytes, (uint32_t)length))
        plist_from_bin(bytes, (uint32_t)length, &list);
    else if (looks_like_xml(bytes, length))
        plist_from_xml(bytes, (uint32_t)length, &list);
    free(bytes);
    return list;
}
