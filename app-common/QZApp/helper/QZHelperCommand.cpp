#include "QZHelperCommand.h"

#include "QZHelperTool.h"

#include <QZApp/QZMainThread.h>

#include <climits>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

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

void QZHelperCommand::publishStatus(qint32 status)
{
    m_status.store(status, std::memory_order_release);
}

void QZHelperCommand::wakeStatusWaiters()
{
    m_status.notify_all();
    // A read-modify-write, ordered with the sleeper's increment in sleepUntilReplied(): either
    // this sees the sleeper, or the sleeper's increment comes after it and so sees the status.
    if (m_sleepers.fetch_add(0, std::memory_order_acq_rel) > 0)
        syscall(SYS_futex, &m_status, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

void QZHelperCommand::sleepUntilReplied()
{
    static_assert(sizeof(m_status) == sizeof(int) && std::atomic<qint32>::is_always_lock_free);
    m_sleepers.fetch_add(1, std::memory_order_acq_rel);
    while (m_status.load(std::memory_order_acquire) == NoReply) {
        // The kernel sleeps only while the word still holds NoReply.
        syscall(SYS_futex, &m_status, FUTEX_WAIT_PRIVATE, NoReply, nullptr, nullptr, 0);
    }
    m_sleepers.fetch_sub(1, std::memory_order_relaxed);
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
