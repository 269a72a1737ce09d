/* Which common attributes a volume keeps, learnt once per volume and kept in a two-entry cache.
 *
 * The file-system type from statfs decides: FAT-like volumes keep modification times only (no
 * owners, permission bits or flags); the types that implement the inode-flags ioctl also keep
 * the immutable flag. A FUSE volume is known by the subtype its mount carries in
 * /proc/self/mountinfo. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#define MOUNTINFO_PATH "/proc/self/mountinfo"

#define KEEPS_UNIX (UTILS_ATTR_MODTIME | UTILS_ATTR_OWNER | UTILS_ATTR_GROUP | UTILS_ATTR_ACCESSMASK)
#define KEEPS_ALL (KEEPS_UNIX | UTILS_ATTR_FLAGS)
#define KEEPS_FAT UTILS_ATTR_MODTIME

/* Process-wide, under `cache_lock`: copies on several threads share it. A lookup answers with
 * a copy of the entry in `answer`, the calling thread's own, so that another thread's miss
 * cannot change it while it is read; as before, the next lookup on the same thread replaces it. */
static pthread_mutex_t cache_lock = PTHREAD_MUTEX_INITIALIZER;
static struct volume_capabilities cache[2];
static int last_written = 1;   /* so that the first miss fills entry 0 */
static unsigned long queries;
static _Thread_local struct volume_capabilities answer;

int32_t utils_device_number(dev_t device)
{
    uint64_t value = (uint64_t)device;
    if (value > INT32_MAX)
        value = (value ^ (value >> 31)) & INT32_MAX;
    return (int32_t)value;
}

/* Whether the mount-info line of a FUSE volume with `device` names a FAT-like subtype. 0 or 1,
 * or -1 after reporting UTILS_SITE_VOLUME_QUERY. A volume that is not found counts as not FAT-like. */
static int fuse_volume_is_fat_like(dev_t device)
{
    FILE *mounts = fopen(MOUNTINFO_PATH, "re");
    if (!mounts) {
        utils_report_path(MOUNTINFO_PATH, UTILS_SITE_VOLUME_QUERY);
        return -1;
    }
    char wanted[32];
    snprintf(wanted, sizeof wanted, "%u:%u", major(device), minor(device));
    int fat_like = 0;
    char *line = NULL;
    size_t room = 0;
    while (getline(&line, &room, mounts) > 0) {
        /* ID PARENT MAJOR:MINOR ROOT MOUNT-POINT OPTIONS [TAGS...] - TYPE SOURCE SUPER-OPTIONS */
        const char *field = line;
        for (int skipped = 0; skipped < 2 && field; skipped++) {
            field = strchr(field, ' ');
            if (field)
                field++;
        }
        const size_t wanted_length = strlen(wanted);
        if (!field || strncmp(field, wanted, wanted_length) != 0 || field[wanted_length] != ' ')
            continue;
        const char *type = strstr(field, " - ");
        if (!type)
            continue;
        type += 3;
        static const char *const fat_types[] = { "fuseblk ", "fuse.fusefat ", "fuse.exfat ", "fuse.vfat ",
                                                 "fuse.msdos ", "fuse.exfat-fuse " };
        for (size_t i = 0; i < sizeof fat_types / sizeof fat_types[0]; i++)
            if (strncmp(type, fat_types[i], strlen(fat_types[i])) == 0)
                fat_like = 1;
        break;
    }
    free(line);
    fclose(mounts);
    return fat_like;
}

/* The common attributes kept by the volume with statfs answer `fs`, or -1 after a report. */
static int64_t capabilities_of(const struct statfs *fs, dev_t device)
{
    switch ((unsigned long)fs->f_type) {
    case MSDOS_SUPER_MAGIC:
    case EXFAT_SUPER_MAGIC:
        return KEEPS_FAT;
    case FUSE_SUPER_MAGIC: {
        const int fat_like = fuse_volume_is_fat_like(device);
        if (fat_like < 0)
            return -1;
        return fat_like ? KEEPS_FAT : KEEPS_UNIX;
    }
    case EXT4_SUPER_MAGIC:   /* also ext2 and ext3 */
    case XFS_SUPER_MAGIC:
    case BTRFS_SUPER_MAGIC:
    case F2FS_SUPER_MAGIC:
    case TMPFS_MAGIC:
    case REISERFS_SUPER_MAGIC:
    case OCFS2_SUPER_MAGIC:
    case NILFS_SUPER_MAGIC:
    case 0x3153464aUL:        /* JFS */
    case 0x01161970UL:        /* GFS2 */
    case 0xca451a4eUL:        /* bcachefs */
        return KEEPS_ALL;
    default:
        return KEEPS_UNIX;
    }
}

/* The cached entry of `device` copied to `answer`, or null. */
static const struct volume_capabilities *cached(int32_t device)
{
    const struct volume_capabilities *found = NULL;
    pthread_mutex_lock(&cache_lock);
    for (int i = 0; i < 2 && !found; i++)
        if (cache[i].device == device && cache[i].common != 0) {
            answer = cache[i];
            found = &answer;
        }
    pthread_mutex_unlock(&cache_lock);
    return found;
}

/* Queries the volume of the open `fd` (shown as `path`) and caches it under `device`. */
static const struct volume_capabilities *query(int fd, const char *path, int32_t device)
{
    struct statfs fs;
    struct stat status;
    if (fstatfs(fd, &fs) < 0 || fstat(fd, &status) < 0) {
        utils_report_path(path, UTILS_SITE_VOLUME_FILE_SYSTEM);
        return NULL;
    }
    const int64_t common = capabilities_of(&fs, status.st_dev);
    pthread_mutex_lock(&cache_lock);
    queries++;
    /* Another thread may have cached the same volume meanwhile: it is not cached twice. */
    const bool known = common >= 0 && ((cache[0].device == device && cache[0].common != 0)
                                       || (cache[1].device == device && cache[1].common != 0));
    if (common >= 0 && !known) {
        last_written ^= 1;
        cache[last_written].common = (uint32_t)common;
        cache[last_written].device = device;
    }
    if (common >= 0)
        answer = (struct volume_capabilities) { (uint32_t)common, device };
    pthread_mutex_unlock(&cache_lock);
    return common < 0 ? NULL : &answer;
}

const struct volume_capabilities *utils_volume_capabilities(const char *path, int32_t device)
{
    if (device < 0) {
        struct stat status;
        if (lstat(path, &status) < 0) {
            utils_report_path(path, UTILS_SITE_VOLUME_STATUS);
            return NULL;
        }
        device = utils_device_number(status.st_dev);
    }
    const struct volume_capabilities *found = cached(device);
    if (found)
        return found;

    /* The object itself, not what a final symbolic link points to. */
    const int fd = open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        utils_report_path(path, UTILS_SITE_VOLUME_OPEN);
        return NULL;
    }
    found = query(fd, path, device);
    const int saved = errno;
    close(fd);
    errno = saved;
    return found;
}

const struct volume_capabilities *utils_volume_capabilities_fd(int fd, const char *path, int32_t device)
{
    if (device < 0) {
        struct stat status;
        if (fstat(fd, &status) < 0) {
            utils_report_path(path, UTILS_SITE_VOLUME_STATUS);
            return NULL;
        }
        device = utils_device_number(status.st_dev);
    }
    const struct volume_capabilities *found = cached(device);
    return found ? found : query(fd, path, device);
}

unsigned long utils_volume_capability_queries(void)
{
    pthread_mutex_lock(&cache_lock);
    const unsigned long counted = queries;
    pthread_mutex_unlock(&cache_lock);
    return counted;
}

void utils_volume_capabilities_reset(void)
{
    pthread_mutex_lock(&cache_lock);
    memset(cache, 0, sizeof cache);
    last_written = 1;
    queries = 0;
    pthread_mutex_unlock(&cache_lock);
}
