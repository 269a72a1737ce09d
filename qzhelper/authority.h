/* Whether the client may have a command carried out: asked of polkit, command by command. */
#ifndef QZHELPER_AUTHORITY_H
#define QZHELPER_AUTHORITY_H

#include "peer_check.h"

/* The kinds of operation, each a polkit action of its own (see packaging/). */
enum helper_action {
    HELPER_READ_FILE,     /* opening a file or folder to read */
    HELPER_WRITE_FILE,    /* opening a file to write, or creating one */
    HELPER_OPEN_DEVICE,   /* opening a device node */
    HELPER_CHANGE_OWNER,
    HELPER_DELETE,
    HELPER_CHANGE_ACL,
};

/* The polkit action id of `action`. */
const char *helper_action_id(enum helper_action action);

/* 0 when `client` may have `action` done, otherwise EACCES. A helper that runs as the
 * client's own user needs no authority; one that runs as another user asks polkitd over the
 * system bus (CheckAuthorization, the client's process as subject, user interaction allowed),
 * and a denial or a polkitd it cannot reach refuses. */
int helper_authorize(const struct helper_client *client, enum helper_action action);

/* Lets go of the system bus. */
void helper_authority_close(void);

#endif /* QZHELPER_AUTHORITY_H */
