// The application class and the safe main-thread perform.
//
// Work sent to the main thread by the ordinary perform (QZ::performOnMainThread) can run while
// the application is still handling an event, from a nested event loop such as a menu or a
// modal dialog opened in a mouse handler. The safe perform defers such work: a call that
// reaches the main thread while an event is being dispatched is queued and runs right after the
// outermost dispatch returns, in the order the calls arrived, also when the dispatch ends with
// an exception (the queue runs first, then the exception continues). This needs the
// application object to be a QZApplication.
//
//     QZApplication app(argc, argv);
//     ...
//     // on any thread: runs on the main thread, never inside the handling of an event
//     QZ::safelyPerformSelectorOnMainThread(document, &Document::reload, path);
#pragma once

#include <QZApp/QZGlobal.h>

#include <QApplication>

#include <deque>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

class QZAPP_EXPORT QZApplication : public QApplication
{
    Q_OBJECT
public:
    QZApplication(int &argc, char **argv);
    ~QZApplication() override;

    // The application object if it is a QZApplication, else nullptr.
    static QZApplication *instance();

    // True while the outermost dispatch of a spontaneous event (input and window-system
    // events) runs. Posted events, queued calls and timers never count. Main thread only.
    bool processingEvent() const { return m_processingEvent; }

    // Hands `call` to the main thread and returns at once, on every thread. There it runs on
    // the next pass of the event loop, or after the outermost event if one is being dispatched.
    void safelyPerformSelectorOnMainThread(std::function<void()> call);
    // The same after `seconds` on the calling thread's event loop (meant for the main thread;
    // another thread's loop passes the call on to the main thread). A thread without an event
    // loop never runs it.
    void safelyPerformSelector(std::function<void()> call, double seconds);

    bool notify(QObject *receiver, QEvent *event) override;

protected:
    // On the main thread: runs `call` now, or queues it while an event is being dispatched.
    void performOnMainThread(std::function<void()> call);

private:
    void drainPerformQueue();

    bool m_processingEvent = false;                      // main thread only
    std::deque<std::function<void()>> m_performQueue;    // main thread only
};

namespace QZ {

namespace detail {
// The checked entry points behind the templates below. They report "safelyPerformSelectorOn
// MainThread not supported" through the assertion handler, and drop the call if the handler
// returns, when the application object is not a QZApplication.
QZAPP_EXPORT void safelyPerformOnMainThread(const void *target, std::function<void()> call);
QZAPP_EXPORT void safelyPerformAfterDelay(const void *target, std::function<void()> call, double seconds);

// A call of `method` on `*object` (a plain or a shared pointer) that holds its own copies of
// the arguments.
template<typename Pointer, typename Method, typename... Arguments>
auto boundCall(Pointer object, Method method, Arguments &&...arguments)
{
    static_assert(std::is_invocable_v<Method &, decltype(*object), std::decay_t<Arguments> &...>,
                  "the method cannot be called with copies of these arguments");
    return [object = std::move(object), method,
            ... copies = std::decay_t<Arguments>(std::forward<Arguments>(arguments))]() mutable {
        std::invoke(method, *object, copies...);
    };
}
} // namespace detail

// Calls `method` (a member function, or any callable taking the target first) on `target` with
// a copy of `argument`, on the main thread, through the safe queue; returns at once. The call
// shares ownership of the target and owns the argument until it has run. A null target does
// nothing.
template<typename T, typename Method, typename Argument>
void safelyPerformSelectorOnMainThread(std::shared_ptr<T> target, Method method, Argument argument)
{
    if (const void *object = target.get())
        detail::safelyPerformOnMainThread(object, detail::boundCall(std::move(target), method, std::move(argument)));
}

// The same for a method without arguments.
template<typename T, typename Method>
void safelyPerformSelectorOnMainThread(std::shared_ptr<T> target, Method method)
{
    if (const void *object = target.get())
        detail::safelyPerformOnMainThread(object, detail::boundCall(std::move(target), method));
}

// The safe perform after `seconds` on the calling thread's event loop (the main thread's, as a
// rule); target and argument are held as above. A thread without an event loop never runs it.
template<typename T, typename Method, typename Argument>
void safelyPerformSelector(std::shared_ptr<T> target, Method method, Argument argument, double seconds)
{
    if (const void *object = target.get())
        detail::safelyPerformAfterDelay(object, detail::boundCall(std::move(target), method, std::move(argument)), seconds);
}

// The same for a method without arguments.
template<typename T, typename Method>
void safelyPerformSelector(std::shared_ptr<T> target, Method method, double seconds)
{
    if (const void *object = target.get())
        detail::safelyPerformAfterDelay(object, detail::boundCall(std::move(target), method), seconds);
}

} // namespace QZ
