// qzutil copy | delete as the full parser reads them: their options, operands and help, for
// any command line the program did not run directly (see Launcher.h).
#include "Command.h"
#include "Launcher.h"

#include <tuple>

namespace qzutil {
namespace {

// A user or group id for --owner and --group: up to 4294967294, as (uid_t)-1 means "unchanged".
std::optional<uint32_t> parseId(const QString &text)
{
    const std::optional<quint64> id = parseUnsigned(text);
    return id && *id <= 0xFFFFFFFEu ? std::optional<uint32_t>(static_cast<uint32_t>(*id)) : std::nullopt;
}

// --jobs N: 1 to 64 threads; absent, 1.
std::optional<uint32_t> parseJobs(const Invocation &invocation)
{
    if (!invocation.isSet("jobs"))
        return 1;
    const std::optional<quint64> jobs = parseUnsigned(invocation.value("jobs"));
    return jobs && *jobs >= 1 && *jobs <= 64 ? std::optional<uint32_t>(static_cast<uint32_t>(*jobs)) : std::nullopt;
}

int copy(const Invocation &invocation)
{
    copy_file_options options {};
    if (invocation.isSet("recursive"))
        options.flags |= COPY_FILE_RECURSIVE;
    if (invocation.isSet("keep-going"))
        options.flags |= COPY_FILE_KEEP_GOING;
    if (invocation.isSet("hard-links"))
        options.flags |= COPY_FILE_HARD_LINKS;
    const std::optional<uint32_t> jobs = parseJobs(invocation);
    if (!jobs)
        return usage("copy");
    if (*jobs > 1) {
        options.flags |= COPY_FILE_PARALLEL;
        options.threads = *jobs;
    }
    for (const auto &[option, flag, id] : { std::tuple { "owner", COPY_FILE_OWNER, &options.owner },
                                            std::tuple { "group", COPY_FILE_GROUP, &options.group } }) {
        if (!invocation.isSet(option))
            continue;
        const std::optional<uint32_t> given = parseId(invocation.value(option));
        if (!given)
            return usage("copy");
        options.flags |= flag;
        *id = *given;
    }
    const QStringList &paths = invocation.operands();
    if (paths.size() != 2)
        return usage("copy");
    const QList<QByteArray> &bytes = invocation.operandBytes();   // paths as given, even when not UTF-8
    return runCopy(options, bytes[0].constData(), bytes[1].constData());
}

int remove(const Invocation &invocation)
{
    const QStringList &arguments = invocation.operands();
    if (arguments.size() != 1)
        return usage("delete");
    const std::optional<uint32_t> jobs = parseJobs(invocation);
    if (!jobs)
        return usage("delete");
    return runDelete(invocation.operandBytes().front().constData(), *jobs);
}

QZUTIL_COMMAND(.name = "copy",
               .usage = "[--recursive] [--keep-going] [--hard-links] [--jobs N] [--owner UID] [--group GID] "
                        "SOURCE DESTINATION",
               .summary = "copy a file or folder with all its metadata", .run = copy,
               .options = { { "recursive", nullptr, "copy a folder's entries too, and theirs (without it a folder\n"
                                                    "is copied alone)" },
                            { "keep-going", nullptr, "go on with the next entry when one entry of a folder fails" },
                            { "hard-links", nullptr, "keep files that are hard links of each other linked in the copy" },
                            { "jobs", "N", "copy on N threads (1 to 64; default 1)" },
                            { "owner", "UID", "give every copied object this user id (0 to 4294967294)" },
                            { "group", "GID", "give every copied object this group id (0 to 4294967294)" } },
               .operands = { { "SOURCE", "the object to copy; a final symbolic link is copied as a link" },
                             { "DESTINATION", "the copy: a file there is overwritten, a folder merged into;\n"
                                              "on failure it is deleted, unless the error is EEXIST" } });
QZUTIL_COMMAND(.name = "delete", .usage = "[--jobs N] PATH", .summary = "delete a file or folder and everything beneath it",
               .run = remove,
               .options = { { "jobs", "N", "delete on N threads (1 to 64; default 1)" } },
               .operands = { { "PATH", "the object to delete; immutable flags are cleared and owner write\n"
                                       "permission added to folders on the way. The root folder is never\n"
                                       "deleted, and other file systems mounted inside are not entered" } });
} // namespace
} // namespace qzutil
