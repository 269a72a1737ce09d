// copy_file and delete_file_object run by an ordinary user (uid and gid 65534, in a forked
// child): read-only folders, entries the user may not read, set-user-id programs of others.
#include "support/ScratchVolumes.h"

#include <QZApp/utils.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

using namespace qztest;

namespace {

constexpr uid_t nobody = 65534;
constexpr gid_t nogroup = 65534;

class Unprivileged : public testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs the superuser to set up and drop privileges";
        ASSERT_TRUE(volume.ok());
        // A folder the user may write into, with the sources beside it.
        ASSERT_EQ(mkdir(work.c_str(), 0755), 0);
        ASSERT_EQ(chown(work.c_str(), nobody, nogroup), 0);
        ASSERT_EQ(chmod(volume.path().c_str(), 0755), 0);
    }

    // Runs copy_file as the user; the exit status is 0 for success, else errno.
    ChildResult copyAsUser(const std::string &source, const std::string &destination, uint32_t flags)
    {
        return runAs(nobody, nogroup, [&] {
            const copy_file_options options { flags, 0, 0, nullptr, nullptr };
            return copy_file(source.c_str(), destination.c_str(), &options) ? 0 : errno;
        });
    }

    ScratchVolume volume { ScratchVolume::Ext4 };
    const std::string work = volume / "work";
};

TEST_F(Unprivileged, ReadOnlyFoldersAreCopiedAndDeleted)
{
    const std::string source = volume / "source";
    std::filesystem::create_directories(source + "/closed/deeper");
    writeFile(source + "/closed/file", "read me");
    writeFile(source + "/closed/deeper/file", "me too");
    ASSERT_EQ(chmod((source + "/closed/deeper").c_str(), 0555), 0);
    ASSERT_EQ(chmod((source + "/closed").c_str(), 0555), 0);

    const std::string copy = work + "/copy";
    const ChildResult copied = copyAsUser(source, copy, COPY_FILE_RECURSIVE);
    ASSERT_EQ(copied.status, 0) << copied.err;
    EXPECT_EQ(readFile(copy + "/closed/deeper/file"), "me too");
    EXPECT_EQ(modeOf(copy + "/closed") & 07777, 0555u);
    struct stat status;
    ASSERT_EQ(stat((copy + "/closed/file").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, nobody);   // the copy belongs to whoever made it

    // Copying again merges into the read-only copy.
    const ChildResult again = copyAsUser(source, copy, COPY_FILE_RECURSIVE);
    EXPECT_EQ(again.status, 0) << again.err;

    const ChildResult deleted = runAs(nobody, nogroup, [&] { return delete_file_object(copy.c_str()) == 0 ? 0 : errno; });
    EXPECT_EQ(deleted.status, 0) << deleted.err;
    EXPECT_FALSE(exists(copy));
}

TEST_F(Unprivileged, AnUnreadableEntryFailsTheFolderUnlessKeepingGoing)
{
    const std::string source = volume / "source";
    std::filesystem::create_directories(source + "/inner");
    writeFile(source + "/inner/secret", "no", 0600);   // the superuser's
    writeFile(source + "/inner/open", "yes");

    const std::string strict = work + "/strict";
    const ChildResult failed = copyAsUser(source, strict, COPY_FILE_RECURSIVE);
    EXPECT_EQ(failed.status, EACCES);
    // The data copy opens the source without a report of its own; each level adds its line.
    EXPECT_EQ(failed.err, "utils:453: error (13)\nutils:410: error (13)\nutils:410: error (13)\n");
    EXPECT_FALSE(exists(strict));

    const std::string lenient = work + "/lenient";
    const ChildResult kept = copyAsUser(source, lenient, COPY_FILE_RECURSIVE | COPY_FILE_KEEP_GOING);
    EXPECT_EQ(kept.status, 0);
    EXPECT_EQ(kept.err, "utils:453: error (13)\n");
    EXPECT_EQ(readFile(lenient + "/inner/open"), "yes");
    EXPECT_FALSE(exists(lenient + "/inner/secret"));
}

TEST_F(Unprivileged, SetUserIdIsDroppedWhenTheCopyChangesHands)
{
    const std::string program = volume / "program", shared = volume / "shared";
    writeFile(program, "#!/bin/sh\n", 06755);
    writeFile(shared, "#!/bin/sh\n", 02755);
    ASSERT_EQ(chown(shared.c_str(), nobody, nogroup), 0);
    ASSERT_EQ(chmod(shared.c_str(), 02755), 0);
    writeFile(volume / "frozen", "ice");
    setImmutable(volume / "frozen", true);

    ASSERT_EQ(copyAsUser(program, work + "/program", 0).status, 0);
    EXPECT_EQ(modeOf(work + "/program") & 07777, 0755u);   // neither owner nor group is the source's
    ASSERT_EQ(copyAsUser(shared, work + "/shared", 0).status, 0);
    EXPECT_EQ(modeOf(work + "/shared") & 07777, 02755u);   // the user's own group: kept
    // Only the superuser may set the immutable flag: an ordinary user's copy goes without it.
    ASSERT_EQ(copyAsUser(volume / "frozen", work + "/frozen", 0).status, 0);
    EXPECT_FALSE(isImmutable(work + "/frozen"));

    // The superuser copying with the source's owner keeps set-user-id; with another owner not.
    ASSERT_TRUE(copy_file(program.c_str(), (volume / "kept").c_str(), nullptr));
    EXPECT_EQ(modeOf(volume / "kept") & 07777, 06755u);
    const copy_file_options giveAway { COPY_FILE_OWNER | COPY_FILE_GROUP, nobody, nogroup, nullptr, nullptr };
    ASSERT_TRUE(copy_file(program.c_str(), (volume / "given").c_str(), &giveAway));
    struct stat status;
    ASSERT_EQ(stat((volume / "given").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, nobody);
    EXPECT_EQ(status.st_gid, nogroup);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
}

} // namespace
