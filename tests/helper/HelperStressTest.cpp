// The channel under restarts and under load while its helper is killed: every call returns
// (a call that hangs shows as the test's time-out), and neither descriptors nor child
// processes pile up.
#include "HelperTestSupport.h"

#include <QZApp/helper/helper_command.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

namespace {

QZHelperTool *tool()
{
    return QZHelperTool::sharedInstance();
}

qint32 echo(const QByteArray &data, QByteArray *reply)
{
    const auto command = QZHelperCommand::commandWithString(QStringLiteral("echo"));
    command->setCommandData(data);
    if (!tool()->issue(command))
        return QZHelperCommand::Failed;
    const qint32 status = command->getStatus();
    *reply = command->data();
    return status;
}

// Runs one command against the reference helper and stops it, so that everything made once
// per process exists; returns the number of descriptors the process then holds.
int warmUp()
{
    tool()->setHelperPath(QStringLiteral(QZHELPER_PATH));
    QByteArray reply;
    EXPECT_EQ(echo("warm", &reply), 0);
    tool()->terminateHelper();
    EXPECT_TRUE(qztest::hasNoChildren());
    return qztest::openDescriptorCount();
}

TEST(HelperStress, HundredRestartsLeaveNoDescriptorsOrChildrenBehind)
{
    const int descriptors = warmUp();
    QByteArray reply;

    int succeeded = 0;
    for (int i = 0; i < 100; ++i) {
        const qint32 status = echo(QByteArray::number(i), &reply);
        ASSERT_TRUE(status == 0 || status == 10002) << status;
        if (status == 0) {
            ++succeeded;
            EXPECT_EQ(reply, QByteArray::number(i));
        }
        if (i % 2)
            tool()->terminateHelper();
        else
            QZHelperToolTesting::signalHelper(tool(), SIGKILL);
    }
    tool()->terminateHelper();
    EXPECT_GE(succeeded, 50);   // a call after terminateHelper() always finds a new helper
    EXPECT_EQ(qztest::openDescriptorCount(), descriptors);
    EXPECT_TRUE(qztest::hasNoChildren());
}

TEST(HelperStress, EightThreadsLoseNoCallWhileTheHelperIsKilled)
{
    const int descriptors = warmUp();
    QByteArray reply;

    constexpr int kThreads = 8, kCalls = 400;
    std::atomic<int> succeeded { 0 }, failed { 0 }, wrong { 0 }, running { kThreads };
    {
        std::vector<std::thread> callers;
        for (int t = 0; t < kThreads; ++t) {
            callers.emplace_back([&, t] {
                for (int i = 0; i < kCalls; ++i) {
                    const QByteArray data = QByteArray::number(t) + ':' + QByteArray::number(i);
                    QByteArray answer;
                    const qint32 status = echo(data, &answer);
                    if (status == 0 && answer == data)
                        ++succeeded;
                    else if (status == 10002)
                        ++failed;
                    else
                        ++wrong;
                }
                --running;
            });
        }
        int kills = 0;
        while (running > 0) {
            if (QZHelperToolTesting::signalHelper(tool(), SIGKILL))
                ++kills;
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
        for (std::thread &caller : callers)
            caller.join();
        EXPECT_GT(kills, 10);
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(succeeded + failed, kThreads * kCalls);
    EXPECT_GT(succeeded, 0);
    EXPECT_GT(failed, 0);

    ASSERT_EQ(echo("after", &reply), 0);   // the next call starts a new helper
    EXPECT_EQ(reply, QByteArray("after"));
    tool()->terminateHelper();
    EXPECT_EQ(qztest::openDescriptorCount(), descriptors);
    EXPECT_TRUE(qztest::hasNoChildren());
}

} // namespace
