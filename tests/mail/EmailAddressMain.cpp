// The e-mail lookup tests' main: as the superuser, each test process gets a private mount
// namespace with a scratch AccountsService state folder, so accounts-daemon's records are the
// test's own.
#include <gtest/gtest.h>

#include <QCoreApplication>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (unshare(CLONE_NEWNS) < 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0
        || mount("tmpfs", "/var/lib/AccountsService", "tmpfs", 0, "mode=0755") < 0) {
        std::perror("private mount namespace with a scratch /var/lib/AccountsService");
        return EXIT_FAILURE;
    }
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
