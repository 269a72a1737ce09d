// Real file systems for the file tests: a scratch folder on ext4, a size-limited tmpfs and a FAT
// image on a loop device, each removed again when it goes out of scope. The tests' main runs
// every test process in a mount namespace of its own, so a mount that a crash leaves behind
// goes with the process.
#pragma once

#include <QZApp/utils.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace qztest {

// The result of a command or of a function run in a child process.
struct ChildResult {
    int status = -1;     // exit status, or -1 when killed
    std::string err;     // what it wrote to standard error
};

// Runs a program (argv[0] a path or a name on PATH) and waits; its output is captured.
ChildResult runProgram(const std::vector<std::string> &argv);

// Runs `body` in a forked child that first drops to `uid` and `gid` (no supplementary groups);
// the child's exit status is what `body` returns. Standard error is captured.
ChildResult runAs(uid_t uid, gid_t gid, const std::function<int()> &body);

// True when the tests run as the superuser in a private mount namespace (mounts possible).
bool canMount();

// A fresh folder that is deleted with everything in it (immutable and append-only flags are
// cleared first) when the object goes.
class ScratchFolder
{
public:
    explicit ScratchFolder(const std::string &parent = std::string());
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;

    const std::string &path() const { return m_path; }
    std::string operator/(const std::string &name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// A mounted volume: ext4 (the temporary folder itself when it is ext4, an image otherwise), a
// tmpfs of a given size, or a FAT image (the kernel's driver, or the FUSE driver where the
// kernel has none). Unmounted and its loop device released when the object goes; check
// `ok()` after making one.
class ScratchVolume
{
public:
    enum Kind { Ext4, Tmpfs, Fat };
    explicit ScratchVolume(Kind kind, unsigned long long bytes = 64ull << 20);
    ~ScratchVolume();
    ScratchVolume(const ScratchVolume &) = delete;
    ScratchVolume &operator=(const ScratchVolume &) = delete;

    bool ok() const { return m_ok; }
    const std::string &path() const { return m_root; }
    std::string operator/(const std::string &name) const { return m_root + "/" + name; }

private:
    bool mountImage(const char *type, const std::string &mkfs);
    bool mountFuseFat();

    ScratchFolder m_home;
    std::string m_image, m_mountPoint, m_root, m_loop;
    pid_t m_fuse = -1;
    bool m_mounted = false;
    bool m_ok = false;
};

// Small file helpers (abort the test on failure through gtest).
void writeFile(const std::string &path, const std::string &content, mode_t mode = 0644);
std::string readFile(const std::string &path);
bool exists(const std::string &path);   // without following a final link
bool isImmutable(const std::string &path);
void setImmutable(const std::string &path, bool on);

} // namespace qztest

#include <map>

namespace qztest {

// The object's user-visible properties, as the copy tests compare them.
std::map<std::string, std::string> userAttributes(const std::string &path);   // name -> value
std::string aclText(const std::string &path, bool defaultList = false);       // short text form
struct timespec modificationTime(const std::string &path);
mode_t modeOf(const std::string &path);   // lstat's st_mode, type bits included

// A copy made with copy_file: its result, errno and what it reported.
struct CopyOutcome {
    bool ok = false;
    int error = 0;
    std::string err;
};
CopyOutcome copyCapturingReports(const std::string &source, const std::string &destination,
                                 const copy_file_options *options);

} // namespace qztest
