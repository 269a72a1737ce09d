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
#define VALUE_ROOM 65536   /* the largest value Linux stores */

/* Lists the names of `source`'s attributes into *names (the stack buffer `stack`, or a heap
 * block the caller frees). The list's length, or -1 after a report. 0 when there is nothing to
 * do (no attributes, or none supported). */
static ssize_t list_names(const char *source, char *stack, char **names)
{
    *names = stack;
    ssize_t size = llistxattr(source, stack, LIST_ON_STACK);
    if (size >= 0)
        return size;
    if (errno == ENOTSUP || errno == EPERM)
        return 0;
    if (errno != ERANGE) {
        utils_report_error(819);
        return -1;
    }
    size = llistxattr(source, NULL, 0);
    if (size < 0) {
        if (errno == ENOTSUP || errno == EPERM)
            return 0;
        utils_report_error(819);
        return -1;
    }
    *names = malloc((size_t)size);
    if (!*names) {
        utils_report_error(827);
        return -1;
    }
    size = llistxattr(source, *names, (size_t)size);
    if (size < 0) {
        utils_report_error(832);
        free(*names);
        *names = NULL;
        return -1;
    }
    return size;
}

/* Copies one attribute's whole value; *value is a buffer of *room bytes that grows as needed
 * (allocated on first use). An empty value is not written; a name the destination cannot
 * take (ENOTSUP, or EPERM outside the user namespace) is skipped. */
static bool copy_one_attribute(const char *source, const char *destination, const char *name,
                               char **value, size_t *room)
{
    if (!*value) {
        *room = VALUE_ROOM;
        *value = malloc(*room);
        if (!*value)
            return false;
    }
    ssize_t length = lgetxattr(source, name, *value, *room);
    while (length < 0 && errno == ERANGE) {
        const ssize_t needed = lgetxattr(source, name, NULL, 0);
        if (needed < 0)
            return false;
        char *grown = realloc(*value, (size_t)needed);
        if (!grown)
            return false;
        *value = grown;
        *room = (size_t)needed;
        length = lgetxattr(source, name, *value, *room);
    }
    if (length < 0)
        return false;
    if (length == 0)
        return true;
    if (lsetxattr(destination, name, *value, (size_t)length, 0) == 0)
        return true;
    if (errno == ENOTSUP || (errno == EPERM && strncmp(name, "user.", 5) != 0))
        return true;
    return false;
}

bool utils_copy_extended_attributes(const char *source, const char *destination, struct xattr_listing *listing)
{
    char stack[LIST_ON_STACK];
    char *names = NULL, *value = NULL;
    size_t room = 0;
    bool ok = false;

    memset(listing, 0, sizeof *listing);
    const ssize_t size = list_names(source, stack, &names);
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
        if (!copy_one_attribute(source, destination, name, &value, &room)) {
            utils_report_error(845);
            goto out;
        }
    }
    ok = true;
out:
    if (!ok)
        utils_report_error(499);
    const int saved = errno;
    if (names != stack)
        free(names);
    free(value);
    errno = saved;
    return ok;
}

/* Copies one list of `type`. A source without one, or whose access list says no more than
 * its permission bits, has none; a destination that keeps none is not a failure. */
static bool copy_one_list(const char *source, const char *destination, acl_type_t type)
{
    acl_t acl = acl_get_file(source, type);
    if (!acl) {
        if (errno == ENOENT || errno == EINVAL || errno == ENOTSUP || errno == EOPNOTSUPP || errno == ENODATA)
            return true;
        utils_report_path(source, 512);
        return false;
    }
    bool ok = true;
    const bool none = type == ACL_TYPE_ACCESS ? acl_equiv_mode(acl, NULL) == 0 : acl_entries(acl) <= 0;
    if (!none && acl_set_file(destination, type, acl) < 0 && errno != ENOTSUP && errno != EOPNOTSUPP) {
        utils_report_path(destination, 519);
        ok = false;
    }
    const int saved = errno;
    acl_free(acl);
    errno = saved;
    return ok;
}

bool utils_copy_access_control_lists(const char *source, const char *destination, bool folder,
                                     const struct xattr_listing *listing)
{
    /* When the names were listed, a list that is not among them is not there. */
    if ((!listing->listed || listing->access_acl) && !copy_one_list(source, destination, ACL_TYPE_ACCESS))
        return false;
    if (folder && (!listing->listed || listing->default_acl) && !copy_one_list(source, destination, ACL_TYPE_DEFAULT))
        return false;
    return true;
}

bool utils_copy_owner(const char *destination, uid_t source_owner, gid_t source_group, int32_t destination_device,
                      const copy_file_options *options, uid_t *applied_owner, gid_t *applied_group)
{
    /* Only the superuser gives a copy away; anyone else's copy is theirs. */
    if (geteuid() != 0) {
        *applied_owner = geteuid();
        *applied_group = getgid();
        return true;
    }
    *applied_owner = options && (options->flags & COPY_FILE_OWNER) ? (uid_t)options->owner : source_owner;
    *applied_group = options && (options->flags & COPY_FILE_GROUP) ? (gid_t)options->group : source_group;
    const struct volume_capabilities *volume = utils_volume_capabilities(destination, destination_device);
    if (!volume) {
        utils_report_error(538);
        return false;
    }
    if (!(volume->common & (UTILS_ATTR_OWNER | UTILS_ATTR_GROUP)))
        return true;
    if (lchown(destination, *applied_owner, *applied_group) < 0) {
        utils_report_path(destination, 528);
        return false;
    }
    return true;
}
