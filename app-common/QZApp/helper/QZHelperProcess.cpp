// The helper process: start-up with the authorization block, stopping and reaping.
#include "QZHelperTool_p.h"

#include "QZHelperSocket_p.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

// The running executable's path with " Helper" appended, or null when it cannot be had.
QByteArray defaultHelperPath()
{
    char executable[1024];
    const ssize_t length = readlink("/proc/self/exe", executable, sizeof executable);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof executable)
        return QByteArray();
    return QByteArray(executable, length) + " Helper";
}

QString launchFailure(const QByteArray &path, int error)
{
    const QString reason = QString::fromLocal8Bit(std::strerror(error));
    if (path.isNull())
        return QStringLiteral("Exception caught whilst trying to start helper: %1").arg(reason);
    return QStringLiteral("Exception caught whilst trying to start helper: %1: %2")
            .arg(QString::fromLocal8Bit(path), reason);
}

} // namespace

bool QZHelperToolPrivate::connectionAlive()
{
    ChannelGuard guard(lock);
    return connectionAliveLocked();
}

// True while this connection is usable as far as is known: its receiver has not seen its end
// (a helper that died meanwhile shows as a failed write or as the end of the stream).
bool QZHelperToolPrivate::connectionAliveLocked()
{
    return helperPipe != -1 && !connectionEnded && (receiveThreadRunning || helperRunningLocked());
}

// True while the helper process lives, reaping it once it has exited.
bool QZHelperToolPrivate::helperRunningLocked()
{
    if (adopted)
        return true;
    if (helperPid <= 0)
        return false;
    int status = 0;
    const pid_t result = waitpid(helperPid, &status, WNOHANG);
    if (result == 0)
        return true;
    if (result == helperPid || (result < 0 && errno == ECHILD)) {
        helperPid = -1;
        return false;
    }
    return true;
}

// Waits until no receiver drains an old connection, then starts the helper at `path` (the
// default beside the executable when null) on a new socket pair and sends it the
// authorization block. A connection another thread starts meanwhile is used as it is.
bool QZHelperToolPrivate::startLocked(QByteArray path, const QZAuthorization &authorization, QString *failure)
{
    for (;;) {
        if (connectionAliveLocked())
            return true;
        if (helperPipe != -1 && receiveThreadRunning) {
            lock.wait();   // the receiver is draining the old connection
            continue;
        }
        terminateHelperLocked();   // what is left of the old helper: its socket and process
        if (helperPipe == -1)
            break;
    }

    if (path.isEmpty())
        path = defaultHelperPath();
    if (path.isEmpty()) {
        *failure = QStringLiteral("Unable to locate helper");
        return false;
    }
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
        *failure = QStringLiteral("Unable to create pipe for authorization helper");
        return false;
    }
    int helperEnd = sockets[1];
    const bool launched = launchLocked(path, &helperEnd, failure);
    close(helperEnd);
    if (!launched) {
        close(sockets[0]);
        return false;
    }
    helperPipe = sockets[0];
    ++connection;
    connectionEnded = false;
    runningCommands.clear();

    helper_authorization form;
    if (const int error = authorization.makeExternalForm(&form); error != 0) {
        terminateHelperLocked();
        *failure = QStringLiteral("AuthorizationMakeExternalForm returned %1").arg(error);
        return false;
    }
    if (!QZHelperSocket::sendAll(helperPipe, { { reinterpret_cast<const char *>(&form), sizeof form } })) {
        terminateHelperLocked();
        return false;
    }
    return true;
}

// Starts the helper program with `helperEnd` as its standard input and output, with every
// signal at its default and none blocked.
bool QZHelperToolPrivate::launchLocked(const QByteArray &path, int *helperEnd, QString *failure)
{
    // dup2 onto itself would keep close-on-exec: move a socket that landed on 0..2 out of the way.
    if (*helperEnd <= STDERR_FILENO) {
        const int moved = fcntl(*helperEnd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        if (moved < 0) {
            *failure = launchFailure(QByteArray(), errno);
            return false;
        }
        close(*helperEnd);
        *helperEnd = moved;
    }
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    int error = posix_spawn_file_actions_init(&actions);
    if (error == 0) {
        error = posix_spawnattr_init(&attributes);
        if (error != 0)
            posix_spawn_file_actions_destroy(&actions);
    }
    if (error == 0) {
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        if ((error = posix_spawn_file_actions_adddup2(&actions, *helperEnd, STDIN_FILENO)) == 0
                && (error = posix_spawn_file_actions_adddup2(&actions, *helperEnd, STDOUT_FILENO)) == 0
                && (error = posix_spawnattr_setsigmask(&attributes, &none)) == 0
                && (error = posix_spawnattr_setsigdefault(&attributes, &all)) == 0
                && (error = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF)) == 0) {
            char *const arguments[] = { const_cast<char *>(path.constData()), nullptr };
            error = posix_spawn(&helperPid, path.constData(), &actions, &attributes, arguments, environ);
        }
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    if (error != 0) {
        helperPid = -1;
        *failure = launchFailure(path, error);
        return false;
    }
    return true;
}

// Stops the helper: asks it to terminate and ends its input (a helper running as another user
// cannot be signalled, but sees its input end), waits until the receiver has drained the
// connection, closes this side and reaps the process. On the receiver thread itself (an abort
// from a progress callback that failed to write) the connection is only shut down; the next
// start-up finishes the job.
void QZHelperToolPrivate::terminateHelperLocked()
{
    const quint64 stopping = connection;
    if (helperPid > 0)
        kill(helperPid, SIGTERM);
    if (helperPipe != -1) {
        if (receiveThreadRunning && std::this_thread::get_id() == receiverThread) {
            shutdown(helperPipe, SHUT_RDWR);
            return;
        }
        shutdown(helperPipe, SHUT_WR);
        while (receiveThreadRunning && connection == stopping)
            lock.wait();
        if (connection != stopping || helperPipe == -1)
            return;   // another thread finished stopping this connection meanwhile
        close(helperPipe);
        helperPipe = -1;
    }
    reapLocked();
    adopted = false;
}

// Waits for the helper process to exit and reaps it.
void QZHelperToolPrivate::reapLocked()
{
    if (helperPid <= 0)
        return;
    int status = 0;
    while (waitpid(helperPid, &status, 0) < 0 && errno == EINTR) {
    }
    helperPid = -1;
}
