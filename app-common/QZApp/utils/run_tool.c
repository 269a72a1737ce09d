/* Running a tool from an argument vector, or from one printf-style format per argument. */
#include "utils_private.h"

#include <errno.h>
#include <spawn.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

#define VECTOR_STEP 1024
#define KINDS_ON_STACK 64

int run_toolx(char *const argv[])
{
    static char *const no_environment[] = { NULL };
    pid_t child;
    /* The path as it stands: no search along PATH. */
    const int error = posix_spawn(&child, argv[0], NULL, NULL, argv, no_environment);
    if (error) {
        errno = error;
        return -1;
    }
    int status;
    pid_t waited;
    do
        waited = waitpid(child, &status, 0);
    while (waited < 0 && errno == EINTR);
    if (waited != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

/* The kind an integer conversion with length modifier `length` ("" for none) consumes. */
static char integer_kind(const char *length)
{
    if (length[0] == '\0' || strcmp(length, "h") == 0 || strcmp(length, "hh") == 0)
        return 'i';
    if (strcmp(length, "ll") == 0)
        return 'q';
    return length[0];   /* l, j, t, z; L is not accepted */
}

int utils_run_tool_format_walk(const char *format, char *kinds, size_t room)
{
    int count = 0;
    for (const char *p = strchr(format, '%'); p; p = strchr(p, '%')) {
        p++;
        p += strspn(p, "#0- +'");
        if (*p == '*')
            return -1;          /* a '*' width is read as the conversion: not accepted */
        p += strspn(p, "0123456789");
        if (*p == '.') {
            p++;
            if (*p == '*')
                return -1;
            p += strspn(p, "0123456789");
        }
        char length[3] = "";
        if ((p[0] == 'h' && p[1] == 'h') || (p[0] == 'l' && p[1] == 'l')) {
            memcpy(length, p, 2);
            p += 2;
        } else if (*p != '\0' && strchr("hljtzL", *p)) {
            length[0] = *p++;
        }
        char kind;
        const char conversion = *p;
        if (conversion != '\0' && strchr("diouxX", conversion) && strcmp(length, "L") != 0)
            kind = integer_kind(length);
        else if (conversion == 's')
            kind = 'p';
        else if (conversion != '\0' && strchr("aAeEfFgG", conversion) && (length[0] == '\0' || strcmp(length, "l") == 0))
            kind = 'd';
        else if (conversion != '\0' && strchr("aAeEfFgG", conversion) && strcmp(length, "L") == 0)
            kind = 'D';
        else
            return -1;          /* c, p, n, %, C, S, D, O, U, q and the rest */
        if (count == INT32_MAX)
            return -1;
        if ((size_t)count < room)
            kinds[count] = kind;
        count++;
        p++;
    }
    return count;
}

/* Moves `arguments` past one argument of each of the `count` kinds. */
static void consume(va_list *arguments, const char *kinds, int count)
{
    for (int i = 0; i < count; i++) {
        switch (kinds[i]) {
        case 'i': (void)va_arg(*arguments, int); break;
        case 'l': (void)va_arg(*arguments, long); break;
        case 'q': (void)va_arg(*arguments, long long); break;
        case 'j': (void)va_arg(*arguments, intmax_t); break;
        case 't': (void)va_arg(*arguments, ptrdiff_t); break;
        case 'z': (void)va_arg(*arguments, size_t); break;
        case 'p': (void)va_arg(*arguments, void *); break;
        case 'd': (void)va_arg(*arguments, double); break;
        case 'D': (void)va_arg(*arguments, long double); break;
        }
    }
}

/* Formats one element from `format` and the arguments at `arguments`, which it moves past
 * them. The format is walked before anything is formatted, so a rejected one formats nothing. */
static char *format_element(const char *format, va_list *arguments)
{
    char stack[KINDS_ON_STACK];
    const int count = utils_run_tool_format_walk(format, stack, sizeof stack);
    if (count < 0)
        return NULL;
    char *kinds = stack;
    if (count > KINDS_ON_STACK) {
        kinds = malloc((size_t)count);
        if (!kinds)
            return NULL;
        utils_run_tool_format_walk(format, kinds, (size_t)count);
    }
    char *element = NULL;
    va_list copy;
    va_copy(copy, *arguments);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int formatted = vasprintf(&element, format, copy);
#pragma GCC diagnostic pop
    va_end(copy);
    if (formatted < 0)
        element = NULL;
    else
        consume(arguments, kinds, count);
    if (kinds != stack)
        free(kinds);
    return element;
}

int run_tool(const char *format, ...)
{
    int result = -1;
    size_t room = VECTOR_STEP, count = 0;
    char **argv = calloc(room, sizeof *argv);
    if (!argv)
        return -1;
    va_list arguments;
    va_start(arguments, format);
    for (const char *next = format; next; next = va_arg(arguments, const char *)) {
        if (count + 1 >= room) {
            char **grown = realloc(argv, (room + VECTOR_STEP) * sizeof *argv);
            if (!grown)
                goto out;
            argv = grown;
            memset(argv + room, 0, VECTOR_STEP * sizeof *argv);
            room += VECTOR_STEP;
        }
        argv[count] = format_element(next, &arguments);
        if (!argv[count])
            goto out;
        count++;
    }
    argv[count] = NULL;
    result = run_toolx(argv);
out:
    va_end(arguments);
    const int saved = errno;
    for (size_t i = 0; i < count; i++)
        free(argv[i]);
    free(argv);
    errno = saved;
    return result;
}
