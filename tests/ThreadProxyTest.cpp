// Thread proxies: waiting main-thread calls, one-way calls, calls on new threads, the safe proxy
// inside an input event, and delayed calls on threads with and without an event loop.
#include "support/TestSupport.h"
#include "support/WidgetSupport.h"

#include <QZApp/QZThreadProxy.h>

#include <QEventLoop>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <thread>

using qztest::processEventsUntil;

namespace {

// Its members are read by the tests after a hand-over (a join, a waiting call, the event loop).
struct Model {
    int add(int n)
    {
        thread = std::this_thread::get_id();
        return total += n;
    }
    void append(const QString &text) { texts.append(text); }
    void fill(std::vector<int> &out) const { out.push_back(total); }
    void fail() { throw std::runtime_error("model failed"); }

    int total = 0;
    std::thread::id thread;
    QStringList texts;
};

TEST(ThreadProxy, MainThreadCallsWaitForResultsAndExceptions)
{
    Model model;
    std::atomic<bool> done { false };
    int sum = 0;
    std::vector<int> filled;
    std::thread caller([&] {
        auto proxy = QZ::mainThreadProxy(&model);
        sum = proxy.call(&Model::add, 5);
        proxy.call(&Model::fill, filled);   // by reference: the caller waits, nothing is copied
        EXPECT_THROW(proxy.call(&Model::fail), std::runtime_error);
        done = true;
    });
    ASSERT_TRUE(processEventsUntil([&] { return done.load(); }));
    caller.join();
    EXPECT_EQ(sum, 5);
    EXPECT_EQ(model.thread, std::this_thread::get_id());
    EXPECT_EQ(filled, std::vector<int> { 5 });
    EXPECT_EQ(QZ::mainThreadProxy(&model).call(&Model::add, 1), 6);   // on the main thread: at once
    EXPECT_EQ(QZ::mainThreadProxy(static_cast<Model *>(nullptr)).call(&Model::add, 1), 0);
}

TEST(ThreadProxy, AOneWayCallReturnsBeforeItRunsWithItsOwnCopies)
{
    Model model;
    std::thread([&] {
        QString text = QStringLiteral("one way");
        QZ::mainThreadProxy(&model).callOneWay(&Model::append, text);
        text = QStringLiteral("changed after the call");
    }).join();   // the main thread ran no events meanwhile, yet the caller returned
    EXPECT_TRUE(model.texts.isEmpty());
    ASSERT_TRUE(processEventsUntil([&] { return !model.texts.isEmpty(); }));
    EXPECT_EQ(model.texts, QStringList { QStringLiteral("one way") });
}

TEST(ThreadProxy, CreateThreadProxyRunsEachCallOnANewThread)
{
    // Each call waits for the other: on one thread they could never both be running.
    struct Meeting {
        void arrive(int)
        {
            std::unique_lock lock(mutex);
            threads.push_back(std::this_thread::get_id());
            changed.notify_all();
            changed.wait_for(lock, std::chrono::seconds(10), [this] { return threads.size() == 2; });
        }
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<std::thread::id> threads;
    };
    static Meeting meeting;   // outlives the detached threads
    QZ::createThreadProxy(&meeting).call(&Meeting::arrive, 1);
    QZ::createThreadProxy(&meeting).call(&Meeting::arrive, 2);
    std::unique_lock lock(meeting.mutex);
    ASSERT_TRUE(meeting.changed.wait_for(lock, std::chrono::seconds(10), [] { return meeting.threads.size() == 2; }));
    EXPECT_NE(meeting.threads[0], meeting.threads[1]);
    EXPECT_NE(meeting.threads[0], std::this_thread::get_id());
}

TEST(ThreadProxy, TheSafeProxyDefersVoidCallsPastTheEventAndWaitsForOthers)
{
    Model model;
    qztest::PressWidget widget;
    ASSERT_TRUE(widget.exposed);
    int sum = 0;
    QStringList seenInside;
    widget.onPress = [&] {
        auto proxy = QZ::safeMainThreadProxy(&model);
        proxy.call(&Model::append, QStringLiteral("deferred"));
        sum = proxy.call(&Model::add, 2);                  // a result: runs now, as a main-thread call
        processEventsUntil([] { return false; }, 100);     // a nested loop delivers, nothing runs
        seenInside = model.texts;
    };
    QTest::mousePress(&widget, Qt::LeftButton);
    EXPECT_EQ(sum, 2);
    EXPECT_TRUE(seenInside.isEmpty());
    EXPECT_EQ(model.texts, QStringList { QStringLiteral("deferred") });
}

TEST(ThreadProxy, DelayedCallsRunOnTheCallingThreadsEventLoopAndNeverWithoutOne)
{
    Model model, stranded, looped;
    QZ::delayedProxy(&model, 0.05).call(&Model::append, QStringLiteral("later"));
    EXPECT_TRUE(model.texts.isEmpty());
    EXPECT_TRUE(processEventsUntil([&] { return !model.texts.isEmpty(); }));

    // A plain thread has no event loop: the call never runs, on any thread.
    std::thread([&] {
        QZ::delayedProxy(&stranded, 0).call(&Model::append, QStringLiteral("never"));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }).join();
    // A thread running its own event loop runs the call there.
    std::unique_ptr<QThread> looping(QThread::create([&] {
        QEventLoop loop;
        QZ::delayedProxy(&looped, 0.01).call(&Model::add, 1);
        QZ::delayedProxy(&loop, 0.02).call(&QEventLoop::quit);
        loop.exec();
    }));
    looping->start();
    EXPECT_TRUE(looping->wait(5000));
    EXPECT_TRUE(looped.total == 1 && looped.thread != std::this_thread::get_id());
    EXPECT_FALSE(processEventsUntil([&] { return !stranded.texts.isEmpty(); }, 300));
}

} // namespace
