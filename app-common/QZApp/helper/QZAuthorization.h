// Who the client of a privileged helper is: the counterpart of an authorization reference.
//
// The external form is the 32-byte block a client sends first on a new helper connection: its
// process id, real user id and process start time (which together name one process for the
// life of the system) and 16 random bytes. A helper compares the block with the credentials of
// its socket peer (SO_PEERCRED) and the start time of that process; layout in helper_protocol.h.
#pragma once

#include <QZApp/QZGlobal.h>
#include <QZApp/helper/helper_protocol.h>

#include <QByteArray>

#include <memory>
#include <sys/types.h>

class QZAPP_EXPORT QZAuthorization
{
public:
    // The calling process's authorization, or null (with errno set) when its start time or
    // random bytes cannot be had.
    static std::shared_ptr<QZAuthorization> create();
    Q_DISABLE_COPY_MOVE(QZAuthorization)

    pid_t processID() const { return static_cast<pid_t>(m_form.pid); }
    uid_t userID() const { return m_form.uid; }
    quint64 startTime() const { return m_form.start_time; }
    // True while it still describes the calling process (false in a forked child).
    bool isCurrentProcess() const;

    // Fills `form` with the external form. Returns 0, or EPERM when the calling process is no
    // longer the one it describes (a forked child, or a process that changed its user).
    int makeExternalForm(helper_authorization *form) const;
    // The 32 bytes of the external form; null when makeExternalForm() fails.
    QByteArray externalForm() const;

    // The start time of process `pid` (field 22 of /proc/PID/stat), or 0 with errno set.
    static quint64 processStartTime(pid_t pid);

private:
    QZAuthorization() = default;
    helper_authorization m_form {};
};
