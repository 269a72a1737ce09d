/* Makes the benchmark trees of the file copy benchmark.
 *
 *   make_tree small ROOT   20,000 files of 1 to 16 KiB in 1,000 folders, each with a user
 *                          extended attribute, one in ten with an access control list
 *   make_tree large ROOT   four files of 512 MiB
 *
 * Contents come from a fixed-seed generator, so every run builds the same trees. */
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

static uint64_t state = 0x9E3779B97F4A7C15u;

static uint64_t next_random(void)
{
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

static void fill(char *buffer, size_t length)
{
    for (size_t i = 0; i + 8 <= length; i += 8) {
        const uint64_t value = next_random();
        memcpy(buffer + i, &value, 8);
    }
}

static int write_file(const char *path, const char *bytes, size_t length)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return -1;
    size_t done = 0;
    while (done < length) {
        const ssize_t written = write(fd, bytes + done, length - done);
        if (written < 0) {
            close(fd);
            return -1;
        }
        done += (size_t)written;
    }
    return close(fd);
}

static int make_small(const char *root, char *buffer)
{
    acl_t acl = acl_from_text("u::rw-,u:65534:r--,g::r--,m::r--,o::r--");
    if (!acl)
        return -1;
    char path[4096];
    for (int folder = 0; folder < 1000; folder++) {
        snprintf(path, sizeof path, "%s/d%03d", root, folder);
        if (mkdir(path, 0755) < 0)
            return -1;
        for (int file = 0; file < 20; file++) {
            const int index = folder * 20 + file;
            snprintf(path, sizeof path, "%s/d%03d/f%02d", root, folder, file);
            const size_t length = 1024 + (size_t)(next_random() % (15 * 1024 + 1));
            fill(buffer, length);
            char value[32];
            const int value_length = snprintf(value, sizeof value, "file %d", index);
            if (write_file(path, buffer, length) < 0
                || setxattr(path, "user.bench", value, (size_t)value_length, 0) < 0
                || (index % 10 == 0 && acl_set_file(path, ACL_TYPE_ACCESS, acl) < 0))
                return -1;
        }
    }
    acl_free(acl);
    return 0;
}

static int make_large(const char *root, char *buffer, size_t room)
{
    char path[4096];
    for (int file = 0; file < 4; file++) {
        snprintf(path, sizeof path, "%s/large%d", root, file);
        const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0)
            return -1;
        for (size_t done = 0; done < (size_t)512 << 20; done += room) {
            fill(buffer, room);
            if (write(fd, buffer, room) != (ssize_t)room) {
                close(fd);
                return -1;
            }
        }
        if (close(fd) < 0)
            return -1;
    }
    return 0;
}

int main(int argc, char **argv)
{
    if (argc != 3 || (strcmp(argv[1], "small") != 0 && strcmp(argv[1], "large") != 0)) {
        fprintf(stderr, "usage: make_tree small|large ROOT\n");
        return 2;
    }
    const size_t room = (size_t)1 << 20;
    char *buffer = malloc(room);
    if (!buffer || (mkdir(argv[2], 0755) < 0 && errno != EEXIST))
        return perror(argv[2]), 1;
    const int result = strcmp(argv[1], "small") == 0 ? make_small(argv[2], buffer) : make_large(argv[2], buffer, room);
    if (result < 0)
        return perror(argv[2]), 1;
    free(buffer);
    return 0;
}
