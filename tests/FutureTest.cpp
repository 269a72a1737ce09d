// Futures: resolution and its publication across threads, delegates and their lock, chaining,
// compound resolution, timed waits, and setting twice.
#include "support/TestSupport.h"

#include <QZApp/QZFuture.h>

#include <QElapsedTimer>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

using qztest::expectAssertion;

namespace {

// Records each resolution it is told of, with the thread it was told on.
class Recorder : public QZFutureDelegate
{
public:
    void didResolveFuture(QZFuture *future) override
    {
        {
            std::lock_guard guard(mutex);
            futures.push_back(future);
            threads.push_back(std::this_thread::get_id());
        }
        if (onResolve)
            onResolve(future);
    }
    size_t count() const
    {
        std::lock_guard guard(mutex);
        return futures.size();
    }

    std::function<void(QZFuture *)> onResolve;
    mutable std::mutex mutex;
    std::vector<QZFuture *> futures;
    std::vector<std::thread::id> threads;
};

TEST(Future, ValueReachesEveryWaitingThread)
{
    auto future = QZValueFuture::future();
    EXPECT_FALSE(future->valid());
    std::vector<std::future<QVariant>> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.push_back(std::async(std::launch::async, [future] { return future->value(); }));
    // A long string: a waiter that saw the flag before the value would read a torn one.
    const QString text(100000, QLatin1Char('x'));
    std::thread([future, text] { future->setValue(text); }).join();
    for (auto &waiter : waiters)
        EXPECT_EQ(waiter.get().toString(), text);
    EXPECT_TRUE(future->valid());
    EXPECT_EQ(future->value().toString(), text);   // resolved: no wait
}

TEST(Future, ValueIsPublishedBeforeTheFlag)
{
    for (int round = 0; round < 200; ++round) {
        auto future = QZValueFuture::future();
        std::thread reader([future] {
            while (!future->valid())
                std::this_thread::yield();
            EXPECT_EQ(future->value().toInt(), 7);
        });
        future->setValue(7);
        reader.join();
    }
}

TEST(Future, NilIsAValidResult)
{
    auto future = QZValueFuture::future();
    future->setValue(QVariant());
    EXPECT_TRUE(future->valid());
    EXPECT_FALSE(future->value().isValid());

    auto succeeded = QZErrorFuture::future();
    succeeded->setError(std::nullopt);
    EXPECT_TRUE(succeeded->succeeded());
    EXPECT_EQ(succeeded->error(), std::nullopt);

    auto failed = QZErrorFuture::future();
    const QZError denied(QStringLiteral("POSIX"), 13, QStringLiteral("Permission denied"));
    failed->setError(denied);
    EXPECT_FALSE(failed->succeeded());
    EXPECT_EQ(failed->error(), denied);
    EXPECT_EQ(failed->value().value<QZError>().code(), 13);
}

TEST(Future, SettingTwiceIsReportedAndChangesNothing)
{
    auto future = QZValueFuture::future();
    future->setValue(1);
    const QZAssertionFailure failure = expectAssertion([&] { future->setValue(2); });
    EXPECT_EQ(failure.method(), QLatin1String("QZValueFuture::setValue"));
    EXPECT_EQ(failure.object(), static_cast<const void *>(future.get()));
    EXPECT_EQ(failure.file(), QLatin1String("app-common/QZApp/QZFuture"));
    EXPECT_EQ(failure.line(), 160);
    EXPECT_EQ(failure.description(), QLatin1String("Cannot set futures twice!"));
    EXPECT_EQ(future->value().toInt(), 1);

    auto error = QZErrorFuture::future();
    error->setError(std::nullopt);
    EXPECT_EQ(expectAssertion([&] { error->setError(QZError(QStringLiteral("d"), 1)); }).line(), 160);

    // A host handler that returns: the second value is dropped, delegates are not told again.
    struct Quiet : QZAssertionHandler {
        int reports = 0;
        void handleFailureInMethod(const char *, const void *, const char *, int, const QString &) override { ++reports; }
    } quiet;
    Recorder recorder;
    future->addDelegate(&recorder);   // resolved: told once, now
    QZAssertionHandler::setCurrentHandler(&quiet);
    future->setValue(3);
    QZAssertionHandler::setCurrentHandler(nullptr);
    EXPECT_EQ(quiet.reports, 1);
    EXPECT_EQ(future->value().toInt(), 1);
    EXPECT_EQ(recorder.count(), 1u);
}

TEST(Future, ConcurrentSettersResolveOnceAndTheRestAreReported)
{
    auto future = QZValueFuture::future();
    Recorder recorder;
    future->addDelegate(&recorder);
    std::atomic<int> reported { 0 };
    std::vector<std::thread> setters;
    for (int i = 0; i < 8; ++i)
        setters.emplace_back([&, i] {
            try {
                future->setValue(i);
            } catch (const QZAssertionFailure &) {
                ++reported;
            }
        });
    for (auto &setter : setters)
        setter.join();
    EXPECT_EQ(reported.load(), 7);
    EXPECT_EQ(recorder.count(), 1u);
}

TEST(FutureDelegates, AreToldInOrderOnTheResolvingThreadWithDuplicates)
{
    auto future = QZValueFuture::future();
    Recorder first, second;
    std::vector<Recorder *> order;
    first.onResolve = [&](QZFuture *) { order.push_back(&first); };
    second.onResolve = [&](QZFuture *) { order.push_back(&second); };
    future->addDelegate(&first);
    future->addDelegate(&second);
    future->addDelegate(&first);

    std::thread::id resolver;
    std::thread([&] {
        resolver = std::this_thread::get_id();
        future->setValue(QStringLiteral("done"));
    }).join();
    EXPECT_EQ(order, (std::vector<Recorder *> { &first, &second, &first }));
    EXPECT_EQ(first.threads, (std::vector<std::thread::id> { resolver, resolver }));
    EXPECT_EQ(first.futures[0], future.get());
}

TEST(FutureDelegates, OneRemovalRemovesEveryEntryAndNothingAfterResolution)
{
    auto future = QZValueFuture::future();
    Recorder kept, removed;
    future->addDelegate(&removed);
    future->addDelegate(&kept);
    future->addDelegate(&removed);
    future->removeDelegate(&removed);
    future->setValue(1);
    EXPECT_EQ(removed.count(), 0u);
    EXPECT_EQ(kept.count(), 1u);

    future->removeDelegate(&kept);   // resolved: nothing happens
    Recorder late;
    future->addDelegate(&late);
    EXPECT_EQ(late.count(), 1u);      // told synchronously, before addDelegate returned
    EXPECT_EQ(late.threads[0], std::this_thread::get_id());
}

TEST(FutureDelegates, ALateDelegateIsToldOutsideTheLock)
{
    auto future = QZValueFuture::future();
    future->setValue(1);
    Recorder late, other;
    bool otherThreadGotTheLock = false;
    late.onResolve = [&](QZFuture *) {
        // Another thread needs the future's lock; it would hang if this thread held it.
        auto attempt = std::async(std::launch::async, [&] { future->removeDelegate(&other); });
        otherThreadGotTheLock = attempt.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    };
    future->addDelegate(&late);
    EXPECT_TRUE(otherThreadGotTheLock);
}

TEST(FutureDelegates, NoneIsToldTwiceOrLostWhileTheFutureNotifies)
{
    auto future = QZValueFuture::future();
    Recorder notifying, sameThread, otherThread;
    std::thread adder;
    std::thread::id adderId;
    std::atomic<bool> adderStarted { false };
    notifying.onResolve = [&](QZFuture *resolved) {
        // Added on the notifying thread (it holds the recursive lock): told by this very loop.
        resolved->addDelegate(&sameThread);
        // Added from another thread: it waits for the lock, then is told at once.
        adder = std::thread([&] {
            adderId = std::this_thread::get_id();
            adderStarted = true;
            future->addDelegate(&otherThread);
        });
        while (!adderStarted)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(otherThread.count(), 0u);   // still blocked on the lock
    };
    future->addDelegate(&notifying);
    future->setValue(1);
    adder.join();
    EXPECT_EQ(sameThread.count(), 1u);
    EXPECT_EQ(sameThread.threads[0], std::this_thread::get_id());
    EXPECT_EQ(otherThread.count(), 1u);
    EXPECT_EQ(otherThread.threads[0], adderId);
}

TEST(FutureDelegates, ADelegateMayRemoveItselfOrOthersWhileBeingTold)
{
    auto future = QZValueFuture::future();
    Recorder remover, skipped, last;
    remover.onResolve = [&](QZFuture *resolved) {
        resolved->removeDelegate(&remover);
        resolved->removeDelegate(&skipped);
    };
    future->addDelegate(&remover);
    future->addDelegate(&skipped);
    future->addDelegate(&last);
    future->setValue(1);
    EXPECT_EQ(remover.count(), 1u);
    EXPECT_EQ(skipped.count(), 0u);
    EXPECT_EQ(last.count(), 1u);
}

TEST(FutureDelegates, AThrowingDelegatePropagatesAndReleasesTheLock)
{
    auto future = QZValueFuture::future();
    Recorder thrower, after;
    thrower.onResolve = [](QZFuture *) { throw std::runtime_error("delegate failed"); };
    future->addDelegate(&thrower);
    future->addDelegate(&after);
    EXPECT_THROW(future->setValue(1), std::runtime_error);
    EXPECT_TRUE(future->valid());
    EXPECT_EQ(after.count(), 0u);
    // The lock is free again; the future never finished telling, so a new delegate is stored.
    Recorder added;
    std::thread([&] { future->addDelegate(&added); }).join();
    EXPECT_EQ(added.count(), 0u);
    future->removeDelegate(&thrower);
    future->removeDelegate(&after);
    future->removeDelegate(&added);
}

TEST(FutureChaining, FollowsAFutureResolvedLaterOrAlready)
{
    auto source = QZValueFuture::future();
    auto chained = QZValueFuture::future();
    chained->takeValueFrom(source);
    chained->takeValueFrom(source);   // the same one: nothing changes
    EXPECT_FALSE(chained->valid());
    std::thread([source] { source->setValue(QStringLiteral("shared")); }).join();
    EXPECT_TRUE(chained->valid());
    EXPECT_EQ(chained->value().toString(), QLatin1String("shared"));

    auto resolved = QZValueFuture::future();
    resolved->setValue(5);
    auto immediate = QZValueFuture::future();
    immediate->takeValueFrom(resolved);
    EXPECT_TRUE(immediate->valid());   // resolved inside the call
    EXPECT_EQ(immediate->value().toInt(), 5);

    // A chain of chains resolves end to end.
    auto head = QZValueFuture::future();
    auto middle = QZValueFuture::future();
    auto tail = QZValueFuture::future();
    tail->takeValueFrom(middle);
    middle->takeValueFrom(head);
    head->setValue(9);
    EXPECT_EQ(tail->value().toInt(), 9);
}

TEST(FutureChaining, ASetValueWinsSilentlyAndSwitchingOrDetachingStopsFollowing)
{
    auto source = QZValueFuture::future();
    auto chained = QZValueFuture::future();
    chained->takeValueFrom(source);
    chained->setValue(1);
    source->setValue(2);   // no assertion: the chained value is ignored
    EXPECT_EQ(chained->value().toInt(), 1);

    auto old = QZValueFuture::future();
    auto current = QZValueFuture::future();
    auto switched = QZValueFuture::future();
    switched->takeValueFrom(old);
    switched->takeValueFrom(current);
    old->setValue(1);
    EXPECT_FALSE(switched->valid());
    current->setValue(2);
    EXPECT_EQ(switched->value().toInt(), 2);

    auto detached = QZValueFuture::future();
    auto followed = QZValueFuture::future();
    detached->takeValueFrom(followed);
    detached->takeValueFrom(nullptr);
    followed->setValue(1);
    EXPECT_FALSE(detached->valid());
}

TEST(FutureChaining, AFollowerDestroyedFirstIsNotToldAfterwards)
{
    auto source = QZValueFuture::future();
    {
        auto follower = QZValueFuture::future();
        follower->takeValueFrom(source);
        auto compound = QZCompoundFuture::futureWithChildren({ source });
        QZFutureSynchronizer synchronizer(source);
    }
    source->setValue(1);   // would reach freed delegates if they had not left
    EXPECT_TRUE(source->valid());
}

TEST(CompoundFuture, OverNoChildrenIsValidAtOnceAndNeverTellsDelegates)
{
    auto compound = QZCompoundFuture::futureWithChildren({});
    EXPECT_TRUE(compound->valid());
    compound->wait();
    EXPECT_FALSE(compound->value().isValid());
    Recorder recorder;
    compound->addDelegate(&recorder);
    EXPECT_EQ(recorder.count(), 0u);
    compound->removeDelegate(&recorder);
}

TEST(CompoundFuture, ResolvesWithTheFirstNonNilChildAndIgnoresTheRest)
{
    auto a = QZValueFuture::future(), b = QZValueFuture::future(), c = QZValueFuture::future();
    auto compound = QZCompoundFuture::futureWithChildren({ a, b, c });
    Recorder recorder;
    compound->addDelegate(&recorder);
    a->setValue(QVariant());
    EXPECT_FALSE(compound->valid());
    c->setValue(QStringLiteral("from c"));
    EXPECT_TRUE(compound->valid());
    EXPECT_EQ(recorder.count(), 1u);
    b->setValue(QStringLiteral("from b"));
    EXPECT_EQ(compound->value().toString(), QLatin1String("from c"));
    EXPECT_EQ(recorder.count(), 1u);
}

TEST(CompoundFuture, AllNilResolvesWithTheLastChildAlsoWhenResolvedBefore)
{
    auto a = QZValueFuture::future(), b = QZValueFuture::future();
    a->setValue(QVariant());   // already resolved: taken during construction
    auto compound = QZCompoundFuture::futureWithChildren({ a, b });
    EXPECT_FALSE(compound->valid());
    b->setValue(QVariant());
    EXPECT_TRUE(compound->valid());
    EXPECT_FALSE(compound->value().isValid());

    auto resolved = QZValueFuture::future();
    resolved->setValue(3);
    auto atOnce = QZCompoundFuture::futureWithChildren({ QZValueFuture::future(), resolved });
    EXPECT_TRUE(atOnce->valid());
    EXPECT_EQ(atOnce->value().toInt(), 3);
}

TEST(CompoundFuture, OverErrorFuturesGivesTheFirstErrorOrSuccess)
{
    auto copy = QZErrorFuture::future(), verify = QZErrorFuture::future();
    auto both = QZCompoundFuture::futureWithChildren({ copy, verify });
    copy->setError(std::nullopt);
    verify->setError(QZError(QStringLiteral("POSIX"), 28, QStringLiteral("No space left on device")));
    EXPECT_EQ(both->value().value<QZError>().code(), 28);

    auto first = QZErrorFuture::future(), second = QZErrorFuture::future();
    auto fine = QZCompoundFuture::futureWithChildren({ first, second });
    second->setError(std::nullopt);
    first->setError(std::nullopt);
    EXPECT_TRUE(fine->valid());
    EXPECT_FALSE(fine->value().isValid());
}

TEST(CompoundFuture, ChildrenResolvedConcurrentlyResolveItOnce)
{
    QList<std::shared_ptr<QZFuture>> children;
    QList<std::shared_ptr<QZValueFuture>> values;
    for (int i = 0; i < 16; ++i) {
        values.append(QZValueFuture::future());
        children.append(values.last());
    }
    auto compound = QZCompoundFuture::futureWithChildren(children);
    Recorder recorder;
    compound->addDelegate(&recorder);
    auto waiter = std::async(std::launch::async, [compound] { return compound->value(); });
    std::vector<std::thread> resolvers;
    for (int i = 0; i < 16; ++i)
        resolvers.emplace_back([&, i] { values[i]->setValue(i % 4 == 3 ? QVariant(i) : QVariant()); });
    for (auto &resolver : resolvers)
        resolver.join();
    const int value = waiter.get().toInt();
    EXPECT_EQ(value % 4, 3);
    EXPECT_EQ(recorder.count(), 1u);
}

TEST(FutureWaiting, APastDeadlineReturnsAtOnceAndAFutureOneWaitsForIt)
{
    auto future = QZValueFuture::future();
    QElapsedTimer timer;
    timer.start();
    future->waitUntilDate(QDateTime::currentDateTime().addSecs(-60));
    future->waitUntilDate(QDateTime::fromMSecsSinceEpoch(-5000));
    future->waitUntilDate(QDateTime());
    EXPECT_LT(timer.elapsed(), 1000);
    EXPECT_FALSE(future->valid());

    timer.restart();
    future->waitUntilDate(QDateTime::currentDateTime().addMSecs(150));
    EXPECT_GE(timer.elapsed(), 140);
    EXPECT_FALSE(future->valid());
}

TEST(FutureWaiting, AResolutionEndsATimedWaitEarly)
{
    auto future = QZValueFuture::future();
    std::thread resolver([future] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        future->setValue(1);
    });
    QElapsedTimer timer;
    timer.start();
    future->waitUntilDate(QDateTime::currentDateTime().addSecs(60));
    EXPECT_LT(timer.elapsed(), 30000);
    EXPECT_TRUE(future->valid());
    resolver.join();
}

TEST(FutureSynchronizer, ConditionGoesFromZeroToOne)
{
    auto future = QZValueFuture::future();
    auto synchronizer = QZFutureSynchronizer::synchronizerWithFuture(future);
    EXPECT_EQ(synchronizer->condition(), 0);
    synchronizer->waitUntilDate(QDateTime::currentDateTime());
    EXPECT_EQ(synchronizer->condition(), 0);
    std::thread waiter([&] { synchronizer->wait(); });
    future->setValue(1);
    waiter.join();
    EXPECT_EQ(synchronizer->condition(), 1);

    QZFutureSynchronizer late(future);   // a resolved future tells it during construction
    EXPECT_EQ(late.condition(), 1);
    late.wait();
}

} // namespace
