// Test entry point for tests that need the application class: a QZApplication on the main
// thread, then every test. Without a platform chosen in the environment it is the offscreen
// one, so the tests (and their listing at build time) need no display.
#include <gtest/gtest.h>

#include <QZApp/QZApplication.h>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    // Death tests re-run the binary instead of forking a process that may hold Qt's threads.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QZApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
