// QZCondition: ownership checks with their exact texts and lines, hand-over between threads,
// and the timed wait that never sleeps.
#include "support/TestSupport.h"

#include <QZApp/QZCondition.h>

#include <QDateTime>
#include <QElapsedTimer>
#include <QRegularExpression>

#include <atomic>
#include <thread>

using qztest::expectAssertion;

namespace {

void expectFailure(const QZAssertionFailure &failure, const char *method, int line, const char *text)
{
    EXPECT_EQ(failure.method(), QLatin1String(method));
    EXPECT_EQ(failure.file(), QLatin1String("app-common/QZApp/QZCondition"));
    EXPECT_EQ(failure.line(), line);
    EXPECT_EQ(failure.description(), QLatin1String(text));
}

TEST(Condition, RelockingOnTheHoldingThreadRaisesDeadLockAndKeepsOneHold)
{
    QZCondition condition;
    condition.lock();
    const QZAssertionFailure failure = expectAssertion([&] { condition.lock(); });
    expectFailure(failure, "QZCondition::lock", 41, "Dead lock!");
    EXPECT_EQ(failure.object(), &condition);
    expectFailure(expectAssertion([&] { condition.tryLock(); }), "QZCondition::tryLock", 56, "Dead lock!");
    condition.unlock();   // held exactly once
    expectFailure(expectAssertion([&] { condition.unlock(); }), "QZCondition::unlock", 74, "Not locked!");
}

TEST(Condition, OnlyTheHolderMayUnlockOrWait)
{
    QZCondition condition;
    expectFailure(expectAssertion([&] { condition.wait(); }), "QZCondition::wait", 85, "Not locked!");
    expectFailure(expectAssertion([&] { condition.waitUntilDate(QDateTime::currentDateTime()); }),
                  "QZCondition::waitUntilDate", 101, "Not locked!");

    condition.lock();
    QString otherThreadText;
    bool otherTryLock = true;
    std::thread other([&] {
        otherThreadText = expectAssertion([&] { condition.unlock(); }).description();
        otherTryLock = condition.tryLock();   // busy: false at once
    });
    other.join();
    EXPECT_EQ(otherThreadText, QLatin1String("Not locked!"));
    EXPECT_FALSE(otherTryLock);
    condition.unlock();
    EXPECT_TRUE(condition.tryLock());
    condition.unlock();
}

TEST(Condition, HandlerThatReturnsLetsTheOperationGiveUp)
{
    struct Recorder : QZAssertionHandler {
        QStringList texts;
        void handleFailureInMethod(const char *, const void *, const char *, int, const QString &text) override
        {
            texts.append(text);
        }
    } recorder;
    QZAssertionHandler::setCurrentHandler(&recorder);
    QZCondition condition;
    condition.lock();
    condition.lock();     // would deadlock if the operation went on
    condition.unlock();
    condition.unlock();
    QZAssertionHandler::setCurrentHandler(nullptr);
    EXPECT_EQ(recorder.texts, QStringList({ QStringLiteral("Dead lock!"), QStringLiteral("Not locked!") }));
}

TEST(Condition, WaitAndBroadcastHandOverBetweenThreads)
{
    QZCondition condition;
    int produced = 0;
    std::thread producer([&] {
        for (int i = 1; i <= 1000; ++i) {
            condition.lock();
            produced = i;
            condition.unlock();
            condition.broadcast();
        }
    });
    condition.lock();
    while (produced < 1000)
        condition.wait();
    condition.unlock();
    producer.join();
    EXPECT_EQ(produced, 1000);
}

TEST(Condition, TimedWaitNeverSleepsAndReturnsHoldingTheLock)
{
    QZCondition condition;
    condition.lock();
    QElapsedTimer timer;
    timer.start();
    EXPECT_FALSE(condition.waitUntilDate(QDateTime::currentDateTime().addSecs(30)));
    EXPECT_FALSE(condition.waitUntilDate(QDateTime::currentDateTime()));
    EXPECT_FALSE(condition.waitUntilDate(QDateTime::fromMSecsSinceEpoch(500)));   // deadline is the epoch
    EXPECT_FALSE(condition.waitUntilDate(QDateTime::fromMSecsSinceEpoch(-1500)));
    EXPECT_LT(timer.elapsed(), 1000);
    condition.unlock();   // still held by this thread
}

TEST(Condition, DescriptionShowsAddressAndName)
{
    QZCondition condition;
    const QString address = QString::asprintf("%p", static_cast<void *>(&condition));
    EXPECT_EQ(condition.description(), QStringLiteral("<QZCondition: %1>").arg(address));
    condition.setName(QStringLiteral("channel"));
    EXPECT_EQ(condition.description(), QStringLiteral("<QZCondition: %1> 'channel'").arg(address));
    EXPECT_EQ(condition.name(), QLatin1String("channel"));
}

TEST(ConditionDeathTest, DestroyingAHeldLockAborts)
{
    EXPECT_DEATH(
            {
                auto *condition = new QZCondition;
                condition->lock();
                delete condition;
            },
            "app-common/QZApp/QZCondition:28: .*Assertion `!thread_with_lock' failed");
}

} // namespace
