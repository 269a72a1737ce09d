// copy_file where things stand in its way: a tmpfs that fills up in the middle of a file, a FAT
// volume that keeps no permission bits, owners or flags, the two-entry cache of volume
// capabilities, and an ordinary user (uid and gid 65534, in a forked child) with read-only
// folders, entries it may not read and set-user-id programs of others.
#include "support/ScratchVolumes.h"

#include "../app-common/QZApp/utils/utils_private.h"

#include <cerrno>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace qztest;

namespace {

constexpr uid_t nobody = 65534;

class CopyVolumes : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!canMount())
            GTEST_SKIP() << "needs the superuser and a mount namespace";
        ASSERT_TRUE(ext4.ok());
    }

    ScratchVolume ext4 { ScratchVolume::Ext4 };
};

TEST_F(CopyVolumes, AFullVolumeLeavesNoPartialCopyAndTheSourceUntouched)
{
    ScratchVolume small(ScratchVolume::Tmpfs, 4u << 20);
    ASSERT_TRUE(small.ok());
    const std::string source = ext4 / "folder", content(16u << 20, 'z');
    makeFolder(source);
    writeFile(source + "/large", content);

    Outcome outcome = runCopy(source + "/large", small / "large");
    EXPECT_EQ(outcome.status, ENOSPC);
    EXPECT_EQ(outcome.output, small / "large: No space left on device (at utils:703)\nutils:453: error (28)\n");
    EXPECT_FALSE(exists(small / "large"));
    // Inside a tree, each enclosing folder adds its line and is removed as well.
    outcome = runCopy(source, small / "folder", COPY_FILE_RECURSIVE);
    EXPECT_EQ(outcome.status, ENOSPC);
    EXPECT_EQ(outcome.output, small / "folder/large: No space left on device (at utils:703)\nutils:453: error (28)\nutils:410: error (28)\n");
    EXPECT_FALSE(exists(small / "folder"));
    EXPECT_TRUE(readFile(source + "/large") == content);
}

TEST_F(CopyVolumes, AFatVolumeTakesCopiesWithoutPermissionsAndGivesThemBackOwnerOnly)
{
    ScratchVolume fat(ScratchVolume::Fat);
    ASSERT_TRUE(fat.ok());
    const std::string source = ext4 / "source", back = ext4 / "back";
    makeTree(source, { { "tool", "run me" }, { "frozen", "ice" } });
    ASSERT_EQ(chown((source + "/tool").c_str(), nobody, nobody) | chmod((source + "/tool").c_str(), 04755), 0);
    ASSERT_EQ(setxattr((source + "/tool").c_str(), "user.note", "x", 1, 0), 0);
    setImmutable(source + "/frozen");

    const struct volume_capabilities *capabilities = utils_volume_capabilities(fat.path().c_str(), -1);
    ASSERT_NE(capabilities, nullptr);
    EXPECT_EQ(capabilities->common, UTILS_ATTR_MODTIME);
    const Outcome there = runCopy(source, fat / "copy", COPY_FILE_RECURSIVE);
    ASSERT_EQ(there.status, 0) << there.output;
    const Outcome home = runCopy(fat / "copy", back, COPY_FILE_RECURSIVE);
    ASSERT_EQ(home.status, 0) << home.output;
    EXPECT_EQ(listing(back), "frozen=ice tool=run me");
    EXPECT_EQ(modeOf(back) & 07777, 0700u);   // as created: the FAT volume had no bits
    EXPECT_EQ(modeOf(back + "/tool") & 07777, 0600u);
    EXPECT_FALSE(isImmutable(back + "/frozen"));
}

TEST_F(CopyVolumes, TheCapabilityCacheKeepsTheTwoVolumesQueriedLast)
{
    ScratchVolume first(ScratchVolume::Tmpfs), second(ScratchVolume::Tmpfs);
    ASSERT_TRUE(first.ok() && second.ok());
    writeFile(ext4 / "file", "data");
    utils_volume_capabilities_reset();

    ASSERT_EQ(runCopy(ext4 / "file", first / "file").status, 0);
    EXPECT_EQ(utils_volume_capability_queries(), 2u);
    ASSERT_EQ(runCopy(first / "file", ext4 / "again").status, 0);
    EXPECT_EQ(utils_volume_capability_queries(), 2u);   // there and back: both cached

    const struct volume_capabilities *capabilities = utils_volume_capabilities(second.path().c_str(), -1);
    ASSERT_NE(capabilities, nullptr);
    EXPECT_EQ(capabilities->common & UTILS_ATTR_CARRIED, UTILS_ATTR_MODTIME | UTILS_ATTR_ACCESSMASK | UTILS_ATTR_FLAGS);
    EXPECT_EQ(utils_volume_capability_queries(), 3u);
    // The third volume took the place of the one queried longer ago (ext4, queried first).
    ASSERT_NE(utils_volume_capabilities(first.path().c_str(), -1), nullptr);
    EXPECT_EQ(utils_volume_capability_queries(), 3u);
    ASSERT_NE(utils_volume_capabilities(ext4.path().c_str(), -1), nullptr);
    EXPECT_EQ(utils_volume_capability_queries(), 4u);

    testing::internal::CaptureStderr();
    errno = 0;
    EXPECT_EQ(utils_volume_capabilities((ext4 / "absent").c_str(), -1), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), ext4 / "absent" + ": No such file or directory (at utils:222)\n");
}

class Unprivileged : public testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs the superuser to set up and drop privileges";
        ASSERT_TRUE(volume.ok());
        makeFolder(work);   // a folder the user may write into, with the sources beside it
        ASSERT_EQ(chown(work.c_str(), nobody, nobody) | chmod(volume.path().c_str(), 0755), 0);
    }

    ScratchVolume volume { ScratchVolume::Ext4 };
    const std::string work = volume / "work";
};

TEST_F(Unprivileged, ReadOnlyFoldersAreCopiedMergedIntoAndDeleted)
{
    const std::string source = volume / "source", dest = work + "/copy";
    makeTree(source, { { "closed/file", "read me" }, { "closed/deeper/file", "me too" } });
    makeFolder(source + "/closed/deeper", 0555);
    makeFolder(source + "/closed", 0555);

    const Outcome copied = runCopy(source, dest, COPY_FILE_RECURSIVE, nobody);
    ASSERT_EQ(copied.status, 0) << copied.output;
    EXPECT_EQ(listing(dest), "closed/ closed/deeper/ closed/deeper/file=me too closed/file=read me");
    EXPECT_EQ(modeOf(dest + "/closed") & 07777, 0555u);
    struct stat status;
    ASSERT_EQ(stat((dest + "/closed/file").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, nobody);   // the copy belongs to whoever made it
    EXPECT_EQ(runCopy(source, dest, COPY_FILE_RECURSIVE, nobody).status, 0);
    EXPECT_EQ(runDelete(dest, nobody).status, 0);
    EXPECT_FALSE(exists(dest));
}

TEST_F(Unprivileged, AnUnreadableEntryFailsTheFolderUnlessKeepingGoing)
{
    const std::string source = volume / "source";
    makeTree(source, { { "inner/secret", "no" }, { "inner/open", "yes" } });
    ASSERT_EQ(chmod((source + "/inner/secret").c_str(), 0600), 0);   // the superuser's

    const Outcome failed = runCopy(source, work + "/strict", COPY_FILE_RECURSIVE, nobody);
    EXPECT_EQ(failed.status, EACCES);
    // The data copy opens the source without a report of its own; each level adds its line.
    EXPECT_EQ(failed.output, "utils:453: error (13)\nutils:410: error (13)\nutils:410: error (13)\n");
    EXPECT_FALSE(exists(work + "/strict"));
    const Outcome kept = runCopy(source, work + "/lenient", COPY_FILE_RECURSIVE | COPY_FILE_KEEP_GOING, nobody);
    EXPECT_EQ(kept.status, 0);
    EXPECT_EQ(kept.output, "utils:453: error (13)\n");
    EXPECT_EQ(listing(work + "/lenient"), "inner/ inner/open=yes");
}

TEST_F(Unprivileged, SetUserIdIsDroppedWhenTheCopyChangesHands)
{
    const std::string program = volume / "program", shared = volume / "shared";
    writeFile(program, "#!/bin/sh\n", 06755);
    writeFile(shared, "#!/bin/sh\n");
    ASSERT_EQ(chown(shared.c_str(), nobody, nobody) | chmod(shared.c_str(), 02755), 0);
    writeFile(volume / "frozen", "ice");
    setImmutable(volume / "frozen");

    ASSERT_EQ(runCopy(program, work + "/program", 0, nobody).status, 0);
    EXPECT_EQ(modeOf(work + "/program") & 07777, 0755u);   // neither owner nor group is the source's
    ASSERT_EQ(runCopy(shared, work + "/shared", 0, nobody).status, 0);
    EXPECT_EQ(modeOf(work + "/shared") & 07777, 02755u);   // the user's own group: kept
    // Only the superuser may set the immutable flag: an ordinary user's copy goes without it.
    ASSERT_EQ(runCopy(volume / "frozen", work + "/frozen", 0, nobody).status, 0);
    EXPECT_FALSE(isImmutable(work + "/frozen"));

    // The superuser copying with the source's owner keeps set-user-id; with another owner not.
    ASSERT_EQ(runCopy(program, volume / "kept").status, 0);
    EXPECT_EQ(modeOf(volume / "kept") & 07777, 06755u);
    const copy_file_options giveAway { COPY_FILE_OWNER | COPY_FILE_GROUP, nobody, nobody, nullptr, nullptr };
    ASSERT_TRUE(copy_file(program.c_str(), (volume / "given").c_str(), &giveAway));
    struct stat status;
    ASSERT_EQ(stat((volume / "given").c_str(), &status), 0);
    EXPECT_TRUE(status.st_uid == nobody && status.st_gid == nobody);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
}

} // namespace
