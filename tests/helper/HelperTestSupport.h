// Shared pieces of the helper channel's tests: a scripted fake helper, descriptor and child
// counting, and running code as another user in a forked child.
#pragma once

#include "support/TestSupport.h"

#include <QZApp/helper/QZHelperTool.h>
#include <QZApp/helper/QZHelperToolTesting.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>

#include <acl/libacl.h>
#include <grp.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// tests/helper/c_interface.c: the C interface's echo, called from C.
extern "C" int32_t c_echo(const char *text, void **reply, uint32_t *length);

namespace qztest {

constexpr uid_t kNobody = 65534;

inline QZHelperTool *tool() { return QZHelperTool::sharedInstance(); }

// A temporary folder with the permission bits `mode`: by default every user may write to it.
class Folder
{
public:
    explicit Folder(mode_t mode = 0777) { chmod(QFile::encodeName(m_dir.path()).constData(), mode); }

    QByteArray path(const char *name = "") const { return QFile::encodeName(m_dir.filePath(QLatin1String(name))); }
    // Writes a new file `name` with the permission bits `mode`; returns its path.
    QByteArray write(const char *name, const QByteArray &text, mode_t mode) const
    {
        QFile file(QFile::decodeName(path(name)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(text) == text.size());
        file.close();
        chmod(path(name).constData(), mode);
        return path(name);
    }

private:
    QTemporaryDir m_dir;
};

// The fake helper (tests/helper/fake_helper.c describes its script), recording into its folder,
// which the shared tool starts from now on; destroying the object stops it.
class FakeHelper : public Folder
{
public:
    explicit FakeHelper(const QByteArray &script)
    {
        qputenv("QZ_FAKE_HELPER_DIR", path());
        setScript(script);
        tool()->setHelperPath(QStringLiteral(FAKE_HELPER_PATH));
    }
    ~FakeHelper() { tool()->terminateHelper(); }
    Q_DISABLE_COPY_MOVE(FakeHelper)

    // The script of the helpers started from now on.
    void setScript(const QByteArray &script) const { qputenv("QZ_FAKE_HELPER_SCRIPT", script); }
    // Everything helper `run` (1 for the first one started) read, authorization block included.
    QByteArray record(int run = 1) const
    {
        QFile file(QFile::decodeName(path("record.") + QByteArray::number(run)));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    // What helper `run` read after the authorization block.
    QByteArray requests(int run = 1) const { return record(run).mid(32); }
};

// The access list of `path` in short text form with numeric identifiers; empty when it has none.
inline QByteArray aclText(const QByteArray &path)
{
    QByteArray result;
    if (acl_t acl = acl_get_file(path.constData(), ACL_TYPE_ACCESS)) {
        char *text = acl_to_any_text(acl, nullptr, ',', TEXT_NUMERIC_IDS);
        result = text;
        acl_free(text);
        acl_free(acl);
    }
    return result;
}

// True when `fd` reads as a program (the fake helper's own file, which it offers); closes `fd`.
inline bool isProgram(int fd)
{
    char magic[4] = {};
    const bool matches = pread(fd, magic, sizeof magic, 0) == 4 && std::memcmp(magic, "\x7f" "ELF", 4) == 0;
    close(fd);
    return matches;
}

// The number of descriptors the process holds.
inline int openDescriptorCount()
{
    return static_cast<int>(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size());
}

// True when the process has no child at all (none running, no zombie).
inline bool hasNoChildren()
{
    int status = 0;
    return waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

// Runs `body` in a forked child that dropped to user and group `user`; returns its exit
// status (the value `body` returned), or -1 when it did not exit normally. Fork before the
// parent starts a helper: the child must not inherit a running connection.
inline int runAsUser(uid_t user, const std::function<int()> &body)
{
    const pid_t child = fork();
    if (child == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0)
            _exit(120);
        _exit(body());
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline int runAsNobody(const std::function<int()> &body) { return runAsUser(kNobody, body); }

// In a body run by runAsUser: a failing condition is printed and exits with its line number.
#define EXPECT_IN_CHILD(condition) \
    do { \
        if (!(condition)) { \
            std::fprintf(stderr, "failed in the child: %s\n", #condition); \
            return __LINE__ % 250 + 1; \
        } \
    } while (0)

} // namespace qztest
