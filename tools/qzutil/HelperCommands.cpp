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

// Runs one command through perform_helper_command(): prints "status N", then any reply data. The
// words go to the helper as the bytes of the argument vector, so one that is not UTF-8 reaches
// perform_helper_command() as it is (and gets 10002 there).
int helper(const Invocation &invocation)
{
    if (invocation.isSet("helper"))
        QZHelperTool::sharedInstance()->setHelperPath(invocation.value("helper"));
    const QList<QByteArray> &words = invocation.operandBytes();
    if (words.isEmpty())
        return usage("helper");

    std::vector<const char *> argv;
    for (const QByteArray &word : words)
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
        return fail(QStringLiteral("%1: %2 (status %3)").arg(invocation.operands().front(), statusText(status)).arg(status));
    return Success;
}

// Opens a file with auth_open() (the helper steps in on EACCES) and copies it to standard output.
int authCat(const Invocation &invocation)
{
    const QStringList &arguments = invocation.operands();
    if (arguments.size() != 1)
        return usage("auth-cat");
    const QByteArray path = invocation.operandBytes().front();
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

QZUTIL_COMMAND(.name = "helper", .usage = "[--helper PATH] WORD [ARG...]",
               .summary = "run a command through the privileged helper; print its status and reply data",
               .run = helper,
               .options = { { "helper", "PATH", "the helper program to start (by default \"qzutil Helper\" beside\n"
                                                "qzutil)" } },
               .operands = { { "WORD", "the helper's command word (echo, access, unlink, ...)" },
                             { "ARG", "its arguments, handed on as they are, whatever they start with" } });
QZUTIL_COMMAND(.name = "auth-cat", .usage = "PATH", .summary = "print a file, opened through the helper if access is denied",
               .run = authCat, .operands = { { "PATH", "the file to print" } });

} // namespace
} // namespace qzutil
