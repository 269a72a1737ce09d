#include "QZMainThread.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QThread>
#include <QTimer>

#include <cmath>
#include <deque>
#include <future>
#include <mutex>

namespace {

// Lives on the main thread as a child of the application object. Posting threads append to
// `pending` under `queueMutex` and ask for one runNext() per item; the main thread takes the
// item under the same mutex, so the hand-over never depends on Qt's own locking.
class MainThreadPerformer : public QObject
{
    Q_OBJECT
public:
    explicit MainThreadPerformer(QCoreApplication *app);
    ~MainThreadPerformer() override;

    Q_INVOKABLE void runNext();
};

std::mutex queueMutex;
MainThreadPerformer *performer = nullptr;             // guarded by queueMutex
std::deque<std::function<void()>> pending;            // guarded by queueMutex

MainThreadPerformer::MainThreadPerformer(QCoreApplication *app)
    : QObject(app)
{
    std::lock_guard guard(queueMutex);
    performer = this;
}

MainThreadPerformer::~MainThreadPerformer()
{
    std::deque<std::function<void()>> dropped;
    {
        std::lock_guard guard(queueMutex);
        performer = nullptr;
        dropped.swap(pending);
    }
    // `dropped` is destroyed here, outside the lock: work that never ran releases what it held.
}

void MainThreadPerformer::runNext()
{
    std::function<void()> work;
    {
        std::lock_guard guard(queueMutex);
        if (pending.empty())
            return;
        work = std::move(pending.front());
        pending.pop_front();
    }
    work();
}

void createPerformer()
{
    new MainThreadPerformer(QCoreApplication::instance());
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(createPerformer)

namespace QZ {

bool isMainThread()
{
    const QCoreApplication *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

bool performOnMainThread(std::function<void()> work)
{
    std::lock_guard guard(queueMutex);
    if (!performer)
        return false;
    pending.push_back(std::move(work));
    // Invoked by name so that the queued call is made entirely inside Qt.
    QMetaObject::invokeMethod(performer, "runNext", Qt::QueuedConnection);
    return true;
}

bool performOnMainThreadAndWait(std::function<void()> work)
{
    if (isMainThread()) {
        work();
        return true;
    }
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    const bool posted = performOnMainThread([done, work = std::move(work)] {
        try {
            work();
            done->set_value();
        } catch (...) {
            done->set_exception(std::current_exception());
        }
    });
    if (!posted)
        return false;
    try {
        finished.get();
    } catch (const std::future_error &) {
        return false;   // dropped unrun: the application went away
    }
    return true;
}

void performAfterDelay(double seconds, std::function<void()> work)
{
    QAbstractEventDispatcher *dispatcher = QAbstractEventDispatcher::instance();
    if (!dispatcher)
        return;
    const double milliseconds = std::isfinite(seconds) ? std::clamp(seconds * 1000.0, 0.0, 2147483647.0)
                                                       : 2147483647.0;
    QTimer::singleShot(std::chrono::milliseconds(std::llround(milliseconds)), Qt::PreciseTimer,
                       dispatcher, std::move(work));
}

} // namespace QZ

#include "QZMainThread.moc"
