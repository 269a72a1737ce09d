/* The access control list commands of the helper, through libacl. */
#ifndef QZHELPER_ACL_H
#define QZHELPER_ACL_H

/* Each changes the list of the object open as `object` (an O_PATH descriptor; a symbolic link
 * gives ELOOP) and returns 0 or an errno value. */
int helper_authorise(int object, unsigned perms, unsigned long uid);
int helper_revoke(int object, unsigned long uid);
int helper_authorise_global(int object, unsigned perms);

#endif /* QZHELPER_ACL_H */
