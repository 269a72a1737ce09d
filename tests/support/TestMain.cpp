// Test entry point: a QCoreApplication on the main thread, then every test.
#include <gtest/gtest.h>

#include <QCoreApplication>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    // Death tests re-run the binary instead of forking a process that may hold Qt's threads.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
