#include "QZHelperCommand.h"

#include "QZHelperTool.h"

#include <QZApp/QZMainThread.h>

#include <cerrno>
#include <climits>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

// The status word is used as a futex: an atomic 32-bit integer with the layout of a plain one.
static_assert(sizeof(std::atomic<qint32>) == sizeof(qint32) && std::atomic<qint32>::is_always_lock_free);

QZHelperToolDelegate::~QZHelperToolDelegate() = default;

void QZHelperToolDelegate::helperToolCommand(const std::shared_ptr<QZHelperCommand> &, const QString &)
{
}

void QZHelperToolDelegate::helperToolCommandDidFinish(const std::shared_ptr<QZHelperCommand> &)
{
}

std::shared_ptr<QZHelperCommand> QZHelperCommand::commandWithString(const QString &commandString)
{
    return std::shared_ptr<QZHelperCommand>(new QZHelperCommand(commandString));
}

QZHelperCommand::QZHelperCommand(const QString &commandString)
    : m_commandString(commandString)
{
}

QZHelperCommand::~QZHelperCommand() = default;

QZHelperToolDelegate *QZHelperCommand::delegate() const
{
    std::lock_guard guard(m_fieldsMutex);
    return m_delegate;
}

void QZHelperCommand::setDelegate(QZHelperToolDelegate *delegate)
{
    std::shared_ptr<QZHelperToolDelegate> released;   // let go outside the lock
    std::lock_guard guard(m_fieldsMutex);
    if (m_retainedDelegateFlag) {
        released = std::move(m_retainedDelegate);
        m_retainedDelegateFlag = false;
    }
    m_delegate = delegate;
}

void QZHelperCommand::retainDelegate()
{
    std::lock_guard guard(m_fieldsMutex);
    if (m_retainedDelegateFlag)
        return;
    if (m_delegate)
        m_retainedDelegate = m_delegate->weak_from_this().lock();
    m_retainedDelegateFlag = true;
}

bool QZHelperCommand::retainedDelegate() const
{
    std::lock_guard guard(m_fieldsMutex);
    return m_retainedDelegateFlag;
}

void QZHelperCommand::setStatus(qint32 status)
{
    publishStatus(status);
    wakeStatusWaiters();
}

// The status word doubles as a futex. A waiter counts itself in m_statusSleepers before it
// looks at the status for the last time and the publisher looks at the count after its store
// (both sequentially consistent), so either the waiter sees the status or the publisher sees
// the waiter; a publisher that sees nobody asleep makes no system call. Unlike
// std::atomic::wait, which first yields the processor a few times, a waiter here goes straight
// to sleep: on a busy machine a thread that yields is not woken when its reply comes but waits
// for its turn behind other work. (QZHelperTool decides when yielding pays.)
void QZHelperCommand::publishStatus(qint32 status)
{
    m_status.store(status, std::memory_order_seq_cst);
}

void QZHelperCommand::wakeStatusWaiters()
{
    if (m_statusSleepers.load(std::memory_order_seq_cst) == 0)
        return;
    const int savedErrno = errno;
    syscall(SYS_futex, reinterpret_cast<qint32 *>(&m_status), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
    errno = savedErrno;
}

void QZHelperCommand::sleepUntilStatus()
{
    if (m_status.load(std::memory_order_acquire) != NoReply)
        return;
    const int savedErrno = errno;
    m_statusSleepers.fetch_add(1, std::memory_order_seq_cst);
    // FUTEX_WAIT returns at once when the word no longer holds NoReply; spurious returns and
    // signals only cost another look.
    while (m_status.load(std::memory_order_seq_cst) == NoReply)
        syscall(SYS_futex, reinterpret_cast<qint32 *>(&m_status), FUTEX_WAIT_PRIVATE, NoReply, nullptr, nullptr, 0);
    m_statusSleepers.fetch_sub(1, std::memory_order_relaxed);
    errno = savedErrno;
}

qint32 QZHelperCommand::getStatus()
{
    QZHelperTool::sharedInstance()->waitForCommandResponse(shared_from_this());
    return status();
}

QByteArray QZHelperCommand::data() const
{
    std::lock_guard guard(m_fieldsMutex);
    return m_data;
}

void QZHelperCommand::setData(const QByteArray &data)
{
    std::lock_guard guard(m_fieldsMutex);
    m_data = data;
}

int QZHelperCommand::getFileDescriptor()
{
    return QZHelperTool::sharedInstance()->getFileDescriptorForCommand(shared_from_this());
}

void QZHelperCommand::abort()
{
    QZHelperTool::sharedInstance()->abortCommand(shared_from_this());
}

QByteArray QZHelperCommand::commandData() const
{
    std::lock_guard guard(m_fieldsMutex);
    return m_commandData;
}

void QZHelperCommand::setCommandData(const QByteArray &data)
{
    std::lock_guard guard(m_fieldsMutex);
    m_commandData = data;
}

void QZHelperCommand::progress(const QString &text)
{
    QZHelperToolDelegate *target = delegate();
    if (!target)
        return;
    if (!progressOnMainThread()) {
        target->helperToolCommand(shared_from_this(), text);
        return;
    }
    // A delegate owned by a std::shared_ptr stays alive until the queued call has run.
    QZ::performOnMainThread([command = shared_from_this(), text, keep = target->weak_from_this().lock()] {
        command->progressMT(text);
    });
}

void QZHelperCommand::progressMT(const QString &text)
{
    if (QZHelperToolDelegate *target = delegate())
        target->helperToolCommand(shared_from_this(), text);
}
