// Futures: publication across threads, setting twice, delegates, chaining, compounds, timed waits.
#include "support/TestSupport.h"

#include <QZApp/QZFuture.h>

#include <QElapsedTimer>

#include <future>
#include <thread>

namespace {

// Records the resolving thread, then runs `onResolve`; unguarded, so ThreadSanitizer sees races.
struct Recorder : QZFutureDelegate {
    void didResolveFuture(QZFuture *future) override
    {
        threads.push_back(std::this_thread::get_id());
        if (onResolve)
            onResolve(future);
    }
    std::function<void(QZFuture *)> onResolve;
    std::vector<std::thread::id> threads;
};

TEST(Future, ValueReachesWaitingThreadsOnceAndNilIsAResult)
{
    auto future = QZValueFuture::future();
    auto waiter = std::async(std::launch::async, [future] { return future->value(); });
    // A long string: a waiter that saw the flag before the value would read a torn one.
    const QString text(100000, QLatin1Char('x'));
    std::thread([future, text] { future->setValue(text); }).join();
    EXPECT_EQ(waiter.get().toString(), text);
    auto succeeded = QZErrorFuture::future(), failed = QZErrorFuture::future();
    succeeded->setError(std::nullopt);
    EXPECT_TRUE(succeeded->valid() && succeeded->succeeded());
    const QZError denied(QStringLiteral("POSIX"), 13, QStringLiteral("Permission denied"));
    failed->setError(denied);
    EXPECT_FALSE(failed->succeeded());
    EXPECT_EQ(failed->error(), denied);
    const QZAssertionFailure failure = qztest::expectAssertion([&] { succeeded->setValue(2); });
    EXPECT_EQ(failure.object(), static_cast<const void *>(succeeded.get()));
    EXPECT_STREQ(failure.what(), "QZValueFuture::setValue (app-common/QZApp/QZFuture:160): Cannot set futures twice!");
    EXPECT_TRUE(succeeded->succeeded());
}

TEST(FutureDelegates, AreToldInOrderOnTheResolvingThreadOncePerEntryAndNoneIsLost)
{
    auto future = QZValueFuture::future();
    Recorder first, second, removed, added, waiting;
    std::vector<Recorder *> order;
    std::thread adder;
    first.onResolve = [&](QZFuture *) { order.push_back(&first); };
    second.onResolve = [&](QZFuture *resolved) {
        order.push_back(&second);
        resolved->removeDelegate(&removed);   // while the list is being walked
        resolved->addDelegate(&added);        // this thread holds the lock: told by this walk
        adder = std::thread([&] { future->addDelegate(&waiting); });   // waits for the lock
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_TRUE(waiting.threads.empty());
    };
    for (Recorder *delegate : { &first, &removed, &second, &first, &removed })
        future->addDelegate(delegate);
    std::thread::id resolver;
    std::thread([&] {
        resolver = std::this_thread::get_id();
        future->setValue(1);
    }).join();
    const std::thread::id adderThread = adder.get_id();
    adder.join();
    EXPECT_EQ(order, (std::vector<Recorder *> { &first, &second, &first }));
    EXPECT_EQ(first.threads, (std::vector<std::thread::id> { resolver, resolver }));
    EXPECT_EQ(added.threads, std::vector<std::thread::id> { resolver });
    EXPECT_EQ(removed.threads.size(), 1u);   // told before second removed it, not after
    // Added after resolution: told once, at once, on the adding thread.
    EXPECT_EQ(waiting.threads, std::vector<std::thread::id> { adderThread });
}

TEST(FutureChaining, FollowsSwitchesDetachesAndYieldsToADirectSet)
{
    auto head = QZValueFuture::future(), middle = QZValueFuture::future(), tail = QZValueFuture::future();
    tail->takeValueFrom(middle);
    middle->takeValueFrom(head);
    std::thread([head] { head->setValue(QStringLiteral("shared")); }).join();
    EXPECT_EQ(tail->value().toString(), QLatin1String("shared"));
    auto immediate = QZValueFuture::future();
    immediate->takeValueFrom(head);   // already resolved: resolves inside the call
    EXPECT_TRUE(immediate->valid());
    auto old = QZValueFuture::future(), current = QZValueFuture::future(), follower = QZValueFuture::future();
    follower->takeValueFrom(old);
    follower->takeValueFrom(current);
    old->setValue(1);
    EXPECT_FALSE(follower->valid());
    follower->setValue(2);
    current->setValue(3);   // the direct value stays, without an assertion
    EXPECT_EQ(follower->value().toInt(), 2);
    auto source = QZValueFuture::future();
    {
        auto detached = QZValueFuture::future(), destroyed = QZValueFuture::future();
        detached->takeValueFrom(source);
        detached->takeValueFrom(nullptr);
        destroyed->takeValueFrom(source);
        auto compound = QZCompoundFuture::futureWithChildren({ source });
    }
    source->setValue(1);   // must not reach the delegates destroyed above
}

TEST(CompoundFuture, ResolvesWithTheFirstNonNilChildOrNilWhenAllAre)
{
    auto empty = QZCompoundFuture::futureWithChildren({});
    EXPECT_TRUE(empty->valid());
    EXPECT_FALSE(empty->value().isValid());
    Recorder never, told;
    empty->addDelegate(&never);   // stored, never told
    EXPECT_TRUE(never.threads.empty());
    auto a = QZValueFuture::future(), b = QZValueFuture::future(), c = QZValueFuture::future();
    a->setValue(QVariant());   // resolved before: taken during construction
    auto first = QZCompoundFuture::futureWithChildren({ a, b, c }), allNil = QZCompoundFuture::futureWithChildren({ a, b });
    first->addDelegate(&told);
    std::thread([c] { c->setValue(QStringLiteral("from c")); }).join();
    EXPECT_FALSE(allNil->valid());
    b->setValue(QVariant());   // too late for the first, the last child of the other
    EXPECT_EQ(first->value().toString(), QLatin1String("from c"));
    EXPECT_EQ(told.threads.size(), 1u);
    EXPECT_TRUE(allNil->valid() && !allNil->value().isValid());
}

TEST(FutureWaiting, DeadlinesInThePastReturnAtOnceAndResolutionEndsAWaitEarly)
{
    auto future = QZValueFuture::future();
    QElapsedTimer timer;
    timer.start();
    for (const QDateTime &past : { QDateTime::currentDateTime().addSecs(-60), QDateTime::fromMSecsSinceEpoch(-5000), QDateTime() })
        future->waitUntilDate(past);
    EXPECT_LT(timer.elapsed(), 1000);
    future->waitUntilDate(QDateTime::currentDateTime().addMSecs(150));
    EXPECT_GE(timer.elapsed(), 140);
    auto synchronizer = QZFutureSynchronizer::synchronizerWithFuture(future);
    EXPECT_EQ(synchronizer->condition(), 0);
    std::thread resolver([future] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        future->setValue(1);
    });
    timer.restart();
    future->waitUntilDate(QDateTime::currentDateTime().addSecs(60));
    EXPECT_LT(timer.elapsed(), 30000);
    resolver.join();
    EXPECT_EQ(synchronizer->condition(), 1);
}

} // namespace
