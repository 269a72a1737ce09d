#include "FileActions.h"

#include <QZApp/QZLocalizedString.h>
#include <QZApp/helper/helper_command.h>
#include <QZApp/utils.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

namespace disktool {

namespace {

ActionResult failure(const QString &path, int error)
{
    ActionResult result;
    result.error = error;
    result.path = path;
    return result;
}

} // namespace

ActionResult deleteObjects(const QStringList &paths)
{
    for (const QString &path : paths) {
        if (delete_file_object(path.toLocal8Bit().constData()) < 0)
            return failure(path, errno);
    }
    return {};
}

ActionResult takeOwnership(const QString &path)
{
    if (auth_chown(path.toLocal8Bit().constData(), getuid(), getgid()) < 0)
        return failure(path, errno);
    return {};
}

ActionResult deleteAsAdministrator(const QString &path)
{
    if (auth_unlink(path.toLocal8Bit().constData()) < 0)
        return failure(path, errno);
    return {};
}

ActionResult readAsAdministrator(const QString &path, qint64 limit)
{
    const int fd = auth_open(path.toLocal8Bit().constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return failure(path, errno);
    ActionResult result;
    result.data.resize(limit);
    qint64 total = 0;
    while (total < limit) {
        const ssize_t count = read(fd, result.data.data() + total, size_t(limit - total));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) {
            result.error = errno;
            result.path = path;
            break;
        }
        if (count == 0)
            break;
        total += count;
    }
    close(fd);
    result.data.truncate(total);
    return result;
}

ActionResult grantAccess(const QString &path, unsigned permissions, unsigned uid)
{
    if (const int32_t status = authorise_access(path.toLocal8Bit().constData(), permissions, uid))
        return failure(path, status);
    return {};
}

QString errorText(int error)
{
    if (error == HELPER_STATUS_FAILED)
        return QZLocalizedString("The administrator helper could not be started, or it stopped.");
    return QString::fromLocal8Bit(std::strerror(error));
}

long userIdFromName(const QString &name)
{
    bool number = false;
    const uint uid = name.toUInt(&number);
    if (number)
        return long(uid);
    if (const passwd *entry = getpwnam(name.toLocal8Bit().constData()))
        return long(entry->pw_uid);
    return -1;
}

} // namespace disktool
