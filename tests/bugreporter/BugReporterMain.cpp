// The bug reporter tests' main: a private mount namespace (as the superuser), so a test may
// put scratch folders over the machine's and stand-in programs over the system's, then the
// application object, offscreen unless the environment picks a platform.
#include <gtest/gtest.h>

#include <QZApp/QZApplication.h>

#include <cstdio>
#include <cstdlib>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

// ThreadSanitizer: the default mail client is found by running xdg-mime, forked from the send
// thread while other threads run; the child only execs.
extern "C" __attribute__((visibility("default"), used)) const char *__tsan_default_options()
{
    return "die_after_fork=0";
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    if (geteuid() == 0
        && (unshare(CLONE_NEWNS) < 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0)) {
        std::perror("private mount namespace");
        setenv("QZ_TEST_NO_MOUNTS", "1", 1);
    }
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QZApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
