// Under a real QZApplication, with real input through QTest: the safe main-thread perform (calls
// posted from other threads wait for the outermost input event, while menus and dialogs opened in
// a mouse handler run nested event loops; they run in order, survive a throwing handler, and
// never wait for timers or queued calls), and the thread proxies (waiting main-thread calls,
// one-way calls, calls on new threads, the safe proxy, delayed calls).
#include "support/TestSupport.h"

#include <QZApp/QZApplication.h>
#include <QZApp/QZThreadProxy.h>

#include <QDialog>
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

// A shown top-level widget that runs `onPress` from its mouse-press handler.
class PressWidget : public QWidget
{
public:
    PressWidget()
    {
        resize(120, 80);
        show();
        exposed = QTest::qWaitForWindowExposed(this);
    }
    std::function<void()> onPress;
    bool exposed = false;

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

// From a new thread: three safe calls, then an ordinary main-thread perform of `then`.
std::thread postThreeThen(std::shared_ptr<Recorder> recorder, std::function<void()> then)
{
    return std::thread([recorder = std::move(recorder), then = std::move(then)] {
        for (int n = 1; n <= 3; ++n)
            QZ::safelyPerformSelectorOnMainThread(recorder, &Recorder::record, n);
        QZ::performOnMainThread(then);
    });
}

TEST(SafePerform, RunsOnTheNextPassWhenIdleAndHoldsItsTarget)
{
    Log log;
    auto recorder = std::make_shared<Recorder>(log);
    std::weak_ptr<Recorder> watch = recorder;
    std::thread([recorder = std::move(recorder)]() mutable {
        QZ::safelyPerformSelectorOnMainThread(recorder, &Recorder::record, 7);
        recorder.reset();   // the owner lets go before the call has run
    }).join();
    EXPECT_FALSE(watch.expired());
    EXPECT_TRUE(log.empty());
    ASSERT_TRUE(processEventsUntil([&] { return !log.empty(); }));
    EXPECT_EQ(log, Log { "7" });
    EXPECT_TRUE(watch.expired());   // released once the call was done
}

TEST(SafePerform, CallsReachingANestedMenuLoopRunAfterTheOutermostEventInOrder)
{
    PressWidget widget;
    ASSERT_TRUE(widget.exposed);
    Log log;
    auto recorder = std::make_shared<Recorder>(log);
    QMenu menu;
    menu.addAction(QStringLiteral("Eject"));
    std::thread poster;
    widget.onPress = [&] {
        QTimer::singleShot(0, &menu, [&] {   // runs inside the menu's own event loop
            log.push_back("menu open");
            poster = postThreeThen(recorder, [&] {
                // An ordinary perform runs inside the nested loop; the safe calls, delivered
                // before it, are waiting. A real key press (itself an event, nested) closes
                // the menu without running them.
                log.push_back(app()->processingEvent() ? "inside event" : "idle");
                QTest::keyPress(&menu, Qt::Key_Escape);
                log.push_back("escape pressed");
            });
        });
        menu.exec(widget.mapToGlobal(QPoint(10, 10)));
        log.push_back("menu returned");
    };
    QTest::mousePress(&widget, Qt::LeftButton);
    QTest::mouseRelease(&widget, Qt::LeftButton);
    poster.join();
    EXPECT_EQ(log, (Log { "menu open", "inside event", "escape pressed", "menu returned", "1", "2", "3" }));
    EXPECT_FALSE(app()->processingEvent());
}

TEST(SafePerform, AThrowingHandlerStillRunsTheQueuedCallsBeforeTheExceptionContinues)
{
    PressWidget widget;
    ASSERT_TRUE(widget.exposed);
    Log log;
    auto recorder = std::make_shared<Recorder>(log);
    std::thread poster;
    widget.onPress = [&] {
        QDialog dialog(&widget);
        QTimer::singleShot(0, &dialog, [&] {
            poster = postThreeThen(recorder, [&] {
                log.push_back("closing");
                dialog.reject();
            });
        });
        dialog.exec();
        log.push_back("dialog returned");
        throw std::runtime_error("handler failed");
    };
    Log atCatch;
    try {
#if defined(__SANITIZE_ADDRESS__)
        // Qt's GUI libraries are built without exception support: the throw unwinds their
        // frames without destructors, which leaks their copy of the mouse event.
        __lsan::ScopedDisabler qtFramesLeak;
#endif
        QTest::mousePress(&widget, Qt::LeftButton);
    } catch (const std::runtime_error &error) {
        atCatch = log;
        atCatch.push_back(error.what());
    }
    poster.join();
    EXPECT_EQ(atCatch, (Log { "closing", "dialog returned", "1", "2", "3", "handler failed" }));
    EXPECT_FALSE(app()->processingEvent());
}

TEST(SafePerform, TimersAndQueuedCallsAreNotEvents)
{
    // Inside a timer or a queued call, a nested loop runs a safe call at once: neither counts
    // as an event being dispatched.
    int ran = 0;
    const auto check = [&] {
        EXPECT_FALSE(app()->processingEvent());
        const int before = ran;
        std::thread([&] { QZ::safelyPerformSelectorOnMainThread(std::make_shared<int>(0), [&](int &) { ++ran; }); }).join();
        EXPECT_TRUE(processEventsUntil([&] { return ran > before; }, 1000));
    };
    QTimer::singleShot(0, check);
    EXPECT_TRUE(processEventsUntil([&] { return ran == 1; }));
    QZ::performOnMainThread(check);
    EXPECT_TRUE(processEventsUntil([&] { return ran == 2; }));
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
    PressWidget widget;
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
