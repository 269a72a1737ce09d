// Real services for the mail and e-mail address tests: processes the test starts, reads a first
// line from, and stops again; a Secret Service in a private session bus.
#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>

#include <memory>

namespace qztest {

// Another python3 may come first on PATH without Debian's modules.
inline const QString kPython = QStringLiteral("/usr/bin/python3");

inline void writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(path.section(QLatin1Char('/'), 0, -2));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(bytes);
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Runs a program to its end (at most a minute); its standard output, or a test failure.
inline QByteArray runProgram(const QString &program, const QStringList &arguments, const QByteArray &input = {},
                             const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
    }
    EXPECT_TRUE(process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
            << program.toStdString() << ": " << process.readAllStandardError().toStdString();
    return process.readAllStandardOutput();
}

// A service process: started, its first output line read (unless it prints none), stopped by closing its standard
// input (killed if it does not end within ten seconds).
class Service
{
public:
    Service(const QString &program, const QStringList &arguments, const QByteArray &input = {},
            const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(), bool readsFirstLine = true)
    {
        m_process.setProcessEnvironment(environment);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(program, arguments);
        m_process.write(input);
        if (!readsFirstLine)
            return;
        QDeadlineTimer deadline(30000);
        while (!m_process.canReadLine() && !deadline.hasExpired() && m_process.state() != QProcess::NotRunning)
            m_process.waitForReadyRead(100);
        m_firstLine = QString::fromUtf8(m_process.readLine()).trimmed();
    }
    ~Service() { stop(); }
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    QString firstLine() const { return m_firstLine; }
    // For a daemon that does not watch its standard input.
    void terminate()
    {
        m_process.terminate();
        if (!m_process.waitForFinished(3000)) {
            m_process.kill();
            m_process.waitForFinished();
        }
    }
    void stop()
    {
        if (m_process.state() == QProcess::NotRunning)
            return;
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(10000)) {
            m_process.kill();
            m_process.waitForFinished();
        }
    }

private:
    QProcess m_process;
    QString m_firstLine;
};

// A private session bus with gnome-keyring-daemon's Secret Service, its HOME the given folder.
// A keyring that cannot start fails the test: the fixture asserts on address().
class KeyringSession
{
public:
    explicit KeyringSession(const QString &home)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), home);
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), home + QStringLiteral("/run"));
        environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        QDir().mkpath(home + QStringLiteral("/run"));
        QFile::setPermissions(home + QStringLiteral("/run"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        m_environment = environment;
        m_service = std::make_unique<Service>(QStringLiteral("dbus-run-session"),
                                              QStringList{ QStringLiteral("--"), QStringLiteral("sh"),
                                                           QStringLiteral(MAIL_TEST_DIR "/keyring_session.sh") },
                                              QByteArray(), environment);
        m_environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address());
    }

    QString address() const { return m_service->firstLine(); }
    QProcessEnvironment environment() const { return m_environment; }

    // Stores a secret in the login collection through secret-tool; the secret goes in on
    // standard input.
    void store(const QStringList &attributes, const QByteArray &secret) const
    {
        runProgram(QStringLiteral("secret-tool"),
                   QStringList{ QStringLiteral("store"), QStringLiteral("--label=test item"), QStringLiteral("--collection=login") }
                           + attributes,
                   secret, m_environment);
    }
    void lockLogin() const
    {
        runProgram(QStringLiteral("dbus-send"), { QStringLiteral("--session"), QStringLiteral("--print-reply"),
                                                  QStringLiteral("--dest=org.freedesktop.secrets"), QStringLiteral("/org/freedesktop/secrets"),
                                                  QStringLiteral("org.freedesktop.Secret.Service.Lock"),
                                                  QStringLiteral("array:objpath:/org/freedesktop/secrets/collection/login") },
                   QByteArray(), m_environment);
    }

private:
    std::unique_ptr<Service> m_service;
    QProcessEnvironment m_environment;
};

} // namespace qztest
