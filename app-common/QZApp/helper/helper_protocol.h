/* The helper wire protocol's shared constants, for the library and for helper programs (C).
 *
 * The client writes the 32-byte authorization block first, then request lines
 * "ID COMMAND\n" or "ID+LENGTH COMMAND\n" followed by LENGTH raw bytes, and "ID GET_FD\n" or
 * "ID ABORT\n". The helper answers with lines "ID PROGRESS TEXT\n", "ID FD\n" and exactly one
 * "ID REPLY STATUS SIZE\n" per command (SIZE raw bytes follow when SIZE > 0; SIZE -1 offers a
 * descriptor, which travels as SCM_RIGHTS ancillary data after "ID GET_FD\n"). Lines are at
 * most 4,095 bytes including the newline.
 */
#ifndef QZAPP_HELPER_PROTOCOL_H
#define QZAPP_HELPER_PROTOCOL_H

#include <stdint.h>

/* Status values. Any other status is the helper's own code (an errno value for file operations). */
#define HELPER_STATUS_OK 0
/* The command could not be sent, the helper went away before replying, or no descriptor came. */
#define HELPER_STATUS_FAILED 10002
/* No reply yet; a helper never sends it. */
#define HELPER_STATUS_NO_REPLY INT32_MIN

/* The longest line a helper may send, newline included. */
#define HELPER_MAX_LINE 4095

/* The quoting of a request line's command. The client joins the arguments with single blanks;
 * in each argument every character of HELPER_SHELL_SPECIAL gets a backslash, and after it a
 * character of HELPER_ESCAPED_CONTROLS is written as the letter at the same position of
 * HELPER_ESCAPE_LETTERS (carriage return, line feed and tab as r, n and t). An empty argument
 * is written as "". The library's shell quoting (QZStringExtensions.h) uses the same alphabet. */
#define HELPER_SHELL_SPECIAL "|&;<>()$`\"' \t\n\r*?[#~=%\\"
#define HELPER_ESCAPED_CONTROLS "\r\n\t"
#define HELPER_ESCAPE_LETTERS "rnt"

/* The authorization block the client sends first: who the client is, so that the helper can
 * compare it with the socket peer's credentials (SO_PEERCRED) and the peer's start time, plus
 * random bytes that make each block unique. Native byte order; the two ends run on one host. */
#define HELPER_AUTHORIZATION_SIZE 32
struct helper_authorization {
    int32_t pid;            /* the client's process id */
    uint32_t uid;           /* the client's real user id */
    uint64_t start_time;    /* field 22 of /proc/PID/stat: start time in clock ticks since boot */
    unsigned char nonce[16];
};

#ifdef __cplusplus
static_assert(sizeof(struct helper_authorization) == HELPER_AUTHORIZATION_SIZE, "authorization block size");
#else
_Static_assert(sizeof(struct helper_authorization) == HELPER_AUTHORIZATION_SIZE, "authorization block size");
#endif

#endif /* QZAPP_HELPER_PROTOCOL_H */
