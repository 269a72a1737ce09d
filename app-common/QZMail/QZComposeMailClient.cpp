// The compose client: the user's mail program opens a new message through xdg-email, with the
// plain-text body and the attachments filled in; the user sends it.
#include "QZMailClients_p.h"

#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTextDocument>

namespace {

QString xdgEmail()
{
    return QStandardPaths::findExecutable(QStringLiteral("xdg-email"));
}

} // namespace

bool QZComposeMailClient::isAvailable()
{
    if (xdgEmail().isEmpty())
        return false;
    // Some program must take mailto: links, or xdg-email has nothing to open.
    QProcess query;
    query.start(QStringLiteral("xdg-mime"), { QStringLiteral("query"), QStringLiteral("default"),
                                              QStringLiteral("x-scheme-handler/mailto") });
    if (!query.waitForFinished(10000)) {
        query.kill();
        query.waitForFinished();
        return false;
    }
    return query.exitStatus() == QProcess::NormalExit && query.exitCode() == 0
            && !query.readAllStandardOutput().trimmed().isEmpty();
}

bool QZComposeMailClient::constructMessage(const QTextDocument &message, const QVariantMap &headers, QZError *error)
{
    const auto fail = [&](QZMailErrorCode code, const QString &reason) {
        if (error)
            *error = QZ::mail::makeError(code, reason);
        return false;
    };
    const QString to = QZ::mail::addressOf(headers.value(QStringLiteral("To")).toString());
    if (to.isEmpty())
        return fail(QZMailErrorBadMessage, QStringLiteral("The message has no recipient."));
    QStringList arguments{ QStringLiteral("--subject"), headers.value(QStringLiteral("Subject")).toString(),
                           QStringLiteral("--body"), QZ::mail::plainText(message) };
    for (const QString &path : QZ::mailAttachments(message)) {
        if (!QFileInfo(path).isReadable())
            return fail(QZMailErrorBadMessage, QStringLiteral("The attachment \"%1\" cannot be read.").arg(path));
        arguments << QStringLiteral("--attach") << QFileInfo(path).absoluteFilePath();
    }
    arguments << to;
    // The mail program may stay open for as long as the user writes: it is not waited for.
    const QString program = xdgEmail();
    if (program.isEmpty() || !QProcess::startDetached(program, arguments))
        return fail(QZMailErrorLaunch, QStringLiteral("The mail program could not be started (xdg-email)."));
    return true;
}
