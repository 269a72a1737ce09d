// Scratch folders and volumes for the file tests.
#include "ScratchVolumes.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qztest {
namespace {

std::string temporaryFolder()
{
    const char *tmp = std::getenv("TMPDIR");
    return tmp && *tmp ? tmp : "/tmp";
}

// Clears the flags that would stop a removal.
int clearFlags(const char *path, const struct stat *status, int, struct FTW *)
{
    if (!S_ISREG(status->st_mode) && !S_ISDIR(status->st_mode))
        return 0;
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return 0;
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL))) {
        flags &= ~(FS_IMMUTABLE_FL | FS_APPEND_FL);
        ioctl(fd, FS_IOC_SETFLAGS, &flags);
    }
    close(fd);
    if (S_ISDIR(status->st_mode))
        chmod(path, 0700);
    return 0;
}

void removeTree(const std::string &path)
{
    if (path.empty())
        return;
    nftw(path.c_str(), clearFlags, 16, FTW_PHYS);
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

// Reads all of `fd` into `out`.
void drain(int fd, std::string &out)
{
    char buffer[4096];
    ssize_t got;
    while ((got = read(fd, buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR))
        if (got > 0)
            out.append(buffer, static_cast<size_t>(got));
}

ChildResult forkAndWait(const std::function<void()> &child)
{
    ChildResult result;
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) < 0)
        return result;
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeEnds[1], STDERR_FILENO);
        close(pipeEnds[0]);
        child();
        _exit(127);
    }
    close(pipeEnds[1]);
    drain(pipeEnds[0], result.err);
    close(pipeEnds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

} // namespace

ChildResult runProgram(const std::vector<std::string> &argv)
{
    return forkAndWait([&] {
        std::vector<char *> words;
        for (const std::string &word : argv)
            words.push_back(const_cast<char *>(word.c_str()));
        words.push_back(nullptr);
        const int devNull = open("/dev/null", O_WRONLY);
        dup2(devNull, 1);
        execvp(words[0], words.data());
    });
}

ChildResult runAs(uid_t uid, gid_t gid, const std::function<int()> &body)
{
    return forkAndWait([&] {
        if (setgroups(0, nullptr) < 0 || setgid(gid) < 0 || setuid(uid) < 0)
            _exit(126);
        const int status = body();
        std::fflush(nullptr);
        _exit(status);
    });
}

bool canMount()
{
    // The tests' main unshares the mount namespace only as the superuser.
    return geteuid() == 0 && std::getenv("QZ_TEST_NO_MOUNTS") == nullptr;
}

ScratchFolder::ScratchFolder(const std::string &parent)
{
    std::string pattern = (parent.empty() ? temporaryFolder() : parent) + "/qzfiles.XXXXXX";
    if (mkdtemp(pattern.data()))
        m_path = pattern;
    else
        ADD_FAILURE() << "mkdtemp " << pattern << ": " << std::strerror(errno);
    chmod(m_path.c_str(), 0755);
}

ScratchFolder::~ScratchFolder()
{
    removeTree(m_path);
}

ScratchVolume::ScratchVolume(Kind kind, unsigned long long bytes)
{
    m_mountPoint = m_home / "mnt";
    m_image = m_home / "image";
    if (mkdir(m_mountPoint.c_str(), 0755) < 0)
        return;
    struct statfs fs;
    if (kind == Ext4 && statfs(m_home.path().c_str(), &fs) == 0 && fs.f_type == EXT4_SUPER_MAGIC) {
        m_root = m_mountPoint;   // already ext4: no image needed
        m_ok = true;
        return;
    }
    if (!canMount())
        return;
    if (kind == Tmpfs) {
        const std::string options = "size=" + std::to_string(bytes) + ",mode=0755";
        m_mounted = mount("tmpfs", m_mountPoint.c_str(), "tmpfs", 0, options.c_str()) == 0;
        m_ok = m_mounted;
    } else {
        const int fd = open(m_image.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        const bool sized = fd >= 0 && ftruncate(fd, static_cast<off_t>(bytes)) == 0;
        if (fd >= 0)
            close(fd);
        if (!sized)
            return;
        m_ok = kind == Ext4 ? mountImage("ext4", "mkfs.ext4") : mountImage("vfat", "mkfs.vfat");
    }
    m_root = m_mountPoint;
    if (!m_ok)
        ADD_FAILURE() << "cannot mount a scratch volume at " << m_mountPoint;
}

// Formats the image, attaches it to a free loop device and mounts that; a FAT image falls back
// to the FUSE driver when the kernel has no FAT driver.
bool ScratchVolume::mountImage(const char *type, const std::string &mkfs)
{
    const std::vector<std::string> format = mkfs == "mkfs.ext4"
            ? std::vector<std::string> { "mkfs.ext4", "-q", "-F", m_image }
            : std::vector<std::string> { "mkfs.vfat", m_image };
    if (runProgram(format).status != 0)
        return false;
    const std::string list = m_home / "loop";
    const std::string command = "losetup -f --show " + m_image + " > " + list;
    if (std::system(command.c_str()) != 0)
        return false;
    std::ifstream(list) >> m_loop;
    if (m_loop.empty())
        return false;
    m_mounted = mount(m_loop.c_str(), m_mountPoint.c_str(), type, 0, nullptr) == 0;
    const bool noKernelDriver = !m_mounted && errno == ENODEV;
    if (noKernelDriver && std::string(type) == "vfat")
        m_mounted = mountFuseFat();
    // Detaching while in use only marks the device: it goes when the volume lets go of it.
    runProgram({ "losetup", "-d", m_loop });
    return m_mounted;
}

// Starts the FUSE FAT driver in the foreground as a child that dies with this process, and
// waits until the volume is there.
bool ScratchVolume::mountFuseFat()
{
    const pid_t parent = getpid();
    std::fflush(nullptr);
    m_fuse = fork();
    if (m_fuse == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(1);
        const int devNull = open("/dev/null", O_RDWR);
        dup2(devNull, 0);
        dup2(devNull, 1);
        dup2(devNull, 2);
        execlp("fusefat", "fusefat", "-f", "-o", "rw+", m_loop.c_str(), m_mountPoint.c_str(), nullptr);
        _exit(127);
    }
    for (int i = 0; i < 500; i++) {
        struct statfs fs;
        if (statfs(m_mountPoint.c_str(), &fs) == 0 && fs.f_type == FUSE_SUPER_MAGIC)
            return true;
        int status;
        if (waitpid(m_fuse, &status, WNOHANG) == m_fuse) {
            m_fuse = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

ScratchVolume::~ScratchVolume()
{
    if (m_mounted) {
        if (umount2(m_mountPoint.c_str(), 0) < 0)
            umount2(m_mountPoint.c_str(), MNT_DETACH);
    }
    if (m_fuse > 0) {
        int status;
        for (int i = 0; i < 300 && waitpid(m_fuse, &status, WNOHANG) == 0; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        kill(m_fuse, SIGKILL);
        waitpid(m_fuse, &status, 0);
    }
}

void writeFile(const std::string &path, const std::string &content, mode_t mode)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    ASSERT_GE(fd, 0) << path << ": " << std::strerror(errno);
    ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
    chmod(path.c_str(), mode);
}

std::string readFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool exists(const std::string &path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

bool isImmutable(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    int flags = 0;
    const bool got = fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (fd >= 0)
        close(fd);
    return got && (flags & FS_IMMUTABLE_FL);
}

void setImmutable(const std::string &path, bool on)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    ASSERT_GE(fd, 0) << path;
    int flags = 0;
    ASSERT_EQ(ioctl(fd, FS_IOC_GETFLAGS, &flags), 0);
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    ASSERT_EQ(ioctl(fd, FS_IOC_SETFLAGS, &flags), 0) << std::strerror(errno);
    close(fd);
}

} // namespace qztest

#include <QZApp/utils.h>

#include <acl/libacl.h>
#include <sys/acl.h>
#include <sys/xattr.h>

namespace qztest {

std::map<std::string, std::string> userAttributes(const std::string &path)
{
    std::map<std::string, std::string> attributes;
    char names[8192];
    const ssize_t size = llistxattr(path.c_str(), names, sizeof names);
    for (const char *name = names; size > 0 && name < names + size; name += std::strlen(name) + 1) {
        if (std::strncmp(name, "user.", 5) != 0)
            continue;
        char value[65536];
        const ssize_t length = lgetxattr(path.c_str(), name, value, sizeof value);
        attributes[name] = length >= 0 ? std::string(value, static_cast<size_t>(length)) : "<unreadable>";
    }
    return attributes;
}

std::string aclText(const std::string &path, bool defaultList)
{
    acl_t acl = acl_get_file(path.c_str(), defaultList ? ACL_TYPE_DEFAULT : ACL_TYPE_ACCESS);
    if (!acl)
        return std::string();
    std::string text;
    if (char *converted = acl_to_any_text(acl, nullptr, ',', 0)) {
        text = converted;
        acl_free(converted);
    }
    acl_free(acl);
    return text;
}

struct timespec modificationTime(const std::string &path)
{
    struct stat status {};
    lstat(path.c_str(), &status);
    return status.st_mtim;
}

mode_t modeOf(const std::string &path)
{
    struct stat status {};
    lstat(path.c_str(), &status);
    return status.st_mode;
}

CopyOutcome copyCapturingReports(const std::string &source, const std::string &destination,
                                 const struct copy_file_options *options)
{
    CopyOutcome outcome;
    testing::internal::CaptureStderr();
    errno = 0;
    outcome.ok = copy_file(source.c_str(), destination.c_str(), options);
    outcome.error = errno;
    outcome.err = testing::internal::GetCapturedStderr();
    return outcome;
}

} // namespace qztest
