// copy_file across volumes: a tmpfs that fills up in the middle of a file, a FAT volume that
// keeps no permission bits, owners or flags, and the two-entry cache of volume capabilities.
#include "support/ScratchVolumes.h"

#include "../app-common/QZApp/utils/utils_private.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace qztest;

namespace {

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
    const copy_file_options recursive { COPY_FILE_RECURSIVE, 0, 0, nullptr, nullptr };
};

TEST_F(CopyVolumes, AFullVolumeLeavesNoPartialCopyAndTheSourceUntouched)
{
    ScratchVolume small(ScratchVolume::Tmpfs, 4u << 20);
    ASSERT_TRUE(small.ok());
    const std::string source = ext4 / "folder";
    ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
    const std::string content(16u << 20, 'z');
    writeFile(source + "/large", content);

    const std::string file = small / "large";
    CopyOutcome outcome = copyCapturingReports(source + "/large", file, nullptr);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error, ENOSPC);
    EXPECT_EQ(outcome.err, file + ": No space left on device (at utils:703)\nutils:453: error (28)\n");
    EXPECT_FALSE(exists(file));

    // Inside a tree, each enclosing folder adds its line and is removed as well.
    const std::string folder = small / "folder";
    outcome = copyCapturingReports(source, folder, &recursive);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.error, ENOSPC);
    EXPECT_EQ(outcome.err,
              folder + "/large: No space left on device (at utils:703)\nutils:453: error (28)\nutils:410: error (28)\n");
    EXPECT_FALSE(exists(folder));
    EXPECT_TRUE(readFile(source + "/large") == content);
}

TEST_F(CopyVolumes, AFatVolumeTakesCopiesWithoutPermissionsAndGivesThemBackOwnerOnly)
{
    ScratchVolume fat(ScratchVolume::Fat);
    ASSERT_TRUE(fat.ok());
    const std::string source = ext4 / "source";
    ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
    writeFile(source + "/tool", "run me", 04755);
    ASSERT_EQ(setxattr((source + "/tool").c_str(), "user.note", "x", 1, 0), 0);
    ASSERT_EQ(chown((source + "/tool").c_str(), 65534, 65534), 0);
    writeFile(source + "/frozen", "ice");
    setImmutable(source + "/frozen", true);

    const struct volume_capabilities *capabilities = utils_volume_capabilities(fat.path().c_str(), -1);
    ASSERT_NE(capabilities, nullptr);
    EXPECT_EQ(capabilities->common, UTILS_ATTR_MODTIME);
    const CopyOutcome there = copyCapturingReports(source, fat / "copy", &recursive);
    ASSERT_TRUE(there.ok) << there.err;
    EXPECT_EQ(readFile(fat / "copy/tool"), "run me");
    EXPECT_EQ(readFile(fat / "copy/frozen"), "ice");

    const std::string back = ext4 / "back";
    const CopyOutcome home = copyCapturingReports(fat / "copy", back, &recursive);
    ASSERT_TRUE(home.ok) << home.err;
    EXPECT_EQ(modeOf(back) & 07777, 0700u);          // as created: the FAT volume had no bits
    EXPECT_EQ(modeOf(back + "/tool") & 07777, 0600u);
    EXPECT_EQ(readFile(back + "/tool"), "run me");
    EXPECT_FALSE(isImmutable(back + "/frozen"));
}

TEST_F(CopyVolumes, TheCapabilityCacheKeepsTheTwoVolumesQueriedLast)
{
    ScratchVolume first(ScratchVolume::Tmpfs), second(ScratchVolume::Tmpfs);
    ASSERT_TRUE(first.ok());
    ASSERT_TRUE(second.ok());
    writeFile(ext4 / "file", "data");
    utils_volume_capabilities_reset();

    ASSERT_TRUE(copy_file((ext4 / "file").c_str(), (first / "file").c_str(), nullptr));
    EXPECT_EQ(utils_volume_capability_queries(), 2u);
    ASSERT_TRUE(copy_file((first / "file").c_str(), (ext4 / "again").c_str(), nullptr));
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

} // namespace
