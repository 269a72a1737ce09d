// One request to the privileged helper, and the record of its outcome.
//
// A command carries the text sent to the helper (and optional data sent after it); once issued
// by QZHelperTool it has an identifier, and the connection's receiver thread fills in the
// status, the reply data and whether a descriptor can be fetched. Commands are shared between
// the caller, the running list and queued notices, so they live in std::shared_ptr.
//
//     auto command = QZHelperCommand::commandWithString(QStringLiteral("unlink /var/lib/app/old"));
//     command->setDelegate(this);                 // progress and a finish notice
//     QZHelperTool::sharedInstance()->issue(command);
//     qint32 status = command->getStatus();       // blocks until the reply (or the helper's loss)
#pragma once

#include <QZApp/QZGlobal.h>
#include <QZApp/helper/helper_protocol.h>

#include <QByteArray>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>

class QZHelperCommand;

// Receives a command's progress and completion. Both methods do nothing unless overridden.
// The command does not own its delegate; a delegate owned by a std::shared_ptr can be kept
// alive by the command (retainDelegate()) and is kept alive until a queued notice has run.
class QZAPP_EXPORT QZHelperToolDelegate : public std::enable_shared_from_this<QZHelperToolDelegate>
{
public:
    virtual ~QZHelperToolDelegate();

    // A progress line; on the receiver thread, or on the main thread when the command asks so.
    virtual void helperToolCommand(const std::shared_ptr<QZHelperCommand> &command, const QString &progress);
    // The command has its final status; always on the main thread, some time after the fact.
    virtual void helperToolCommandDidFinish(const std::shared_ptr<QZHelperCommand> &command);
};

class QZAPP_EXPORT QZHelperCommand : public std::enable_shared_from_this<QZHelperCommand>
{
public:
    // The status of a command that has no reply yet.
    static constexpr qint32 NoReply = HELPER_STATUS_NO_REPLY;
    // The status of a command that could not be sent or whose helper went away.
    static constexpr qint32 Failed = HELPER_STATUS_FAILED;

    // A new command: identifier 0, status NoReply, no delegate, no data.
    static std::shared_ptr<QZHelperCommand> commandWithString(const QString &commandString);
    ~QZHelperCommand();
    Q_DISABLE_COPY_MOVE(QZHelperCommand)

    QString commandString() const { return m_commandString; }

    // Delegate
    QZHelperToolDelegate *delegate() const;
    // Stores `delegate` without keeping it alive; a delegate kept by retainDelegate() is let go.
    void setDelegate(QZHelperToolDelegate *delegate);
    // Keeps the current delegate alive while the command lives, if a std::shared_ptr owns it.
    // Calling it again changes nothing.
    void retainDelegate();
    bool retainedDelegate() const;

    // Identifier: 0 until issued, then never 0 again.
    quint32 commandID() const { return m_commandID.load(std::memory_order_relaxed); }

    // Status: NoReply until the reply, or the loss of the helper, is recorded.
    qint32 status() const { return m_status.load(std::memory_order_acquire); }   // does not wait
    // Waits for the reply (or the loss of the helper) through the shared QZHelperTool.
    qint32 getStatus();

    // Data that came back with the reply; null when there was none.
    QByteArray data() const;

    // The helper offers a descriptor for this command.
    bool fileDescriptorAvailable() const { return m_fileDescriptorAvailable.load(std::memory_order_relaxed); }
    // Fetches the offered descriptor through the shared QZHelperTool: a descriptor the caller
    // owns, or -1.
    int getFileDescriptor();

    // Asks the shared QZHelperTool to abort the command (sent at most once).
    void abort();
    bool aborted() const { return m_aborted.load(std::memory_order_relaxed); }

    // Deliver progress on the main thread instead of the receiver thread.
    bool progressOnMainThread() const { return m_progressOnMainThread.load(std::memory_order_relaxed); }
    void setProgressOnMainThread(bool onMainThread) { m_progressOnMainThread.store(onMainThread, std::memory_order_relaxed); }

    // Data sent after the command line; null or empty for none.
    QByteArray commandData() const;
    void setCommandData(const QByteArray &data);

    // Hands a progress line to the delegate: at once on the calling thread, or queued to the
    // main thread when progressOnMainThread() is set (the command and text are kept until then).
    void progress(const QString &text);
    // The main-thread half of progress().
    void progressMT(const QString &text);

private:
    friend class QZHelperTool;
    friend class QZHelperToolPrivate;
    explicit QZHelperCommand(const QString &commandString);

    // The outcome, as the channel records it. It stores a status under its lock with
    // publishStatus() and wakes the waiters with wakeStatusWaiters() once the lock is
    // released, so that a woken caller does not run into the lock.
    void setCommandID(quint32 commandID) { m_commandID.store(commandID, std::memory_order_relaxed); }
    void setData(const QByteArray &data);
    void setFileDescriptorAvailable(bool available) { m_fileDescriptorAvailable.store(available, std::memory_order_relaxed); }
    void setAborted(bool aborted) { m_aborted.store(aborted, std::memory_order_relaxed); }
    void publishStatus(qint32 status);
    void wakeStatusWaiters();
    // Sleeps in the kernel until the status is no longer NoReply, without first spinning or
    // yielding the processor (what std::atomic::wait does), for a machine whose processors
    // are all busy.
    void sleepUntilReplied();

    const QString m_commandString;
    std::atomic<quint32> m_commandID { 0 };
    std::atomic<qint32> m_status { NoReply };
    std::atomic<int> m_sleepers { 0 };   // callers in sleepUntilReplied()
    std::atomic<bool> m_fileDescriptorAvailable { false };
    std::atomic<bool> m_progressOnMainThread { false };
    std::atomic<bool> m_aborted { false };
    quint64 m_connection = 0;   // the connection it was sent on; written under the channel's lock

    mutable std::mutex m_fieldsMutex;   // a leaf lock for the fields below, never held across a call
    QZHelperToolDelegate *m_delegate = nullptr;
    std::shared_ptr<QZHelperToolDelegate> m_retainedDelegate;
    bool m_retainedDelegateFlag = false;
    QByteArray m_data;
    QByteArray m_commandData;
};
