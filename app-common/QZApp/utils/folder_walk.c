/* Walking a folder's entries with paths built in one fixed buffer, and the named objects a walk
 * starts from. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

size_t utils_path_start(char *buffer, const char *folder)
{
    size_t length = strnlen(folder, UTILS_PATH_ROOM - 2);
    memcpy(buffer, folder, length);
    buffer[length++] = '/';
    buffer[length] = '\0';
    return length;
}

bool utils_path_put_name(char *buffer, size_t base, const char *name)
{
    const size_t length = strnlen(name, UTILS_PATH_ROOM - 1 - base);
    memcpy(buffer + base, name, length);
    buffer[base + length] = '\0';
    return name[length] == '\0';
}

const struct dirent *utils_next_entry(DIR *folder, const char *path, unsigned site)
{
    for (;;) {
        errno = 0;
        const struct dirent *entry = readdir(folder);
        if (!entry) {
            if (errno != 0)
                utils_report_path(path, site);
            return NULL;
        }
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            return entry;
    }
}

int utils_open_named(const char *path, struct named_object *named)
{
    named->folder = AT_FDCWD;
    named->text = strdup(path);
    if (!named->text)
        return -1;
    char *text = named->text;
    size_t length = strlen(text);
    while (length > 1 && text[length - 1] == '/')
        text[--length] = '\0';
    char *slash = strrchr(text, '/');
    if (!slash) {
        named->name = text;
        return 0;
    }
    const char *folder = "/";
    if (slash[1] == '\0') {   /* only "/" is left of "/" and "//...": the root folder itself */
        named->name = ".";
    } else {
        named->name = slash + 1;
        if (slash != text) {
            *slash = '\0';
            folder = text;
        }
    }
    named->folder = open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (named->folder < 0) {
        const int saved = errno;
        free(named->text);
        named->text = NULL;
        errno = saved;
        return -1;
    }
    return 0;
}

void utils_close_named(struct named_object *named)
{
    const int saved = errno;
    if (named->folder >= 0)
        close(named->folder);
    free(named->text);
    named->folder = AT_FDCWD;
    named->text = NULL;
    errno = saved;
}

const char *utils_fd_path(int fd, char buffer[UTILS_FD_PATH_ROOM])
{
    snprintf(buffer, UTILS_FD_PATH_ROOM, "/proc/self/fd/%d", fd);
    return buffer;
}

bool utils_same_object(const struct statx *a, const struct statx *b)
{
    return a->stx_ino == b->stx_ino && a->stx_dev_major == b->stx_dev_major && a->stx_dev_minor == b->stx_dev_minor;
}
