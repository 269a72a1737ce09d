/* The helper's command-line splitter: the exact inverse of the client's argument quoting.
 *
 * A client joins arguments with single blanks; in each argument every shell-special character
 * gets a backslash (carriage return, line feed and tab are written as \r, \n and \t: the
 * alphabet is in helper_protocol.h), and an empty argument is written as a blank and "" (also
 * when it comes first). helper_split()
 * accepts exactly the lines that joining can produce and gives back the arguments.
 */
#ifndef QZHELPER_SPLIT_H
#define QZHELPER_SPLIT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct helper_args {
    int argc;
    char **argv;      /* argc strings, then a null pointer */
    char *storage;    /* the strings live here */
};

/* Splits the `length` bytes at `line` (no newline) into `args`. Returns 0, EINVAL when the
 * line is not one that joining produces (a NUL byte, an unescaped special character, a stray
 * blank, an unknown escape, a backslash at the end), or ENOMEM. On failure `args` holds
 * nothing to free. */
int helper_split(const char *line, size_t length, struct helper_args *args);

/* Releases what helper_split() allocated; `args` may be empty. */
void helper_args_free(struct helper_args *args);

#ifdef __cplusplus
}
#endif

#endif /* QZHELPER_SPLIT_H */
