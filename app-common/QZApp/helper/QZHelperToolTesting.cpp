#include "QZHelperToolTesting.h"

#include "QZHelperTool_p.h"

#include <csignal>
#include <utility>

quint32 QZHelperToolTesting::lastCommandID(QZHelperTool *tool)
{
    QZHelperToolPrivate *d = QZHelperToolPrivate::get(tool);
    ChannelGuard guard(d->lock);
    return d->lastCommandID;
}

void QZHelperToolTesting::setLastCommandID(QZHelperTool *tool, quint32 commandID)
{
    QZHelperToolPrivate *d = QZHelperToolPrivate::get(tool);
    ChannelGuard guard(d->lock);
    d->lastCommandID = commandID;
}

bool QZHelperToolTesting::adoptConnection(QZHelperTool *tool, int socket)
{
    QZHelperToolPrivate *d = QZHelperToolPrivate::get(tool);
    ChannelGuard guard(d->lock);
    d->terminateHelperLocked();
    if (d->helperPipe != -1)
        return false;
    d->helperPipe = socket;
    d->adopted = true;
    ++d->connection;
    d->connectionEnded = false;
    d->runningCommands.clear();
    return true;
}

bool QZHelperToolTesting::signalHelper(QZHelperTool *tool, int signal)
{
    QZHelperToolPrivate *d = QZHelperToolPrivate::get(tool);
    ChannelGuard guard(d->lock);
    return !d->adopted && d->helperRunningLocked() && kill(d->helperPid, signal) == 0;
}

pid_t QZHelperToolTesting::helperProcessID(QZHelperTool *tool)
{
    QZHelperToolPrivate *d = QZHelperToolPrivate::get(tool);
    ChannelGuard guard(d->lock);
    return d->helperRunningLocked() && !d->adopted ? d->helperPid : -1;
}

void QZHelperToolTesting::setReceiverThreadHook(std::function<void()> hook)
{
    std::lock_guard guard(QZHelperToolPrivate::hookMutex);
    QZHelperToolPrivate::receiverThreadHook = std::move(hook);
}
