/* The helper's command-line splitter; see split.h. */
#include "split.h"

#include <QZApp/helper/helper_protocol.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>

static int is_special(unsigned char c)
{
    return c != '\0' && strchr(HELPER_SHELL_SPECIAL, c) != NULL;
}

/* The character an escape stands for, or -1 when joining never writes that escape. */
static int unescaped(unsigned char c)
{
    if (c == '\0')
        return -1;
    const char *letter = strchr(HELPER_ESCAPE_LETTERS, c);
    if (letter)
        return HELPER_ESCAPED_CONTROLS[letter - HELPER_ESCAPE_LETTERS];
    if (strchr(HELPER_ESCAPED_CONTROLS, c))
        return -1;   /* these are written as letters */
    return is_special(c) ? c : -1;
}

/* Reads one argument from line[*at] up to the next blank or the end into `out`. Returns the
 * number of bytes written, or -1 when the text is not an escaped argument. */
static long read_argument(const char *line, size_t length, size_t *at, char *out)
{
    size_t i = *at;
    long written = 0;
    while (i < length && line[i] != ' ') {
        const unsigned char c = (unsigned char)line[i];
        if (c == '\\') {
            int plain;
            if (i + 1 == length || (plain = unescaped((unsigned char)line[i + 1])) < 0)
                return -1;
            out[written++] = (char)plain;
            i += 2;
        } else if (c == '\0' || is_special(c)) {
            return -1;
        } else {
            out[written++] = (char)c;
            i++;
        }
    }
    *at = i;
    return written;
}

/* True when line[at..] is the empty argument "" followed by a blank or the end. */
static int empty_argument_at(const char *line, size_t length, size_t at)
{
    return at + 2 <= length && line[at] == '"' && line[at + 1] == '"'
        && (at + 2 == length || line[at + 2] == ' ');
}

int helper_split(const char *line, size_t length, struct helper_args *args)
{
    memset(args, 0, sizeof(*args));
    /* Each argument takes at least two bytes of the line with its blank, but a non-empty first
     * one may take one: length / 2 + 1 entries and the final null always fit. */
    const size_t capacity = length / 2 + 2;
    args->argv = calloc(capacity, sizeof(char *));
    args->storage = malloc(length + capacity);
    if (!args->argv || !args->storage) {
        helper_args_free(args);
        return ENOMEM;
    }

    char *out = args->storage;
    size_t at = 0;
    int argc = 0;
    while (at < length) {
        const int first = argc == 0;
        if (!first || line[at] == ' ') {
            /* A blank comes before every argument but a non-empty first one. */
            if (line[at] != ' ')
                goto malformed;
            at++;
            if (empty_argument_at(line, length, at)) {
                args->argv[argc++] = out;
                *out++ = '\0';
                at += 2;
                continue;
            }
            if (first)
                goto malformed;   /* a leading blank only comes with "" */
        }
        const long written = read_argument(line, length, &at, out);
        if (written <= 0)
            goto malformed;
        args->argv[argc++] = out;
        out += written;
        *out++ = '\0';
    }
    args->argc = argc;
    args->argv[argc] = NULL;
    return 0;

malformed:
    helper_args_free(args);
    return EINVAL;
}

void helper_args_free(struct helper_args *args)
{
    free(args->argv);
    free(args->storage);
    memset(args, 0, sizeof(*args));
}
