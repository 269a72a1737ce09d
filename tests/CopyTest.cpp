// copy_file and delete_file_object on real volumes: ext4 as the superuser and, in forked
// children, as an ordinary user; a tmpfs that fills up; a FAT volume; the capability cache.
#include "support/ScratchVolumes.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>

#include <acl/libacl.h>
#include <fcntl.h>
#include <sys/acl.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace qztest;

namespace {

// The volume has a folder `work` that the ordinary user may write into.
class Copy : public VolumeTest
{
protected:
    void SetUp() override
    {
        VolumeTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        makeFolder(work);
        ASSERT_EQ(chown(work.c_str(), nobody, nobody) | chmod(volume.path().c_str(), 0755), 0);
    }
    const std::string work = volume / "work";
};
using Delete = Copy;
using CopyVolumes = Copy;
using Unprivileged = Copy;

void setTime(const std::string &path, time_t seconds, long nanoseconds)
{
    const struct timespec times[2] = { { seconds, 0 }, { seconds, nanoseconds } };
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

void setAcl(const std::string &path, const char *text, bool defaultList = false)
{
    acl_t acl = acl_from_text(text);
    ASSERT_EQ(acl_set_file(path.c_str(), defaultList ? ACL_TYPE_DEFAULT : ACL_TYPE_ACCESS, acl), 0) << path;
    acl_free(acl);
}

void setAttribute(const std::string &path, const char *name, const std::string &value)
{
    ASSERT_EQ(setxattr(path.c_str(), name, value.data(), value.size(), 0), 0) << path;
}

// What cp -a and copy_file both carry, as text: type and mode, owner, group, modification time,
// the access control list (a folder's default one) and user attributes that have a value.
std::string properties(const std::string &path)
{
    const struct stat status = statusOf(path);
    std::ostringstream out;
    out << std::oct << status.st_mode << std::dec << " " << status.st_uid << ":" << status.st_gid << " "
        << status.st_mtim.tv_sec << "." << status.st_mtim.tv_nsec;
    if (acl_t acl = acl_get_file(path.c_str(), S_ISDIR(status.st_mode) ? ACL_TYPE_DEFAULT : ACL_TYPE_ACCESS)) {
        char *text = acl_to_any_text(acl, nullptr, ',', 0);
        out << " " << text;
        acl_free(text);
        acl_free(acl);
    }
    char names[4096], value[4096];
    const ssize_t size = llistxattr(path.c_str(), names, sizeof names);
    for (const char *name = names; size > 0 && name < names + size; name += std::strlen(name) + 1) {
        const ssize_t length = lgetxattr(path.c_str(), name, value, sizeof value);
        if (length > 0 && std::strncmp(name, "user.", 5) == 0)
            out << " " << name << "=" << std::string(value, static_cast<size_t>(length));
    }
    return out.str();
}

TEST_F(Copy, CarriesEveryKindOfObjectAsCpArchiveDoesAndAlsoImmutability)
{
    const std::string source = volume / "tree", ours = volume / "ours", theirs = volume / "theirs";
    makeFolder(source, 0750);
    for (int folder = 0; folder < 10; folder++) {
        const std::string dir = source + "/d" + std::to_string(folder);
        makeFolder(dir, folder % 3 ? 0755 : 0700);
        ASSERT_EQ(chown(dir.c_str(), nobody, static_cast<gid_t>(folder)), 0);
        for (int file = 0; file < 10; file++) {
            const int index = folder * 10 + file;
            const std::string path = dir + "/f" + std::to_string(file);
            writeFile(path, std::string(static_cast<size_t>(1024 + index * 150), static_cast<char>('a' + file)), index % 4 ? 0644 : 0600);
            setAttribute(path, "user.bench", "value " + std::to_string(index));
            if (index % 10 == 0)
                setAcl(path, "u::rw-,u:65534:r--,g::r--,m::r--,o::r--");
            ASSERT_EQ(chown(path.c_str(), static_cast<uid_t>(1000 + file), 100), 0);
            setTime(path, 1500000000 + index, index * 1000);
        }
        setTime(dir, 1600000000 + folder, 7);
    }
    setAcl(source + "/d1", "u::rwx,g::r-x,u:65534:rwx,m::rwx,o::r-x", true);
    // Set-user-id and set-group-id stay with the source's owner and group (the superuser's own
    // owner number, but another group), which the copy must set although only the group differs.
    const std::string program = source + "/program";
    writeFile(program, "#!/bin/sh\n");
    ASSERT_EQ(chown(program.c_str(), 0, 100) | chmod(program.c_str(), 06755), 0);
    setAttribute(program, "user.note", "kept");
    setAttribute(program, "user.empty", "");
    ASSERT_EQ(mkfifo((source + "/pipe").c_str(), 0640), 0);
    ASSERT_EQ(mknod((source + "/socket").c_str(), S_IFSOCK | 0644, 0), 0);
    ASSERT_EQ(mknod((source + "/null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    ASSERT_EQ(symlink("nowhere/at/all", (source + "/dangling").c_str()), 0);
    const std::string longTarget = std::string(300, 'x') + "/" + std::string(1700, 'y');
    ASSERT_EQ(symlink(longTarget.c_str(), (source + "/long").c_str()), 0);
    makeTree(source, { { "locked/inside", "frozen" } });
    setImmutable(source + "/locked/inside");
    setImmutable(source + "/locked");
    setTime(source, 1200000000, 5);
    ASSERT_EQ(runProgram({ "cp", "-a", source, theirs }).status, 0);
    EXPECT_EQ(runCopy(source, ours, COPY_FILE_RECURSIVE), (Outcome { 0, "" }));
    EXPECT_EQ(listing(ours), listing(theirs));
    EXPECT_EQ(properties(ours), properties(theirs));
    for (const auto &entry : std::filesystem::recursive_directory_iterator(theirs))
        EXPECT_EQ(properties(ours + entry.path().string().substr(theirs.size())), properties(entry.path())) << entry.path();
    EXPECT_EQ(lgetxattr((ours + "/program").c_str(), "user.empty", nullptr, 0), -1);   // not made again
    EXPECT_EQ(statusOf(ours + "/null").st_rdev, statusOf(source).st_dev);   // the source volume's device
    EXPECT_TRUE(isImmutable(ours + "/locked") && isImmutable(ours + "/locked/inside"));
    // Without recursion a folder is copied empty, with its own metadata.
    ASSERT_EQ(runCopy(source, volume / "flat").status, 0);
    EXPECT_EQ(listing(volume / "flat"), "");
    EXPECT_EQ(properties(volume / "flat"), properties(source));
}

TEST_F(Copy, MergesIntoATreeReplacingWhatIsInTheWayButNeverWritesThroughALinkOrOntoItsSource)
{
    const std::string source = volume / "source", dest = volume / "copy", outside = volume / "outside";
    makeTree(source, { { "same", "new" }, { "sub/deeper/leaf", "leaf" }, { "was-folder", "x" }, { "was-file/", "" }, { "link", "payload" } });
    makeTree(dest, { { "same", "old and longer" }, { "keep", "untouched" }, { "sub/keep-too", "untouched" }, { "was-folder/inner/", "" },
                     { "was-file", "a file" } });
    writeFile(outside, "must stay");
    ASSERT_EQ(symlink(outside.c_str(), (dest + "/link").c_str()), 0);
    setImmutable(dest + "/sub");
    const ino_t same = statusOf(dest + "/same").st_ino;
    ASSERT_EQ(runCopy(source, dest, COPY_FILE_RECURSIVE).status, 0);
    EXPECT_EQ(statusOf(dest + "/same").st_ino, same);   // truncated and overwritten, not replaced
    EXPECT_FALSE(isImmutable(dest + "/sub"));
    EXPECT_EQ(runCopy(source + "/same", source + "/same").status, EEXIST);
    EXPECT_EQ(runCopy(source + "/absent", dest + "/same"),
              (Outcome { ENOENT, source + "/absent: No such file or directory (at utils:309)\n" }));
    EXPECT_EQ(runCopy(source + "/sub", volume / "missing/sub", COPY_FILE_RECURSIVE),
              (Outcome { ENOENT, volume / "missing/sub: No such file or directory (at utils:346)\n" }));
    EXPECT_EQ(listing(dest), "keep=untouched link=payload same=new sub/ sub/deeper/ sub/deeper/leaf=leaf sub/keep-too=untouched was-file/ was-folder=x");
    EXPECT_EQ(readFile(source + "/same") + readFile(outside), "newmust stay");
}

TEST_F(Copy, FilterSkipsASubtreeAndSeesDestinationDevices)
{
    const std::string source = volume / "source", dest = volume / "copy";
    makeTree(source, { { "skip/below/file", "no" }, { "take/file", "yes" } });
    struct { std::set<std::string> paths; std::set<int32_t> devices; } seen;
    copy_file_options options { COPY_FILE_RECURSIVE, 0, 0, &seen, nullptr, 0 };
    options.filter = [](void *context, const char *path, const copy_file_options *, int32_t device) {
        static_cast<decltype(seen) *>(context)->paths.insert(path);
        static_cast<decltype(seen) *>(context)->devices.insert(device);
        return std::strstr(path, "/skip") == nullptr;
    };
    ASSERT_TRUE(copy_file(source.c_str(), dest.c_str(), &options));
    EXPECT_EQ(listing(dest), "take/ take/file=yes");
    EXPECT_EQ(seen.paths.count(source + "/skip/below"), 0u);   // never looked into
    EXPECT_EQ(seen.devices.size(), 2u);   // -1 for the top, then the copy's volume
    EXPECT_EQ(*seen.devices.begin(), -1);
}

TEST_F(CopyVolumes, LargeAndSparseFilesArriveIntactAndAFullVolumeKeepsNoPartialCopy)
{
    ScratchVolume other(ScratchVolume::Tmpfs, 128ull << 20), small(ScratchVolume::Tmpfs, 4u << 20);
    ASSERT_TRUE(other.ok() && small.ok());
    std::string large(20u << 20, '\0');   // beyond the 8 MiB buffer
    for (size_t i = 0; i < large.size(); i++)
        large[i] = static_cast<char>((i * 2654435761u) >> 13);
    const std::string folder = volume / "folder", big = folder + "/big", sparse = volume / "sparse";
    makeFolder(folder);
    writeFile(big, large);
    // Data at the start, in the middle (across two of the copy's transfers) and a hole at the end.
    const int fd = open(sparse.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_TRUE(pwrite(fd, "head", 4, 0) == 4 && pwrite(fd, large.data(), 9u << 20, 20 << 20) == 9 << 20 && ftruncate(fd, 40 << 20) == 0);
    close(fd);
    for (const std::string &target : { volume / "copies", other / "copies" }) {
        makeFolder(target);
        ASSERT_EQ(runCopy(big, target + "/big").status | runCopy(sparse, target + "/sparse").status, 0);
        EXPECT_TRUE(readFile(target + "/big") == large) << target;
        EXPECT_TRUE(readFile(target + "/sparse") == readFile(sparse)) << target;
        // The holes stay holes; a file without holes is laid out whole.
        EXPECT_LE(statusOf(target + "/sparse").st_blocks, statusOf(sparse).st_blocks + 64) << target;
        EXPECT_GE(statusOf(target + "/big").st_blocks * 512, static_cast<blkcnt_t>(large.size())) << target;
    }
    // A volume that fills up keeps nothing (a sparse file, copied extent by extent, neither);
    // inside a tree each folder adds its line and goes too.
    const std::string full = ": No space left on device (at utils:703)\nutils:453: error (28)\n";
    EXPECT_EQ(runCopy(big, small / "big"), (Outcome { ENOSPC, small / "big" + full }));
    EXPECT_EQ(runCopy(sparse, small / "sparse"), (Outcome { ENOSPC, small / "sparse" + full }));
    EXPECT_EQ(runCopy(folder, small / "folder", COPY_FILE_RECURSIVE),
              (Outcome { ENOSPC, small / "folder/big" + full + "utils:410: error (28)\n" }));
    EXPECT_EQ(listing(small.path()), "");
    EXPECT_TRUE(readFile(big) == large);
}

TEST_F(Delete, RemovesATreeThroughItsObstaclesButNotPastAnAppendOnlyFile)
{
    const std::string here = volume / "here", tree = here + "/tree", log = tree + "/sub/log";
    makeTree(here, { { "outside/precious", "keep" }, { "tree/frozen/inner/file", "x" }, { "tree/stuck", "z" },
                     { "tree/sub/log", "entries" } });
    ASSERT_EQ(mkfifo((tree + "/pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink((here + "/outside").c_str(), (tree + "/link").c_str()), 0);
    setImmutable(tree + "/stuck");
    setImmutable(tree + "/frozen/inner/file");
    setImmutable(tree + "/frozen");
    makeFolder(tree + "/closed", 0500);
    ASSERT_EQ(runProgram({ "chattr", "+a", log }).status, 0);
    EXPECT_EQ(runDelete(tree + "/link").status, 0);   // a link to a folder goes itself
    // The append-only file stops it, with a line from each folder on the way down, on several threads too.
    for (const unsigned threads : { 0u, 3u }) {
        const std::string denied = ": Operation not permitted (at utils:";
        EXPECT_EQ(runDelete(tree, 0, threads),
                  (Outcome { EPERM, log + denied + "195)\n" + log + denied + "189)\n" + tree + "/sub" + denied + "189)\n" })) << threads;
        EXPECT_TRUE(exists(log));
    }
    ASSERT_EQ(runProgram({ "chattr", "-a", log }).status, 0);
    EXPECT_EQ(runDelete(tree), (Outcome { 0, "" }));
    EXPECT_EQ(listing(here), "outside/ outside/precious=keep");
    EXPECT_EQ(runDelete(tree), (Outcome { ENOENT, "" }));   // what is already gone fails quietly
}

TEST_F(CopyVolumes, TheCapabilityCacheKeepsTwoVolumesAndAFatVolumeGivesCopiesBackOwnerOnly)
{
    ScratchVolume tmpfs(ScratchVolume::Tmpfs), fat(ScratchVolume::Fat);
    ASSERT_TRUE(tmpfs.ok() && fat.ok());
    writeFile(volume / "file", "data");
    ASSERT_EQ(runCopy(volume / "file", tmpfs / "file").status, 0);
    EXPECT_EQ(utils_volume_capability_queries(), 2u);
    ASSERT_EQ(runCopy(tmpfs / "file", volume / "again").status, 0);
    EXPECT_EQ(utils_volume_capability_queries(), 2u);   // there and back: both cached
    // The third volume takes the place of the one queried longer ago (ext4, queried first).
    const auto common = [](const ScratchVolume &of) {
        const volume_capabilities *capabilities = utils_volume_capabilities(of.path().c_str(), -1);
        return capabilities ? capabilities->common : ~0u;
    };
    EXPECT_EQ(common(fat), UTILS_ATTR_MODTIME);   // no permission bits, owners or flags
    EXPECT_EQ(common(tmpfs) & UTILS_ATTR_CARRIED, UTILS_ATTR_MODTIME | UTILS_ATTR_ACCESSMASK | UTILS_ATTR_FLAGS);
    EXPECT_EQ(utils_volume_capability_queries(), 3u);
    ASSERT_NE(utils_volume_capabilities(volume.path().c_str(), -1), nullptr);
    EXPECT_EQ(utils_volume_capability_queries(), 4u);
    testing::internal::CaptureStderr();
    errno = 0;
    EXPECT_EQ(utils_volume_capabilities((volume / "absent").c_str(), -1), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), volume / "absent" + ": No such file or directory (at utils:222)\n");
    // Copies go there and come back with the modes they were made with, and no flags.
    const std::string source = volume / "source", back = volume / "back";
    makeTree(source, { { "tool", "run me" }, { "frozen", "ice" } });
    ASSERT_EQ(chown((source + "/tool").c_str(), nobody, nobody) | chmod((source + "/tool").c_str(), 04755), 0);
    setAttribute(source + "/tool", "user.note", "x");
    setImmutable(source + "/frozen");
    ASSERT_EQ(runCopy(source, fat / "copy", COPY_FILE_RECURSIVE), (Outcome { 0, "" }));
    ASSERT_EQ(runCopy(fat / "copy", back, COPY_FILE_RECURSIVE), (Outcome { 0, "" }));
    EXPECT_EQ(listing(back), "frozen=ice tool=run me");
    EXPECT_EQ(modeOf(back) & 07777, 0700u);
    EXPECT_EQ(modeOf(back + "/tool") & 07777, 0600u);
    EXPECT_FALSE(isImmutable(back + "/frozen"));
}

TEST_F(Unprivileged, CopiesReadOnlyFoldersAndStopsAtAnUnreadableEntryUnlessKeepingGoing)
{
    const std::string source = volume / "source", dest = work + "/copy";
    makeTree(source, { { "closed/file", "read me" }, { "closed/deeper/file", "me too" }, { "inner/secret", "no" }, { "inner/open", "yes" },
                       { "inner/frozen", "ice" } });
    setImmutable(source + "/inner/frozen");
    makeFolder(source + "/closed/deeper", 0555);
    makeFolder(source + "/closed", 0555);
    ASSERT_EQ(chmod((source + "/inner/secret").c_str(), 0600), 0);   // the superuser's
    // The user's own read-only file in the way cannot be opened for writing: it is replaced.
    writeFile(work + "/mine", "old", 0444);
    ASSERT_EQ(chown((work + "/mine").c_str(), nobody, nobody), 0);
    EXPECT_EQ(runCopy(source + "/inner/open", work + "/mine", 0, nobody), (Outcome { 0, "" }));
    EXPECT_EQ(readFile(work + "/mine"), "yes");
    // The data copy opens the source without a report of its own; each level adds its line.
    EXPECT_EQ(runCopy(source, work + "/strict", COPY_FILE_RECURSIVE, nobody),
              (Outcome { EACCES, "utils:453: error (13)\nutils:410: error (13)\nutils:410: error (13)\n" }));
    EXPECT_FALSE(exists(work + "/strict"));
    for (int round = 0; round < 2; round++)   // the second merges into the read-only folders
        EXPECT_EQ(runCopy(source, dest, COPY_FILE_RECURSIVE | COPY_FILE_KEEP_GOING, nobody),
                  (Outcome { 0, "utils:453: error (13)\n" }));
    EXPECT_EQ(listing(dest), "closed/ closed/deeper/ closed/deeper/file=me too closed/file=read me inner/ inner/frozen=ice inner/open=yes");
    EXPECT_FALSE(isImmutable(dest + "/inner/frozen"));   // only the superuser may set the flag
    EXPECT_EQ(modeOf(dest + "/closed") & 07777, 0555u);
    EXPECT_EQ(statusOf(dest + "/closed/file").st_uid, nobody);   // the copy belongs to whoever made it
    EXPECT_EQ(runDelete(dest, nobody).status, 0);
    EXPECT_FALSE(exists(dest));
}

TEST_F(Unprivileged, SetUserIdIsDroppedWhenTheCopyChangesHands)
{
    const std::string program = volume / "program", shared = volume / "shared";
    writeFile(program, "#!/bin/sh\n", 06755);
    writeFile(shared, "#!/bin/sh\n");
    ASSERT_EQ(chown(shared.c_str(), nobody, nobody) | chmod(shared.c_str(), 02755), 0);
    ASSERT_EQ(runCopy(program, work + "/program", 0, nobody).status, 0);
    EXPECT_EQ(modeOf(work + "/program") & 07777, 0755u);   // neither owner nor group is the source's
    ASSERT_EQ(runCopy(shared, work + "/shared", 0, nobody).status, 0);
    EXPECT_EQ(modeOf(work + "/shared") & 07777, 02755u);   // the user's own group: kept
    // The superuser giving the copy another owner drops them too.
    const copy_file_options giveAway { COPY_FILE_OWNER | COPY_FILE_GROUP, nobody, nobody, nullptr, nullptr, 0 };
    ASSERT_TRUE(copy_file(program.c_str(), (volume / "given").c_str(), &giveAway));
    const struct stat given = statusOf(volume / "given");
    EXPECT_TRUE(given.st_uid == nobody && given.st_gid == nobody && (given.st_mode & 07777) == 0755) << given.st_mode;
}

} // namespace
