// The tests' private root-only launcher folder and system bus with polkitd; see PolkitEnvironment.h.
#include "PolkitEnvironment.h"

#include <QFile>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

extern char **environ;

namespace qztest {

namespace {

QByteArray systemError(const char *what, const QByteArray &path)
{
    return what + (" " + path) + ": " + std::strerror(errno);
}

// Writes `content` as a new root-owned file with `mode`; empty or why not.
QByteArray writeFile(const QByteArray &path, const QByteArray &content, mode_t mode)
{
    const int fd = open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return systemError("cannot create", path);
    const bool written = write(fd, content.constData(), static_cast<size_t>(content.size())) == content.size();
    close(fd);
    if (!written || chmod(path.constData(), mode) != 0)
        return systemError("cannot write", path);
    return QByteArray();
}

QByteArray copyFile(const QByteArray &from, const QByteArray &to, mode_t mode)
{
    QFile source(QFile::decodeName(from));
    return source.open(QIODevice::ReadOnly) ? writeFile(to, source.readAll(), mode) : "cannot read " + from;
}

QByteArray mountTmpfs(const char *where)
{
    return mount("tmpfs", where, "tmpfs", MS_NODEV, "mode=0755") == 0 ? QByteArray() : systemError("cannot mount a tmpfs on", where);
}

// Starts `argv` as a child with the test's environment; -1 when it cannot.
pid_t start(std::initializer_list<const char *> words)
{
    std::vector<char *> argv;
    for (const char *word : words)
        argv.push_back(const_cast<char *>(word));
    argv.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0 ? pid : -1;
}

void stop(pid_t pid)
{
    if (pid > 0 && kill(pid, SIGTERM) == 0)
        waitpid(pid, nullptr, 0);
}

// Waits up to 20 s until `name` has an owner on the system bus.
bool waitForName(const char *name)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        sd_bus *bus = nullptr;
        int owned = 0;
        if (sd_bus_open_system(&bus) >= 0) {
            sd_bus_message *reply = nullptr;
            if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                   "NameHasOwner", nullptr, &reply, "s", name) >= 0)
                sd_bus_message_read(reply, "b", &owned);
            sd_bus_message_unref(reply);
        }
        sd_bus_flush_close_unref(bus);
        if (owned)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

} // namespace

SafeLauncherFolder::SafeLauncherFolder()
{
    m_previousNamespace = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    if (m_previousNamespace < 0 || unshare(CLONE_NEWNS) != 0
        || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail(systemError("cannot enter a private mount namespace", "/"));
        return;
    }
    // A tmpfs that mirrors /usr/libexec entry by entry, then takes its place.
    char stage[] = "/tmp/qzapp-libexec.XXXXXX";
    if (!mkdtemp(stage)) {
        fail(systemError("cannot create", stage));
        return;
    }
    fail(mountTmpfs(stage));
    DIR *dir = m_failure.isEmpty() ? opendir("/usr/libexec") : nullptr;
    while (const dirent *entry = dir ? readdir(dir) : nullptr) {
        const QByteArray name = entry->d_name, original = "/usr/libexec/" + name, mirror = stage + ("/" + name);
        struct stat st;
        if (name == "." || name == ".." || name == "qzapp" || lstat(original.constData(), &st) != 0)
            continue;
        char target[4096] = {};
        const bool made = S_ISLNK(st.st_mode)
            ? readlink(original.constData(), target, sizeof target - 1) <= 0 || symlink(target, mirror.constData()) == 0
            : (S_ISDIR(st.st_mode) ? mkdir(mirror.constData(), 0755) == 0 : writeFile(mirror, QByteArray(), 0644).isEmpty())
                && mount(original.constData(), mirror.constData(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
        if (!made)
            fail(systemError("cannot mirror", original));
    }
    if (dir)
        closedir(dir);
    const QByteArray folder = stage + QByteArray("/qzapp");
    if (m_failure.isEmpty() && mkdir(folder.constData(), 0755) != 0)
        fail(systemError("cannot create", folder));
    const struct { const char *from, *to; mode_t mode; } files[] = {
        { QZHELPER_PATH, "/qzhelper", 0755 },
        { ROOT_LAUNCHER_PATH, "/qz_root_launcher", 04755 },
        { QZHELPER_PACKAGING_DIR "/disktool-helper-launcher.sh", "/helper-launcher", 0755 },
    };
    for (const auto &file : files)
        if (m_failure.isEmpty())
            fail(copyFile(file.from, folder + file.to, file.mode));
    if (m_failure.isEmpty() && mount(stage, "/usr/libexec", nullptr, MS_MOVE, nullptr) != 0)
        fail(systemError("cannot move the mirror over", "/usr/libexec"));
    rmdir(stage);
}

SafeLauncherFolder::~SafeLauncherFolder()
{
    if (m_previousNamespace >= 0) {
        setns(m_previousNamespace, CLONE_NEWNS);
        close(m_previousNamespace);
    }
}

PolkitEnvironment::PolkitEnvironment(const QByteArray &busPolicy)
{
    if (!m_failure.isEmpty())
        return;
    if (!getpwnam("polkitd")) {
        fail("the polkitd system user is missing: install the polkitd package (tools/debian-packages.txt)");
        return;
    }
    for (const char *where : { "/run/dbus", "/etc/polkit-1/rules.d", "/usr/share/polkit-1/actions" })
        if (m_failure.isEmpty())
            fail(mountTmpfs(where));
    if (!m_failure.isEmpty())
        return;
    fail(copyFile(QZHELPER_PACKAGING_DIR "/org.example.disktool.helper.policy",
                  "/usr/share/polkit-1/actions/org.example.disktool.helper.policy", 0644));
    fail(writeFile("/etc/polkit-1/rules.d/10-qzapp-tests.rules",
                   "polkit.addRule(function(action, subject) {\n"
                   "    if (action.id.indexOf(\"org.example.disktool.helper\") != 0)\n"
                   "        return polkit.Result.NOT_HANDLED;\n"
                   "    if (subject.user == \"nobody\")\n"
                   "        return polkit.Result.YES;\n"
                   "    if (subject.user == \"daemon\")\n"
                   "        return polkit.Result.NO;\n"
                   "    return polkit.Result.NOT_HANDLED;\n"
                   "});\n",
                   0644));
    if (!busPolicy.isEmpty()) {
        fail(mountTmpfs("/etc/dbus-1/system.d"));
        if (m_failure.isEmpty())
            fail(writeFile("/etc/dbus-1/system.d/qzapp.conf", busPolicy, 0644));
    }
    if (!m_failure.isEmpty())
        return;
    if ((m_bus = start({ "/usr/bin/dbus-daemon", "--system", "--nofork", "--nopidfile" })) < 0) {
        fail("cannot start dbus-daemon --system (install the dbus package)");
    } else if (!waitForName("org.freedesktop.DBus")) {
        fail("the system bus did not come up");
    } else if ((m_polkitd = start({ "/usr/lib/polkit-1/polkitd", "--no-debug" })) < 0) {
        fail("cannot start /usr/lib/polkit-1/polkitd (install the polkitd package)");
    } else if (!waitForName("org.freedesktop.PolicyKit1")) {
        fail("polkitd did not appear on the system bus");
    }
}

PolkitEnvironment::~PolkitEnvironment()
{
    stop(m_polkitd);
    stop(m_bus);
}

} // namespace qztest
