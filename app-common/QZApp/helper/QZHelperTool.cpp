#include "QZHelperTool.h"
#include "QZHelperTool_p.h"

#include <QZApp/QZAssertionHandler.h>
#include <QZApp/QZCondition.h>
#include <QZApp/QZConsoleLog.h>
#include <QZApp/QZMainThread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

constexpr const char *kSourceUnit = "app-common/QZApp/helper/QZHelperTool";
constexpr size_t kLineBuffer = HELPER_MAX_LINE + 1;   // a line and the terminating zero
constexpr size_t kControlBuffer = 128;
constexpr size_t kDataChunk = 64 * 1024;

std::mutex hookMutex;
std::function<void()> receiverThreadHook;   // guarded by hookMutex

// A run of bytes to send.
struct Bytes {
    const char *bytes;
    size_t length;
};

// Writes all of the given runs of bytes (at most four), in order, in as few system calls as the
// socket allows; a dead peer gives EPIPE instead of SIGPIPE.
bool sendAll(int socket, std::initializer_list<Bytes> runs)
{
    iovec parts[4];
    if (runs.size() > std::size(parts))
        return false;
    msghdr message {};
    message.msg_iov = parts;
    for (const Bytes &run : runs) {
        if (run.length != 0)
            parts[message.msg_iovlen++] = { const_cast<char *>(run.bytes), run.length };
    }
    while (message.msg_iovlen > 0) {
        const ssize_t sent = sendmsg(socket, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        auto left = static_cast<size_t>(sent);
        while (message.msg_iovlen > 0 && left >= message.msg_iov->iov_len) {
            left -= message.msg_iov->iov_len;
            ++message.msg_iov;
            --message.msg_iovlen;
        }
        if (message.msg_iovlen > 0) {
            message.msg_iov->iov_base = static_cast<char *>(message.msg_iov->iov_base) + left;
            message.msg_iov->iov_len -= left;
        }
    }
    return true;
}

// A reply the receiver has read and not yet recorded.
struct Completion {
    std::shared_ptr<QZHelperCommand> command;
    qint32 status;
    bool fileDescriptorAvailable;
};

// A command's finish notice, with its delegate taken before the status is published: a caller
// that wakes up may let go of its delegate at once.
struct FinishNotice {
    explicit FinishNotice(const std::shared_ptr<QZHelperCommand> &finished)
        : command(finished), delegate(finished->delegate())
        , keep(delegate ? delegate->weak_from_this().lock() : nullptr)
    {
    }
    // Queues the notice to the main thread; a delegate owned by a std::shared_ptr stays alive
    // until it has run.
    void post() const
    {
        if (!delegate)
            return;
        QZ::performOnMainThread([command = command, delegate = delegate, keep = keep] {
            delegate->helperToolCommandDidFinish(command);
        });
    }

    std::shared_ptr<QZHelperCommand> command;
    QZHelperToolDelegate *delegate;
    std::shared_ptr<QZHelperToolDelegate> keep;
};

void closeDescriptorsIn(const cmsghdr *message)
{
    if (message->cmsg_level != SOL_SOCKET || message->cmsg_type != SCM_RIGHTS)
        return;
    const size_t count = (message->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
        int fd;
        std::memcpy(&fd, CMSG_DATA(message) + i * sizeof(int), sizeof fd);
        close(fd);
    }
}

QString lineText(const char *line)
{
    return QString::fromUtf8(line);
}

// Tells the processor that this thread is polling (and lets a sibling hardware thread run).
inline void cpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// True when this process may run on more than one processor.
bool severalProcessors()
{
    cpu_set_t allowed;
    return sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) > 1;
}

// How the receiver waits for input. It does not sleep in recvmsg: a thread asleep in a read on
// a Unix socket is also woken each time the peer takes in bytes that this side wrote (the
// socket's write-space wake-up), that is once for every request, whereas poll() wakes only for
// input.
//
// While at most one caller waits, it may also linger: poll for up to kLinger after input came
// before it sleeps, since a caller that has just had its reply usually sends the next request
// at once. On a machine whose other processors are idle, waking a sleeping thread (and the idle
// processor under it) costs more than the helper's whole answer, and lingering makes a round
// trip two to three times faster. On a busy machine it would hold up the helper and the
// caller, so lingering gives way: it yields the processor at once (the helper may have been
// woken onto this processor) and then every kGiveWay. A yield returns at once unless other
// work waits for this processor; two yields within kWindow that took long (one alone may be
// the hypervisor's doing) show a busy machine, and then the receiver does not linger for a
// while (kCoolDown, doubling up to kLongestCoolDown while the machine stays busy). It also
// stops lingering while most recent lingers ended with nothing read (callers that pause
// between commands), then lingers in one round of 64 only. It never lingers on a machine with
// one processor.
class InputWait
{
public:
    using Clock = std::chrono::steady_clock;

    // Notes that input came now.
    void received() { m_lastInput = Clock::now(); }
    // Returns when the socket has input (or has ended); `waitingCallers` callers wait for replies.
    void wait(int socket, int waitingCallers);

private:
    static constexpr auto kLinger = std::chrono::microseconds(60);
    static constexpr auto kGiveWay = std::chrono::microseconds(5);
    static constexpr auto kSlowYield = std::chrono::microseconds(200);
    static constexpr auto kWindow = std::chrono::milliseconds(20);
    static constexpr auto kCoolDown = std::chrono::milliseconds(50);
    static constexpr auto kLongestCoolDown = std::chrono::seconds(2);
    static constexpr int kFailureScale = 1024;
    static constexpr int kMostFailures = kFailureScale * 3 / 10;   // linger while fewer fail
    static constexpr unsigned kProbeEvery = 64;

    enum class Linger { Arrived, Nothing, Busy };
    Linger linger(int socket, Clock::time_point until);
    bool giveWay();

    const bool m_canLinger = severalProcessors();
    Clock::time_point m_lastInput = Clock::now();
    int m_failures = 0;          // recent lingers that read nothing, in 1/kFailureScale (moving average)
    unsigned m_declined = 0;     // lingers passed over since the last one tried
    Clock::time_point m_lastSlowYield {};
    Clock::time_point m_busyUntil {};
    Clock::duration m_coolDown = kCoolDown;
};

void InputWait::wait(int socket, int waitingCallers)
{
    const Clock::time_point now = Clock::now();
    const Clock::time_point until = m_lastInput + kLinger;
    if (m_canLinger && waitingCallers <= 1 && now < until && now >= m_busyUntil
            && (m_failures < kMostFailures || ++m_declined % kProbeEvery == 0)) {
        const Linger outcome = linger(socket, until);
        if (outcome == Linger::Arrived)
            return;
        if (outcome == Linger::Nothing)
            m_failures += (kFailureScale - m_failures) / 16;
    }
    pollfd watched { socket, POLLIN, 0 };
    while (::poll(&watched, 1, -1) < 0 && errno == EINTR) {
    }
}

// Polls the socket without sleeping until it has input or `until` has passed, giving way every
// kGiveWay, starting at once.
InputWait::Linger InputWait::linger(int socket, Clock::time_point until)
{
    pollfd watched { socket, POLLIN, 0 };
    Clock::time_point nextGiveWay = Clock::now();
    for (unsigned i = 1;; ++i) {
        cpuRelax();
        if (i % 16 != 0)
            continue;
        if (::poll(&watched, 1, 0) != 0) {
            m_failures -= m_failures / 16;
            return Linger::Arrived;
        }
        const Clock::time_point now = Clock::now();
        if (now >= until)
            return Linger::Nothing;
        if (now >= nextGiveWay) {
            if (!giveWay())
                return Linger::Busy;
            nextGiveWay = Clock::now() + kGiveWay;
        }
    }
}

// Yields the processor; false when the machine turned out to be busy.
bool InputWait::giveWay()
{
    const Clock::time_point before = Clock::now();
    sched_yield();
    const Clock::time_point after = Clock::now();
    if (after - before <= kSlowYield)
        return true;
    const Clock::time_point lastSlowYield = std::exchange(m_lastSlowYield, after);
    if (after - lastSlowYield > kWindow)
        return true;
    // Busy: for kCoolDown if it was not busy lately, else for twice as long as last time.
    m_coolDown = after - m_busyUntil > kLongestCoolDown ? Clock::duration(kCoolDown)
                                                        : std::min<Clock::duration>(2 * m_coolDown, kLongestCoolDown);
    m_busyUntil = after + m_coolDown;
    return false;
}

} // namespace

class QZHelperToolPrivate
{
public:
    explicit QZHelperToolPrivate(QZHelperTool *tool) : q(tool) {}

    bool helperRunningLocked();
    void terminateHelperLocked();
    void reapLocked();
    bool launchLocked(const QByteArray &path, int *helperEnd);
    void startReceiverLocked();
    void receiveThread(int socket);
    bool handleLine(int socket, char *buffer, size_t *held, qint32 *status, std::vector<Completion> *replies);
    void complete(std::vector<Completion> *replies);
    bool connectionAliveLocked();
    void takeDescriptors(msghdr *message);
    void deliverDescriptor(int fd);
    void endOfStream();
    std::shared_ptr<QZHelperCommand> runningCommandLocked(quint32 commandID) const;

    QZHelperTool *const q;

    mutable std::mutex pathMutex;   // a leaf lock for the path property
    QString helperPath;

    // Everything below is guarded by `lock`.
    QZCondition lock;
    std::shared_ptr<QZAuthorization> authorization;
    pid_t helperPid = -1;            // the helper process, -1 once reaped or when there is none
    int helperPipe = -1;             // this side's end of the socket pair
    bool adopted = false;            // a connection handed in by the tests, with no process
    quint64 connection = 0;          // counts connections; commands remember theirs
    bool connectionEnded = false;    // the receiver has seen the end of this connection
    int *fdResult = nullptr;         // where the next descriptor goes; null when nobody waits
    std::vector<std::shared_ptr<QZHelperCommand>> runningCommands;   // in order of issue
    quint32 lastCommandID = 0;
    bool receiveThreadRunning = false;
    std::thread::id receiverThread;
    int liveReceiverThreads = 0;     // receiver threads that may still touch this object

    std::atomic<int> waitingCallers { 0 };   // callers in waitForCommandResponse(); not under `lock`
};

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

// True while this connection is usable as far as is known: its receiver has not seen its end
// (a helper that died meanwhile shows as a failed write or as the end of the stream).
bool QZHelperToolPrivate::connectionAliveLocked()
{
    return helperPipe != -1 && !connectionEnded && (receiveThreadRunning || helperRunningLocked());
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

// Starts the helper program with `helperEnd` as its standard input and output.
bool QZHelperToolPrivate::launchLocked(const QByteArray &path, int *helperEnd)
{
    // dup2 onto itself would keep close-on-exec: move a socket that landed on 0..2 out of the way.
    if (*helperEnd <= STDERR_FILENO) {
        const int moved = fcntl(*helperEnd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        if (moved < 0) {
            QZLog(QStringLiteral("Exception caught whilst trying to start helper: %1")
                          .arg(QString::fromLocal8Bit(std::strerror(errno))));
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
        QZLog(QStringLiteral("Exception caught whilst trying to start helper: %1: %2")
                      .arg(QString::fromLocal8Bit(path), QString::fromLocal8Bit(std::strerror(error))));
        return false;
    }
    return true;
}

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

// The receiver: reads lines, reply data and descriptors until the connection ends, then
// completes every command still running with 10002.
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
    std::vector<Completion> replies;   // recorded together, with one broadcast, before reading on
    InputWait input;
    for (;;) {
        buffer[held] = '\0';
        if (std::memchr(buffer, '\n', held)) {
            if (!handleLine(socket, buffer, &held, &status, &replies))
                break;
            continue;
        }
        complete(&replies);
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
        if (received > 0)
            input.received();
        if (received > 0)
            takeDescriptors(&message);
        if (received <= 0)
            break;
        held += static_cast<size_t>(received);
    }
    complete(&replies);
    endOfStream();
}

// Records the replies read so far: statuses and flags under the lock, one broadcast, then the
// finish notices.
void QZHelperToolPrivate::complete(std::vector<Completion> *replies)
{
    if (replies->empty())
        return;
    std::vector<FinishNotice> notices;
    notices.reserve(replies->size());
    for (const Completion &reply : *replies)
        notices.emplace_back(reply.command);
    lock.lock();
    for (const Completion &reply : *replies) {
        reply.command->setFileDescriptorAvailable(reply.fileDescriptorAvailable);
        reply.command->publishStatus(reply.status);
    }
    lock.unlock();
    lock.broadcast();
    for (const Completion &reply : *replies)
        reply.command->wakeStatusWaiters();   // after the unlock: a woken caller goes straight on
    for (const FinishNotice &notice : notices)
        notice.post();
    replies->clear();
}

// Handles the first line in `buffer` and removes it (and any reply data taken from the buffer).
// False when the connection ended while reply data was being read.
bool QZHelperToolPrivate::handleLine(int socket, char *buffer, size_t *held, qint32 *status,
                                     std::vector<Completion> *replies)
{
    char *newline = static_cast<char *>(std::memchr(buffer, '\n', *held));
    *newline = '\0';
    size_t consumed = static_cast<size_t>(newline - buffer) + 1;
    const auto finish = [&] {
        std::memmove(buffer, buffer + consumed, *held - consumed);
        *held -= consumed;
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

    lock.lock();
    const std::shared_ptr<QZHelperCommand> command = runningCommandLocked(commandID);
    if (!command) {
        lock.unlock();
        QZLog(QStringLiteral("Unmatched response from helper: %1").arg(lineText(buffer)));
        finish();
        return true;
    }

    if (std::strcmp(kind, "PROGRESS") == 0) {
        lock.unlock();
        complete(replies);   // a delegate may take its time: record earlier replies first
        // glibc records the offset even when nothing follows the word: no text, no progress.
        if (textOffset != 0 && buffer[textOffset] != '\0')
            command->progress(QString::fromUtf8(buffer + textOffset));
        finish();
        return true;
    }
    if (std::strcmp(kind, "FD") == 0) {
        command->setFileDescriptorAvailable(true);
        lock.unlock();
        lock.broadcast();
        finish();
        return true;
    }
    if (std::strcmp(kind, "REPLY") != 0) {
        lock.unlock();
        QZLog(lineText(buffer));
        finish();
        return true;
    }

    runningCommands.erase(std::find(runningCommands.begin(), runningCommands.end(), command));
    lock.unlock();
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
            complete(replies);   // record earlier replies before waiting for the rest
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
                replies->push_back({ command, QZHelperCommand::Failed, false });
                return false;
            }
            data.resize(static_cast<qsizetype>(have + static_cast<size_t>(got)));
        }
        command->setData(data);
    } else {
        finish();
    }
    qint32 finalStatus = replyStatus;
    if (replyStatus == QZHelperCommand::NoReply) {
        QZAssertionHandler::currentHandler()->handleFailureInMethod(
                "QZHelperTool::receiveThread", q, kSourceUnit, 356, QStringLiteral("Helper returned invalid error!"));
        finalStatus = QZHelperCommand::Failed;   // a host handler returned: the command fails
    }
    replies->push_back({ command, finalStatus, size == -1 });
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
            closeDescriptorsIn(each);
        }
    }
}

void QZHelperToolPrivate::deliverDescriptor(int fd)
{
    lock.lock();
    if (fdResult && *fdResult == -2) {
        *fdResult = fd;
        lock.unlock();
        lock.broadcast();
        return;
    }
    lock.unlock();
    QZLog(QStringLiteral("Dumping file descriptor"));
    close(fd);
}

void QZHelperToolPrivate::endOfStream()
{
    lock.lock();
    std::vector<std::shared_ptr<QZHelperCommand>> stillRunning;
    stillRunning.swap(runningCommands);
    if (fdResult && *fdResult == -2)
        *fdResult = -1;
    receiveThreadRunning = false;
    receiverThread = std::thread::id();
    connectionEnded = true;
    lock.unlock();
    lock.broadcast();

    for (const auto &command : stillRunning)
        q->command(command, QZHelperCommand::Failed, false);
    stillRunning.clear();

    // The last touch of this object: a destructor waiting for it may go on once it is unlocked.
    lock.lock();
    --liveReceiverThreads;
    lock.broadcast();
    lock.unlock();
}

// QZHelperTool

QZHelperTool::QZHelperTool(SharedInstanceTag)
    : d(std::make_unique<QZHelperToolPrivate>(this))
{
}

QZHelperTool::QZHelperTool()
    : d(std::make_unique<QZHelperToolPrivate>(this))
{
    // Using the class creates the shared instance first, so there always is one by now.
    sharedInstance();
    QZAssertionHandler::currentHandler()->handleFailureInMethod("QZHelperTool::QZHelperTool", this, kSourceUnit,
                                                                 73, QStringLiteral("Oops!"));
}

QZHelperTool::~QZHelperTool()
{
    d->lock.lock();
    d->terminateHelperLocked();
    while (d->liveReceiverThreads > 0)
        d->lock.wait();
    d->lock.unlock();
}

QZHelperTool *QZHelperTool::sharedInstance()
{
    // Kept for the life of the process: a detached receiver may still be using it at exit.
    static QZHelperTool *const instance = new QZHelperTool(SharedInstanceTag {});
    return instance;
}

QString QZHelperTool::helperPath() const
{
    std::lock_guard guard(d->pathMutex);
    return d->helperPath;
}

void QZHelperTool::setHelperPath(const QString &path)
{
    std::lock_guard guard(d->pathMutex);
    d->helperPath = path;
}

std::shared_ptr<QZAuthorization> QZHelperTool::authorization()
{
    d->lock.lock();
    if (!d->authorization || !d->authorization->isCurrentProcess())
        d->authorization = QZAuthorization::create();
    std::shared_ptr<QZAuthorization> authorization = d->authorization;
    d->lock.unlock();
    return authorization;
}

bool QZHelperTool::startHelper()
{
    d->lock.lock();
    const bool alive = d->connectionAliveLocked();
    d->lock.unlock();
    if (alive)
        return true;

    const std::shared_ptr<QZAuthorization> authorization = this->authorization();
    if (!authorization)
        return false;
    QByteArray path = helperPath().toLocal8Bit();

    d->lock.lock();
    for (;;) {
        if (d->connectionAliveLocked()) {
            d->lock.unlock();
            return true;
        }
        if (d->helperPipe == -1 || !d->receiveThreadRunning)
            break;
        d->lock.wait();   // the receiver is draining the old connection
    }
    d->terminateHelperLocked();   // what is left of the old helper: its socket and process
    if (d->helperPipe != -1) {    // another thread started a helper meanwhile
        d->lock.unlock();
        return startHelper();
    }

    if (path.isEmpty()) {
        char executable[1024];
        const ssize_t length = readlink("/proc/self/exe", executable, sizeof executable);
        if (length > 0 && static_cast<size_t>(length) < sizeof executable)
            path = QByteArray(executable, length) + " Helper";
    }
    if (path.isEmpty()) {
        d->lock.unlock();
        QZLog(QStringLiteral("Unable to locate helper"));
        return false;
    }

    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
        QZLog(QStringLiteral("Unable to create pipe for authorization helper"));
        d->lock.unlock();
        return false;
    }
    int helperEnd = sockets[1];
    if (!d->launchLocked(path, &helperEnd)) {
        close(sockets[0]);
        d->lock.unlock();
        close(helperEnd);
        return false;
    }
    d->helperPipe = sockets[0];
    close(helperEnd);
    ++d->connection;
    d->connectionEnded = false;
    d->runningCommands.clear();

    helper_authorization form;
    const int error = authorization->makeExternalForm(&form);
    if (error != 0) {
        d->terminateHelperLocked();
        d->lock.unlock();
        QZLog(QStringLiteral("AuthorizationMakeExternalForm returned %1").arg(error));
        return false;
    }
    if (!sendAll(d->helperPipe, { { reinterpret_cast<const char *>(&form), sizeof form } })) {
        d->terminateHelperLocked();
        d->lock.unlock();
        return false;
    }
    d->lock.unlock();
    return true;
}

void QZHelperTool::terminateHelper()
{
    d->lock.lock();
    d->terminateHelperLocked();
    d->lock.unlock();
}

bool QZHelperTool::issue(const std::shared_ptr<QZHelperCommand> &command)
{
    // The line is what "%u %s\n" makes of it: the text ends at a NUL character.
    QByteArray text = command->commandString().toUtf8();
    if (const qsizetype nul = text.indexOf('\0'); nul >= 0)
        text.truncate(nul);
    const QByteArray data = command->commandData();
    const auto dataLength = static_cast<quint32>(data.size());   // only the low 32 bits count

    // While the helper runs, a command takes the lock once.
    d->lock.lock();
    if (!d->connectionAliveLocked()) {
        d->lock.unlock();
        if (!startHelper())
            return false;
        d->lock.lock();
    }
    if (command->commandID() != 0 || d->helperPipe == -1 || d->connectionEnded) {   // sent before, or lost since startHelper()
        d->lock.unlock();
        return false;
    }
    if (++d->lastCommandID == 0)
        ++d->lastCommandID;
    const quint32 commandID = d->lastCommandID;
    command->setCommandID(commandID);
    command->m_connection = d->connection;
    d->runningCommands.push_back(command);

    char prefix[32];   // "ID " or "ID+LENGTH "
    const int prefixLength = dataLength != 0 ? std::snprintf(prefix, sizeof prefix, "%u+%u ", commandID, dataLength)
                                             : std::snprintf(prefix, sizeof prefix, "%u ", commandID);
    // The line and its data leave in one system call when the socket takes them.
    bool written = sendAll(d->helperPipe, { { prefix, static_cast<size_t>(prefixLength) },
                                            { text.constData(), static_cast<size_t>(text.size()) },
                                            { "\n", 1 },
                                            { data.constData(), dataLength } });
    if (written && !d->receiveThreadRunning) {
        try {
            d->startReceiverLocked();
        } catch (const std::system_error &) {
            written = false;
        }
    }
    if (written) {
        d->lock.unlock();
        return true;
    }

    const bool receiverWillComplete = d->receiveThreadRunning;
    d->terminateHelperLocked();
    std::vector<std::shared_ptr<QZHelperCommand>> orphans;
    if (!receiverWillComplete)
        orphans.swap(d->runningCommands);   // no receiver will ever complete these
    d->lock.unlock();
    for (const auto &orphan : orphans)
        this->command(orphan, QZHelperCommand::Failed, false);
    return false;
}

std::shared_ptr<QZHelperCommand> QZHelperTool::issueCommand(const QString &commandString,
                                                            QZHelperToolDelegate *delegate)
{
    std::shared_ptr<QZHelperCommand> command = QZHelperCommand::commandWithString(commandString);
    command->setDelegate(delegate);
    return issue(command) ? command : nullptr;
}

// A reply wakes only those waiting for its command: they sleep on the command's status word
// (which is written under the lock, like every other field the receiver changes), so callers
// on many threads do not all wake for every reply. The receiver counts the waiting callers to
// decide whether to linger for the next reply.
void QZHelperTool::waitForCommandResponse(const std::shared_ptr<QZHelperCommand> &command)
{
    if (command->commandID() == 0 || command->status() != QZHelperCommand::NoReply)
        return;   // never sent (there is no reply to wait for), or answered already
    d->waitingCallers.fetch_add(1, std::memory_order_relaxed);
    while (command->status() == QZHelperCommand::NoReply)
        command->m_status.wait(QZHelperCommand::NoReply, std::memory_order_acquire);
    d->waitingCallers.fetch_sub(1, std::memory_order_relaxed);
}

int QZHelperTool::getFileDescriptorForCommand(const std::shared_ptr<QZHelperCommand> &command)
{
    char line[64];
    std::snprintf(line, sizeof line, "%u GET_FD\n", command->commandID());
    int result = -2;   // nothing arrived yet

    d->lock.lock();
    for (;;) {
        // The helper that offered it is gone, or the command replied without one.
        if (command->commandID() == 0 || command->m_connection != d->connection || d->connectionEnded
                || (!command->fileDescriptorAvailable() && command->status() != QZHelperCommand::NoReply)) {
            d->lock.unlock();
            return -1;
        }
        if (command->fileDescriptorAvailable() && !d->fdResult)
            break;
        d->lock.wait();
    }
    d->fdResult = &result;
    if (!sendAll(d->helperPipe, { { line, std::strlen(line) } })) {
        d->terminateHelperLocked();
        d->fdResult = nullptr;
        d->lock.unlock();
        d->lock.broadcast();
        return result >= 0 ? result : -1;
    }
    while (result == -2 && command->fileDescriptorAvailable())
        d->lock.wait();
    d->fdResult = nullptr;
    if (result >= 0)
        command->setFileDescriptorAvailable(false);   // handed over once
    d->lock.unlock();
    d->lock.broadcast();
    return result < -1 ? -1 : result;
}

void QZHelperTool::abortCommand(const std::shared_ptr<QZHelperCommand> &command)
{
    char line[64];
    std::snprintf(line, sizeof line, "%u ABORT\n", command->commandID());

    d->lock.lock();
    if (!command->aborted() && command->commandID() != 0 && command->m_connection == d->connection
            && !d->connectionEnded && d->helperPipe != -1
            && (command->status() == QZHelperCommand::NoReply || command->fileDescriptorAvailable())) {
        if (!sendAll(d->helperPipe, { { line, std::strlen(line) } }))
            d->terminateHelperLocked();
    }
    command->setAborted(true);
    d->lock.unlock();
    d->lock.broadcast();
}

void QZHelperTool::command(const std::shared_ptr<QZHelperCommand> &command, qint32 status, bool fileDescriptorAvailable)
{
    const FinishNotice notice(command);
    d->lock.lock();
    command->setFileDescriptorAvailable(fileDescriptorAvailable);
    command->publishStatus(status);
    d->lock.unlock();
    d->lock.broadcast();
    command->wakeStatusWaiters();
    notice.post();
}

qint32 QZHelperTool::performCommand(const QString &commandString, QZHelperToolDelegate *delegate, int *fd,
                                    QByteArray *data)
{
    const std::shared_ptr<QZHelperCommand> command = issueCommand(commandString, delegate);
    if (!command)
        return QZHelperCommand::Failed;
    waitForCommandResponse(command);
    qint32 status = command->status();
    if (status == 0 && fd) {
        *fd = getFileDescriptorForCommand(command);
        status = *fd < 0 ? QZHelperCommand::Failed : 0;
    } else if (command->fileDescriptorAvailable()) {
        abortCommand(command);   // nobody will fetch it: let the helper close it
    }
    if (data)
        *data = command->data();
    return status;
}

qint32 QZHelperTool::performCommand(const QString &commandString)
{
    return performCommand(commandString, nullptr, nullptr, nullptr);
}

qint32 QZHelperTool::performCommand(const QString &commandString, int *fd)
{
    return performCommand(commandString, nullptr, fd, nullptr);
}

qint32 QZHelperTool::performCommand(const QString &commandString, QByteArray *data)
{
    return performCommand(commandString, nullptr, nullptr, data);
}

qint32 QZHelperTool::performCommand(const QString &commandString, QZHelperToolDelegate *delegate)
{
    return performCommand(commandString, delegate, nullptr, nullptr);
}

// Test hooks

quint32 QZHelperToolTesting::lastCommandID(QZHelperTool *tool)
{
    tool->d->lock.lock();
    const quint32 commandID = tool->d->lastCommandID;
    tool->d->lock.unlock();
    return commandID;
}

void QZHelperToolTesting::setLastCommandID(QZHelperTool *tool, quint32 commandID)
{
    tool->d->lock.lock();
    tool->d->lastCommandID = commandID;
    tool->d->lock.unlock();
}

bool QZHelperToolTesting::adoptConnection(QZHelperTool *tool, int socket)
{
    QZHelperToolPrivate *d = tool->d.get();
    d->lock.lock();
    d->terminateHelperLocked();
    if (d->helperPipe != -1) {
        d->lock.unlock();
        return false;
    }
    d->helperPipe = socket;
    d->adopted = true;
    ++d->connection;
    d->connectionEnded = false;
    d->runningCommands.clear();
    d->lock.unlock();
    return true;
}

bool QZHelperToolTesting::signalHelper(QZHelperTool *tool, int signal)
{
    QZHelperToolPrivate *d = tool->d.get();
    d->lock.lock();
    const bool sent = !d->adopted && d->helperRunningLocked() && kill(d->helperPid, signal) == 0;
    d->lock.unlock();
    return sent;
}

pid_t QZHelperToolTesting::helperProcessID(QZHelperTool *tool)
{
    QZHelperToolPrivate *d = tool->d.get();
    d->lock.lock();
    const pid_t pid = d->helperRunningLocked() && !d->adopted ? d->helperPid : -1;
    d->lock.unlock();
    return pid;
}

void QZHelperToolTesting::setReceiverThreadHook(std::function<void()> hook)
{
    std::lock_guard guard(hookMutex);
    receiverThreadHook = std::move(hook);
}
