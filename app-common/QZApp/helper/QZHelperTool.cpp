// QZHelperTool's public operations: start and stop, issuing, waiting, descriptors, abort,
// completion and the blocking perform calls.
#include "QZHelperTool.h"

#include "QZHelperInputWait_p.h"
#include "QZHelperSocket_p.h"
#include "QZHelperTool_p.h"

#include <QZApp/QZAssertionHandler.h>
#include <QZApp/QZAssertionReports_p.h>
#include <QZApp/QZConsoleLog.h>
#include <QZApp/QZMainThread.h>

#include <cstdio>
#include <cstring>
#include <system_error>

namespace {

namespace Report = QZAssertionReport::HelperTool;

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

} // namespace

// Construction and the shared instance

QZHelperTool::QZHelperTool(SharedInstanceTag)
    : d(std::make_unique<QZHelperToolPrivate>(this))
{
}

QZHelperTool::QZHelperTool()
    : d(std::make_unique<QZHelperToolPrivate>(this))
{
    // Using the class creates the shared instance first, so there always is one by now.
    sharedInstance();
    QZ_CHECK(false, "QZHelperTool::QZHelperTool", this, Report::kUnit, Report::kSecondInstanceLine,
             QStringLiteral("Oops!"));
}

QZHelperTool::~QZHelperTool()
{
    ChannelGuard guard(d->lock);
    d->terminateHelperLocked();
    while (d->liveReceiverThreads > 0)
        d->lock.wait();
}

QZHelperTool *QZHelperTool::sharedInstance()
{
    // Kept for the life of the process: a detached receiver may still be using it at exit.
    static QZHelperTool *const instance = new QZHelperTool(SharedInstanceTag {});
    return instance;
}

// Properties

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
    ChannelGuard guard(d->lock);
    if (!d->authorization || !d->authorization->isCurrentProcess())
        d->authorization = QZAuthorization::create();
    return d->authorization;
}

// Starting and stopping

bool QZHelperTool::startHelper()
{
    if (d->connectionAlive())
        return true;
    const std::shared_ptr<QZAuthorization> authorization = this->authorization();
    if (!authorization)
        return false;
    const QByteArray path = helperPath().toLocal8Bit();

    QString failure;
    bool started;
    {
        ChannelGuard guard(d->lock);
        started = d->startLocked(path, *authorization, &failure);
    }
    if (!failure.isEmpty())
        QZLog(failure);
    return started;
}

void QZHelperTool::terminateHelper()
{
    ChannelGuard guard(d->lock);
    d->terminateHelperLocked();
}

// Issuing

bool QZHelperTool::issue(const std::shared_ptr<QZHelperCommand> &command)
{
    // The line is what "%u %s\n" makes of it: the text ends at a NUL character.
    QByteArray text = command->commandString().toUtf8();
    if (const qsizetype nul = text.indexOf('\0'); nul >= 0)
        text.truncate(nul);
    const QByteArray data = command->commandData();
    const auto dataLength = static_cast<quint32>(data.size());   // only the low 32 bits count

    std::vector<QZHelperOutcome> orphans;   // commands no receiver will ever complete
    {
        // While the helper runs, a command takes the lock once.
        ChannelGuard guard(d->lock);
        if (!d->connectionAliveLocked()) {
            guard.unlock();
            if (!startHelper())
                return false;
            guard.lock();
        }
        if (command->commandID() != 0 || d->helperPipe == -1 || d->connectionEnded)
            return false;   // sent before, or the connection was lost since it started
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
        bool written = QZHelperSocket::sendAll(d->helperPipe, { { prefix, static_cast<size_t>(prefixLength) },
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
        if (written)
            return true;

        const bool receiverWillComplete = d->receiveThreadRunning;
        d->terminateHelperLocked();
        if (!receiverWillComplete) {
            for (auto &orphan : d->runningCommands)
                orphans.push_back({ std::move(orphan), QZHelperCommand::Failed, false });
            d->runningCommands.clear();
        }
    }
    d->record(orphans);
    return false;
}

std::shared_ptr<QZHelperCommand> QZHelperTool::issueCommand(const QString &commandString,
                                                            QZHelperToolDelegate *delegate)
{
    std::shared_ptr<QZHelperCommand> command = QZHelperCommand::commandWithString(commandString);
    command->setDelegate(delegate);
    return issue(command) ? command : nullptr;
}

// Waiting and completion

// A reply wakes only those waiting for its command: they sleep on the command's status word
// (which is written under the lock, like every other field the receiver changes), so callers
// on many threads do not all wake for every reply. The receiver counts the waiting callers to
// decide whether to linger for the next reply. A caller that waits beside others on a machine
// whose processors are all busy sleeps at once instead of yielding first.
void QZHelperTool::waitForCommandResponse(const std::shared_ptr<QZHelperCommand> &command)
{
    if (command->commandID() == 0 || command->status() != QZHelperCommand::NoReply)
        return;   // never sent (there is no reply to wait for), or answered already
    const int others = d->waitingCallers.fetch_add(1, std::memory_order_relaxed);
    if (others > 0 && QZHelperInputWait::processorsBusy(true)) {
        command->sleepUntilReplied();
    } else {
        while (command->status() == QZHelperCommand::NoReply)
            command->m_status.wait(QZHelperCommand::NoReply, std::memory_order_acquire);
    }
    d->waitingCallers.fetch_sub(1, std::memory_order_relaxed);
}

void QZHelperTool::command(const std::shared_ptr<QZHelperCommand> &command, qint32 status, bool fileDescriptorAvailable)
{
    d->record({ { command, status, fileDescriptorAvailable } });
}

void QZHelperToolPrivate::record(const std::vector<QZHelperOutcome> &outcomes)
{
    if (outcomes.empty())
        return;
    std::vector<FinishNotice> notices;
    notices.reserve(outcomes.size());
    for (const QZHelperOutcome &outcome : outcomes)
        notices.emplace_back(outcome.command);
    {
        ChannelGuard guard(lock);
        for (const QZHelperOutcome &outcome : outcomes) {
            outcome.command->setFileDescriptorAvailable(outcome.fileDescriptorAvailable);
            outcome.command->publishStatus(outcome.status);
        }
    }
    lock.broadcast();
    for (const QZHelperOutcome &outcome : outcomes)
        outcome.command->wakeStatusWaiters();   // after the release: a woken caller goes straight on
    for (const FinishNotice &notice : notices)
        notice.post();
}

// Descriptors and abort

// Fetching leaves the offer standing: each fetch sends its own GET_FD and returns what the
// helper sends for it, until the command's outcome withdraws the offer.
int QZHelperTool::getFileDescriptorForCommand(const std::shared_ptr<QZHelperCommand> &command)
{
    char line[64];
    std::snprintf(line, sizeof line, "%u GET_FD\n", command->commandID());
    int result = -2;   // nothing arrived yet
    {
        ChannelGuard guard(d->lock);
        for (;;) {
            // The helper that offered it is gone, or the command replied without one.
            if (command->commandID() == 0 || command->m_connection != d->connection || d->connectionEnded
                    || (!command->fileDescriptorAvailable() && command->status() != QZHelperCommand::NoReply))
                return -1;
            if (command->fileDescriptorAvailable() && !d->fdResult)
                break;
            d->lock.wait();
        }
        d->fdResult = &result;
        if (QZHelperSocket::sendAll(d->helperPipe, { { line, std::strlen(line) } })) {
            while (result == -2 && command->fileDescriptorAvailable())
                d->lock.wait();
        } else {
            d->terminateHelperLocked();
        }
        d->fdResult = nullptr;
    }
    d->lock.broadcast();
    return result < -1 ? -1 : result;
}

void QZHelperTool::abortCommand(const std::shared_ptr<QZHelperCommand> &command)
{
    char line[64];
    std::snprintf(line, sizeof line, "%u ABORT\n", command->commandID());
    {
        ChannelGuard guard(d->lock);
        if (!command->aborted() && command->commandID() != 0 && command->m_connection == d->connection
                && !d->connectionEnded && d->helperPipe != -1
                && (command->status() == QZHelperCommand::NoReply || command->fileDescriptorAvailable())) {
            if (!QZHelperSocket::sendAll(d->helperPipe, { { line, std::strlen(line) } }))
                d->terminateHelperLocked();
        }
        command->setAborted(true);
    }
    d->lock.broadcast();
}

// Blocking calls

qint32 QZHelperToolPrivate::perform(const std::shared_ptr<QZHelperCommand> &command, int *fd, QByteArray *data,
                                    bool *sent)
{
    const bool issued = q->issue(command);
    if (sent)
        *sent = issued;
    if (!issued)
        return QZHelperCommand::Failed;
    q->waitForCommandResponse(command);
    qint32 status = command->status();
    if (status == 0 && fd) {
        *fd = q->getFileDescriptorForCommand(command);
        status = *fd < 0 ? QZHelperCommand::Failed : 0;
    } else if (command->fileDescriptorAvailable()) {
        q->abortCommand(command);   // nobody will fetch it: let the helper close it
    }
    if (data)
        *data = command->data();
    return status;
}

qint32 QZHelperTool::performCommand(const QString &commandString, QZHelperToolDelegate *delegate, int *fd,
                                    QByteArray *data)
{
    const std::shared_ptr<QZHelperCommand> command = QZHelperCommand::commandWithString(commandString);
    command->setDelegate(delegate);
    return d->perform(command, fd, data);
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
