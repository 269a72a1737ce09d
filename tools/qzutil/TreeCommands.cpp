// qzutil copy | delete: copying and deleting file trees, without Qt. The full parser (the core
// module) registers the commands and their help, and hands a parsed command line to runCopy and
// runDelete; a plain command line runs them straight from the program.
#include "Launcher.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include <sys/stat.h>

namespace qzutil {
namespace {

// Whether `path` names the root folder, however spelled ("/", "//", "/tmp/..").
bool namesRootFolder(const char *path)
{
    size_t length = std::strlen(path);
    while (length > 1 && path[length - 1] == '/')
        length--;
    char *folder = strndup(path, length);
    struct stat named {}, root {};
    const bool root_folder = folder && lstat(folder, &named) == 0 && stat("/", &root) == 0
        && named.st_dev == root.st_dev && named.st_ino == root.st_ino;
    std::free(folder);
    return root_folder;
}

// Plain decimal digits up to `most`; anything else is left to the full parser.
std::optional<uint32_t> plainNumber(const char *text, uint64_t least, uint64_t most)
{
    uint64_t value = 0;
    if (!*text)
        return std::nullopt;
    for (const char *c = text; *c; ++c) {
        if (*c < '0' || *c > '9' || value > most)
            return std::nullopt;
        value = value * 10 + static_cast<uint64_t>(*c - '0');
    }
    if (value < least || value > most)
        return std::nullopt;
    return static_cast<uint32_t>(value);
}

} // namespace

int runCopy(const copy_file_options &options, const char *source, const char *destination)
{
    if (!copy_file(source, destination, &options))
    {
        std::fprintf(stderr, "qzutil: cannot copy %s to %s: %s\n", source, destination, std::strerror(errno));
        return Failure;
    }
    return Success;
}

int runDelete(const char *path, uint32_t jobs)
{
    if ((jobs > 1 ? delete_file_object_parallel(path, jobs) : delete_file_object(path)) == 0)
        return Success;
    // The two refusals, said plainly: the library's line only names the error.
    const int error = errno;
    if (error == EPERM && namesRootFolder(path))
        std::fprintf(stderr, "qzutil: cannot delete %s: it is the root folder, which is never deleted\n", path);
    else if (error == EXDEV)
        std::fprintf(stderr, "qzutil: cannot delete %s completely: another file system is mounted inside it, "
                             "and a delete never enters one\n", path);
    else
        std::fprintf(stderr, "qzutil: cannot delete %s: %s\n", path, std::strerror(error));
    return Failure;
}

bool runTreeCommandDirectly(int argc, char **argv, int *status)
{
    if (argc < 2)
        return false;
    const std::string_view command = argv[1];
    const bool copy = command == "copy";
    if (!copy && command != "delete")
        return false;
    struct Known {
        std::string_view name;
        uint32_t flag;          // a copy flag, or 0 for an option with a value
        bool copyOnly;
        bool seen;
    } known[] = { { "--recursive", COPY_FILE_RECURSIVE, true, false }, { "--keep-going", COPY_FILE_KEEP_GOING, true, false },
                  { "--hard-links", COPY_FILE_HARD_LINKS, true, false }, { "--jobs", 0, false, false },
                  { "--owner", 0, true, false }, { "--group", 0, true, false } };
    copy_file_options options {};
    uint32_t jobs = 1;
    int i = 2;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        Known *option = nullptr;
        for (Known &candidate : known) {
            if (candidate.name == argv[i] && (copy || !candidate.copyOnly))
                option = &candidate;
        }
        if (!option || option->seen)
            return false;
        option->seen = true;
        if (option->flag) {
            options.flags |= option->flag;
            continue;
        }
        if (++i == argc)
            return false;
        const bool isJobs = option->name == "--jobs";
        const std::optional<uint32_t> value = plainNumber(argv[i], isJobs ? 1 : 0, isJobs ? 64 : 0xFFFFFFFEu);
        if (!value)
            return false;
        if (isJobs)
            jobs = *value;
        else if (option->name == "--owner")
            options.flags |= COPY_FILE_OWNER, options.owner = *value;
        else
            options.flags |= COPY_FILE_GROUP, options.group = *value;
    }
    if (argc - i != (copy ? 2 : 1))
        return false;
    if (copy && jobs > 1) {
        options.flags |= COPY_FILE_PARALLEL;
        options.threads = jobs;
    }
    *status = copy ? runCopy(options, argv[i], argv[i + 1]) : runDelete(argv[i], jobs);
    return true;
}

} // namespace qzutil
