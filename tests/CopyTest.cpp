// copy_file on ext4 as the superuser: every kind of object with its metadata, merging, filters,
// obstacles, large and sparse files, and a property-by-property comparison with cp -a.
#include "support/ScratchVolumes.h"

#include <QZApp/utils.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>

#include <fcntl.h>
#include <sys/acl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace qztest;

namespace {

class Copy : public testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs the superuser";
        ASSERT_TRUE(volume.ok());
    }

    void setTime(const std::string &path, time_t seconds, long nanoseconds)
    {
        const struct timespec times[2] = { { seconds, 0 }, { seconds, nanoseconds } };
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }

    void setAcl(const std::string &path, const char *text, bool defaultList = false)
    {
        acl_t acl = acl_from_text(text);
        ASSERT_NE(acl, nullptr);
        ASSERT_EQ(acl_set_file(path.c_str(), defaultList ? ACL_TYPE_DEFAULT : ACL_TYPE_ACCESS, acl), 0);
        acl_free(acl);
    }

    void makeSocket(const std::string &path)
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        ASSERT_LT(path.size(), sizeof address.sun_path);
        std::strcpy(address.sun_path, path.c_str());
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        close(fd);
    }

    ScratchVolume volume { ScratchVolume::Ext4 };
    const copy_file_options recursive { COPY_FILE_RECURSIVE, 0, 0, nullptr, nullptr };
};

// Modification times to the nanosecond.
std::pair<time_t, long> mtimeOf(const std::string &path)
{
    struct stat status {};
    lstat(path.c_str(), &status);
    return { status.st_mtim.tv_sec, status.st_mtim.tv_nsec };
}

TEST_F(Copy, CarriesEveryKindOfObjectWithItsMetadata)
{
    const std::string source = volume / "source", copy = volume / "copy";
    ASSERT_EQ(mkdir(source.c_str(), 0750), 0);
    const std::string file = source + "/program";
    writeFile(file, "#!/bin/sh\n", 04755);
    ASSERT_EQ(setxattr(file.c_str(), "user.note", "kept", 4, 0), 0);
    ASSERT_EQ(setxattr(file.c_str(), "user.empty", "", 0, 0), 0);
    setAcl(file, "u::rwx,u:65534:r-x,g::r-x,m::r-x,o::r-x");
    setTime(file, 1000000000, 123456789);
    ASSERT_EQ(mkfifo((source + "/pipe").c_str(), 0640), 0);
    makeSocket(source + "/socket");
    ASSERT_EQ(mknod((source + "/null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    ASSERT_EQ(symlink("nowhere/at/all", (source + "/dangling").c_str()), 0);
    const std::string longTarget = std::string(300, 'x') + "/" + std::string(1700, 'y');
    ASSERT_EQ(symlink(longTarget.c_str(), (source + "/long").c_str()), 0);
    const std::string locked = source + "/locked";
    ASSERT_EQ(mkdir(locked.c_str(), 0755), 0);
    writeFile(locked + "/inside", "frozen", 0444);
    setImmutable(locked + "/inside", true);
    setImmutable(locked, true);
    setAcl(source, "u::rwx,g::r-x,u:65534:rwx,m::rwx,o::---", true);
    setTime(source, 1200000000, 5);

    const CopyOutcome outcome = copyCapturingReports(source, copy, &recursive);
    ASSERT_TRUE(outcome.ok) << outcome.err;
    EXPECT_EQ(outcome.err, "");

    EXPECT_EQ(readFile(copy + "/program"), "#!/bin/sh\n");
    EXPECT_EQ(modeOf(copy + "/program"), modeOf(file));   // set-user-id kept: same owner
    EXPECT_EQ(mtimeOf(copy + "/program"), mtimeOf(file));
    EXPECT_EQ(userAttributes(copy + "/program"), (std::map<std::string, std::string> { { "user.note", "kept" } }));
    EXPECT_EQ(aclText(copy + "/program"), aclText(file));
    EXPECT_TRUE(S_ISFIFO(modeOf(copy + "/pipe")));
    EXPECT_TRUE(S_ISSOCK(modeOf(copy + "/socket")));
    struct stat node, volumeStatus;
    ASSERT_EQ(lstat((copy + "/null").c_str(), &node), 0);
    ASSERT_EQ(lstat(source.c_str(), &volumeStatus), 0);
    EXPECT_TRUE(S_ISCHR(node.st_mode));
    EXPECT_EQ(node.st_rdev, volumeStatus.st_dev);   // the node gets the source volume's device
    EXPECT_EQ(std::filesystem::read_symlink(copy + "/dangling"), "nowhere/at/all");
    EXPECT_EQ(std::filesystem::read_symlink(copy + "/long").string(), longTarget);
    EXPECT_TRUE(isImmutable(copy + "/locked"));
    EXPECT_TRUE(isImmutable(copy + "/locked/inside"));
    EXPECT_EQ(readFile(copy + "/locked/inside"), "frozen");
    EXPECT_EQ(modeOf(copy) & 07777, 0750u);
    EXPECT_EQ(aclText(copy, true), aclText(source, true));
    EXPECT_EQ(mtimeOf(copy), mtimeOf(source));   // set after its entries
}

TEST_F(Copy, WithoutRecursionAFolderIsCopiedEmpty)
{
    const std::string source = volume / "folder", copy = volume / "copy";
    ASSERT_EQ(mkdir(source.c_str(), 0711), 0);
    writeFile(source + "/entry", "x");
    setTime(source, 1300000000, 0);
    ASSERT_TRUE(copy_file(source.c_str(), copy.c_str(), nullptr));
    EXPECT_FALSE(exists(copy + "/entry"));
    EXPECT_EQ(modeOf(copy) & 07777, 0711u);
    EXPECT_EQ(mtimeOf(copy), mtimeOf(source));
}

TEST_F(Copy, MergesIntoAnExistingTreeAndReplacesWhatIsInTheWay)
{
    const std::string source = volume / "source", copy = volume / "copy";
    std::filesystem::create_directories(source + "/sub/deeper");
    std::filesystem::create_directories(copy + "/sub");
    writeFile(source + "/same", "new");
    writeFile(source + "/sub/deeper/leaf", "leaf");
    writeFile(source + "/was-folder", "now a file");
    ASSERT_EQ(mkdir((source + "/was-file").c_str(), 0755), 0);
    writeFile(copy + "/same", "old and longer");
    writeFile(copy + "/keep", "untouched");
    writeFile(copy + "/sub/keep-too", "untouched");
    std::filesystem::create_directories(copy + "/was-folder/inner");
    writeFile(copy + "/was-file", "a file");
    setImmutable(copy + "/sub", true);
    struct stat before;
    ASSERT_EQ(stat((copy + "/same").c_str(), &before), 0);

    const CopyOutcome outcome = copyCapturingReports(source, copy, &recursive);
    ASSERT_TRUE(outcome.ok) << outcome.err;
    struct stat after;
    ASSERT_EQ(stat((copy + "/same").c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);   // truncated and overwritten, not replaced
    EXPECT_EQ(readFile(copy + "/same"), "new");
    EXPECT_EQ(readFile(copy + "/keep"), "untouched");
    EXPECT_EQ(readFile(copy + "/sub/keep-too"), "untouched");
    EXPECT_EQ(readFile(copy + "/sub/deeper/leaf"), "leaf");
    EXPECT_FALSE(isImmutable(copy + "/sub"));
    EXPECT_EQ(readFile(copy + "/was-folder"), "now a file");
    EXPECT_TRUE(S_ISDIR(modeOf(copy + "/was-file")));
}

TEST_F(Copy, NeverWritesThroughALinkOrOntoItsSource)
{
    const std::string outside = volume / "outside", source = volume / "source", link = volume / "link";
    writeFile(outside, "must stay");
    writeFile(source, "payload");
    ASSERT_EQ(symlink(outside.c_str(), link.c_str()), 0);
    ASSERT_TRUE(copy_file(source.c_str(), link.c_str(), nullptr));
    EXPECT_EQ(readFile(outside), "must stay");
    EXPECT_TRUE(S_ISREG(modeOf(link)));
    EXPECT_EQ(readFile(link), "payload");

    const CopyOutcome self = copyCapturingReports(source, source, nullptr);
    EXPECT_FALSE(self.ok);
    EXPECT_EQ(self.error, EEXIST);
    EXPECT_EQ(readFile(source), "payload");
}

TEST_F(Copy, FilterSkipsASubtreeAndSeesDestinationDevices)
{
    const std::string source = volume / "source", copy = volume / "copy";
    std::filesystem::create_directories(source + "/skip/below");
    std::filesystem::create_directories(source + "/take");
    writeFile(source + "/skip/below/file", "no");
    writeFile(source + "/take/file", "yes");
    struct Seen {
        std::set<std::string> paths;
        std::set<int32_t> devices;
    } seen;
    copy_file_options options { COPY_FILE_RECURSIVE, 0, 0, &seen, nullptr };
    options.filter = [](void *context, const char *path, const copy_file_options *, int32_t device) {
        auto *record = static_cast<Seen *>(context);
        record->paths.insert(path);
        record->devices.insert(device);
        return std::string(path).find("/skip") == std::string::npos;
    };
    ASSERT_TRUE(copy_file(source.c_str(), copy.c_str(), &options));
    EXPECT_EQ(readFile(copy + "/take/file"), "yes");
    EXPECT_FALSE(exists(copy + "/skip"));
    EXPECT_EQ(seen.paths.count(source + "/skip/below"), 0u);   // never looked into
    EXPECT_EQ(seen.devices.size(), 2u);   // -1 for the top, then the copy's volume
    EXPECT_EQ(*seen.devices.begin(), -1);
}

TEST_F(Copy, LargeAndSparseFilesArriveIntactOnTheSameAndAnotherVolume)
{
    ScratchVolume other(ScratchVolume::Tmpfs, 128ull << 20);
    ASSERT_TRUE(other.ok());
    std::string large(20u << 20, '\0');
    for (size_t i = 0; i < large.size(); i++)
        large[i] = static_cast<char>((i * 2654435761u) >> 13);
    const std::string big = volume / "big", sparse = volume / "sparse";
    writeFile(big, large);
    const int fd = open(sparse.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, "head", 4, 0), 4);
    ASSERT_EQ(pwrite(fd, "tail", 4, 30 << 20), 4);
    close(fd);
    for (const std::string &target : { volume / "copies", other / "copies" }) {
        ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
        ASSERT_TRUE(copy_file(big.c_str(), (target + "/big").c_str(), nullptr));
        ASSERT_TRUE(copy_file(sparse.c_str(), (target + "/sparse").c_str(), nullptr));
        EXPECT_TRUE(readFile(target + "/big") == large) << target;
        EXPECT_TRUE(readFile(target + "/sparse") == readFile(sparse)) << target;
    }
}

TEST_F(Copy, AMissingSourceReportsAndLeavesTheDestinationAlone)
{
    const std::string destination = volume / "destination";
    writeFile(destination, "mine");
    const CopyOutcome outcome = copyCapturingReports(volume / "absent", destination, nullptr);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error, ENOENT);
    EXPECT_EQ(outcome.err, volume / "absent" + ": No such file or directory (at utils:309)\n");
    EXPECT_EQ(readFile(destination), "mine");
}

// Walks two trees side by side and compares every property that cp -a and copy_file both
// carry; the access time is carried by neither in a comparable way.
void compareTrees(const std::string &a, const std::string &b)
{
    for (const auto &entry : std::filesystem::recursive_directory_iterator(a)) {
        const std::string relative = std::filesystem::relative(entry.path(), a);
        const std::string left = entry.path(), right = b + "/" + relative;
        struct stat l, r;
        ASSERT_EQ(lstat(left.c_str(), &l), 0);
        ASSERT_EQ(lstat(right.c_str(), &r), 0) << right;
        EXPECT_EQ(l.st_mode, r.st_mode) << relative;
        EXPECT_EQ(l.st_uid, r.st_uid) << relative;
        EXPECT_EQ(l.st_gid, r.st_gid) << relative;
        EXPECT_EQ(mtimeOf(left), mtimeOf(right)) << relative;
        EXPECT_EQ(userAttributes(left), userAttributes(right)) << relative;
        if (S_ISREG(l.st_mode)) {
            EXPECT_TRUE(readFile(left) == readFile(right)) << relative;
            EXPECT_EQ(aclText(left), aclText(right)) << relative;
        }
        if (S_ISDIR(l.st_mode)) {
            EXPECT_EQ(aclText(left, true), aclText(right, true)) << relative;
        }
    }
}

TEST_F(Copy, MatchesCpArchivePropertyByPropertyAndAlsoCarriesImmutability)
{
    const std::string source = volume / "tree", ours = volume / "ours", theirs = volume / "theirs";
    ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
    for (int folder = 0; folder < 10; folder++) {
        const std::string dir = source + "/d" + std::to_string(folder);
        ASSERT_EQ(mkdir(dir.c_str(), folder % 3 ? 0755 : 0700), 0);
        ASSERT_EQ(chown(dir.c_str(), 65534, static_cast<gid_t>(folder)), 0);
        for (int file = 0; file < 10; file++) {
            const int index = folder * 10 + file;
            const std::string path = dir + "/f" + std::to_string(file);
            writeFile(path, std::string(static_cast<size_t>(1024 + index * 150), static_cast<char>('a' + file)),
                      index % 4 ? 0644 : 0600);
            const std::string value = "value " + std::to_string(index);
            ASSERT_EQ(setxattr(path.c_str(), "user.bench", value.data(), value.size(), 0), 0);
            if (index % 10 == 0)
                setAcl(path, "u::rw-,u:65534:r--,g::r--,m::r--,o::r--");
            ASSERT_EQ(chown(path.c_str(), static_cast<uid_t>(1000 + file), 100), 0);
            setTime(path, 1500000000 + index, index * 1000);
        }
        setTime(dir, 1600000000 + folder, 7);
    }
    setAcl(source + "/d1", "u::rwx,g::r-x,u:65534:rwx,m::rwx,o::r-x", true);
    writeFile(source + "/frozen", "solid");
    setImmutable(source + "/frozen", true);

    ASSERT_EQ(runProgram({ "cp", "-a", source, theirs }).status, 0);
    const CopyOutcome outcome = copyCapturingReports(source, ours, &recursive);
    ASSERT_TRUE(outcome.ok) << outcome.err;
    compareTrees(theirs, ours);
    compareTrees(ours, theirs);
    EXPECT_TRUE(isImmutable(ours + "/frozen"));
    EXPECT_FALSE(isImmutable(theirs + "/frozen"));
}

} // namespace
