// Disk Tool's tests: a QZApplication on the offscreen platform and, as the superuser, a private
// mount namespace for the scratch volumes.
#include "Dialogs.h"

#include <QZApp/QZApplication.h>

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
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QZApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("disktool-tests"));
    disktool::initResources();
    return RUN_ALL_TESTS();
}
