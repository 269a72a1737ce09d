// The safe main-thread perform under a real QZApplication: calls posted from other threads wait
// for the outermost input event (menus and dialogs opened in a mouse handler run nested event
// loops), run in order, survive a throwing handler, and never wait for timers or queued calls.
#include "support/TestSupport.h"
#include "support/WidgetSupport.h"

#include <QZApp/QZApplication.h>
#include <QZApp/QZMainThread.h>

#include <QDialog>
#include <QMenu>
#include <QTimer>

#include <thread>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

using qztest::processEventsUntil;

namespace {

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
    qztest::PressWidget widget;
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
    qztest::PressWidget widget;
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

} // namespace
