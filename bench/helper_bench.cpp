// Round trips through the helper channel against D-Bus method calls, in one run.
//
// The channel sends "echo" with a 14-byte block to the reference helper and gets the block
// back; D-Bus calls echo(QString) with the same text on an object in a second process, over a
// private dbus-daemon bus. Each side runs from 1 and from 8 calling threads for a fixed time;
// the table gives round trips per second and the median and 99th percentile latency. The two
// sides take turns of half a second, so that both meet the same load on a shared machine.
//
// With --busy, one process per processor spins for the whole run, so that both sides meet a
// machine whose processors are all taken. With QZ_BENCH_SUMMARY set to a file, each ratio is
// also appended to it as a row "| CASE | RATIO |" in time per call (below 1 is faster).
//
//   helper_bench [--busy] [SECONDS]   (default 3 seconds per measurement)
//   helper_bench --echo-server ADDRESS   the D-Bus side's second process (internal)
#include "RoundTrips.h"

#include <QZApp/helper/QZHelperTool.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QString kService = QStringLiteral("org.qzapp.bench");
const QString kInterface = QStringLiteral("org.qzapp.bench.Echo");
const QByteArray kPayload = "hello, helper!";

class Echo : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.qzapp.bench.Echo")
public slots:
    QString echo(const QString &text) { return text; }
};

bool channelEcho()
{
    const auto command = QZHelperCommand::commandWithString(QStringLiteral("echo"));
    command->setCommandData(kPayload);
    return QZHelperTool::sharedInstance()->issue(command) && command->getStatus() == 0 && command->data() == kPayload;
}

int echoServer(const QString &address)
{
    QDBusConnection connection = QDBusConnection::connectToBus(address, QStringLiteral("echo-server"));
    Echo echo;
    if (!connection.isConnected() || !connection.registerObject(QStringLiteral("/echo"), &echo, QDBusConnection::ExportAllSlots)
        || !connection.registerService(kService)) {
        std::fprintf(stderr, "helper_bench: the echo server cannot register: %s\n",
                     qPrintable(connection.lastError().message()));
        return 1;
    }
    return QCoreApplication::exec();
}

// Starts one spinning process per processor; they end when this process does.
std::vector<pid_t> occupyProcessors()
{
    std::vector<pid_t> spinners;
    const unsigned count = std::max(1u, std::thread::hardware_concurrency());
    for (unsigned i = 0; i < count; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;)
                asm volatile("" ::: "memory");   // spin, and let no compiler drop the loop
        }
        if (child > 0)
            spinners.push_back(child);
    }
    return spinners;
}

void appendSummary(const QString &row)
{
    const QByteArray path = qgetenv("QZ_BENCH_SUMMARY");
    QFile summary(QFile::decodeName(path));
    if (!path.isEmpty() && summary.open(QIODevice::Append))
        summary.write(row.toUtf8() + '\n');
}

int run(double seconds, bool busy)
{
    // A private bus, and the echo object in a second process.
    QTemporaryDir dir;
    QFile config(dir.filePath(QStringLiteral("bus.conf")));
    if (!config.open(QIODevice::WriteOnly))
        return 1;
    config.write("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                 " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                 "<busconfig><type>session</type><listen>unix:dir=" + QFile::encodeName(dir.path()) + "</listen>"
                 "<auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\"/>"
                 "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>\n");
    config.close();
    QProcess daemon;
    daemon.start(QStringLiteral("dbus-daemon"), { QStringLiteral("--config-file=") + config.fileName(),
                                                  QStringLiteral("--nofork"), QStringLiteral("--print-address") });
    if (!daemon.waitForStarted() || !daemon.waitForReadyRead(10000)) {
        std::fprintf(stderr, "helper_bench: dbus-daemon did not start (install the dbus package)\n");
        return 1;
    }
    const QString address = QString::fromUtf8(daemon.readLine().trimmed());
    QProcess server;
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start(QCoreApplication::applicationFilePath(), { QStringLiteral("--echo-server"), address });
    QDBusConnection connection = QDBusConnection::connectToBus(address, QStringLiteral("client"));
    const auto finish = [&](int status) {
        QDBusConnection::disconnectFromBus(QStringLiteral("client"));
        QZHelperTool::sharedInstance()->terminateHelper();
        server.kill();
        server.waitForFinished();
        daemon.kill();
        daemon.waitForFinished();
        return status;
    };
    for (int i = 0; i < 1000 && !connection.interface()->isServiceRegistered(kService); ++i)
        QThread::msleep(10);
    if (!connection.interface()->isServiceRegistered(kService)) {
        std::fprintf(stderr, "helper_bench: the echo server did not appear on the bus\n");
        return finish(1);
    }
    const auto dbusEcho = [&connection] {
        QDBusMessage call = QDBusMessage::createMethodCall(kService, QStringLiteral("/echo"), kInterface, QStringLiteral("echo"));
        call << QString::fromLatin1(kPayload);
        const QDBusMessage reply = connection.call(call);
        return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toString() == QLatin1String(kPayload);
    };

    QZHelperTool *tool = QZHelperTool::sharedInstance();
    tool->setHelperPath(QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("qzhelper")));
    if (!channelEcho() || !dbusEcho()) {
        std::fprintf(stderr, "helper_bench: a first round trip failed\n");
        return finish(1);
    }

    std::vector<pid_t> spinners;
    if (busy)
        spinners = occupyProcessors();
    std::printf("| Calling threads | Helper channel round trips/s | p50 | p99 | D-Bus round trips/s | p50 | p99 | Ratio |\n");
    std::printf("|---|---|---|---|---|---|---|---|\n");
    bool failed = false;
    for (const int threads : { 1, 8 }) {
        // Half-second turns, taken in alternation, so that both sides meet the same machine.
        Samples channel, dbus;
        const int turns = std::max(1, static_cast<int>(seconds / 0.5));
        for (int turn = 0; turn < turns; ++turn) {
            measure(threads, seconds / turns, channelEcho, &channel);
            measure(threads, seconds / turns, dbusEcho, &dbus);
        }
        std::printf("| %d | %.0f | %.1f µs | %.1f µs | %.0f | %.1f µs | %.1f µs | %.1f× |\n", threads,
                    channel.perSecond(), channel.percentile(50), channel.percentile(99), dbus.perSecond(),
                    dbus.percentile(50), dbus.percentile(99), channel.perSecond() / dbus.perSecond());
        std::fflush(stdout);
        appendSummary(QStringLiteral("| helper channel echo vs D-Bus call, %1 calling thread%2, %3 | %4 |")
                              .arg(threads)
                              .arg(threads == 1 ? QString() : QStringLiteral("s"),
                                   busy ? QStringLiteral("processors busy") : QStringLiteral("idle machine"))
                              .arg(dbus.perSecond() / channel.perSecond(), 0, 'f', 2));
        failed = failed || channel.failures > 0 || dbus.failures > 0;
    }
    for (const pid_t spinner : spinners) {
        kill(spinner, SIGKILL);
        waitpid(spinner, nullptr, 0);
    }
    if (failed)
        std::fprintf(stderr, "helper_bench: some round trips failed\n");
    return finish(failed ? 1 : 0);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() == 3 && arguments[1] == QLatin1String("--echo-server"))
        return echoServer(arguments[2]);
    const bool busy = arguments.size() > 1 && arguments[1] == QLatin1String("--busy");
    const qsizetype secondsAt = busy ? 2 : 1;
    const double seconds = arguments.size() > secondsAt ? arguments[secondsAt].toDouble() : 3.0;
    return run(seconds > 0 ? seconds : 3.0, busy);
}

#include "helper_bench.moc"
