// Real services for the mail, e-mail address and bug reporter tests: processes that each test
// starts, reads a first line from, and stops; a Secret Service on a private session bus; the
// SMTP server with a self-signed certificate.
#pragma once

#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>

#include <sys/prctl.h>
#include <sys/stat.h>

#include <csignal>
#include <memory>

namespace qztest {

using namespace Qt::StringLiterals;

// Another python3 may come first on PATH without Debian's modules.
inline const QString kPython = u"/usr/bin/python3"_s;
using Environment = QProcessEnvironment;

inline void writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(path.section(u'/', 0, -2));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(bytes);
}

// A shell script at `path` that everyone may run.
inline void writeScript(const QString &path, const QByteArray &script)
{
    writeFile(path, "#!/bin/sh\n" + script);
    chmod(QFile::encodeName(path).constData(), 0755);
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// XDG_CONFIG_HOME in a scratch folder, this process's settings there emptied. The folder is made
// once: QSettings keeps the first location it finds.
inline QString scratchSettings()
{
    static QTemporaryDir config;
    qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
    QSettings().clear();
    return config.path();
}

// Runs a program to its end (at most a minute) and returns its output; failing is a test failure.
inline QByteArray runProgram(const QString &program, const QStringList &arguments, const QByteArray &input = {},
                             const Environment &environment = Environment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000))
        process.kill();
    process.waitForFinished();
    EXPECT_TRUE(process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
            << program.toStdString() << ": " << process.readAllStandardError().toStdString();
    return process.readAllStandardOutput();
}

// A service process, stopped when this goes away: by closing its standard input (the test
// servers' signal to end), or with terminate() for a daemon; killed if it lingers.
class Service
{
public:
    Service(const QString &program, const QStringList &arguments, const QByteArray &input = {},
            const Environment &environment = Environment::systemEnvironment(), bool printsLine = true, bool isDaemon = false)
    {
        // A daemon ignores its standard input: it goes when the test process goes, however that ends.
        if (isDaemon)
            m_process.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGKILL); });
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.setProcessEnvironment(environment);
        m_process.start(program, arguments);
        m_process.write(input);
        for (QDeadlineTimer deadline(30000); printsLine && !m_process.canReadLine() && !deadline.hasExpired()
             && m_process.state() != QProcess::NotRunning;)
            m_process.waitForReadyRead(100);
        m_firstLine = QString::fromUtf8(m_process.readLine()).trimmed();
    }
    ~Service()
    {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(10000))
            terminate();
    }
    Q_DISABLE_COPY_MOVE(Service)
    QString firstLine() const { return m_firstLine; }
    void terminate()
    {
        m_process.terminate();
        if (!m_process.waitForFinished(3000))
            m_process.kill();
        m_process.waitForFinished();
    }

private:
    QProcess m_process;
    QString m_firstLine;
};

// A self-signed certificate for 127.0.0.1: `dir`/cert.pem and `dir`/key.pem.
inline void makeCertificate(const QString &dir)
{
    runProgram(u"openssl"_s, u"req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext "
                             "subjectAltName=IP:127.0.0.1 -keyout %1/key.pem -out %1/cert.pem"_s.arg(dir).split(u' '));
}

// One of the test servers of mail_servers.py with `certDir`'s certificate; its first line is its port.
inline std::unique_ptr<Service> startServer(const QString &kind, const QString &certDir, const QStringList &arguments,
                                            const QByteArray &input = {})
{
    auto server = std::make_unique<Service>(kPython, QStringList{ u"" MAIL_TEST_DIR "/mail_servers.py"_s, kind, certDir + u"/cert.pem"_s,
                                                                  certDir + u"/key.pem"_s } + arguments, input);
    EXPECT_FALSE(server->firstLine().isEmpty()) << "the " << kind.toStdString() << " server did not start";
    return server;
}

// The SMTP server, taking user "reporter" with `password` and recording into `outdir`, and SMTP
// client settings for it in each of `settings` (a login as `user` when that is not empty;
// `caFile` empty: the system's trust only).
inline std::unique_ptr<Service> startSmtpServer(const QString &certDir, const QString &outdir, const QByteArray &password,
                                                std::initializer_list<QSettings *> settings, const QString &user = {},
                                                const QString &security = u"starttls"_s, const QString &caFile = {},
                                                bool closeMidMessage = false)
{
    QDir().mkpath(outdir);
    auto server = startServer(u"smtp"_s, certDir, { outdir, closeMidMessage ? u"close"_s : u"keep"_s }, password + '\n');
    for (QSettings *s : settings) {
        s->remove(u"QZMail/SMTP"_s);
        const std::pair<const char *, QString> values[] = { { "server", u"127.0.0.1"_s }, { "port", server->firstLine() },
                                                            { "security", security }, { "sender", u"app@example.org"_s },
                                                            { "caFile", caFile }, { "user", user } };
        for (const auto &[key, value] : values)
            if (!value.isNull())
                s->setValue(u"QZMail/SMTP/"_s + QLatin1String(key), value);
    }
    return server;
}

// gnome-keyring-daemon's Secret Service, its login keyring unlocked, inside dbus-run-session
// with HOME at `home`. use() puts its bus in this process's environment; false: it did not start.
class KeyringSession
{
public:
    explicit KeyringSession(const QString &home)
    {
        m_environment.insert(u"HOME"_s, home);
        m_environment.insert(u"XDG_RUNTIME_DIR"_s, home + u"/run"_s);
        m_environment.remove(u"DBUS_SESSION_BUS_ADDRESS"_s);
        QDir().mkpath(home + u"/run"_s);
        chmod(QFile::encodeName(home + u"/run"_s).constData(), 0700);
        m_service = std::make_unique<Service>(u"dbus-run-session"_s, QStringList{ u"--"_s, u"sh"_s, u"" MAIL_TEST_DIR "/keyring_session.sh"_s },
                                              QByteArray(), m_environment);
        m_environment.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, m_service->firstLine());
    }

    [[nodiscard]] bool use() const
    {
        qputenv("DBUS_SESSION_BUS_ADDRESS", m_service->firstLine().toUtf8());
        return !m_service->firstLine().isEmpty();
    }

    // A network-password item in the login collection; the secret goes in on standard input.
    void store(const QString &server, const QString &protocol, const QString &user, const QByteArray &secret,
               const QString &authtype = QString()) const
    {
        QStringList arguments{ u"store"_s, u"--label=test"_s, u"--collection=login"_s, u"xdg:schema"_s,
                               u"org.gnome.keyring.NetworkPassword"_s, u"server"_s, server, u"protocol"_s, protocol, u"user"_s, user };
        if (!authtype.isEmpty())
            arguments << u"authtype"_s << authtype;
        runProgram(u"secret-tool"_s, arguments, secret, m_environment);
    }
    void lockLogin() const
    {
        runProgram(u"dbus-send"_s, u"--session --print-reply --dest=org.freedesktop.secrets /org/freedesktop/secrets "
                                   "org.freedesktop.Secret.Service.Lock array:objpath:/org/freedesktop/secrets/collection/login"_s.split(u' '),
                   QByteArray(), m_environment);
    }

private:
    Environment m_environment = Environment::systemEnvironment();
    std::unique_ptr<Service> m_service;
};

} // namespace qztest
