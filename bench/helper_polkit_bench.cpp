// What asking polkit costs a helper command, against a D-Bus method call that asks polkit too,
// in one run.
//
// In a private mount namespace with a system bus and polkitd of its own (the tests' polkit
// environment: the helper's policy, a rule that allows user nobody), three kinds of call give a
// file to user 65534 that already has it:
//   - checked: `chown` through the reference helper, run as root by a set-user-id launcher for a
//     client of user nobody, so that the helper asks polkitd (CheckAuthorization) first;
//   - unchecked: the same command from a client of user root, which the root helper serves
//     without asking;
//   - D-Bus: a method call from user nobody to a root service on the system bus that asks polkitd
//     about the same action (its caller's bus name as the subject) and then changes the owner.
// One calling thread each; the three take turns of half a second. The table gives round trips
// per second, the median and 99th percentile latency, and each kind's median against the
// unchecked command's.
//
//   helper_polkit_bench [SECONDS]        (default 3 seconds per kind), as root
#include "PolkitEnvironment.h"

#include <QZApp/helper/QZHelperTool.h>
#include <QZApp/helper/helper_command.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "RoundTrips.h"

extern "C" int polkit_bench_server(const char *action_id);

namespace {

constexpr uid_t kClient = qztest::kAllowedUser;
const char kAction[] = "org.example.disktool.helper.change-owner";
const QByteArray kBusPolicy =
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
    "<busconfig>\n"
    "  <policy user=\"root\"><allow own=\"org.qzapp.bench\"/></policy>\n"
    "  <policy context=\"default\"><allow send_destination=\"org.qzapp.bench\"/></policy>\n"
    "</busconfig>\n";

bool readExactly(int fd, void *bytes, size_t length)
{
    for (size_t have = 0; have < length;) {
        const ssize_t got = read(fd, static_cast<char *>(bytes) + have, length - have);
        if (got <= 0)
            return false;
        have += static_cast<size_t>(got);
    }
    return true;
}

bool helperChown(const QByteArray &file)
{
    return auth_chown(file.constData(), kClient, kClient) == 0;
}

bool dbusChown(sd_bus *bus, const QByteArray &file)
{
    sd_bus_message *reply = nullptr;
    int status = -1;
    const int result = sd_bus_call_method(bus, "org.qzapp.bench", "/org/qzapp/bench", "org.qzapp.bench.Checked", "Chown",
                                          nullptr, &reply, "s", file.constData());
    if (result >= 0)
        sd_bus_message_read(reply, "i", &status);
    sd_bus_message_unref(reply);
    return result >= 0 && status == 0;
}

// The client of user nobody: for each request byte on `in` (1 the helper, 2 D-Bus) it measures
// for `seconds` and answers on `out` with the count, the time, the failures and the latencies.
int client(int in, int out, double seconds, const QByteArray &file)
{
    if (setgroups(0, nullptr) != 0 || setgid(kClient) != 0 || setuid(kClient) != 0)
        return 120;
    QZHelperTool::sharedInstance()->setHelperPath(QFile::decodeName(qztest::SafeLauncherFolder::rootLauncher()));
    sd_bus *bus = nullptr;
    if (sd_bus_open_system(&bus) < 0)
        return 121;
    // The service may still be starting.
    for (int i = 0; i < 200 && !dbusChown(bus, file); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    char kind;
    while (read(in, &kind, 1) == 1) {
        Samples samples;
        measure(1, seconds, kind == 1 ? std::function<bool()>([&] { return helperChown(file); })
                                   : std::function<bool()>([&] { return dbusChown(bus, file); }), &samples);
        const size_t count = samples.latencies.size();
        if (write(out, &count, sizeof count) != sizeof count || write(out, &samples.seconds, sizeof(double)) != sizeof(double)
            || write(out, &samples.failures, sizeof(long)) != sizeof(long)
            || write(out, samples.latencies.data(), count * sizeof(double)) != static_cast<ssize_t>(count * sizeof(double)))
            return 122;
    }
    QZHelperTool::sharedInstance()->terminateHelper();
    sd_bus_flush_close_unref(bus);
    return 0;
}

// Asks the client for one measurement of `kind`.
bool fromClient(int request, int answer, char kind, Samples *samples)
{
    size_t count = 0;
    double seconds = 0;
    long failures = 0;
    if (write(request, &kind, 1) != 1 || !readExactly(answer, &count, sizeof count)
        || !readExactly(answer, &seconds, sizeof seconds) || !readExactly(answer, &failures, sizeof failures))
        return false;
    std::vector<double> latencies(count);
    if (!readExactly(answer, latencies.data(), count * sizeof(double)))
        return false;
    samples->latencies.insert(samples->latencies.end(), latencies.begin(), latencies.end());
    samples->seconds += seconds;
    samples->failures += failures;
    return true;
}

int run(double seconds)
{
    if (geteuid() != 0) {
        std::fprintf(stderr, "helper_polkit_bench: run it as root (it sets up its own system bus and polkitd)\n");
        return 1;
    }
    const qztest::PolkitEnvironment polkit(kBusPolicy);
    if (!polkit.failure().isEmpty()) {
        std::fprintf(stderr, "helper_polkit_bench: %s\n", polkit.failure().constData());
        return 1;
    }
    QTemporaryDir dir;
    const QByteArray file = QFile::encodeName(dir.filePath(QStringLiteral("file")));
    QFile created(QFile::decodeName(file));
    if (chmod(QFile::encodeName(dir.path()).constData(), 0755) != 0 || !created.open(QIODevice::WriteOnly)) {
        std::fprintf(stderr, "helper_polkit_bench: cannot create %s\n", file.constData());
        return 1;
    }
    created.close();
    if (chown(file.constData(), kClient, kClient) != 0)
        return 1;

    const int turns = std::max(1, static_cast<int>(seconds / 0.5));
    const pid_t server = fork();
    if (server == 0)
        _exit(polkit_bench_server(kAction));
    int requests[2], answers[2];
    if (server < 0 || pipe2(requests, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0)
        return 1;
    const pid_t child = fork();
    if (child == 0) {
        close(requests[1]);
        close(answers[0]);
        _exit(client(requests[0], answers[1], seconds / turns, file));
    }
    close(requests[0]);
    close(answers[1]);
    const auto finish = [&](int status) {
        close(requests[1]);
        close(answers[0]);
        waitpid(child, nullptr, 0);
        kill(server, SIGTERM);
        waitpid(server, nullptr, 0);
        QZHelperTool::sharedInstance()->terminateHelper();
        return status;
    };

    QZHelperTool::sharedInstance()->setHelperPath(QStringLiteral(QZHELPER_PATH));
    if (!helperChown(file)) {
        std::fprintf(stderr, "helper_polkit_bench: a first command failed\n");
        return finish(1);
    }
    Samples unchecked, checked, dbus;
    for (int turn = 0; turn < turns; ++turn) {
        measure(1, seconds / turns, [&] { return helperChown(file); }, &unchecked);
        if (!fromClient(requests[1], answers[0], 1, &checked) || !fromClient(requests[1], answers[0], 2, &dbus)) {
            std::fprintf(stderr, "helper_polkit_bench: the client of user nobody failed\n");
            return finish(1);
        }
    }
    const double base = unchecked.percentile(50);
    std::printf("| Call | Round trips/s | p50 | p99 | p50 against unchecked |\n|---|---|---|---|---|\n");
    const struct {
        const char *name;
        Samples *samples;
    } rows[] = { { "helper chown, no check (root client)", &unchecked },
                 { "helper chown, polkit check (client nobody)", &checked },
                 { "D-Bus method with polkit check (client nobody)", &dbus } };
    bool failed = false;
    for (const auto &row : rows) {
        std::printf("| %s | %.0f | %.1f µs | %.1f µs | %.1f× |\n", row.name, row.samples->perSecond(), row.samples->percentile(50),
                    row.samples->percentile(99), row.samples->percentile(50) / base);
        failed = failed || row.samples->failures > 0;
    }
    if (failed)
        std::fprintf(stderr, "helper_polkit_bench: some round trips failed\n");
    return finish(failed ? 1 : 0);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const double seconds = argc > 1 ? std::atof(argv[1]) : 3.0;
    return run(seconds > 0 ? seconds : 3.0);
}
