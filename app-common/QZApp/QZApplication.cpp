#include "QZApplication.h"

#include "QZAssertionHandler.h"
#include "QZAssertionReports_p.h"
#include "QZMainThread.h"
#include "QZMainThread_p.h"

#include <QThread>

namespace {

// The application object, or nullptr after reporting that the safe perform needs a
// QZApplication (a host handler that returns gets the call dropped).
QZApplication *supportingApplication(const char *method, const void *target, int line)
{
    QZApplication *app = QZApplication::instance();
    QZ_CHECK(app, method, target, QZAssertionReport::Application::kUnit, line,
             QStringLiteral("safelyPerformSelectorOnMainThread not supported"));
    return app;
}

} // namespace

QZApplication::QZApplication(int &argc, char **argv)
    : QApplication(argc, argv)
{
}

QZApplication::~QZApplication() = default;

QZApplication *QZApplication::instance()
{
    return qobject_cast<QZApplication *>(QCoreApplication::instance());
}

void QZApplication::safelyPerformSelectorOnMainThread(std::function<void()> call)
{
    QZ::performOnMainThread([call = std::move(call)]() mutable {
        if (QZApplication *app = QZApplication::instance())
            app->performOnMainThread(std::move(call));
    });
}

void QZApplication::safelyPerformSelector(std::function<void()> call, double seconds)
{
    QZ::performAfterDelay(seconds, [call = std::move(call)]() mutable {
        QZApplication *app = QZApplication::instance();
        if (!app)
            return;
        // The queue belongs to the main thread; a timer on another thread's loop hands over.
        if (QThread::currentThread() == app->thread())
            app->performOnMainThread(std::move(call));
        else
            app->safelyPerformSelectorOnMainThread(std::move(call));
    });
}

void QZApplication::performOnMainThread(std::function<void()> call)
{
    if (m_processingEvent)
        m_performQueue.push_back(std::move(call));
    else
        call();
}

bool QZApplication::notify(QObject *receiver, QEvent *event)
{
    // Only the outermost spontaneous event on the main thread counts: posted events (the
    // ordinary perform, queued calls) and timers pass straight through, or the safe perform
    // would queue itself forever. The perform's own wake-ups are recognised by their receiver,
    // before the event (posted from another thread) is read at all.
    if (QThread::currentThread() != thread() || QZ::detail::isMainThreadPerformer(receiver)
        || !event->spontaneous() || m_processingEvent)
        return QApplication::notify(receiver, event);

    m_processingEvent = true;
    bool handled = false;
    try {
        handled = QApplication::notify(receiver, event);
    } catch (...) {
        // Queued work is not lost: it runs first, then the exception continues.
        m_processingEvent = false;
        drainPerformQueue();
        throw;
    }
    m_processingEvent = false;
    drainPerformQueue();
    return handled;
}

// Runs what was queued during the event, in order. Work that arrives meanwhile runs directly
// (nothing is being dispatched). If a call throws, the calls after it are dropped.
void QZApplication::drainPerformQueue()
{
    std::deque<std::function<void()>> queue;
    queue.swap(m_performQueue);
    while (!queue.empty()) {
        std::function<void()> call = std::move(queue.front());
        queue.pop_front();
        performOnMainThread(std::move(call));
    }
}

namespace QZ::detail {

void safelyPerformOnMainThread(const void *target, std::function<void()> call)
{
    if (QZApplication *app = supportingApplication("QZ::safelyPerformSelectorOnMainThread", target,
                                                   QZAssertionReport::Application::kSafePerformUnsupportedLine))
        app->safelyPerformSelectorOnMainThread(std::move(call));
}

void safelyPerformAfterDelay(const void *target, std::function<void()> call, double seconds)
{
    if (QZApplication *app = supportingApplication("QZ::safelyPerformSelector", target,
                                                   QZAssertionReport::Application::kDelayedPerformUnsupportedLine))
        app->safelyPerformSelector(std::move(call), seconds);
}

} // namespace QZ::detail
