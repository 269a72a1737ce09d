// Real file systems for the file tests: ext4, a size-limited tmpfs and a FAT image on a loop
// device, each in a fresh folder removed with the volume (the main gives every test process its
// own mount namespace, so a mount that a crash leaves behind goes with the process).
#pragma once

#include <QZApp/utils.h>

#include "../../app-common/QZApp/utils/utils_private.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace qztest {

// What an operation gave: 0, the errno of a failed copy or deletion, or a program's exit status
// (-1 when killed); and what it wrote to standard error (both streams of a program).
struct Outcome {
    int status = -1;
    std::string output;
    bool operator==(const Outcome &) const = default;
};
inline void PrintTo(const Outcome &outcome, std::ostream *out) { *out << outcome.status << " \"" << outcome.output << '"'; }

constexpr uid_t nobody = 65534;   // the ordinary user of the tests

// Runs `child` in a forked process, its output streams captured and its exit status the outcome's.
Outcome runChild(const std::function<void()> &child);
// Runs `operation` as `user` (the superuser: in this process); the status is its errno on failure.
Outcome runAs(uid_t user, const std::function<bool()> &operation);
// Runs a program (found along PATH) and waits for it.
Outcome runProgram(const std::vector<std::string> &argv);
// copy_file and delete_file_object as the superuser or, in a forked child, as `user` (and group);
// with `threads`, the copy's options carry that count and the deletion is the parallel one.
Outcome runCopy(const std::string &source, const std::string &destination, uint32_t flags = 0, uid_t user = 0,
                uint32_t threads = 0);
Outcome runDelete(const std::string &path, uid_t user = 0, unsigned threads = 0);
// True when the tests run as the superuser in a private mount namespace.
inline bool canMount() { return geteuid() == 0 && std::getenv("QZ_TEST_NO_MOUNTS") == nullptr; }
// Gives the superuser's test process a mount namespace of its own (the mains call it first).
void enterPrivateMountNamespace();

// A mounted volume: ext4 (the temporary folder itself when it is ext4, an image of 256 MiB on a
// loop device otherwise), or a tmpfs or a FAT image (through FUSE) of `bytes`, or a btrfs or XFS
// image of `bytes` on a loop device (volumes that share extents; at least 128 MiB and 300 MiB).
// Check ok().
class ScratchVolume
{
public:
    enum Kind { Ext4, Tmpfs, Fat, Btrfs, Xfs };
    explicit ScratchVolume(Kind kind, unsigned long long bytes = 64ull << 20);
    ~ScratchVolume();
    ScratchVolume(const ScratchVolume &) = delete;
    ScratchVolume &operator=(const ScratchVolume &) = delete;
    bool ok() const { return m_ok; }
    const std::string &path() const { return m_root; }
    std::string operator/(const std::string &name) const { return m_root + "/" + name; }

private:
    std::string m_home, m_root;
    pid_t m_fuse = -1;
    std::string m_loop;   // the FAT image's loop device
    bool m_mounted = false, m_ok = false;
};

// Makes a folder and those above it; the last one gets `mode`.
void makeFolder(const std::string &path, mode_t mode = 0755);
void writeFile(const std::string &path, const std::string &content, mode_t mode = 0644);
// Makes folders (names ending in '/') and files (name = content) below `root`.
void makeTree(const std::string &root, const std::map<std::string, std::string> &entries);
// Everything below `root`, sorted: "folder/", "file=content", "link->target", "other*".
std::string listing(const std::string &root);
std::string readFile(const std::string &path);
struct stat statusOf(const std::string &path);   // lstat's, all zero when there is nothing
inline mode_t modeOf(const std::string &path) { return statusOf(path).st_mode; }
inline bool exists(const std::string &path) { return modeOf(path) != 0; }
bool isImmutable(const std::string &path);
void setImmutable(const std::string &path);

// An ext4 scratch volume for each test, the capability cache emptied first (unmounted volumes
// leave their device numbers to new ones).
class VolumeTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!canMount())
            GTEST_SKIP() << "needs the superuser and a mount namespace";
        ASSERT_TRUE(volume.ok());
        utils_volume_capabilities_reset();
    }

    ScratchVolume volume { ScratchVolume::Ext4 };
};

} // namespace qztest
