// Shared conventions: per-thread assertion handlers, the console log, localised texts, and the
// main-thread perform facility on a real event loop.
#include "support/TestSupport.h"

#include <QZApp/QZConsoleLog.h>
#include <QZApp/QZLocalizedString.h>
#include <QZApp/QZMainThread.h>

#include <QEventLoop>
#include <QThread>
#include <QTranslator>

#include <atomic>
#include <thread>

using qztest::processEventsUntil;

namespace {

struct Recorder : QZAssertionHandler {
    QString last;
    void handleFailureInFunction(const char *, const char *, int, const QString &text) override { last = text; }
};

TEST(AssertionHandler, IsReplaceablePerThread)
{
    Recorder recorder;
    QZAssertionHandler::setCurrentHandler(&recorder);
    QZAssertionHandler::currentHandler()->handleFailureInFunction("f", "unit", 1, QStringLiteral("mine"));
    EXPECT_EQ(recorder.last, QLatin1String("mine"));

    bool otherThreadThrew = false;
    std::thread other([&] {
        try {
            QZAssertionHandler::currentHandler()->handleFailureInFunction("f", "unit", 2, QStringLiteral("theirs"));
        } catch (const QZAssertionFailure &failure) {
            otherThreadThrew = failure.what() == std::string("f (unit:2): theirs");
        }
    });
    other.join();
    EXPECT_TRUE(otherThreadThrew);
    QZAssertionHandler::setCurrentHandler(nullptr);
    EXPECT_THROW(QZAssertionHandler::currentHandler()->handleFailureInFunction("f", "unit", 3, QStringLiteral("x")),
                 QZAssertionFailure);
}

TEST(ConsoleLog, EmitsOneLineOnTheQzappCategory)
{
    qztest::ConsoleCapture capture;
    QZLog(QStringLiteral("Unable to locate helper"));
    EXPECT_EQ(capture.lines(), QStringList { QStringLiteral("Unable to locate helper") });
    EXPECT_STREQ(qzappLogCategory().categoryName(), "qzapp");
}

class FrenchTranslator : public QTranslator
{
public:
    QString translate(const char *context, const char *source, const char *, int) const override
    {
        if (qstrcmp(context, "QZApp") == 0 && qstrcmp(source, "Sending\\U2026") == 0)
            return QStringLiteral("Envoi\u2026");
        return QString();
    }
    bool isEmpty() const override { return false; }
};

TEST(LocalizedString, UsesTheHostsTranslationElseTheEnglishText)
{
    EXPECT_EQ(QZLocalizedString("Sending\\U2026"), QStringLiteral("Sending\u2026"));
    EXPECT_EQ(QZLocalizedString("%@ KB"), QStringLiteral("%@ KB"));
    EXPECT_EQ(QZLocalizedString("U2026"), QStringLiteral("U2026"));
    FrenchTranslator french;
    QCoreApplication::installTranslator(&french);
    EXPECT_EQ(QZLocalizedString("Sending\\U2026"), QStringLiteral("Envoi\u2026"));
    QCoreApplication::removeTranslator(&french);
}

TEST(MainThread, PostedWorkRunsOnTheMainThreadInOrder)
{
    std::vector<int> ran;   // touched only on the main thread
    std::atomic<bool> allOnMain { true };
    std::thread poster([&] {
        EXPECT_FALSE(QZ::isMainThread());
        for (int i = 0; i < 200; ++i)
            QZ::performOnMainThread([&, i] {
                allOnMain = allOnMain && QZ::isMainThread();
                ran.push_back(i);
            });
    });
    poster.join();
    EXPECT_TRUE(ran.empty());   // nothing runs until the event loop does
    ASSERT_TRUE(processEventsUntil([&] { return ran.size() == 200; }));
    EXPECT_TRUE(allOnMain);
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(ran[size_t(i)], i);
}

TEST(MainThread, WaitingPerformRunsBeforeReturningAndCarriesExceptions)
{
    EXPECT_TRUE(QZ::isMainThread());
    int direct = 0;
    EXPECT_TRUE(QZ::performOnMainThreadAndWait([&] { ++direct; }));   // on the main thread: at once
    EXPECT_EQ(direct, 1);

    std::atomic<bool> finished { false };
    int value = 0;
    bool sawValue = false, sawException = false;
    std::thread caller([&] {
        QZ::performOnMainThreadAndWait([&] { value = 42; });
        sawValue = value == 42;
        try {
            QZ::performOnMainThreadAndWait([] { throw std::runtime_error("from main"); });
        } catch (const std::runtime_error &error) {
            sawException = std::string(error.what()) == "from main";
        }
        finished = true;
    });
    ASSERT_TRUE(processEventsUntil([&] { return finished.load(); }));
    caller.join();
    EXPECT_TRUE(sawValue);
    EXPECT_TRUE(sawException);
}

TEST(MainThread, DelayedWorkNeedsTheCallingThreadsEventLoop)
{
    bool mainRan = false;
    QZ::performAfterDelay(0.05, [&] { mainRan = true; });
    EXPECT_FALSE(mainRan);
    EXPECT_TRUE(processEventsUntil([&] { return mainRan; }));

    // A plain thread has no event loop: the work is never run (and never crashes).
    std::atomic<bool> plainRan { false };
    std::thread plain([&] {
        QZ::performAfterDelay(0, [&] { plainRan = true; });
        QThread::msleep(100);
    });
    plain.join();

    // A thread with a running event loop runs it on that thread.
    bool loopRan = false;
    std::unique_ptr<QThread> looping(QThread::create([&] {
        QEventLoop loop;
        QZ::performAfterDelay(0.01, [&] {
            loopRan = !QZ::isMainThread();
            loop.quit();
        });
        loop.exec();
    }));
    looping->start();
    EXPECT_TRUE(looping->wait(5000));
    EXPECT_TRUE(loopRan);
    EXPECT_FALSE(plainRan);
}

} // namespace
