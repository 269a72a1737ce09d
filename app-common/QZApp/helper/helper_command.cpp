// The plain C interface to the helper: perform_helper_command() and the file operations.
#include "helper_command.h"

#include "QZHelperTool.h"
#include "QZHelperTool_p.h"
#include "QZHelperToolCDelegate.h"

#include <QZApp/QZStringExtensions.h>

#include <QStringDecoder>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

// The argument vector as one command line, or a null string when an entry is not UTF-8.
QString commandLine(const helper_command *record)
{
    QString line(QLatin1String(""));
    for (int32_t i = 0; i < record->argc; ++i) {
        if (!record->argv || !record->argv[i])
            return QString();
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        const QString argument = decoder(QByteArrayView(record->argv[i]));
        if (decoder.hasError())
            return QString();
        QZ::appendArgument(line, argument);
    }
    return line;
}

// Runs a command given as a fixed list of arguments, asking only for a descriptor.
int32_t performArguments(std::initializer_list<const char *> arguments, int32_t *fd = nullptr)
{
    helper_command record {};
    record.argc = static_cast<int32_t>(arguments.size());
    record.argv = arguments.begin();
    record.fd = fd;
    return perform_helper_command(&record);
}

} // namespace

extern "C" {

int32_t perform_helper_command(helper_command *record)
{
    const QString line = commandLine(record);
    if (line.isNull() || (record->reply_data && !record->reply_length))
        return HELPER_STATUS_FAILED;

    const std::shared_ptr<QZHelperCommand> command = QZHelperCommand::commandWithString(line);
    if (record->data_length != 0)
        command->setCommandData(QByteArray(static_cast<const char *>(record->data),
                                           static_cast<qsizetype>(record->data_length)));
    // Owned here, so that a queued finish notice keeps it alive after this call returns.
    const std::shared_ptr<QZHelperToolCDelegate> delegate =
            record->progress ? std::make_shared<QZHelperToolCDelegate>(record) : nullptr;
    command->setDelegate(delegate.get());

    QByteArray data;
    bool sent = false;
    int32_t status = QZHelperToolPrivate::get(QZHelperTool::sharedInstance())
                             ->perform(command, record->fd, record->reply_data ? &data : nullptr, &sent);
    if (!sent)
        return status;

    if (record->reply_data) {
        *record->reply_length = static_cast<uint32_t>(data.size());
        void *copy = nullptr;
        if (*record->reply_length != 0) {
            copy = std::malloc(*record->reply_length);
            if (copy) {
                std::memcpy(copy, data.constData(), *record->reply_length);
            } else {
                *record->reply_length = 0;
                if (status == 0)
                    status = ENOMEM;
            }
        }
        *record->reply_data = copy;
    }
    return status;
}

int32_t auth_openx(const char *path, unsigned flags, unsigned mode, unsigned kind, const char *extra, int32_t *fd)
{
    char flagsText[16], modeText[16], kindText[16];
    std::snprintf(flagsText, sizeof flagsText, "%x", flags);
    std::snprintf(modeText, sizeof modeText, "%x", mode);
    std::snprintf(kindText, sizeof kindText, "%u", kind);
    if (extra)
        return performArguments({ "access", path, flagsText, modeText, kindText, extra }, fd);
    return performArguments({ "access", path, flagsText, modeText, kindText }, fd);
}

int auth_open(const char *path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    const unsigned kind = (flags & AUTH_O_CALLER_OWNS) ? 1 : 2;
    flags &= ~AUTH_O_CALLER_OWNS;

    const int fd = open(path, flags, mode);
    if (fd >= 0 || errno != EACCES)
        return fd;

    int32_t received = -1;
    const int32_t status = auth_openx(path, static_cast<unsigned>(flags), mode, kind, "", &received);
    if (status != 0) {
        errno = status;
        return -1;
    }
    // Passed descriptors arrive close-on-exec; keep the flag only when the caller asked for it.
    if (!(flags & O_CLOEXEC)) {
        const int descriptorFlags = fcntl(received, F_GETFD);
        if (descriptorFlags >= 0)
            fcntl(received, F_SETFD, descriptorFlags & ~FD_CLOEXEC);
    }
    return received;
}

int32_t authorise_access(const char *path, unsigned perms, unsigned uid)
{
    char permsText[16], uidText[16];
    std::snprintf(permsText, sizeof permsText, "%x", perms);
    std::snprintf(uidText, sizeof uidText, "%u", uid);
    return performArguments({ "authorise", path, permsText, uidText });
}

int32_t revoke_access(const char *path, unsigned uid)
{
    char uidText[16];
    std::snprintf(uidText, sizeof uidText, "%u", uid);
    return performArguments({ "revoke", uidText, path });
}

int32_t authorise_global(const char *path, unsigned perms)
{
    char permsText[16];
    std::snprintf(permsText, sizeof permsText, "%u", perms);
    return performArguments({ "authorise_global", path, permsText });
}

int auth_chown(const char *path, unsigned uid, unsigned gid)
{
    char uidText[16], gidText[16];
    std::snprintf(uidText, sizeof uidText, "%u", uid);
    std::snprintf(gidText, sizeof gidText, "%u", gid);
    const int32_t status = performArguments({ "chown", path, uidText, gidText });
    if (status != 0) {
        errno = status;
        return -1;
    }
    return 0;
}

int auth_unlink(const char *path)
{
    const int32_t status = performArguments({ "unlink", path });
    if (status != 0) {
        errno = status;
        return -1;
    }
    return 0;
}

} // extern "C"
