// The safe main-thread perform under a real QZApplication: calls posted from other threads wait
// for the outermost input event (menus and dialogs opened in a mouse handler run nested event
// loops), run in order, survive a throwing handler, and never wait for timers or queued calls.
#include "support/TestSupport.h"
#include "support/WidgetSupport.h"

#include <QZApp/QZApplication.h>
#include <QZApp/QZMainThread.h>

#include <QDialog>
#include <QElapsedTimer>
#include <QMenu>
#include <QTimer>

#include <memory>
#include <thread>

using qztest::PressWidget;
using qztest::processEventsUntil;

namespace {

using Log = QStringList;   // touched on the main thread only

// The target of the safe calls: appends its argument to the log.
struct Recorder {
    explicit Recorder(Log &log) : log(log) {}
    void record(int n)
    {
        log.append(QString::number(n));
        onMainThread = onMainThread && QZ::isMainThread();
    }
    Log &log;
    bool onMainThread = true;
};

QZApplication *app()
{
    return QZApplication::instance();
}

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
    ASSERT_NE(app(), nullptr);
    Log log;
    auto recorder = std::make_shared<Recorder>(log);
    std::weak_ptr<Recorder> watch = recorder;
    std::thread([recorder = std::move(recorder)]() mutable {
        QZ::safelyPerformSelectorOnMainThread(recorder, &Recorder::record, 7);
        recorder.reset();   // the owner lets go before the call has run
    }).join();
    EXPECT_FALSE(watch.expired());
    EXPECT_TRUE(log.isEmpty());
    ASSERT_TRUE(processEventsUntil([&] { return !log.isEmpty(); }));
    EXPECT_EQ(log, Log { QStringLiteral("7") });
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
            log.append(QStringLiteral("menu open"));
            poster = postThreeThen(recorder, [&] {
                // An ordinary perform runs inside the nested loop; the safe calls, delivered
                // before it, are waiting. A real key press (itself an event, nested) closes
                // the menu without running them.
                log.append(app()->processingEvent() ? QStringLiteral("inside event") : QStringLiteral("idle"));
                QTest::keyPress(&menu, Qt::Key_Escape);
                log.append(QStringLiteral("escape pressed"));
            });
        });
        menu.exec(widget.mapToGlobal(QPoint(10, 10)));
        log.append(QStringLiteral("menu returned"));
    };
    QTest::mousePress(&widget, Qt::LeftButton);
    QTest::mouseRelease(&widget, Qt::LeftButton);
    poster.join();
    EXPECT_EQ(log, (Log { QStringLiteral("menu open"), QStringLiteral("inside event"), QStringLiteral("escape pressed"),
                          QStringLiteral("menu returned"), QStringLiteral("1"), QStringLiteral("2"), QStringLiteral("3") }));
    EXPECT_TRUE(recorder->onMainThread);
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
                log.append(QStringLiteral("closing"));
                dialog.reject();
            });
        });
        dialog.exec();
        log.append(QStringLiteral("dialog returned"));
        throw std::runtime_error("handler failed");
    };
    Log atCatch;
    try {
        QTest::mousePress(&widget, Qt::LeftButton);
        ADD_FAILURE() << "the handler's exception did not come through";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "handler failed");
        atCatch = log;
    }
    poster.join();
    EXPECT_EQ(atCatch, (Log { QStringLiteral("closing"), QStringLiteral("dialog returned"), QStringLiteral("1"),
                              QStringLiteral("2"), QStringLiteral("3") }));
    EXPECT_FALSE(app()->processingEvent());

    // The application goes on as before.
    QZ::safelyPerformSelectorOnMainThread(recorder, &Recorder::record, 4);
    EXPECT_TRUE(processEventsUntil([&] { return log.size() == 6; }));
}

TEST(SafePerform, ACallThatThrowsWhileDrainingDropsTheCallsAfterIt)
{
    PressWidget widget;
    ASSERT_TRUE(widget.exposed);
    Log log;
    auto recorder = std::make_shared<Recorder>(log);
    widget.onPress = [&] {
        bool delivered = false;
        std::thread([&] {
            QZ::safelyPerformSelectorOnMainThread(recorder, &Recorder::record, 1);
            QZ::safelyPerformSelectorOnMainThread(recorder, [](Recorder &, int) { throw std::runtime_error("call failed"); }, 2);
            QZ::safelyPerformSelectorOnMainThread(recorder, &Recorder::record, 3);
            QZ::performOnMainThread([&] { delivered = true; });
        }).join();
        // A nested loop (still inside the event) delivers the calls into the queue.
        ASSERT_TRUE(processEventsUntil([&] { return delivered; }));
        EXPECT_TRUE(log.isEmpty());
    };
    EXPECT_THROW(QTest::mousePress(&widget, Qt::LeftButton), std::runtime_error);
    EXPECT_EQ(log, Log { QStringLiteral("1") });
    EXPECT_FALSE(processEventsUntil([&] { return log.size() > 1; }, 200));
    EXPECT_EQ(recorder.use_count(), 1);   // the dropped call let go of its target
}

TEST(SafePerform, TimersAndQueuedCallsAreNotEvents)
{
    // Inside a timer or a queued call, a nested loop runs a safe call at once: neither counts
    // as an event being dispatched.
    auto runsInsideANestedLoop = [] {
        bool ran = false;
        std::thread([&] {
            QZ::safelyPerformSelectorOnMainThread(std::make_shared<int>(0), [&](int &) { ran = true; });
        }).join();
        return processEventsUntil([&] { return ran; }, 1000);
    };
    bool timerChecked = false, queuedCallChecked = false;
    QTimer::singleShot(0, [&] {
        EXPECT_FALSE(app()->processingEvent());
        EXPECT_TRUE(runsInsideANestedLoop()) << "inside a timer";
        timerChecked = true;
    });
    EXPECT_TRUE(processEventsUntil([&] { return timerChecked; }));
    QZ::performOnMainThread([&] {
        EXPECT_FALSE(app()->processingEvent());
        EXPECT_TRUE(runsInsideANestedLoop()) << "inside a queued call";
        queuedCallChecked = true;
    });
    EXPECT_TRUE(processEventsUntil([&] { return queuedCallChecked; }));

    // Inside an input event the same nested loop does not run it.
    PressWidget widget;
    ASSERT_TRUE(widget.exposed);
    bool ranInside = true;
    widget.onPress = [&] {
        EXPECT_TRUE(app()->processingEvent());
        ranInside = runsInsideANestedLoop();
    };
    QTest::mousePress(&widget, Qt::LeftButton);
    EXPECT_FALSE(ranInside);
}

TEST(SafePerform, DelayedCallsWaitForTheirTimeAndForTheEvent)
{
    Log log;
    auto recorder = std::make_shared<Recorder>(log);
    QElapsedTimer timer;
    timer.start();
    QZ::safelyPerformSelector(recorder, &Recorder::record, 1, 0.1);
    ASSERT_TRUE(processEventsUntil([&] { return !log.isEmpty(); }));
    EXPECT_GE(timer.elapsed(), 95);

    PressWidget widget;
    ASSERT_TRUE(widget.exposed);
    widget.onPress = [&] {
        QDialog dialog(&widget);
        QZ::safelyPerformSelector(recorder, &Recorder::record, 2, 0.01);
        QTimer::singleShot(300, &dialog, [&] {
            log.append(QStringLiteral("closing"));
            dialog.reject();
        });
        dialog.exec();
        log.append(QStringLiteral("dialog returned"));
    };
    QTest::mousePress(&widget, Qt::LeftButton);
    EXPECT_EQ(log, (Log { QStringLiteral("1"), QStringLiteral("closing"), QStringLiteral("dialog returned"),
                          QStringLiteral("2") }));
}

} // namespace
