/* Walking a folder's entries with paths built in one fixed buffer. */
#include "utils_private.h"

#include <errno.h>
#include <string.h>

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
