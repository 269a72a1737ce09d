// Scratch folders and volumes for the file tests.
#include "ScratchVolumes.h"

#include <acl/libacl.h>

#include <cerrno>
#include <chrono>
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
#include <sys/acl.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace qztest {
namespace {

int inodeFlags(const std::string &path, int set = -1)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    int flags = -1;
    if (fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && set >= 0 && ioctl(fd, FS_IOC_SETFLAGS, &set) < 0)
        flags = -1;
    if (fd >= 0)
        close(fd);
    return flags;
}

int clearFlags(const char *path, const struct stat *status, int, struct FTW *)
{
    if (S_ISREG(status->st_mode) || S_ISDIR(status->st_mode)) {
        const int flags = inodeFlags(path);
        if (flags > 0 && (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL)))
            inodeFlags(path, flags & ~(FS_IMMUTABLE_FL | FS_APPEND_FL));
    }
    if (S_ISDIR(status->st_mode))
        chmod(path, 0700);
    return 0;
}

// Runs `child` in a forked process with standard output and error captured.
ChildResult forkAndWait(const std::function<void()> &child)
{
    ChildResult result;
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) < 0 || pipe2(err, O_CLOEXEC) < 0)
        return result;
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        child();
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    // Small outputs only: read one pipe after the other.
    for (auto [fd, text] : { std::pair { out[0], &result.out }, std::pair { err[0], &result.err } }) {
        char buffer[4096];
        for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) != 0;)
            if (got > 0)
                text->append(buffer, static_cast<size_t>(got));
            else if (errno != EINTR)
                break;
        close(fd);
    }
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
    return geteuid() == 0 && std::getenv("QZ_TEST_NO_MOUNTS") == nullptr;
}

ScratchFolder::ScratchFolder()
{
    const char *tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qzfiles.XXXXXX";
    if (!mkdtemp(pattern.data()))
        ADD_FAILURE() << "mkdtemp " << pattern << ": " << std::strerror(errno);
    m_path = pattern;
    chmod(m_path.c_str(), 0755);
}

ScratchFolder::~ScratchFolder()
{
    nftw(m_path.c_str(), clearFlags, 16, FTW_PHYS);
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

ScratchVolume::ScratchVolume(Kind kind, unsigned long long bytes)
{
    m_root = m_home / "mnt";
    struct statfs fs;
    if (mkdir(m_root.c_str(), 0755) < 0 || statfs(m_home.path().c_str(), &fs) < 0)
        return;
    if (kind == Ext4 && fs.f_type == EXT4_SUPER_MAGIC) {
        m_ok = true;   // already ext4: no image needed
    } else if (canMount() && kind == Tmpfs) {
        const std::string options = "size=" + std::to_string(bytes) + ",mode=0755";
        m_ok = m_mounted = mount("tmpfs", m_root.c_str(), "tmpfs", 0, options.c_str()) == 0;
    } else if (canMount()) {
        const int fd = open((m_home / "image").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        m_ok = fd >= 0 && ftruncate(fd, static_cast<off_t>(bytes)) == 0 && close(fd) == 0 && mountImage(kind);
    }
    if (!m_ok)
        ADD_FAILURE() << "cannot make a scratch volume at " << m_root;
}

// Formats the image, attaches it to a free loop device and mounts that.
bool ScratchVolume::mountImage(Kind kind)
{
    const std::string image = m_home / "image";
    if (runProgram(kind == Ext4 ? std::vector<std::string> { "mkfs.ext4", "-q", "-F", image }
                                : std::vector<std::string> { "mkfs.vfat", image }).status != 0)
        return false;
    std::string loop = runProgram({ "losetup", "-f", "--show", image }).out;
    if (loop.empty())
        return false;
    loop.pop_back();   // the line break
    if (kind == Ext4) {
        m_mounted = mount(loop.c_str(), m_root.c_str(), "ext4", 0, nullptr) == 0;
    } else {
        // The FUSE driver in the foreground, as a child that dies with this process.
        const pid_t parent = getpid();
        m_fuse = fork();
        if (m_fuse == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() == parent)
                execlp("fusefat", "fusefat", "-f", "-o", "rw+", loop.c_str(), m_root.c_str(), nullptr);
            _exit(127);
        }
        for (int i = 0; i < 500 && !m_mounted && waitpid(m_fuse, nullptr, WNOHANG) == 0; i++) {
            struct statfs fs;
            m_mounted = statfs(m_root.c_str(), &fs) == 0 && fs.f_type == FUSE_SUPER_MAGIC;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    // Detaching while in use only marks the device: it goes when the volume lets go of it.
    runProgram({ "losetup", "-d", loop });
    return m_mounted;
}

ScratchVolume::~ScratchVolume()
{
    if (m_mounted && umount2(m_root.c_str(), 0) < 0)
        umount2(m_root.c_str(), MNT_DETACH);
    if (m_fuse > 0) {
        for (int i = 0; i < 300 && waitpid(m_fuse, nullptr, WNOHANG) == 0; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        kill(m_fuse, SIGKILL);
        waitpid(m_fuse, nullptr, 0);
    }
}

void writeFile(const std::string &path, const std::string &content, mode_t mode)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

std::string readFile(const std::string &path)
{
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

bool exists(const std::string &path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

mode_t modeOf(const std::string &path)
{
    struct stat status {};
    lstat(path.c_str(), &status);
    return status.st_mode;
}

bool isImmutable(const std::string &path)
{
    const int flags = inodeFlags(path);
    return flags > 0 && (flags & FS_IMMUTABLE_FL);
}

void setImmutable(const std::string &path, bool on)
{
    const int flags = inodeFlags(path);
    ASSERT_GE(flags, 0) << path;
    ASSERT_GE(inodeFlags(path, on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL)), 0) << path;
}

std::map<std::string, std::string> userAttributes(const std::string &path)
{
    std::map<std::string, std::string> attributes;
    char names[8192], value[65536];
    const ssize_t size = llistxattr(path.c_str(), names, sizeof names);
    for (const char *name = names; size > 0 && name < names + size; name += std::strlen(name) + 1) {
        const ssize_t length = lgetxattr(path.c_str(), name, value, sizeof value);
        if (std::strncmp(name, "user.", 5) == 0)
            attributes[name] = std::string(value, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    }
    return attributes;
}

std::string aclText(const std::string &path, bool defaultList)
{
    std::string text;
    acl_t acl = acl_get_file(path.c_str(), defaultList ? ACL_TYPE_DEFAULT : ACL_TYPE_ACCESS);
    if (char *converted = acl ? acl_to_any_text(acl, nullptr, ',', 0) : nullptr) {
        text = converted;
        acl_free(converted);
    }
    if (acl)
        acl_free(acl);
    return text;
}

CopyOutcome copyCapturingReports(const std::string &source, const std::string &destination,
                                 const copy_file_options *options)
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
