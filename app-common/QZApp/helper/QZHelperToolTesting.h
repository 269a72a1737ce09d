// Hooks into QZHelperTool for the test suite and the fuzz targets; not part of the public
// interface and not installed.
#pragma once

#include <QZApp/helper/QZHelperTool.h>

#include <functional>
#include <sys/types.h>

class QZAPP_EXPORT QZHelperToolTesting
{
public:
    // The identifier given most recently (the next command gets the one after it).
    static quint32 lastCommandID(QZHelperTool *tool);
    static void setLastCommandID(QZHelperTool *tool, quint32 commandID);
    // Stops any helper and uses `socket` as the connection, with no helper process; the
    // authorization block is not sent. The tool owns the socket from then on.
    static bool adoptConnection(QZHelperTool *tool, int socket);
    // Sends `signal` to the running helper while its process cannot have been reaped; false
    // when no helper process runs.
    static bool signalHelper(QZHelperTool *tool, int signal);
    // The running helper's process id, or -1.
    static pid_t helperProcessID(QZHelperTool *tool);
    // Runs at the start of every receiver thread (for example to install an assertion
    // handler there); an empty function removes it.
    static void setReceiverThreadHook(std::function<void()> hook);
};
