// Where the reference helper runs as root for an unprivileged client, in a private mount namespace
// (leaving restores the test process's own):
//  - SafeLauncherFolder: a root-owned tmpfs mirroring /usr/libexec replaces it, adding qzapp/ with
//    the helper, the tests' set-user-id launcher and the packaged pkexec launcher, so that nothing
//    a set-user-id file runs can be replaced by another user;
//  - PolkitEnvironment: that, plus a system bus and polkitd of their own (tmpfs over /run/dbus,
//    the helper's policy, a rules file allowing user nobody and denying user daemon).
#pragma once

#include <QByteArray>

#include <sys/types.h>

namespace qztest {

// The user the rules allow and the one they deny.
constexpr uid_t kAllowedUser = 65534;   // nobody
constexpr uid_t kDeniedUser = 1;        // daemon

class SafeLauncherFolder
{
public:
    SafeLauncherFolder();
    virtual ~SafeLauncherFolder();
    Q_DISABLE_COPY_MOVE(SafeLauncherFolder)

    // Empty when everything is in place; otherwise why not.
    const QByteArray &failure() const { return m_failure; }

    static QByteArray folder() { return "/usr/libexec/qzapp"; }
    static QByteArray helper() { return folder() + "/qzhelper"; }
    static QByteArray rootLauncher() { return folder() + "/qz_root_launcher"; }
    static QByteArray pkexecLauncher() { return folder() + "/helper-launcher"; }

protected:
    void fail(const QByteArray &why) { m_failure = m_failure.isEmpty() ? why : m_failure; }
    int m_previousNamespace = -1;
    QByteArray m_failure;
};

class PolkitEnvironment : public SafeLauncherFolder
{
public:
    // `busPolicy`, when given, is the system bus's only extra configuration file (over
    // /etc/dbus-1/system.d), for a service of the caller's own.
    explicit PolkitEnvironment(const QByteArray &busPolicy = QByteArray());
    ~PolkitEnvironment() override;

private:
    pid_t m_bus = -1, m_polkitd = -1;
};

} // namespace qztest
