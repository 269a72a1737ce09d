// The safe main-thread perform and the thread proxies, under a QZApplication with real QTest input.
#include "support/TestSupport.h"

#include <QZApp/QZApplication.h>
#include <QZApp/QZThreadProxy.h>

#include <QEventLoop>
#include <QMenu>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <condition_variable>
#include <thread>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

using qztest::processEventsUntil;

namespace {

// A top-level widget that runs `onPress` from its mouse-press handler.
class PressWidget : public QWidget
{
public:
    std::function<void()> onPress;

protected:
    void mousePressEvent(QMouseEvent *) override { onPress(); }
};

using Log = std::vector<std::string>;   // touched on the main thread only

// The target of the safe calls: appends its argument to the log.
struct Recorder {
    explicit Recorder(Log &log) : log(log) {}
    void record(int n) { log.push_back(std::to_string(n)); }
    Log &log;
};

QZApplication *app() { return QZApplication::instance(); }

TEST(SafePerform, OutsideInputEventsRunsOnTheNextPassAndHoldsItsTarget)
{
    // Idle, inside a timer and inside a queued call: none counts as an event being dispatched.
    Log log;
    const auto check = [&] {
        EXPECT_FALSE(app()->processingEvent());
        auto recorder = std::make_shared<Recorder>(log);
        std::weak_ptr<Recorder> watch = recorder;
        std::thread([recorder = std::move(recorder)]() mutable {
            QZ::safelyPerformSelectorOnMainThread(recorder, &Recorder::record, 7);
            recorder.reset();   // the owner lets go before the call has run
        }).join();
        const size_t before = log.size();
        EXPECT_FALSE(watch.expired());
        EXPECT_TRUE(processEventsUntil([&] { return log.size() > before; }, 1000));
        EXPECT_TRUE(watch.expired());   // released once the call was done
    };
    check();
    QTimer::singleShot(0, check);
    EXPECT_TRUE(processEventsUntil([&] { return log.size() == 2; }));
    QZ::performOnMainThread(check);
    EXPECT_TRUE(processEventsUntil([&] { return log.size() == 3; }));
    EXPECT_EQ(log, (Log { "7", "7", "7" }));
}

TEST(SafePerform, CallsReachingANestedMenuLoopRunInOrderAfterTheOutermostEventEvenIfItThrows)
{
    PressWidget widget;
    widget.resize(120, 80);
    widget.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&widget));
    Log log;
    auto recorder = std::make_shared<Recorder>(log);
    QMenu menu;
    menu.addAction(QStringLiteral("Eject"));
    std::thread poster;
    widget.onPress = [&] {
        QZ::safeMainThreadProxy(recorder.get()).call(&Recorder::record, 0);   // a void call: queued
        QTimer::singleShot(0, &menu, [&] {   // runs inside the menu's own event loop
            poster = std::thread([&] {
                for (int n = 1; n <= 3; ++n)
                    QZ::safelyPerformSelectorOnMainThread(recorder, &Recorder::record, n);
                // Runs in the nested loop after the safe calls; a nested key press closes the menu.
                QZ::performOnMainThread([&] {
                    log.push_back(app()->processingEvent() ? "inside event" : "idle");
                    QTest::keyPress(&menu, Qt::Key_Escape);
                    log.push_back("escape pressed");
                });
            });
        });
        menu.exec(widget.mapToGlobal(QPoint(10, 10)));
        log.push_back("menu returned");
        throw std::runtime_error("handler failed");
    };
    try {
#if defined(__SANITIZE_ADDRESS__)
        // Qt's GUI libraries, built without exceptions, leak the mouse event the throw unwinds.
        __lsan::ScopedDisabler qtFramesLeak;
#endif
        QTest::mousePress(&widget, Qt::LeftButton);
    } catch (const std::runtime_error &error) {
        log.push_back(error.what());
    }
    poster.join();
    EXPECT_EQ(log, (Log { "inside event", "escape pressed", "menu returned", "0", "1", "2", "3", "handler failed" }));
    EXPECT_FALSE(app()->processingEvent());
}

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

TEST(ThreadProxy, MainThreadCallsWaitForResultsAndExceptionsUnlessOneWay)
{
    Model model;
    std::thread([&] {
        QString text = QStringLiteral("one way");
        QZ::mainThreadProxy(&model).callOneWay(&Model::append, text);
        text = QStringLiteral("changed after the call");
    }).join();   // the main thread ran no events meanwhile, yet the caller returned
    EXPECT_TRUE(model.texts.isEmpty());
    std::atomic<bool> done { false };
    std::thread caller([&] {
        auto proxy = QZ::mainThreadProxy(&model);
        EXPECT_EQ(proxy.call(&Model::add, 5), 5);
        std::vector<int> filled;
        proxy.call(&Model::fill, filled);   // by reference: the caller waits, nothing is copied
        EXPECT_EQ(filled, std::vector<int> { 5 });
        EXPECT_THROW(proxy.call(&Model::fail), std::runtime_error);
        EXPECT_EQ(QZ::safeMainThreadProxy(&model).call(&Model::add, 2), 7);   // a result: waits too
        done = true;
    });
    ASSERT_TRUE(processEventsUntil([&] { return done.load(); }));
    caller.join();
    EXPECT_EQ(model.texts, QStringList { QStringLiteral("one way") });
    EXPECT_EQ(model.thread, std::this_thread::get_id());
    EXPECT_EQ(QZ::mainThreadProxy(&model).call(&Model::add, 1), 8);   // on the main thread: at once
    EXPECT_EQ(QZ::mainThreadProxy(static_cast<Model *>(nullptr)).call(&Model::add, 1), 0);
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
    EXPECT_NE(meeting.threads[0], meeting.threads[1]);   // so neither ran on this thread either
}

TEST(ThreadProxy, DelayedCallsRunOnTheCallingThreadsEventLoopAndNeverWithoutOne)
{
    Model stranded, looped;
    const auto safe = std::make_shared<Model>();
    // A plain thread has no event loop: the call never runs, on any thread.
    std::thread([&] { QZ::delayedProxy(&stranded, 0).call(&Model::append, QStringLiteral("never")); }).join();
    // A thread running its own event loop runs the call there, later; the delayed safe perform
    // waits there too, but then runs on the main thread, whose queue it belongs to.
    std::unique_ptr<QThread> looping(QThread::create([&] {
        QEventLoop loop;
        QZ::delayedProxy(&looped, 0.01).call(&Model::add, 1);
        QZ::safelyPerformSelector(safe, &Model::add, 2, 0.01);
        EXPECT_EQ(looped.total, 0);
        QZ::delayedProxy(&loop, 0.02).call(&QEventLoop::quit);
        loop.exec();
    }));
    looping->start();
    EXPECT_TRUE(looping->wait(5000));
    EXPECT_TRUE(looped.total == 1 && looped.thread != std::this_thread::get_id());
    EXPECT_TRUE(processEventsUntil([&] { return safe->total == 2; }));
    EXPECT_EQ(safe->thread, std::this_thread::get_id());
    EXPECT_FALSE(processEventsUntil([&] { return !stranded.texts.isEmpty(); }, 300));
}

} // namespace
