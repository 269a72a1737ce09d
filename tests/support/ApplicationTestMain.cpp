// Test entry point with a QZApplication, offscreen unless the environment picks a platform.
#include <gtest/gtest.h>

#include <QZApp/QZApplication.h>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");   // re-run the binary: Qt's threads are running
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QZApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
