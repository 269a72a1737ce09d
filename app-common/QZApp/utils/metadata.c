/* The first three metadata steps of a copy: extended attributes, access control lists, owner
 * and group. Each works on the object itself, never on what a symbolic link points to. */
#include "utils_private.h"

#include <acl/libacl.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/acl.h>
#include <sys/xattr.h>
#include <unistd.h>

#define ACCESS_ACL_NAME "system.posix_acl_access"
#define DEFAULT_ACL_NAME "system.posix_acl_default"
#define LIST_ON_STACK 4096
#define VALUE_ON_STACK 512   /* most values fit; a larger one is read again at its size */

/* The attribute calls on a descriptor opened for reading, or through the magic link of a
 * path-only one (which leads to the object itself, a symbolic link included). */
struct attribute_object {
    int fd;
    const char *via;   /* the magic link, or null */
    char room[UTILS_FD_PATH_ROOM];
};

static void attribute_object(struct attribute_object *object, int fd, bool path_only)
{
    object->fd = fd;
    object->via = path_only ? utils_fd_path(fd, object->room) : NULL;
}

static ssize_t list_attributes(const struct attribute_object *object, char *list, size_t size)
{
    return object->via ? listxattr(object->via, list, size) : flistxattr(object->fd, list, size);
}

static ssize_t get_attribute(const struct attribute_object *object, const char *name, void *value, size_t size)
{
    return object->via ? getxattr(object->via, name, value, size) : fgetxattr(object->fd, name, value, size);
}

static int set_attribute(const struct attribute_object *object, const char *name, const void *value, size_t size)
{
    return object->via ? setxattr(object->via, name, value, size, 0) : fsetxattr(object->fd, name, value, size, 0);
}

/* Lists the names of the source's attributes into *names (the stack buffer `stack`, or a heap
 * block the caller frees). The list's length, or -1 after a report. 0 when there is nothing to
 * do (no attributes, or none supported). */
static ssize_t list_names(const struct attribute_object *source, char *stack, char **names)
{
    *names = stack;
    ssize_t size = list_attributes(source, stack, LIST_ON_STACK);
    if (size >= 0)
        return size;
    if (errno == ENOTSUP || errno == EPERM)
        return 0;
    if (errno != ERANGE) {
        utils_report_error(UTILS_SITE_XATTR_LIST);
        return -1;
    }
    size = list_attributes(source, NULL, 0);
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
    size = list_attributes(source, *names, (size_t)size);
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
static bool copy_one_attribute(const struct attribute_object *source, const struct attribute_object *destination,
                               const char *name, char *stack)
{
    char *value = stack;
    ssize_t length = get_attribute(source, name, value, VALUE_ON_STACK);
    while (length < 0 && errno == ERANGE) {
        const ssize_t needed = get_attribute(source, name, NULL, 0);
        if (needed < 0)
            break;
        if (value != stack)
            free(value);
        value = malloc(needed > 0 ? (size_t)needed : 1);
        if (!value)
            return false;
        length = get_attribute(source, name, value, (size_t)needed);
    }
    bool ok = length >= 0;
    if (length > 0 && set_attribute(destination, name, value, (size_t)length) < 0)
        ok = errno == ENOTSUP || (errno == EPERM && strncmp(name, "user.", 5) != 0);
    if (value != stack) {
        const int saved = errno;
        free(value);
        errno = saved;
    }
    return ok;
}

bool utils_copy_extended_attributes(const struct copy_record *record, struct xattr_listing *listing)
{
    char stack[LIST_ON_STACK], value[VALUE_ON_STACK];
    char *names = NULL;
    bool ok = false;
    struct attribute_object source, destination;
    attribute_object(&source, record->source_fd, record->source_path_only);
    attribute_object(&destination, record->destination_fd, record->destination_path_only);

    memset(listing, 0, sizeof *listing);
    const ssize_t size = list_names(&source, stack, &names);
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
        if (!copy_one_attribute(&source, &destination, name, value)) {
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
 * its permission bits, has none; a destination that keeps none is not a failure. Access lists go
 * from descriptor to descriptor where both are open for reading; default lists, and path-only
 * descriptors, go through the magic links. */
static bool copy_one_list(const struct copy_record *record, acl_type_t type)
{
    const bool by_fd = type == ACL_TYPE_ACCESS && !record->source_path_only && !record->destination_path_only;
    char source[UTILS_FD_PATH_ROOM], destination[UTILS_FD_PATH_ROOM];
    acl_t acl = by_fd ? acl_get_fd(record->source_fd)
                      : acl_get_file(utils_fd_path(record->source_fd, source), type);
    if (!acl) {
        if (errno == ENOENT || errno == EINVAL || errno == ENOTSUP || errno == EOPNOTSUPP || errno == ENODATA)
            return true;
        utils_report_path(record->source, UTILS_SITE_ACL_READ);
        return false;
    }
    bool ok = true;
    const bool none = type == ACL_TYPE_ACCESS ? acl_equiv_mode(acl, NULL) == 0 : acl_entries(acl) <= 0;
    if (!none) {
        const int set = by_fd ? acl_set_fd(record->destination_fd, acl)
                              : acl_set_file(utils_fd_path(record->destination_fd, destination), type, acl);
        if (set < 0 && errno != ENOTSUP && errno != EOPNOTSUPP) {
            utils_report_path(record->destination, UTILS_SITE_ACL_SET);
            ok = false;
        }
    }
    const int saved = errno;
    acl_free(acl);
    errno = saved;
    return ok;
}

bool utils_copy_access_control_lists(const struct copy_record *record, const struct xattr_listing *listing)
{
    /* When the names were listed, a list that is not among them is not there. */
    if ((!listing->listed || listing->access_acl) && !copy_one_list(record, ACL_TYPE_ACCESS))
        return false;
    if (S_ISDIR(record->status.stx_mode) && (!listing->listed || listing->default_acl)
        && !copy_one_list(record, ACL_TYPE_DEFAULT))
        return false;
    return true;
}

bool utils_copy_owner(const struct copy_record *record)
{
    /* Only the superuser gives a copy away; anyone else's copy is theirs. */
    if (!record->superuser)
        return true;
    const struct known_owner *current = &record->current;
    if (current->known && current->owner == record->owner && current->group == record->group)
        return true;
    const struct volume_capabilities *volume =
            utils_volume_capabilities_fd(record->destination_fd, record->destination, record->destination_device);
    if (!volume) {
        utils_report_error(UTILS_SITE_CAPABILITIES);
        return false;
    }
    if (!(volume->common & (UTILS_ATTR_OWNER | UTILS_ATTR_GROUP)))
        return true;
    /* On the object the descriptor holds, a symbolic link itself included. */
    if (fchownat(record->destination_fd, "", record->owner, record->group, AT_EMPTY_PATH) < 0) {
        utils_report_path(record->destination, UTILS_SITE_OWNER);
        return false;
    }
    return true;
}
