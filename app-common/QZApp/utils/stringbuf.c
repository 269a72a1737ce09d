/* Guarded string buffers. */
#include "utils_private.h"

/* The guard check is always on: the C library's assertion report, whatever NDEBUG says. */
#undef NDEBUG
#include <assert.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

/* The heap block behind a handle. `characters` follows `guard` without a gap (both are byte
 * arrays), so the handle turns back into the block by stepping back a fixed distance. */
struct stringbuf_block {
    size_t capacity;
    char guard[4];
    char characters[];
};

#define STRINGBUF_HEADER offsetof(struct stringbuf_block, characters)
#define STRINGBUF_BLOCK_SIZE(capacity) (STRINGBUF_HEADER + (capacity) + 1 + 4)
#define STRINGBUF_MAX_CAPACITY (SIZE_MAX / 2)

static struct stringbuf_block *block_of(stringbuf handle)
{
    return (struct stringbuf_block *)(handle - STRINGBUF_HEADER);
}

static void write_trailing_guard(struct stringbuf_block *buf)
{
    memcpy(buf->characters + buf->capacity + 1, "Strb", 4);
}

/* Aborts the process, in every build, when either guard of the buffer is damaged. */
static struct stringbuf_block *check_guards(stringbuf handle)
{
    struct stringbuf_block *buf = block_of(handle);
    if (!(buf->guard[0] == 's' && buf->guard[1] == 'T' && buf->guard[2] == 'R' && buf->guard[3] == 'B' && buf->characters[buf->capacity + 1] == 'S' && buf->characters[buf->capacity + 2] == 't' && buf->characters[buf->capacity + 3] == 'r' && buf->characters[buf->capacity + 4] == 'b'))
        __assert_fail("buf->guard[0] == 's' && buf->guard[1] == 'T' && buf->guard[2] == 'R' && buf->guard[3] == 'B' && buf->characters[buf->capacity + 1] == 'S' && buf->characters[buf->capacity + 2] == 't' && buf->characters[buf->capacity + 3] == 'r' && buf->characters[buf->capacity + 4] == 'b'",
                      UTILS_SOURCE_UNIT, UTILS_GUARD_CHECK_LINE, "check_guards");
    return buf;
}

/* A buffer for `capacity` characters holding the empty text; null when out of memory. */
stringbuf stringbuf_alloc(size_t capacity)
{
    if (capacity > STRINGBUF_MAX_CAPACITY)
        return NULL;
    struct stringbuf_block *buf = malloc(STRINGBUF_BLOCK_SIZE(capacity));
    if (!buf)
        return NULL;
    buf->capacity = capacity;
    memcpy(buf->guard, "sTRB", 4);
    memset(buf->characters, 0, capacity + 1);
    write_trailing_guard(buf);
    return buf->characters;
}

void stringbuf_free(stringbuf handle)
{
    if (!handle)
        return;
    free(check_guards(handle));
}

stringbuf stringbuf_dup(const char *string)
{
    const size_t length = strlen(string);
    stringbuf handle = stringbuf_alloc(length);
    if (handle)
        memcpy(handle, string, length + 1);
    return handle;
}

size_t stringbuf_capacity(stringbuf handle)
{
    return check_guards(handle)->capacity;
}

stringbuf stringbuf_expand(stringbuf handle, size_t capacity)
{
    struct stringbuf_block *buf = check_guards(handle);
    if (capacity > STRINGBUF_MAX_CAPACITY)
        return NULL;
    struct stringbuf_block *grown = realloc(buf, STRINGBUF_BLOCK_SIZE(capacity));
    if (!grown)
        return NULL;
    grown->capacity = capacity;
    grown->characters[capacity] = '\0';
    write_trailing_guard(grown);
    return grown->characters;
}

stringbuf stringbuf_append(stringbuf handle, const char *string)
{
    const size_t capacity = check_guards(handle)->capacity;
    const size_t length = strlen(handle);
    const size_t added = strlen(string);
    if (length + added > capacity) {
        handle = stringbuf_expand(handle, length + added);
        if (!handle)
            return NULL;
    }
    memcpy(handle + length, string, added + 1);
    return handle;
}

stringbuf stringbuf_append_path_component(stringbuf handle, const char *component)
{
    if (component[0] == '/')
        component++;
    /* The byte before an empty text is a guard byte, never '/', so "/" comes first then. */
    const size_t length = strlen(handle);
    if (handle[(ptrdiff_t)length - 1] != '/') {
        handle = stringbuf_append(handle, "/");
        if (!handle)
            return NULL;
    }
    return stringbuf_append(handle, component);
}
