// Entry point of the file tests: as the superuser, every test process gets a mount namespace of
// its own, so that volumes it mounts are private to it and go away with it, even after a crash.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (geteuid() == 0) {
        if (unshare(CLONE_NEWNS) < 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) {
            std::perror("private mount namespace");
            setenv("QZ_TEST_NO_MOUNTS", "1", 1);
        }
    }
    return RUN_ALL_TESTS();
}
