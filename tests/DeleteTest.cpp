// delete_file_object: trees with immutable entries, read-only folders and links; append-only
// files that stop it, with the chain of report lines; paths too long for its buffer.
#include "support/ScratchVolumes.h"

#include <QZApp/utils.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace qztest;

namespace {

class Delete : public testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs the superuser";
        ASSERT_TRUE(volume.ok());
    }

    int deleteCapturing(const std::string &path)
    {
        testing::internal::CaptureStderr();
        errno = 0;
        const int result = delete_file_object(path.c_str());
        error = errno;
        err = testing::internal::GetCapturedStderr();
        return result;
    }

    ScratchVolume volume { ScratchVolume::Ext4 };
    int error = 0;
    std::string err;
};

TEST_F(Delete, RemovesATreeThroughItsObstaclesButNotWhatLinksPointTo)
{
    const std::string tree = volume / "tree", outside = volume / "outside";
    std::filesystem::create_directories(tree + "/frozen/inner");
    std::filesystem::create_directories(tree + "/closed");
    std::filesystem::create_directories(outside);
    writeFile(outside + "/precious", "keep");
    writeFile(tree + "/frozen/inner/file", "x");
    writeFile(tree + "/closed/file", "y");
    writeFile(tree + "/stuck", "z");
    ASSERT_EQ(mkfifo((tree + "/pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink(outside.c_str(), (tree + "/link").c_str()), 0);
    setImmutable(tree + "/stuck", true);
    setImmutable(tree + "/frozen/inner/file", true);
    setImmutable(tree + "/frozen", true);
    ASSERT_EQ(chmod((tree + "/closed").c_str(), 0500), 0);

    EXPECT_EQ(deleteCapturing(tree + "/link"), 0);   // a link to a folder goes itself
    EXPECT_EQ(deleteCapturing(tree), 0) << err;
    EXPECT_EQ(err, "");
    EXPECT_FALSE(exists(tree));
    EXPECT_EQ(readFile(outside + "/precious"), "keep");
    // What is already gone fails quietly with ENOENT.
    EXPECT_EQ(deleteCapturing(tree), -1);
    EXPECT_EQ(error, ENOENT);
    EXPECT_EQ(err, "");
}

TEST_F(Delete, AnAppendOnlyFileStopsItWithAChainOfReports)
{
    const std::string tree = volume / "tree", file = tree + "/sub/log";
    std::filesystem::create_directories(tree + "/sub");
    writeFile(file, "entries");
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    int flags = FS_APPEND_FL;
    ASSERT_EQ(ioctl(fd, FS_IOC_SETFLAGS, &flags), 0);
    close(fd);

    EXPECT_EQ(deleteCapturing(tree), -1);
    EXPECT_EQ(error, EPERM);
    EXPECT_EQ(err, file + ": Operation not permitted (at utils:195)\n" + file + ": Operation not permitted (at utils:189)\n"
                      + tree + "/sub: Operation not permitted (at utils:189)\n");
    EXPECT_TRUE(exists(file));
}

TEST_F(Delete, PathsLongerThanItsBufferAreCutAndFail)
{
    std::string path = volume / "deep";
    const std::string top = path;
    ASSERT_EQ(mkdir(top.c_str(), 0755), 0);
    while (path.size() < 1100) {
        path += "/" + std::string(100, 'd');
        ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    }
    EXPECT_EQ(deleteCapturing(top), -1);
    EXPECT_NE(err.find("(at utils:189)"), std::string::npos) << err;
    EXPECT_TRUE(exists(path));
}

} // namespace
