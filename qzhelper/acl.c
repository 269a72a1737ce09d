/* The access control list commands, through libacl. The object comes open with O_PATH and its
 * list is read and written through /proc/self/fd, so what is checked is what is changed. */
#include "acl.h"

#include <acl/libacl.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

enum change { GRANT_USER, REVOKE_USER, GRANT_OTHER };

/* Adds the bits of `perms` (r 4, w 2, x 1) to an entry. */
static int add_perms(acl_entry_t entry, unsigned perms)
{
    acl_permset_t permset;
    if (acl_get_permset(entry, &permset) != 0)
        return -1;
    if ((perms & 4) && acl_add_perm(permset, ACL_READ) != 0)
        return -1;
    if ((perms & 2) && acl_add_perm(permset, ACL_WRITE) != 0)
        return -1;
    if ((perms & 1) && acl_add_perm(permset, ACL_EXECUTE) != 0)
        return -1;
    return acl_set_permset(entry, permset);
}

/* The entry with `tag` (and, for ACL_USER, qualifier `uid`), or null. */
static acl_entry_t find_entry(acl_t acl, acl_tag_t tag, uid_t uid)
{
    acl_entry_t entry;
    for (int which = ACL_FIRST_ENTRY; acl_get_entry(acl, which, &entry) == 1; which = ACL_NEXT_ENTRY) {
        acl_tag_t found;
        if (acl_get_tag_type(entry, &found) != 0 || found != tag)
            continue;
        if (tag != ACL_USER)
            return entry;
        uid_t *qualifier = acl_get_qualifier(entry);
        const int same = qualifier && *qualifier == uid;
        acl_free(qualifier);
        if (same)
            return entry;
    }
    return NULL;
}

/* True when named users or groups are left, which need a mask entry. */
static int has_named_entries(acl_t acl)
{
    acl_entry_t entry;
    for (int which = ACL_FIRST_ENTRY; acl_get_entry(acl, which, &entry) == 1; which = ACL_NEXT_ENTRY) {
        acl_tag_t tag;
        if (acl_get_tag_type(entry, &tag) == 0 && (tag == ACL_USER || tag == ACL_GROUP))
            return 1;
    }
    return 0;
}

/* Applies one change to the list in `acl`; -1 with errno set on failure. */
static int apply(acl_t *acl, enum change change, unsigned perms, uid_t uid)
{
    acl_entry_t entry;
    switch (change) {
    case GRANT_USER:
        entry = find_entry(*acl, ACL_USER, uid);
        if (!entry && (acl_create_entry(acl, &entry) != 0 || acl_set_tag_type(entry, ACL_USER) != 0
                       || acl_set_qualifier(entry, &uid) != 0))
            return -1;
        return add_perms(entry, perms) != 0 || acl_calc_mask(acl) != 0 ? -1 : 0;
    case REVOKE_USER:
        entry = find_entry(*acl, ACL_USER, uid);
        if (entry && acl_delete_entry(*acl, entry) != 0)
            return -1;
        if (has_named_entries(*acl))
            return acl_calc_mask(acl);
        /* Without named entries the mask goes too: the list is the mode bits again. */
        entry = find_entry(*acl, ACL_MASK, 0);
        return entry && acl_delete_entry(*acl, entry) != 0 ? -1 : 0;
    case GRANT_OTHER:
        entry = find_entry(*acl, ACL_OTHER, 0);
        if (!entry) {
            errno = EINVAL;
            return -1;
        }
        return add_perms(entry, perms);
    }
    errno = EINVAL;
    return -1;
}

/* Reads the access list of `fd`, applies `change` and writes it back. Returns 0 or errno. */
static int change_acl(int fd, enum change change, unsigned perms, uid_t uid)
{
    int status = 0;
    acl_t acl = NULL;
    struct stat st;
    char self[64];
    snprintf(self, sizeof(self), "/proc/self/fd/%d", fd);
    errno = 0;
    if (fstat(fd, &st) != 0) {
        status = errno;
    } else if (S_ISLNK(st.st_mode)) {
        status = ELOOP;
    } else if ((acl = acl_get_file(self, ACL_TYPE_ACCESS)) == NULL
               || apply(&acl, change, perms, uid) != 0
               || acl_valid(acl) != 0
               || acl_set_file(self, ACL_TYPE_ACCESS, acl) != 0) {
        status = errno ? errno : EINVAL;
    }
    if (acl)
        acl_free(acl);
    return status;
}

int helper_authorise(int object, unsigned perms, unsigned long uid)
{
    return change_acl(object, GRANT_USER, perms, (uid_t)uid);
}

int helper_revoke(int object, unsigned long uid)
{
    return change_acl(object, REVOKE_USER, 0, (uid_t)uid);
}

int helper_authorise_global(int object, unsigned perms)
{
    return change_acl(object, GRANT_OTHER, perms, 0);
}
