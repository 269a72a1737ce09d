// Thread proxies: waiting main-thread calls with results and exceptions, one-way calls, calls on
// new threads, the safe proxy inside input events, and delayed calls with and without an event
// loop.
#include "support/TestSupport.h"
#include "support/WidgetSupport.h"

#include <QZApp/QZThreadProxy.h>

#include <QElapsedTimer>
#include <QEventLoop>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

using qztest::PressWidget;
using qztest::processEventsUntil;

namespace {

// A target whose members are touched on whichever thread a call runs on; tests read them after
// a hand-over (a join, a waiting call, or the event loop).
class Model
{
public:
    int add(int n)
    {
        total += n;
        thread = std::this_thread::get_id();
        return total;
    }
    void append(const QString &text) { texts.append(text); }
    void fill(std::vector<int> &out) const { out.push_back(total); }
    const QString &name() const { return m_name; }
    void fail() { throw std::runtime_error("model failed"); }

    int total = 0;
    std::thread::id thread;
    QStringList texts;

private:
    QString m_name = QStringLiteral("model");
};

TEST(ThreadProxy, MainThreadCallsWaitAndBringBackResultsAndExceptions)
{
    Model model;
    std::atomic<bool> done { false };
    int sum = 0;
    QString name;
    std::vector<int> filled;
    bool threw = false;
    std::thread caller([&] {
        auto proxy = QZ::mainThreadProxy(&model);
        sum = proxy.call(&Model::add, 5);
        proxy.call(&Model::fill, filled);   // by reference: the caller waits, nothing is copied
        name = proxy.call(&Model::name);
        try {
            proxy.call(&Model::fail);
        } catch (const std::runtime_error &) {
            threw = true;
        }
        done = true;
    });
    ASSERT_TRUE(processEventsUntil([&] { return done.load(); }));
    caller.join();
    EXPECT_EQ(sum, 5);
    EXPECT_EQ(model.thread, std::this_thread::get_id());
    EXPECT_EQ(filled, std::vector<int> { 5 });
    EXPECT_EQ(name, QLatin1String("model"));
    EXPECT_TRUE(threw);

    // On the main thread the call runs at once.
    EXPECT_EQ(QZ::mainThreadProxy(&model).call(&Model::add, 1), 6);
    // A proxy for nothing calls nothing.
    EXPECT_EQ(QZ::mainThreadProxy(static_cast<Model *>(nullptr)).call(&Model::add, 1), 0);
}

TEST(ThreadProxy, AOneWayCallReturnsBeforeItRunsWithItsOwnCopies)
{
    Model model;
    std::thread caller([&] {
        QString text = QStringLiteral("one way");
        QZ::mainThreadProxy(&model).callOneWay(&Model::append, text);
        text = QStringLiteral("changed after the call");
    });
    caller.join();   // the main thread runs no events meanwhile, yet the caller returned
    EXPECT_TRUE(model.texts.isEmpty());
    ASSERT_TRUE(processEventsUntil([&] { return !model.texts.isEmpty(); }));
    EXPECT_EQ(model.texts, QStringList { QStringLiteral("one way") });
}

TEST(ThreadProxy, CreateThreadProxyRunsEachCallOnANewThread)
{
    struct Worker {
        void run(const QString &text)
        {
            std::lock_guard guard(mutex);
            runs.emplace_back(std::this_thread::get_id(), text);
            changed.notify_all();
        }
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<std::pair<std::thread::id, QString>> runs;
    };
    static Worker worker;   // outlives the detached threads
    {
        QString text = QStringLiteral("first");
        QZ::createThreadProxy(&worker).call(&Worker::run, text);
        text = QStringLiteral("second");
        QZ::createThreadProxy(&worker).call(&Worker::run, text);
    }
    std::unique_lock lock(worker.mutex);
    ASSERT_TRUE(worker.changed.wait_for(lock, std::chrono::seconds(10), [] { return worker.runs.size() == 2; }));
    EXPECT_NE(worker.runs[0].first, worker.runs[1].first);
    for (const auto &run : worker.runs)
        EXPECT_NE(run.first, std::this_thread::get_id());
    QStringList texts { worker.runs[0].second, worker.runs[1].second };
    texts.sort();
    EXPECT_EQ(texts, (QStringList { QStringLiteral("first"), QStringLiteral("second") }));
}

TEST(ThreadProxy, TheSafeProxyDefersVoidCallsPastTheEventAndWaitsForOthers)
{
    Model model;
    PressWidget widget;
    ASSERT_TRUE(widget.exposed);
    QStringList seenInside;
    widget.onPress = [&] {
        auto proxy = QZ::safeMainThreadProxy(&model);
        proxy.call(&Model::append, QStringLiteral("deferred"));
        const int sum = proxy.call(&Model::add, 2);   // a result: runs now, as a main-thread call
        processEventsUntil([] { return false; }, 100);   // a nested loop delivers, nothing runs
        seenInside = model.texts;
        seenInside.append(QString::number(sum));
    };
    QTest::mousePress(&widget, Qt::LeftButton);
    EXPECT_EQ(seenInside, QStringList { QStringLiteral("2") });
    EXPECT_EQ(model.texts, QStringList { QStringLiteral("deferred") });

    // From another thread while the main thread is idle: the void call runs on the next pass,
    // the other one waits for its result.
    std::atomic<bool> done { false };
    int sum = 0;
    std::thread caller([&] {
        QZ::safeMainThreadProxy(&model).call(&Model::append, QStringLiteral("idle"));
        sum = QZ::safeMainThreadProxy(&model).call(&Model::add, 3);
        done = true;
    });
    ASSERT_TRUE(processEventsUntil([&] { return done.load(); }));
    caller.join();
    EXPECT_EQ(sum, 5);
    EXPECT_EQ(model.texts, (QStringList { QStringLiteral("deferred"), QStringLiteral("idle") }));
}

TEST(ThreadProxy, DelayedCallsNeedTheCallingThreadsEventLoop)
{
    Model model;
    QElapsedTimer timer;
    timer.start();
    QZ::delayedProxy(&model, 0.1).call(&Model::append, QStringLiteral("later"));
    EXPECT_TRUE(model.texts.isEmpty());
    ASSERT_TRUE(processEventsUntil([&] { return !model.texts.isEmpty(); }));
    EXPECT_GE(timer.elapsed(), 95);

    // A plain thread has no event loop: the call never runs, on any thread.
    Model stranded;
    std::thread plain([&] {
        QZ::delayedProxy(&stranded, 0).call(&Model::append, QStringLiteral("never"));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    });
    plain.join();
    EXPECT_FALSE(processEventsUntil([&] { return !stranded.texts.isEmpty(); }, 300));

    // A thread running an event loop runs it there.
    Model looped;
    std::unique_ptr<QThread> looping(QThread::create([&] {
        QEventLoop loop;
        QZ::delayedProxy(&looped, 0.01).call(&Model::add, 4);
        QZ::delayedProxy(&loop, 0.02).call(&QEventLoop::quit);
        loop.exec();
    }));
    looping->start();
    ASSERT_TRUE(looping->wait(10000));
    EXPECT_EQ(looped.total, 4);
    EXPECT_NE(looped.thread, std::this_thread::get_id());
}

} // namespace
