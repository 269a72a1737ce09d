// The private side of QZHelperTool: the connection's state, shared by the units that work on it.
//
// QZHelperTool.cpp        the public operations, completion and the one perform path
// QZHelperProcess.cpp     the helper process: start-up, authorization block, stop, reaping
// QZHelperReceiver.cpp    the receiver thread: lines, reply data, descriptors, end of stream
// QZHelperInputWait.cpp   how the receiver waits for input
// QZHelperSocket.cpp      writing whole requests, closing stray descriptors
// QZHelperToolTesting.cpp hooks for the tests and fuzz targets
//
// Every field below `lock` is guarded by it; every change a waiter may wait for is followed by
// a broadcast. Code takes the lock only through ChannelGuard, so no path can leave it held or
// release it twice; nothing else is locked while it is held, and no delegate or log handler is
// called with it held.
#pragma once

#include "QZHelperTool.h"

#include <QZApp/QZCondition.h>

#include <QByteArray>
#include <QString>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/types.h>

// A scoped hold of the channel's lock. Waiting goes through the lock (lock.wait()), which
// releases and retakes it inside; the guard owns it throughout.
using ChannelGuard = std::unique_lock<QZCondition>;

// A final outcome the receiver has read and not yet recorded.
struct QZHelperOutcome {
    std::shared_ptr<QZHelperCommand> command;
    qint32 status;
    bool fileDescriptorAvailable;
};

class QZHelperToolPrivate
{
public:
    explicit QZHelperToolPrivate(QZHelperTool *tool) : q(tool) {}
    static QZHelperToolPrivate *get(QZHelperTool *tool) { return tool->d.get(); }

    // Issues the command, waits for its outcome and handles the offered descriptor: fetched
    // into `fd` when it is given and the status is 0 (a missing one turns the status into
    // Failed), otherwise let go in the helper with one ABORT. Reply data goes to `data` when
    // the command was sent. `sent`, when given, tells whether it was.
    qint32 perform(const std::shared_ptr<QZHelperCommand> &command, int *fd, QByteArray *data,
                   bool *sent = nullptr);
    // Records outcomes under the lock with one broadcast, wakes the commands' callers, then
    // queues the delegates' finish notices to the main thread.
    void record(const std::vector<QZHelperOutcome> &outcomes);

    // The helper process (QZHelperProcess.cpp)
    bool connectionAlive();
    bool connectionAliveLocked();
    bool helperRunningLocked();
    // Makes sure a helper runs and has its authorization block. False with `failure` set to the
    // console line to log once the lock is released (empty when there is none).
    bool startLocked(QByteArray path, const QZAuthorization &authorization, QString *failure);
    bool launchLocked(const QByteArray &path, int *helperEnd, QString *failure);
    void terminateHelperLocked();
    void reapLocked();

    // The receiver (QZHelperReceiver.cpp)
    void startReceiverLocked();
    void receiveThread(int socket);
    bool handleLine(int socket, char *buffer, size_t *held, qint32 *status, std::vector<QZHelperOutcome> *outcomes);
    void takeDescriptors(msghdr *message);
    void deliverDescriptor(int fd);
    void endOfStream();
    std::shared_ptr<QZHelperCommand> runningCommandLocked(quint32 commandID) const;

    QZHelperTool *const q;

    mutable std::mutex pathMutex;   // a leaf lock for the path property
    QString helperPath;

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

    // Runs at the start of every receiver thread (tests install assertion handlers with it).
    static std::mutex hookMutex;
    static std::function<void()> receiverThreadHook;   // guarded by hookMutex
};
