// The channel under load while its helper is killed over and over: every call returns (a call
// that hangs shows as the test's time-out), and neither descriptors nor child processes pile up.
#include "HelperTestSupport.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

using qztest::tool;

namespace {

// Echoes `data` through the reference helper: the status, or -1 when the data came back wrong.
qint32 echo(const QByteArray &data)
{
    const auto command = QZHelperCommand::commandWithString(QStringLiteral("echo"));
    command->setCommandData(data);
    if (!tool()->issue(command))
        return QZHelperCommand::Failed;
    const qint32 status = command->getStatus();
    return status == 0 && command->data() != data ? -1 : status;
}

// Eight threads call while the helper is killed every few milliseconds, 100 times, each helper
// once it has answered a call.
TEST(HelperStress, KillsUnderLoadLoseNoCallAndLeaveNothingBehind)
{
    tool()->setHelperPath(QStringLiteral(QZHELPER_PATH));
    QByteArray large(3 * 1024 * 1024, '\0');   // reply data far larger than a line
    for (qsizetype i = 0; i < large.size(); ++i)
        large[i] = static_cast<char>(i * 7);
    ASSERT_EQ(echo(large), 0);   // what is made once per process exists from now on
    tool()->terminateHelper();
    const int descriptors = qztest::openDescriptorCount();
    std::atomic<int> replied { 0 }, failed { 0 };
    std::atomic<bool> stop { false };
    std::vector<std::thread> callers;
    for (int t = 0; t < 8; ++t)
        callers.emplace_back([&, t] {
            for (int i = 0; !stop; ++i) {
                const qint32 status = echo(QByteArray::number(t) + ':' + QByteArray::number(i));
                EXPECT_TRUE(status == 0 || status == 10002) << status;
                ++(status == 0 ? replied : failed);
            }
        });
    int kills = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    int repliedBefore = -1;
    while (kills < 100 && std::chrono::steady_clock::now() < deadline) {
        // Each helper answers something before it is killed, however slowly it starts.
        if (replied == repliedBefore) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        repliedBefore = replied;
        kills += QZHelperToolTesting::signalHelper(tool(), SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    stop = true;
    for (std::thread &caller : callers)
        caller.join();
    EXPECT_EQ(kills, 100);
    EXPECT_GT(replied, 0);
    EXPECT_GT(failed, 0);
    EXPECT_EQ(echo("after"), 0);   // the next call starts a new helper
    tool()->terminateHelper();
    EXPECT_EQ(qztest::openDescriptorCount(), descriptors);
    EXPECT_TRUE(qztest::hasNoChildren());
}

} // namespace
