/* Property lists read from a file: XML or binary, nothing else. */
#include "utils_private.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Reads the whole file at `path`: a heap block the caller frees, or null. */
static char *read_file(const char *path, size_t *length)
{
    char *bytes = NULL;
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return NULL;
    struct stat status;
    if (fstat(fd, &status) < 0 || !S_ISREG(status.st_mode) || status.st_size > (off_t)UINT32_MAX)
        goto out;
    const size_t size = (size_t)status.st_size;
    bytes = malloc(size ? size : 1);
    if (!bytes)
        goto out;
    size_t done = 0;
    while (done < size) {
        const ssize_t got = read(fd, bytes + done, size - done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        done += (size_t)got;
    }
    *length = done;
out:
    close(fd);
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

#define DEPTH_MAX 512

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

plist_t utils_plist_from_memory(const char *bytes, size_t length)
{
    plist_t list = NULL;
    if (length > UINT32_MAX)
        return NULL;
    if (plist_is_binary(bytes, (uint32_t)length))
        plist_from_bin(bytes, (uint32_t)length, &list);
    else if (looks_like_xml(bytes, length))
        plist_from_xml(bytes, (uint32_t)length, &list);
    if (list && (!well_formed(list, 0) || holds_nul(list))) {
        plist_free(list);
        list = NULL;
    }
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
