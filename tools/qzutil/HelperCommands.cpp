// qzutil helper | auth-cat: the privileged helper channel from the command line.
#include "Command.h"

#include <QZApp/helper/QZHelperTool.h>
#include <QZApp/helper/helper_command.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace qzutil {
namespace {

QString statusText(qint32 status)
{
    if (status == HELPER_STATUS_FAILED)
        return QStringLiteral("the helper could not be reached");
    return QString::fromLocal8Bit(std::strerror(status));
}

// Runs one command through perform_helper_command(): prints "status N", then any reply data.
int helper(const QStringList &arguments)
{
    QStringList words = arguments;
    if (words.size() >= 2 && words.front() == QLatin1String("--helper")) {
        QZHelperTool::sharedInstance()->setHelperPath(words[1]);
        words = words.mid(2);
    }
    if (words.isEmpty() || words.front().startsWith(QLatin1String("--")))
        return usage("helper");

    std::vector<QByteArray> encoded;
    std::vector<const char *> argv;
    for (const QString &word : words)
        encoded.push_back(word.toUtf8());
    for (const QByteArray &word : encoded)
        argv.push_back(word.constData());

    void *reply = nullptr;
    uint32_t replyLength = 0;
    helper_command command {};
    command.argc = static_cast<int32_t>(argv.size());
    command.argv = argv.data();
    command.reply_data = &reply;
    command.reply_length = &replyLength;
    const int32_t status = perform_helper_command(&command);

    printLine(QStringLiteral("status %1").arg(status));
    writeOut(QByteArray(static_cast<const char *>(reply), static_cast<qsizetype>(replyLength)));
    std::free(reply);
    if (status != 0)
        return fail(QStringLiteral("%1: %2 (status %3)").arg(words.front(), statusText(status)).arg(status));
    return Success;
}

// Opens a file with auth_open() (the helper steps in on EACCES) and copies it to standard output.
int authCat(const QStringList &arguments)
{
    if (arguments.size() != 1)
        return usage("auth-cat");
    const QByteArray path = arguments.front().toLocal8Bit();
    const int fd = auth_open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return fail(QStringLiteral("%1: %2").arg(arguments.front(), statusText(errno)));
    char buffer[64 * 1024];
    int status = Success;
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            status = fail(QStringLiteral("%1: %2").arg(arguments.front(), statusText(errno)));
            break;
        }
        if (got == 0)
            break;
        writeOut(QByteArray::fromRawData(buffer, got));
    }
    close(fd);
    return status;
}

QZUTIL_COMMAND("helper", "[--helper PATH] WORD [ARG...]",
               "run a command through the privileged helper; print its status and reply data", helper);
QZUTIL_COMMAND("auth-cat", "PATH", "print a file, opened through the helper if access is denied", authCat);

} // namespace
} // namespace qzutil
