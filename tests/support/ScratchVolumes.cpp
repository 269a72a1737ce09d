// Scratch volumes and the file and process helpers of the file tests.
#include "ScratchVolumes.h"

#include <cerrno>
#include <cstdio>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qztest {

Outcome runChild(const std::function<void()> &child)
{
    Outcome outcome;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        return outcome;
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        child();
        _exit(127);
    }
    close(ends[1]);
    char buffer[4096];
    for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;)
        outcome.output.append(buffer, static_cast<size_t>(got));
    close(ends[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

Outcome runAs(uid_t user, const std::function<bool()> &operation)
{
    const auto status = [&] {
        errno = 0;
        return operation() ? 0 : errno;
    };
    if (user == 0) {
        testing::internal::CaptureStderr();
        const int result = status();
        return { result, testing::internal::GetCapturedStderr() };
    }
    return runChild([&] {
        if (setgroups(0, nullptr) < 0 || setgid(user) < 0 || setuid(user) < 0)
            _exit(126);
        const int result = status();
        std::fflush(nullptr);
        _exit(result);
    });
}

Outcome runProgram(const std::vector<std::string> &argv)
{
    return runChild([&] {
        std::vector<char *> words;
        for (const std::string &word : argv)
            words.push_back(const_cast<char *>(word.c_str()));
        words.push_back(nullptr);
        execvp(words[0], words.data());
    });
}

Outcome runCopy(const std::string &source, const std::string &destination, uint32_t flags, uid_t user, uint32_t threads)
{
    const copy_file_options options { flags, 0, 0, nullptr, nullptr, threads };
    return runAs(user, [&] { return copy_file(source.c_str(), destination.c_str(), &options); });
}

Outcome runDelete(const std::string &path, uid_t user, unsigned threads)
{
    return runAs(user, [&] {
        return (threads ? delete_file_object_parallel(path.c_str(), threads) : delete_file_object(path.c_str())) == 0;
    });
}

void enterPrivateMountNamespace()
{
    if (geteuid() == 0
        && (unshare(CLONE_NEWNS) < 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0)) {
        std::perror("private mount namespace");
        setenv("QZ_TEST_NO_MOUNTS", "1", 1);
    }
}

ScratchVolume::ScratchVolume(Kind kind, unsigned long long bytes)
{
    m_home = (std::filesystem::temp_directory_path() / "qzfiles.XXXXXX").string();
    if (!mkdtemp(m_home.data()) || chmod(m_home.c_str(), 0755) < 0)
        ADD_FAILURE() << "mkdtemp " << m_home << ": " << std::strerror(errno);
    m_root = m_home + "/mnt";
    const std::string image = m_home + "/image";
    struct statfs fs;
    if (mkdir(m_root.c_str(), 0755) < 0 || statfs(m_home.c_str(), &fs) < 0)
        return;
    if (kind == Ext4 && fs.f_type == EXT4_SUPER_MAGIC) {
        m_ok = true;   // already ext4: no image needed
    } else if (canMount() && kind == Tmpfs) {
        const std::string options = "size=" + std::to_string(bytes) + ",mode=0755";
        m_ok = m_mounted = mount("tmpfs", m_root.c_str(), "tmpfs", 0, options.c_str()) == 0;
    } else if (canMount() && kind == Ext4) {
        // The loop device goes by itself when the volume is unmounted.
        m_ok = m_mounted = runProgram({ "mkfs.ext4", "-q", "-F", "-b", "4096", image, "256M" }).status == 0
                && runProgram({ "mount", "-o", "loop", image, m_root }).status == 0;
    } else if (canMount() && (kind == Btrfs || kind == Xfs)) {
        // An image file of the whole size (sparse), then the file system in it.
        std::ofstream(image, std::ios::binary).close();
        const int made = truncate(image.c_str(), static_cast<off_t>(bytes)) < 0 ? -1
                : kind == Btrfs ? runProgram({ "mkfs.btrfs", "-q", "-f", image }).status
                                : runProgram({ "mkfs.xfs", "-q", "-f", "-m", "reflink=1", image }).status;
        m_ok = m_mounted = made == 0 && runProgram({ "mount", "-o", "loop", image, m_root }).status == 0;
    } else if (canMount() && kind == Fat && runProgram({ "mkfs.vfat", "-C", image, std::to_string(bytes >> 10) }).status == 0) {
        // The FUSE driver serves the loop device (no kernel FAT driver needed) as a child that
        // dies with this process.
        const Outcome attached = runProgram({ "losetup", "--find", "--show", image });
        m_loop = attached.status == 0 ? attached.output.substr(0, attached.output.find('\n')) : std::string();
        const pid_t parent = getpid();
        m_fuse = m_loop.empty() ? -1 : fork();
        if (m_fuse == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() == parent)
                execlp("fusefat", "fusefat", "-f", "-o", "rw+", m_loop.c_str(), m_root.c_str(), nullptr);
            _exit(127);
        }
        for (int i = 0; m_fuse > 0 && i < 500 && !m_mounted && waitpid(m_fuse, nullptr, WNOHANG) == 0; i++) {
            m_mounted = statfs(m_root.c_str(), &fs) == 0 && fs.f_type == FUSE_SUPER_MAGIC;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        m_ok = m_mounted;
    }
    if (!m_ok)
        ADD_FAILURE() << "cannot make a scratch volume at " << m_root;
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
    if (!m_loop.empty())
        runProgram({ "losetup", "--detach", m_loop });
    runProgram({ "chattr", "-R", "-i", "-a", m_home });   // flags that stop a removal
    std::error_code ignored;
    std::filesystem::remove_all(m_home, ignored);
}

void makeFolder(const std::string &path, mode_t mode)
{
    std::error_code error;
    std::filesystem::create_directories(path, error);
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void writeFile(const std::string &path, const std::string &content, mode_t mode)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void makeTree(const std::string &root, const std::map<std::string, std::string> &entries)
{
    for (const auto &[name, content] : entries) {
        makeFolder(std::filesystem::path(root + "/" + name).parent_path());
        if (name.back() != '/')
            writeFile(root + "/" + name, content);
    }
}

std::string listing(const std::string &root)
{
    std::set<std::string> entries;
    std::error_code error;   // nothing there: an empty listing
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root, error)) {
        const std::string name = entry.path().string().substr(root.size() + 1);
        if (entry.is_symlink())
            entries.insert(name + "->" + std::filesystem::read_symlink(entry).string());
        else if (entry.is_regular_file())
            entries.insert(name + "=" + readFile(entry.path()));
        else
            entries.insert(name + (entry.is_directory() ? "/" : "*"));
    }
    std::string text;
    for (const std::string &entry : entries)
        text += (text.empty() ? "" : " ") + entry;
    return text;
}

std::string readFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct stat statusOf(const std::string &path)
{
    struct stat status {};
    lstat(path.c_str(), &status);
    return status;
}

bool isImmutable(const std::string &path)
{
    const Outcome flags = runProgram({ "lsattr", "-d", path });
    return flags.status == 0 && flags.output.find('i') < flags.output.find(' ');
}

void setImmutable(const std::string &path)
{
    ASSERT_EQ(runProgram({ "chattr", "+i", path }).status, 0) << path;
}

} // namespace qztest
