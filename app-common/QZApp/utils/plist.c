/* Property lists read from a file: XML or binary, nothing else. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Reads the whole file at `path`: a heap block the caller frees, or null with errno set. A file
 * that is not a regular one is not read (a FIFO is opened without waiting for a writer). */
static char *read_file(const char *path, size_t *length)
{
    char *bytes = NULL;
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return NULL;
    struct stat status;
    if (fstat(fd, &status) < 0)
        goto out;
    if (!S_ISREG(status.st_mode) || status.st_size > (off_t)UINT32_MAX) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : S_ISREG(status.st_mode) ? EFBIG : EINVAL;
        goto out;
    }
    const size_t size = (size_t)status.st_size;
    bytes = malloc(size ? size : 1);
    if (!bytes)
        goto out;
    size_t done = 0;
    while (done < size) {
        const ssize_t got = read(fd, bytes + done, size - done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            free(bytes);
            bytes = NULL;
            goto out;
        }
        if (got == 0)
            break;
        done += (size_t)got;
    }
    *length = done;
out:
    if (!bytes) {
        const int saved = errno;
        close(fd);
        errno = saved;
    } else {
        close(fd);
    }
    return bytes;
}

/* Whether `bytes` look like XML: optional byte-order mark and white space, then '<'. */
static bool looks_like_xml(const char *bytes, size_t length)
{
    size_t i = 0;
    if (length >= 3 && memcmp(bytes, "\xEF\xBB\xBF", 3) == 0)
        i = 3;
    while (i < length && strchr(" \t\r\n", bytes[i]) && bytes[i] != '\0')
        i++;
    return i < length && bytes[i] == '<';
}

#define DEPTH_MAX UTILS_PLIST_DEPTH_MAX

/* The nesting of a list is checked before the parser sees it: the parser builds a tree as deep
 * as the input and frees it recursively, even when it gives up half way, so a deep enough list
 * exhausts the stack before the tree could be looked at. Both checks below read the input
 * once, without recursion. */

/* Where `text` (any one of its characters, with `any`) first occurs at or after `from`,
 * reading what stands between two `quote` characters as quoted and skipping it (0: no quotes);
 * `length` when it does not occur. */
static size_t find_text(const char *bytes, size_t length, size_t from, const char *text, bool any, char quote)
{
    const size_t size = strlen(text);
    for (size_t i = from; i < length; i++) {
        if (quote && bytes[i] == quote) {
            const char *close = memchr(bytes + i + 1, quote, length - i - 1);
            if (!close)
                return length;
            i = (size_t)(close - bytes);
        } else if (any ? memchr(text, bytes[i], size) != NULL
                       : length - i >= size && memcmp(bytes + i, text, size) == 0) {
            return i;
        }
    }
    return length;
}

/* As find_text, when reading the text without quotes, with double quotes and with single quotes
 * all give the same place, and `length` when they do not. XML parsers differ in the quotes
 * they honour inside markup; where that could make one see markup another skips, the list is
 * refused. */
static size_t find_agreed(const char *bytes, size_t length, size_t from, const char *text, bool any)
{
    const size_t plain = find_text(bytes, length, from, text, any, 0);
    if (plain == length || find_text(bytes, length, from, text, any, '"') != plain
        || find_text(bytes, length, from, text, any, '\'') != plain)
        return length;
    return plain;
}

static bool starts_with(const char *bytes, size_t length, size_t at, const char *text)
{
    const size_t size = strlen(text);
    return length - at >= size && memcmp(bytes + at, text, size) == 0;
}

/* Whether `text` occurs in bytes[from, to), in upper or lower case. */
static bool holds_word(const char *bytes, size_t from, size_t to, const char *text)
{
    const size_t size = strlen(text);
    for (size_t i = from; i + size <= to; i++) {
        size_t k = 0;
        while (k < size && (bytes[i + k] | 0x20) == (text[k] | 0x20))
            k++;
        if (k == size)
            return true;
    }
    return false;
}

/* Whether the elements of an XML list nest no deeper than `limit`. Comments, CDATA sections,
 * processing instructions and the document type declaration are stepped over as wholes, so
 * that neither tags inside them nor their ends count; an internal subset of the declaration
 * that declares entities is refused, since an entity could stand for any amount of nesting.
 * Anything the parser would stop at may be refused here as well. */
static bool xml_nesting_within(const char *bytes, size_t length, unsigned limit)
{
    unsigned depth = 0;
    size_t i = 0;
    for (;;) {
        const char *open = i < length ? memchr(bytes + i, '<', length - i) : NULL;
        if (!open)
            return true;
        i = (size_t)(open - bytes) + 1;
        size_t end;
        if (starts_with(bytes, length, i, "!--")) {
            end = find_text(bytes, length, i + 3, "-->", false, 0);
            i = end + 3;
        } else if (starts_with(bytes, length, i, "![CDATA[")) {
            end = find_text(bytes, length, i + 8, "]]>", false, 0);
            i = end + 3;
        } else if (starts_with(bytes, length, i, "?")) {
            end = find_agreed(bytes, length, i, "?>", false);   /* as the parser: "<?>" is whole */
            i = end + 2;
        } else if (starts_with(bytes, length, i, "!DOCTYPE")) {
            end = find_agreed(bytes, length, i + 8, "[>", true);
            if (end < length && bytes[end] == '[') {
                /* The subset ends at its first ']', which every reading must see followed by '>'. */
                const size_t subset = end + 1;
                const char *close = memchr(bytes + subset, ']', length - subset);
                end = close ? (size_t)(close - bytes) : length;
                if (end == length || end + 1 == length || bytes[end + 1] != '>'
                    || find_agreed(bytes, length, subset, "]>", false) != end
                    || holds_word(bytes, subset, end, "ENTITY"))
                    return false;
                end++;
            }
            i = end + 1;
        } else if (starts_with(bytes, length, i, "!")) {
            return false;   /* no other declaration belongs in a list */
        } else {
            end = find_agreed(bytes, length, i, "<>", true);
            if (end == length || bytes[end] != '>')
                return false;
            if (bytes[i] == '/') {
                if (depth == 0)
                    return false;
                depth--;
            } else if (bytes[end - 1] != '/' && ++depth > limit) {
                return false;
            }
            i = end + 1;
        }
        if (end >= length)
            return false;   /* markup left open */
    }
}

/* A binary list: "bplist00", the objects, a table of their offsets and a 32-byte trailer. */
struct binary_list {
    const uint8_t *bytes;
    uint64_t table;          /* where the offset table starts, and the objects end */
    uint64_t objects;
    uint64_t top;
    unsigned offset_size, reference_size;
};

static uint64_t big_endian(const uint8_t *bytes, unsigned size)
{
    uint64_t value = 0;
    for (unsigned i = 0; i < size; i++)
        value = value << 8 | bytes[i];
    return value;
}

static bool binary_list_open(struct binary_list *list, const char *bytes, size_t length)
{
    if (length < 8 + 32)
        return false;
    const uint8_t *trailer = (const uint8_t *)bytes + length - 32;
    list->bytes = (const uint8_t *)bytes;
    list->offset_size = trailer[6];
    list->reference_size = trailer[7];
    list->objects = big_endian(trailer + 8, 8);
    list->top = big_endian(trailer + 16, 8);
    list->table = big_endian(trailer + 24, 8);
    const uint64_t end = length - 32;
    return list->offset_size >= 1 && list->offset_size <= 8 && list->reference_size >= 1
           && list->reference_size <= 8 && list->table >= 8 && list->table <= end && list->objects > 0
           && list->objects <= (end - list->table) / list->offset_size && list->top < list->objects;
}

/* The references object `index` holds: where they start and how many (none for anything but
 * arrays, sets and dictionaries, whose keys and values both count). False when the object
 * lies or reaches outside the objects, which the parser refuses too. */
static bool binary_object_references(const struct binary_list *list, uint64_t index, uint64_t *at, uint64_t *count)
{
    const uint64_t offset = big_endian(list->bytes + list->table + index * list->offset_size, list->offset_size);
    if (offset < 8 || offset >= list->table)
        return false;
    const uint8_t marker = list->bytes[offset];
    const unsigned type = marker >> 4;
    *count = 0;
    if (type < 0xA || type > 0xD)
        return true;
    uint64_t start = offset + 1, number = marker & 0xF;
    if (number == 0xF) {   /* the count follows as an integer object */
        if (start >= list->table || list->bytes[start] >> 4 != 0x1 || (list->bytes[start] & 0xF) > 3)
            return false;
        const unsigned size = 1u << (list->bytes[start] & 0xF);
        if (list->table - start - 1 < size)
            return false;
        number = big_endian(list->bytes + start + 1, size);
        start += 1 + size;
    }
    const uint64_t room = (list->table - start) / list->reference_size;
    if (number > (type == 0xD ? room / 2 : room))
        return false;
    *at = start;
    *count = type == 0xD ? 2 * number : number;
    return true;
}

/* Whether the objects reachable from the top of a binary list nest no deeper than DEPTH_MAX
 * and, with every shared object counted once for each reference to it (the parser copies
 * them), make a tree of at most `nodes_max` nodes. Objects are followed depth first with an
 * explicit stack; the height and tree size of each finished object are kept, so that each is
 * walked once however often it is referred to, and a reference back to an object still on
 * the stack is a cycle, which is refused. */
static bool binary_nesting_within(const char *bytes, size_t length, uint64_t nodes_max)
{
    struct binary_list list;
    if (!binary_list_open(&list, bytes, length))
        return false;
    struct object {
        uint64_t nodes;
        uint16_t height;
        uint8_t state;   /* 0 not reached, 1 on the stack, 2 finished */
    } *objects = calloc((size_t)list.objects, sizeof *objects);
    struct frame {
        uint64_t index, at, left, nodes;
        unsigned height;
    } stack[DEPTH_MAX + 1];
    if (!objects)
        return false;
    bool ok = false;
    size_t top = 0;   /* the frame in use; its object's depth */
    stack[0] = (struct frame) { .index = list.top, .nodes = 1 };
    if (!binary_object_references(&list, list.top, &stack[0].at, &stack[0].left))
        goto out;
    objects[list.top].state = 1;
    for (;;) {
        struct frame *frame = &stack[top];
        if (frame->left == 0) {
            objects[frame->index] = (struct object) { frame->nodes, (uint16_t)frame->height, 2 };
            if (top == 0)
                break;
            struct frame *parent = &stack[--top];
            parent->nodes += frame->nodes;
            if (frame->height + 1 > parent->height)
                parent->height = frame->height + 1;
            if (parent->nodes > nodes_max)
                goto out;
            continue;
        }
        const uint64_t child = big_endian(list.bytes + frame->at, list.reference_size);
        frame->at += list.reference_size;
        frame->left--;
        if (child >= list.objects || objects[child].state == 1)
            goto out;
        if (objects[child].state == 0) {
            uint64_t at = 0, count = 0;
            if (top + 1 > DEPTH_MAX || !binary_object_references(&list, child, &at, &count))
                goto out;
            if (count > 0) {
                objects[child].state = 1;
                stack[++top] = (struct frame) { .index = child, .at = at, .left = count, .nodes = 1 };
                continue;
            }
            objects[child] = (struct object) { 1, 0, 2 };
        }
        if (top + 1 + objects[child].height > DEPTH_MAX)
            goto out;
        frame->nodes += objects[child].nodes;
        if (objects[child].height + 1u > frame->height)
            frame->height = objects[child].height + 1u;
        if (frame->nodes > nodes_max)
            goto out;
    }
    ok = true;
out:
    free(objects);
    return ok;
}

/* Whether the list under `node` is well formed: every dictionary entry has a key node, and
 * nothing is nested deeper than DEPTH_MAX (which keeps walks of it from exhausting the stack).
 * The parser lets a binary list with other nodes in the key places through. */
static bool well_formed(plist_t node, int depth)
{
    if (depth > DEPTH_MAX)
        return false;
    const plist_type type = plist_get_node_type(node);
    if (type == PLIST_ARRAY) {
        const uint32_t count = plist_array_get_size(node);
        for (uint32_t i = 0; i < count; i++)
            if (!well_formed(plist_array_get_item(node, i), depth + 1))
                return false;
    } else if (type == PLIST_DICT) {
        plist_dict_iter iterator = NULL;
        plist_dict_new_iter(node, &iterator);
        bool ok = iterator != NULL;
        for (plist_t value = NULL; ok;) {
            plist_dict_next_item(node, iterator, NULL, &value);   /* no key: it may not be one */
            if (!value)
                break;
            const plist_t key = plist_dict_item_get_key(value);
            ok = key && plist_get_node_type(key) == PLIST_KEY && well_formed(value, depth + 1);
        }
        free(iterator);
        return ok;
    }
    return true;
}

/* Whether any key or string of the list holds a NUL character. The binary parser lets such
 * text through, and reading such a key later stops the process on an assertion of the
 * library; the XML form shows it as a NUL byte. */
static bool holds_nul(plist_t list)
{
    char *xml = NULL;
    uint32_t length = 0;
    plist_to_xml(list, &xml, &length);
    const bool found = !xml || memchr(xml, '\0', length) != NULL;
    plist_to_xml_free(xml);
    return found;
}

/* The most nodes the tree of a binary list may have: as many as it has bytes, which any list
 * without shared arrays or dictionaries keeps to, or 2^20 when that is more. Shared ones are
 * copied by the parser for every reference, which would let a few hundred bytes make a tree
 * of 2^500 nodes. */
static uint64_t binary_nodes_max(size_t length)
{
    return length > ((uint64_t)1 << 20) ? length : (uint64_t)1 << 20;
}

plist_t utils_plist_from_memory(const char *bytes, size_t length)
{
    plist_t list = NULL;
    if (length <= UINT32_MAX) {
        /* XML elements nest two deeper than the values: <plist> and the top value's own. */
        if (plist_is_binary(bytes, (uint32_t)length)) {
            if (binary_nesting_within(bytes, length, binary_nodes_max(length)))
                plist_from_bin(bytes, (uint32_t)length, &list);
        } else if (looks_like_xml(bytes, length) && xml_nesting_within(bytes, length, DEPTH_MAX + 2)) {
            plist_from_xml(bytes, (uint32_t)length, &list);
        }
    }
    if (list && (!well_formed(list, 0) || holds_nul(list))) {
        plist_free(list);
        list = NULL;
    }
    if (!list)
        errno = EINVAL;
    return list;
}

plist_t plist_from_file(const char *path)
{
    size_t length = 0;
    char *bytes = read_file(path, &length);
    if (!bytes)
        return NULL;
    plist_t list = utils_plist_from_memory(bytes, length);
    free(bytes);
    return list;
}
