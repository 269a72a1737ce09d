// How the helper channel waits: callers asleep on their command's status word are woken (all
// of them, also when the reply races with their going to sleep), and a receiver that lingers
// for the next reply goes to sleep once callers stop.
#include <QZApp/helper/QZHelperTool.h>
#include <QZApp/helper/QZHelperToolTesting.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace {

QZHelperTool *tool() { return QZHelperTool::sharedInstance(); }

// The newest receiver thread's entry under /proc/self/task, or an empty string.
QString receiverTask()
{
    const QDir tasks(QStringLiteral("/proc/self/task"));
    QString newest;
    long newestID = 0;
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == "Helper Receiver" && task.toLong() > newestID) {
            newestID = task.toLong();
            newest = tasks.filePath(task);
        }
    }
    return newest;
}

// The processor time the thread at `task` has used (-1 ns when it cannot be read).
std::chrono::nanoseconds processorTime(const QString &task)
{
    QFile schedstat(task + QStringLiteral("/schedstat"));
    return std::chrono::nanoseconds(schedstat.open(QIODevice::ReadOnly) ? schedstat.readAll().split(' ').value(0).toLongLong() : -1);
}

// A connection whose helper side the test plays itself.
class PlayedHelper
{
public:
    PlayedHelper()
    {
        int sockets[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
        m_helper = sockets[1];
        EXPECT_TRUE(QZHelperToolTesting::adoptConnection(tool(), sockets[0]));
    }
    ~PlayedHelper()
    {
        close(m_helper);   // the receiver sees the end and completes what is left
        tool()->terminateHelper();
    }
    Q_DISABLE_COPY_MOVE(PlayedHelper)
    // Takes in what the channel sent so far (so that its socket never fills), then sends `bytes`.
    void send(const QByteArray &bytes) const
    {
        char requests[4096];
        while (recv(m_helper, requests, sizeof requests, MSG_DONTWAIT) > 0) {
        }
        EXPECT_EQ(write(m_helper, bytes.constData(), static_cast<size_t>(bytes.size())), bytes.size());
    }

private:
    int m_helper = -1;
};

std::shared_ptr<QZHelperCommand> issued(const char *text)
{
    auto command = QZHelperCommand::commandWithString(QString::fromLatin1(text));
    EXPECT_TRUE(tool()->issue(command));
    return command;
}

} // namespace

TEST(HelperWait, EveryThreadWaitingForACommandWakesWithItsStatus)
{
    PlayedHelper helper;
    const auto command = issued("echo");
    std::atomic<int> woken { 0 };
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { woken += command->getStatus() == 17; });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));   // let them fall asleep
    helper.send(QByteArray::number(command->commandID()) + " REPLY 17 0\n");
    for (std::thread &waiter : waiters)
        waiter.join();
    EXPECT_EQ(woken, 4);
}

TEST(HelperWait, AReplyThatRacesWithTheCallerGoingToSleepIsNotLost)
{
    PlayedHelper helper;
    for (int round = 0; round < 2000; ++round) {
        const auto command = issued("echo");
        std::thread waiter([&] { EXPECT_EQ(command->getStatus(), round % 7); });
        helper.send(QByteArray::number(command->commandID()) + " REPLY " + QByteArray::number(round % 7) + " 0\n");
        waiter.join();
        if (HasFailure())
            break;
    }
}

TEST(HelperWait, TheReceiverSleepsOnceCallersStop)
{
    // A receiver that lingers for the next reply must not go on polling when no caller is left.
    tool()->setHelperPath(QStringLiteral(QZHELPER_PATH));
    const QByteArray payload = "hello, helper!";
    for (int i = 0; i < 2000; ++i) {
        auto command = QZHelperCommand::commandWithString(QStringLiteral("echo"));
        command->setCommandData(payload);
        ASSERT_TRUE(tool()->issue(command));
        ASSERT_EQ(command->getStatus(), 0);
        ASSERT_EQ(command->data(), payload);
    }
    const QString receiver = receiverTask();
    ASSERT_FALSE(receiver.isEmpty());
    const auto busyBefore = processorTime(receiver);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(processorTime(receiver) - busyBefore, std::chrono::milliseconds(20));
    tool()->terminateHelper();
}
