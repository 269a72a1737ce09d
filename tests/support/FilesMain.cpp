// The file tests' main: as the superuser, each test process gets a private mount namespace.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (geteuid() == 0
        && (unshare(CLONE_NEWNS) < 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0)) {
        std::perror("private mount namespace");
        setenv("QZ_TEST_NO_MOUNTS", "1", 1);
    }
    return RUN_ALL_TESTS();
}
