// The receiver thread: reads the helper's lines, reply data and passed descriptors until the
// connection ends, then completes every command still running with Failed (10002).
#include "QZHelperTool_p.h"

#include "QZHelperInputWait_p.h"
#include "QZHelperSocket_p.h"

#include <QZApp/QZAssertionHandler.h>
#include <QZApp/QZAssertionReports_p.h>
#include <QZApp/QZConsoleLog.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

namespace Report = QZAssertionReport::HelperTool;
constexpr size_t kLineBuffer = HELPER_MAX_LINE + 1;   // a line and the terminating zero
constexpr size_t kControlBuffer = 128;
constexpr size_t kDataChunk = 64 * 1024;

QString lineText(const char *line)
{
    return QString::fromUtf8(line);
}

} // namespace

std::mutex QZHelperToolPrivate::hookMutex;
std::function<void()> QZHelperToolPrivate::receiverThreadHook;

void QZHelperToolPrivate::startReceiverLocked()
{
    std::thread receiver(&QZHelperToolPrivate::receiveThread, this, helperPipe);
    receiverThread = receiver.get_id();
    receiver.detach();
    receiveThreadRunning = true;
    ++liveReceiverThreads;
}

std::shared_ptr<QZHelperCommand> QZHelperToolPrivate::runningCommandLocked(quint32 commandID) const
{
    const auto found = std::find_if(runningCommands.begin(), runningCommands.end(),
                                    [commandID](const auto &command) { return command->commandID() == commandID; });
    return found == runningCommands.end() ? nullptr : *found;
}

void QZHelperToolPrivate::receiveThread(int socket)
{
    pthread_setname_np(pthread_self(), "Helper Receiver");
    {
        std::function<void()> hook;
        {
            std::lock_guard guard(hookMutex);
            hook = receiverThreadHook;
        }
        if (hook)
            hook();
    }

    char buffer[kLineBuffer];
    size_t held = 0;
    qint32 status = 0;   // kept from line to line: a REPLY must always carry its status
    std::vector<QZHelperOutcome> outcomes;   // recorded together, with one broadcast, before reading on
    QZHelperInputWait input;
    for (;;) {
        buffer[held] = '\0';
        if (std::memchr(buffer, '\n', held)) {
            if (!handleLine(socket, buffer, &held, &status, &outcomes))
                break;
            continue;
        }
        record(outcomes);
        outcomes.clear();
        if (held == HELPER_MAX_LINE) {
            QZLog(QStringLiteral("Unexpected reply from helper: %1").arg(lineText(buffer)));
            held = 0;
            continue;
        }
        alignas(cmsghdr) char control[kControlBuffer];
        iovec free { buffer + held, HELPER_MAX_LINE - held };
        msghdr message {};
        message.msg_iov = &free;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t received = recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
        if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            input.wait(socket, waitingCallers.load(std::memory_order_relaxed));
            continue;
        }
        if (received < 0 && errno == EINTR)
            continue;
        if (received <= 0)
            break;
        input.received();
        takeDescriptors(&message);
        held += static_cast<size_t>(received);
    }
    record(outcomes);
    endOfStream();
}

// Handles the first line in `buffer` and removes it (and any reply data taken from the buffer).
// False when the connection ended while reply data was being read.
bool QZHelperToolPrivate::handleLine(int socket, char *buffer, size_t *held, qint32 *status,
                                     std::vector<QZHelperOutcome> *outcomes)
{
    char *newline = static_cast<char *>(std::memchr(buffer, '\n', *held));
    *newline = '\0';
    size_t consumed = static_cast<size_t>(newline - buffer) + 1;
    const auto finish = [&] {
        std::memmove(buffer, buffer + consumed, *held - consumed);
        *held -= consumed;
    };
    // Records the outcomes read so far, before a delegate or a slow read may take its time.
    const auto recordEarlier = [&] {
        record(*outcomes);
        outcomes->clear();
    };

    unsigned int commandID = 0;
    char kind[21] = {};
    int textOffset = 0;
    ssize_t size = 0;
    const int fields = std::sscanf(buffer, "%u %20s %n%d %zd", &commandID, kind, &textOffset, status, &size);
    if (fields < 2) {
        if (buffer[0] != '\0')
            QZLog(lineText(buffer));
        finish();
        return true;
    }

    enum class Kind { Unmatched, Progress, Descriptor, Reply, Other } found;
    std::shared_ptr<QZHelperCommand> command;
    {
        ChannelGuard guard(lock);
        command = runningCommandLocked(commandID);
        if (!command) {
            found = Kind::Unmatched;
        } else if (std::strcmp(kind, "PROGRESS") == 0) {
            found = Kind::Progress;
        } else if (std::strcmp(kind, "FD") == 0) {
            found = Kind::Descriptor;
            command->setFileDescriptorAvailable(true);
        } else if (std::strcmp(kind, "REPLY") == 0) {
            found = Kind::Reply;
            runningCommands.erase(std::find(runningCommands.begin(), runningCommands.end(), command));
        } else {
            found = Kind::Other;
        }
    }

    switch (found) {
    case Kind::Unmatched:
        QZLog(QStringLiteral("Unmatched response from helper: %1").arg(lineText(buffer)));
        finish();
        return true;
    case Kind::Progress:
        recordEarlier();
        // glibc records the offset even when nothing follows the word: no text, no progress.
        if (textOffset != 0 && buffer[textOffset] != '\0')
            command->progress(QString::fromUtf8(buffer + textOffset));
        finish();
        return true;
    case Kind::Descriptor:
        lock.broadcast();
        finish();
        return true;
    case Kind::Other:
        QZLog(lineText(buffer));
        finish();
        return true;
    case Kind::Reply:
        break;
    }

    const qint32 replyStatus = *status;
    if (size > 0) {
        // Take what came with the line, then read the rest; the buffer grows only as bytes
        // arrive, so a size the helper does not keep costs nothing.
        const size_t wanted = static_cast<size_t>(size);
        const size_t buffered = std::min(wanted, *held - consumed);
        QByteArray data(buffer + consumed, static_cast<qsizetype>(buffered));
        consumed += buffered;
        finish();
        if (static_cast<size_t>(data.size()) < wanted)
            recordEarlier();
        while (static_cast<size_t>(data.size()) < wanted) {
            const size_t have = static_cast<size_t>(data.size());
            const size_t chunk = std::min(wanted - have, kDataChunk);
            data.resize(static_cast<qsizetype>(have + chunk));
            const ssize_t got = recv(socket, data.data() + have, chunk, 0);
            if (got < 0 && errno == EINTR) {
                data.resize(static_cast<qsizetype>(have));
                continue;
            }
            if (got <= 0) {
                // The partial data is dropped; the caller must not wait for ever.
                outcomes->push_back({ command, QZHelperCommand::Failed, false });
                return false;
            }
            data.resize(static_cast<qsizetype>(have + static_cast<size_t>(got)));
        }
        command->setData(data);
    } else {
        finish();
    }
    qint32 finalStatus = replyStatus;
    if (!QZ_CHECK(replyStatus != QZHelperCommand::NoReply, "QZHelperTool::receiveThread", q, Report::kUnit,
                  Report::kInvalidReplyStatusLine, QStringLiteral("Helper returned invalid error!")))
        finalStatus = QZHelperCommand::Failed;   // a host handler returned: the command fails
    outcomes->push_back({ command, finalStatus, size == -1 });
    return true;
}

// Accepts one descriptor in the first control message and closes any other that came.
void QZHelperToolPrivate::takeDescriptors(msghdr *message)
{
    cmsghdr *first = CMSG_FIRSTHDR(message);
    if (!first)
        return;
    const bool acceptable = message->msg_controllen >= CMSG_LEN(sizeof(int))
            && first->cmsg_len == CMSG_LEN(sizeof(int))
            && first->cmsg_level == SOL_SOCKET && first->cmsg_type == SCM_RIGHTS;
    if (!acceptable && first->cmsg_len != 0)
        QZLog(QStringLiteral("Discarding cmsg"));
    for (cmsghdr *each = first; each; each = CMSG_NXTHDR(message, each)) {
        if (each == first && acceptable) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(each), sizeof fd);
            deliverDescriptor(fd);
        } else {
            QZHelperSocket::closeDescriptorsIn(each);
        }
    }
}

// Hands the descriptor to the caller waiting in the hand-off slot, or closes it.
void QZHelperToolPrivate::deliverDescriptor(int fd)
{
    bool delivered = false;
    {
        ChannelGuard guard(lock);
        if (fdResult && *fdResult == -2) {
            *fdResult = fd;
            delivered = true;
        }
    }
    if (delivered) {
        lock.broadcast();
        return;
    }
    QZLog(QStringLiteral("Dumping file descriptor"));
    close(fd);
}

// Ends the connection: a pending fetch gets -1, every command still running completes with
// Failed, in order of issue.
void QZHelperToolPrivate::endOfStream()
{
    std::vector<std::shared_ptr<QZHelperCommand>> stillRunning;
    {
        ChannelGuard guard(lock);
        stillRunning.swap(runningCommands);
        if (fdResult && *fdResult == -2)
            *fdResult = -1;
        receiveThreadRunning = false;
        receiverThread = std::thread::id();
        connectionEnded = true;
    }
    lock.broadcast();

    std::vector<QZHelperOutcome> failed;
    failed.reserve(stillRunning.size());
    for (auto &command : stillRunning)
        failed.push_back({ std::move(command), QZHelperCommand::Failed, false });
    record(failed);
    failed.clear();

    // The last touch of this object: a destructor waiting for it may go on once it is released.
    ChannelGuard guard(lock);
    --liveReceiverThreads;
    lock.broadcast();
}
