/* The access control list commands of the helper, through libacl. */
#ifndef QZHELPER_ACL_H
#define QZHELPER_ACL_H

/* Each returns 0 or an errno value. A final symbolic link is never followed. */
int helper_authorise(const char *path, unsigned perms, unsigned long uid);
int helper_revoke(const char *path, unsigned long uid);
int helper_authorise_global(const char *path, unsigned perms);

#endif /* QZHELPER_ACL_H */
