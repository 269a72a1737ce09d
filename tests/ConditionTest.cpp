// QZCondition: misuse texts and lines, per-thread assertion handlers, hand-over between threads,
// and the timed wait that never sleeps.
#include "support/TestSupport.h"

#include <QZApp/QZCondition.h>

#include <QDateTime>
#include <QElapsedTimer>

#include <thread>

using qztest::expectAssertion;

namespace {

TEST(Condition, MisuseRaisesItsTextWithTheMethodAndLineAndTheDescriptionNamesIt)
{
    QZCondition condition;
    // The report reads "METHOD (SOURCE UNIT:LINE): TEXT".
    const auto expectFailure = [&](const std::function<void()> &operation, const char *report) {
        const QZAssertionFailure failure = expectAssertion(operation);
        EXPECT_EQ(failure.object(), &condition);
        EXPECT_STREQ(failure.what(), report);
    };
    expectFailure([&] { condition.wait(); }, "QZCondition::wait (app-common/QZApp/QZCondition:85): Not locked!");
    expectFailure([&] { condition.waitUntilDate(QDateTime::currentDateTime()); },
                  "QZCondition::waitUntilDate (app-common/QZApp/QZCondition:101): Not locked!");
    expectFailure([&] { condition.unlock(); }, "QZCondition::unlock (app-common/QZApp/QZCondition:74): Not locked!");
    condition.lock();
    expectFailure([&] { condition.lock(); }, "QZCondition::lock (app-common/QZApp/QZCondition:41): Dead lock!");
    expectFailure([&] { condition.tryLock(); }, "QZCondition::tryLock (app-common/QZApp/QZCondition:56): Dead lock!");
    std::thread([&] {   // another thread may not unlock it, and cannot take it
        expectFailure([&] { condition.unlock(); }, "QZCondition::unlock (app-common/QZApp/QZCondition:74): Not locked!");
        EXPECT_FALSE(condition.tryLock());
    }).join();
    condition.unlock();   // held exactly once
    EXPECT_TRUE(condition.tryLock());
    condition.unlock();
    const QString address = QString::asprintf("%p", static_cast<void *>(&condition));
    EXPECT_EQ(condition.description(), QStringLiteral("<QZCondition: %1>").arg(address));
    condition.setName(QStringLiteral("channel"));
    EXPECT_EQ(condition.description(), QStringLiteral("<QZCondition: %1> 'channel'").arg(address));
}

TEST(Condition, AHostHandlerOfOneThreadThatReturnsLetsTheOperationGiveUp)
{
    struct Recorder : QZAssertionHandler {
        QStringList texts;
        void handleFailureInMethod(const char *, const void *, const char *, int, const QString &text) override { texts.append(text); }
    } recorder;
    QZAssertionHandler::setCurrentHandler(&recorder);
    QZCondition condition;
    condition.lock();
    condition.lock();     // would deadlock if the operation went on
    condition.unlock();
    condition.unlock();
    std::thread([] {   // another thread keeps the default handler, which throws
        const auto report = [] { QZAssertionHandler::currentHandler()->handleFailureInFunction("f", "unit", 2, QStringLiteral("theirs")); };
        EXPECT_STREQ(expectAssertion(report).what(), "f (unit:2): theirs");
    }).join();
    QZAssertionHandler::setCurrentHandler(nullptr);
    EXPECT_EQ(recorder.texts, QStringList({ QStringLiteral("Dead lock!"), QStringLiteral("Not locked!") }));
    EXPECT_THROW(condition.unlock(), QZAssertionFailure);   // the default handler is back
}

TEST(Condition, WaitAndBroadcastHandOverAndTheTimedWaitNeverSleeps)
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
    producer.join();
    QElapsedTimer timer;
    timer.start();
    for (const QDateTime &deadline : { QDateTime::currentDateTime().addSecs(30), QDateTime::currentDateTime(),
                                       QDateTime::fromMSecsSinceEpoch(500), QDateTime::fromMSecsSinceEpoch(-1500) })
        EXPECT_FALSE(condition.waitUntilDate(deadline));
    EXPECT_LT(timer.elapsed(), 1000);
    condition.unlock();   // still held by this thread
}

TEST(ConditionDeathTest, DestroyingAHeldLockAborts)
{
    EXPECT_DEATH({ QZCondition condition; condition.lock(); }, "app-common/QZApp/QZCondition:28: .*Assertion `!thread_with_lock' failed");
}

} // namespace
