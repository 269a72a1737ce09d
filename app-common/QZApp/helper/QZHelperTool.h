// The process's connection to its privileged helper program.
//
// The helper is started on first use, beside the running executable as "EXECUTABLE Helper"
// unless setHelperPath() names another program, with one Unix-domain stream socket as its
// standard input and output. The channel sends the client's authorization block, then numbered
// command lines (and data), and a receiver thread named "Helper Receiver" reads the helper's
// PROGRESS, FD and REPLY lines, reply data and passed descriptors. When the helper goes away,
// every running command completes with QZHelperCommand::Failed (10002) and the next command
// starts a new helper. Nothing in the channel times out.
//
//     QZHelperTool *tool = QZHelperTool::sharedInstance();
//     int fd = -1;
//     QString line = QZ::stringWithArgumentArray({ QStringLiteral("access"), path,
//                                                  QStringLiteral("0"), QStringLiteral("0"), QStringLiteral("2") });
//     if (tool->performCommand(line, &fd) == 0)
//         read(fd, ...);
//
// Any thread may call anything. A forked child that has not called exec must not use a
// connection its parent started.
#pragma once

#include <QZApp/QZGlobal.h>
#include <QZApp/helper/QZAuthorization.h>
#include <QZApp/helper/QZHelperCommand.h>

#include <QByteArray>
#include <QString>

#include <memory>

class QZHelperToolPrivate;

class QZAPP_EXPORT QZHelperTool
{
public:
    // There is one instance per process (sharedInstance()): constructing another raises
    // "Oops!" through the assertion handler. If a host's handler returns, the new instance
    // works on its own, with its own helper, lock and receiver.
    QZHelperTool();
    // Stops the helper and waits until its receiver thread has finished.
    ~QZHelperTool();
    Q_DISABLE_COPY_MOVE(QZHelperTool)

    // The process-wide instance, created on first use and kept for the life of the process.
    static QZHelperTool *sharedInstance();

    // The helper program; a null path means the default beside the running executable.
    QString helperPath() const;
    void setHelperPath(const QString &path);

    // The client's authorization, created on first use (again in a forked child); null when
    // it cannot be had.
    std::shared_ptr<QZAuthorization> authorization();
    const QZAuthorization *authRef() { return authorization().get(); }

    // Makes sure a helper is running and has received the authorization block.
    bool startHelper();
    // Stops the helper (terminate, end of input) and waits for its receiver thread to finish.
    void terminateHelper();

    // Sends a command that was never sent before; false when it cannot be written.
    bool issue(const std::shared_ptr<QZHelperCommand> &command);
    // Makes, issues and returns a command; null when it could not be sent.
    std::shared_ptr<QZHelperCommand> issueCommand(const QString &commandString,
                                                  QZHelperToolDelegate *delegate = nullptr);
    // Blocks until the command has its final status (returns at once for a command never sent).
    void waitForCommandResponse(const std::shared_ptr<QZHelperCommand> &command);
    // Fetches the descriptor the helper offers for the command: the caller owns the result,
    // or -1 when the command replied without one or the helper went away. The offer stands:
    // each call asks the helper again, and the helper sends a new descriptor for the same file.
    int getFileDescriptorForCommand(const std::shared_ptr<QZHelperCommand> &command);
    // Asks the helper once to abort the command (or to let go of the descriptor it offers)
    // and marks it aborted.
    void abortCommand(const std::shared_ptr<QZHelperCommand> &command);
    // Records a command's final outcome, wakes its waiters and queues its delegate's
    // helperToolCommandDidFinish() to the main thread.
    void command(const std::shared_ptr<QZHelperCommand> &command, qint32 status, bool fileDescriptorAvailable);

    // Blocking calls: issue, wait, and (with `fd`) fetch the descriptor, turning a missing one
    // into Failed. Reply data is stored whatever the status. A descriptor the helper offers
    // and nobody asked for is let go in the helper.
    qint32 performCommand(const QString &commandString, QZHelperToolDelegate *delegate, int *fd, QByteArray *data);
    qint32 performCommand(const QString &commandString);
    qint32 performCommand(const QString &commandString, int *fd);
    qint32 performCommand(const QString &commandString, QByteArray *data);
    qint32 performCommand(const QString &commandString, QZHelperToolDelegate *delegate);

private:
    struct SharedInstanceTag {};
    explicit QZHelperTool(SharedInstanceTag);

    friend class QZHelperToolPrivate;
    std::unique_ptr<QZHelperToolPrivate> d;
};
