/* The first three metadata steps of a copy: extended attributes, access control lists, owner
 * and group. Each works on the object itself, never on what a symbolic link points to. */
#include "utils_private.h"

#include <acl/libacl.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/acl.h>
#include <sys/xattr.h>
#include <unistd.h>

#define ACCESS_ACL_NAME "system.posix_acl_access"
#define DEFAULT_ACL_NAME "system.posix_acl_default"
#define LIST_ON_STACK 4096
#define VALUE_ON_STACK 512   /* most values fit; a larger one is read again at its size */

/* The attribute calls on an open descriptor where there is one, else on the path itself. */
static ssize_t list_attributes(const char *path, int fd, char *list, size_t size)
{
    return fd >= 0 ? flistxattr(fd, list, size) : llistxattr(path, list, size);
}

static ssize_t get_attribute(const char *path, int fd, const char *name, void *value, size_t size)
{
    return fd >= 0 ? fgetxattr(fd, name, value, size) : lgetxattr(path, name, value, size);
}

static int set_attribute(const char *path, int fd, const char *name, const void *value, size_t size)
{
    return fd >= 0 ? fsetxattr(fd, name, value, size, 0) : lsetxattr(path, name, value, size, 0);
}

/* Lists the names of the source's attributes into *names (the stack buffer `stack`, or a heap
 * block the caller frees). The list's length, or -1 after a report. 0 when there is nothing to
 * do (no attributes, or none supported). */
static ssize_t list_names(const struct copy_pair *pair, char *stack, char **names)
{
    const char *source = pair->source;
    const int fd = pair->source_fd;
    *names = stack;
    ssize_t size = list_attributes(source, fd, stack, LIST_ON_STACK);
    if (size >= 0)
        return size;
    if (errno == ENOTSUP || errno == EPERM)
        return 0;
    if (errno != ERANGE) {
        utils_report_error(UTILS_SITE_XATTR_LIST);
        return -1;
    }
    size = list_attributes(source, fd, NULL, 0);
    if (size < 0) {
        if (errno == ENOTSUP || errno == EPERM)
            return 0;
        utils_report_error(UTILS_SITE_XATTR_LIST);
        return -1;
    }
    *names = malloc((size_t)size);
    if (!*names) {
        utils_report_error(UTILS_SITE_XATTR_ALLOCATE);
        return -1;
    }
    size = list_attributes(source, fd, *names, (size_t)size);
    if (size < 0) {
        utils_report_error(UTILS_SITE_XATTR_LIST_AGAIN);
        free(*names);
        *names = NULL;
        return -1;
    }
    return size;
}

/* Copies one attribute's whole value, read into `stack` or, when larger, a heap block of its
 * size. An empty value is not written; a name the destination cannot take (ENOTSUP, or EPERM
 * outside the user namespace) is skipped. */
static bool copy_one_attribute(const struct copy_pair *pair, const char *name, char *stack)
{
    char *value = stack;
    ssize_t length = get_attribute(pair->source, pair->source_fd, name, value, VALUE_ON_STACK);
    while (length < 0 && errno == ERANGE) {
        const ssize_t needed = get_attribute(pair->source, pair->source_fd, name, NULL, 0);
        if (needed < 0)
            break;
        if (value != stack)
            free(value);
        value = malloc(needed > 0 ? (size_t)needed : 1);
        if (!value)
            return false;
        length = get_attribute(pair->source, pair->source_fd, name, value, (size_t)needed);
    }
    bool ok = length >= 0;
    if (length > 0 && set_attribute(pair->destination, pair->destination_fd, name, value, (size_t)length) < 0)
        ok = errno == ENOTSUP || (errno == EPERM && strncmp(name, "user.", 5) != 0);
    if (value != stack) {
        const int saved = errno;
        free(value);
        errno = saved;
    }
    return ok;
}

bool utils_copy_extended_attributes(const struct copy_pair *pair, struct xattr_listing *listing)
{
    char stack[LIST_ON_STACK], value[VALUE_ON_STACK];
    char *names = NULL;
    bool ok = false;

    memset(listing, 0, sizeof *listing);
    const ssize_t size = list_names(pair, stack, &names);
    if (size < 0)
        goto out;
    listing->listed = true;
    for (const char *name = names; name < names + size; name += strlen(name) + 1) {
        /* Access control lists travel in their own step, which knows when a list is only the
         * permission bits over again. */
        if (strcmp(name, ACCESS_ACL_NAME) == 0) {
            listing->access_acl = true;
            continue;
        }
        if (strcmp(name, DEFAULT_ACL_NAME) == 0) {
            listing->default_acl = true;
            continue;
        }
        if (!copy_one_attribute(pair, name, value)) {
            utils_report_error(UTILS_SITE_XATTR_COPY);
            goto out;
        }
    }
    ok = true;
out:
    if (!ok)
        utils_report_error(UTILS_SITE_XATTR);
    const int saved = errno;
    if (names != stack)
        free(names);
    errno = saved;
    return ok;
}

/* Copies one list of `type`. A source without one, or whose access list says no more than
 * its permission bits, has none; a destination that keeps none is not a failure. */
static bool copy_one_list(const struct copy_pair *pair, acl_type_t type)
{
    /* Descriptors carry access lists only. */
    const bool by_fd = type == ACL_TYPE_ACCESS && pair->source_fd >= 0 && pair->destination_fd >= 0;
    acl_t acl = by_fd ? acl_get_fd(pair->source_fd) : acl_get_file(pair->source, type);
    if (!acl) {
        if (errno == ENOENT || errno == EINVAL || errno == ENOTSUP || errno == EOPNOTSUPP || errno == ENODATA)
            return true;
        utils_report_path(pair->source, UTILS_SITE_ACL_READ);
        return false;
    }
    bool ok = true;
    const bool none = type == ACL_TYPE_ACCESS ? acl_equiv_mode(acl, NULL) == 0 : acl_entries(acl) <= 0;
    if (!none) {
        const int set = by_fd ? acl_set_fd(pair->destination_fd, acl) : acl_set_file(pair->destination, type, acl);
        if (set < 0 && errno != ENOTSUP && errno != EOPNOTSUPP) {
            utils_report_path(pair->destination, UTILS_SITE_ACL_SET);
            ok = false;
        }
    }
    const int saved = errno;
    acl_free(acl);
    errno = saved;
    return ok;
}

bool utils_copy_access_control_lists(const struct copy_pair *pair, bool folder, const struct xattr_listing *listing)
{
    /* When the names were listed, a list that is not among them is not there. */
    if ((!listing->listed || listing->access_acl) && !copy_one_list(pair, ACL_TYPE_ACCESS))
        return false;
    if (folder && (!listing->listed || listing->default_acl) && !copy_one_list(pair, ACL_TYPE_DEFAULT))
        return false;
    return true;
}

bool utils_copy_owner(const struct copy_pair *pair, bool superuser, uid_t source_owner, gid_t source_group,
                      int32_t destination_device, const struct known_owner *current,
                      const copy_file_options *options, uid_t *applied_owner, gid_t *applied_group)
{
    /* Only the superuser gives a copy away; anyone else's copy is theirs. */
    if (!superuser) {
        *applied_owner = geteuid();
        *applied_group = getgid();
        return true;
    }
    *applied_owner = options && (options->flags & COPY_FILE_OWNER) ? (uid_t)options->owner : source_owner;
    *applied_group = options && (options->flags & COPY_FILE_GROUP) ? (gid_t)options->group : source_group;
    if (current && current->known && current->owner == *applied_owner && current->group == *applied_group)
        return true;
    const struct volume_capabilities *volume = utils_volume_capabilities(pair->destination, destination_device);
    if (!volume) {
        utils_report_error(UTILS_SITE_CAPABILITIES);
        return false;
    }
    if (!(volume->common & (UTILS_ATTR_OWNER | UTILS_ATTR_GROUP)))
        return true;
    const int changed = pair->destination_fd >= 0 ? fchown(pair->destination_fd, *applied_owner, *applied_group)
                                                  : lchown(pair->destination, *applied_owner, *applied_group);
    if (changed < 0) {
        utils_report_path(pair->destination, UTILS_SITE_OWNER);
        return false;
    }
    return true;
}
