// The file operations behind Disk Tool's menu items. Each blocks, so the window runs them on a
// thread of their own; each returns 0 or an errno value (10002: the helper could not be reached).
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace disktool {

struct ActionResult
{
    int error = 0;
    QString path;              // the object that failed, if one did
    QByteArray data;           // what Open as Administrator read
};

// Deletes each object and everything beneath it; stops at the first failure.
ActionResult deleteObjects(const QStringList &paths);
// Gives the object (not what a link points to) to the calling user and group, through the helper.
ActionResult takeOwnership(const QString &path);
// Deletes a file or a link through the helper (it has no word for folders).
ActionResult deleteAsAdministrator(const QString &path);
// Opens the file for reading, through the helper when the caller may not, and reads at most
// `limit` bytes of it.
ActionResult readAsAdministrator(const QString &path, qint64 limit = 4 << 20);
// Lets user `uid` read (4), write (2) or run (1) the object, through an access list entry.
ActionResult grantAccess(const QString &path, unsigned permissions, unsigned uid);

// The user-visible reason for an error value.
QString errorText(int error);
// The user id of a user name or number, or -1.
long userIdFromName(const QString &name);

} // namespace disktool
