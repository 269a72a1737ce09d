#include "QZMainThread.h"

#include "QZMainThread_p.h"
#include "QZWakeWord_p.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <QTimer>

#include <cmath>
#include <deque>
#include <exception>
#include <mutex>

namespace {

// A waiting caller's request. It lives on the caller's stack: the caller cannot return before
// `state` is set, whether the work ran or was dropped.
struct WaitingCall
{
    const std::function<void()> *work = nullptr;
    std::exception_ptr failure;                 // written before `state` is set
    bool ran = false;                           // likewise
    std::atomic<int> state { QZ::detail::WakeWordUnset };
};

// One queued item: work to run and forget, or a waiting caller's request.
struct Item
{
    std::function<void()> work;
    WaitingCall *call = nullptr;
};

// Lives on the main thread as a child of the application object. Posting threads append to
// `pending` under `queueMutex` and post one wake-up event per item; each event runs the item at
// the head, so work keeps running inside nested event loops, one item per event as Qt orders
// them. The hand-over never depends on Qt's own locking.
class MainThreadPerformer : public QObject
{
public:
    explicit MainThreadPerformer(QCoreApplication *app);
    ~MainThreadPerformer() override;

    static QEvent::Type wakeEventType();
    // Runs the item at the head of the queue for each wake-up event.
    bool event(QEvent *event) override;
};

std::mutex queueMutex;
MainThreadPerformer *performer = nullptr;             // guarded by queueMutex
std::deque<Item> pending;                              // guarded by queueMutex

void runWaitingCall(WaitingCall &call)
{
    try {
        (*call.work)();
        call.ran = true;
    } catch (...) {
        call.failure = std::current_exception();
        call.ran = true;
    }
    QZ::detail::setWakeWord(call.state);
}

MainThreadPerformer::MainThreadPerformer(QCoreApplication *app)
    : QObject(app)
{
    std::lock_guard guard(queueMutex);
    performer = this;
}

MainThreadPerformer::~MainThreadPerformer()
{
    std::deque<Item> dropped;
    {
        std::lock_guard guard(queueMutex);
        performer = nullptr;
        dropped.swap(pending);
    }
    // Outside the lock: waiting callers learn that nothing ran, and work that never ran
    // releases what it held.
    for (Item &item : dropped) {
        if (item.call)
            QZ::detail::setWakeWord(item.call->state);
    }
}

QEvent::Type MainThreadPerformer::wakeEventType()
{
    static const auto type = static_cast<QEvent::Type>(QEvent::registerEventType());
    return type;
}

bool MainThreadPerformer::event(QEvent *event)
{
    // The lock comes before the first look at the event: a wake-up was allocated by the posting
    // thread under this lock, and Qt's queue in between is invisible to ThreadSanitizer.
    std::unique_lock lock(queueMutex);
    if (event->type() != wakeEventType()) {
        lock.unlock();
        return QObject::event(event);
    }
    if (pending.empty())
        return true;
    Item item = std::move(pending.front());
    pending.pop_front();
    lock.unlock();
    if (item.call)
        runWaitingCall(*item.call);
    else
        item.work();
    return true;
}

// Appends `item` and posts its wake-up event; false when there is no application object.
// Posting under the lock keeps the performer alive meanwhile (it is destroyed with the
// application object, after which nothing is posted any more) and orders the main thread's
// deletion of the event after its allocation here.
bool enqueue(Item item)
{
    std::lock_guard guard(queueMutex);
    if (!performer)
        return false;
    pending.push_back(std::move(item));
    QCoreApplication::postEvent(performer, new QEvent(MainThreadPerformer::wakeEventType()));
    return true;
}

void createPerformer()
{
    new MainThreadPerformer(QCoreApplication::instance());
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(createPerformer)

namespace QZ {

namespace detail {

bool isMainThreadPerformer(const QObject *object)
{
    // Written only on the main thread, so the main thread reads it without the lock.
    return object && object == performer;
}

} // namespace detail

bool isMainThread()
{
    const QCoreApplication *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

bool performOnMainThread(std::function<void()> work)
{
    return enqueue(Item { std::move(work), nullptr });
}

bool performOnMainThreadAndWait(std::function<void()> work)
{
    if (isMainThread()) {
        work();
        return true;
    }
    WaitingCall call;
    call.work = &work;
    if (!enqueue(Item { {}, &call }))
        return false;
    detail::waitForWakeWord(call.state);
    if (call.failure)
        std::rethrow_exception(call.failure);
    return call.ran;   // false: dropped unrun, the application went away
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
