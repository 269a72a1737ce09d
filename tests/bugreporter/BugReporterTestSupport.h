// Shared pieces of the bug reporter tests: a scratch home with XDG folders, stand-in programs
// and folders mounted over the system's, a recording mail client and a recording delegate.
#pragma once

#include "mail/MailTestSupport.h"

#include <gtest/gtest.h>

#include <QZApp/QZBugReporter.h>
#include <QZApp/QZMainThread.h>
#include <QZMail/QZMailClient.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextDocument>
#include <QTest>

#include <sys/mount.h>

#include <condition_variable>
#include <mutex>

namespace qztest {

using namespace Qt::StringLiterals;

inline QByteArray gunzip(const QString &path) { return runProgram(u"gzip"_s, { u"-dc"_s, path }); }
inline bool mountsAvailable() { return geteuid() == 0 && qEnvironmentVariableIsEmpty("QZ_TEST_NO_MOUNTS"); }

// A scratch home: HOME, the XDG folders, TMPDIR and the settings all inside one folder.
struct ScratchHome {
    ScratchHome()
    {
        for (const auto &[variable, folder] : { std::pair{ "HOME", "home" }, { "XDG_STATE_HOME", "state" },
                                                { "XDG_DATA_HOME", "data" }, { "XDG_CONFIG_HOME", "config" }, { "TMPDIR", "tmp" } }) {
            QDir().mkpath(path(QLatin1String(folder)));
            qputenv(variable, path(QLatin1String(folder)).toUtf8());
        }
        qunsetenv("XDG_CONFIG_DIRS");
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
    }
    QString path(const QString &relative) const { return d + u'/' + relative; }
    QTemporaryDir dir;
    const QString d = dir.path();
};

// Mounts `source` over `target` in this process's private mount namespace.
inline void bindOver(const QString &source, const QString &target)
{
    ASSERT_EQ(mount(QFile::encodeName(source).constData(), QFile::encodeName(target).constData(), nullptr, MS_BIND, nullptr), 0)
            << target.toStdString();
}

// Puts a shell script over the program at `target`.
inline void standInProgram(const ScratchHome &home, const QString &target, const QByteArray &script)
{
    const QString path = home.path(u"bin/"_s + target.section(u'/', -1));
    writeScript(path, script);
    bindOver(path, target);
}

// A mail client that records what it is given, optionally holding deliveries until released.
class RecordingClient : public QZMailClient
{
public:
    explicit RecordingClient(int features) : m_features(features) {}
    int features() const override { return m_features; }

    struct Call {
        bool constructed, onMainThread;
        QVariantMap headers;
        QString text;
        QStringList attachments;
    };

    bool constructMessage(const QTextDocument &message, const QVariantMap &headers, QZError *) override { return record(true, message, headers); }
    bool deliverMessage(const QTextDocument &message, const QVariantMap &headers, QZError *error) override
    {
        record(false, message, headers);
        std::unique_lock lock(m_mutex);
        m_released.wait(lock, [this] { return !m_holding; });
        if (m_failure)
            *error = *m_failure;
        return !m_failure;
    }

    void hold() { std::lock_guard lock(m_mutex); m_holding = true; }
    void release() { std::lock_guard lock(m_mutex); m_holding = false; m_released.notify_all(); }
    void failWith(const QZError &error) { std::lock_guard lock(m_mutex); m_failure = error; }
    std::vector<Call> calls() const { std::lock_guard lock(m_mutex); return m_calls; }

private:
    bool record(bool constructed, const QTextDocument &message, const QVariantMap &headers)
    {
        std::lock_guard lock(m_mutex);
        m_calls.push_back({ constructed, QZ::isMainThread(), headers, message.toPlainText(), QZ::mailAttachments(message) });
        return true;
    }

    const int m_features;
    mutable std::mutex m_mutex;
    std::condition_variable m_released;
    bool m_holding = false;
    std::optional<QZError> m_failure;
    std::vector<Call> m_calls;
};

// The vendor of the tests; records each finished notice and says whether it handled it.
struct RecordingDelegate : QZBugReporterDelegate {
    QVariantMap vendorInfo() const override
    {
        return { { u"bugReportEmailName"_s, u"Disk Tool Bugs"_s }, { u"bugReportEmailAddress"_s, u"bugs@example.org"_s } };
    }
    bool bugReporterFinishedWithError(const QZError *error) override
    {
        notices.push_back(error ? std::optional<QZError>(*error) : std::nullopt);
        return handles;
    }
    bool handles = true;
    std::vector<std::optional<QZError>> notices;
};

// The product of the tests.
inline QZProductInfo diskTool() { return { u"Disk Tool"_s, u"1.0"_s, u"42"_s, u"/opt/disk-tool/Disk Tool"_s }; }

} // namespace qztest
