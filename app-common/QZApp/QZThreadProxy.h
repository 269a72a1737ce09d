// Thread proxies: a stand-in for an object that turns each call of one of its member functions
// into a call on the main thread, on a new thread, through the safe main-thread queue, or after
// a delay.
//
//     QZ::mainThreadProxy(window).call(&Window::setTitle, title);          // waits
//     int n = QZ::mainThreadProxy(model).call(&Model::rowCount);           // waits, returns 3
//     QZ::mainThreadProxy(log).callOneWay(&Log::append, line);             // does not wait
//     QZ::createThreadProxy(sender).call(&Sender::send, report);           // a new thread
//     QZ::safeMainThreadProxy(view).call(&View::refresh);                  // after the current event
//     QZ::delayedProxy(this, 0.5).call(&Poller::poll);                     // this thread, later
//
// Kinds, and what a call does:
//   MainThread      on the main thread; the caller waits and gets the result (a call made on
//                   the main thread runs at once). callOneWay() copies the arguments and
//                   returns at once.
//   NewThread       copies the arguments and runs on a new detached thread.
//   SafeMainThread  a method returning void: copies the arguments and queues the call through
//                   QZApplication's safe perform (never waits). Any other return type: exactly
//                   as MainThread. Which one is decided at compile time.
//   Delayed         copies the arguments and runs on the calling thread's event loop after the
//                   delay; a thread without an event loop never runs it.
// Only calls that wait return the method's result (as a value); the others return void.
//
// The proxy does not own the target: keep it alive until every call made through the proxy has
// run. Calls through a proxy for nullptr do nothing. A method that throws, called while the
// caller waits, throws to the caller.
#pragma once

#include <QZApp/QZApplication.h>
#include <QZApp/QZMainThread.h>

#include <functional>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

enum class QZThreadProxyKind : int {
    MainThread = 0,
    NewThread = 1,
    SafeMainThread = 2,
    Delayed = 3,
};

namespace QZ::detail {

// Calls `method` on the main thread with the caller's own arguments and waits for it. A result
// that cannot be delivered (no target, no application object) is value-initialised.
template<typename T, typename Method, typename... Arguments>
auto callAndWait(T *object, Method &method, Arguments &&...arguments)
{
    using Result = std::remove_cvref_t<std::invoke_result_t<Method &, T &, Arguments &&...>>;
    if constexpr (std::is_void_v<Result>) {
        if (!object)
            return;
        auto run = [&] { std::invoke(method, *object, std::forward<Arguments>(arguments)...); };
        QZ::performOnMainThreadAndWait(std::ref(run));
    } else {
        static_assert(std::is_default_constructible_v<Result>,
                      "a waiting call needs a result type with a default value");
        std::optional<Result> result;
        if (!object)
            return Result {};
        auto run = [&] { result.emplace(std::invoke(method, *object, std::forward<Arguments>(arguments)...)); };
        QZ::performOnMainThreadAndWait(std::ref(run));
        return result ? std::move(*result) : Result {};
    }
}

} // namespace QZ::detail

template<typename T, QZThreadProxyKind Kind>
class QZThreadProxy
{
public:
    explicit QZThreadProxy(T *object, double delay = 0) : m_object(object), m_delay(delay) {}

    T *object() const { return m_object; }
    static constexpr QZThreadProxyKind kind() { return Kind; }
    double delay() const { return m_delay; }   // seconds; Delayed proxies only

    // Calls `method` (a member function of T, or any callable taking T& first) with
    // `arguments` as the kind says (see the top of this header).
    template<typename Method, typename... Arguments>
    auto call(Method method, Arguments &&...arguments) const
    {
        static_assert(std::is_invocable_v<Method &, T &, Arguments &&...>,
                      "the method cannot be called with these arguments");
        using Result = std::invoke_result_t<Method &, T &, Arguments &&...>;
        constexpr bool waits = Kind == QZThreadProxyKind::MainThread
                || (Kind == QZThreadProxyKind::SafeMainThread && !std::is_void_v<Result>);
        if constexpr (waits) {
            return QZ::detail::callAndWait(m_object, method, std::forward<Arguments>(arguments)...);
        } else {
            dispatch(QZ::detail::boundCall(m_object, method, std::forward<Arguments>(arguments)...));
        }
    }

    // A one-way call: the arguments are copied and the caller never waits; any result is
    // dropped. Main-thread proxies use the ordinary main-thread perform, safe ones the safe queue.
    template<typename Method, typename... Arguments>
    void callOneWay(Method method, Arguments &&...arguments) const
    {
        dispatch(QZ::detail::boundCall(m_object, method, std::forward<Arguments>(arguments)...));
    }

private:
    // Sends a call that nobody waits for.
    template<typename Call>
    void dispatch(Call &&bound) const
    {
        if (!m_object)
            return;
        if constexpr (Kind == QZThreadProxyKind::NewThread)
            std::thread(std::forward<Call>(bound)).detach();
        else if constexpr (Kind == QZThreadProxyKind::SafeMainThread)
            QZ::detail::safelyPerformOnMainThread(m_object, std::forward<Call>(bound));
        else if constexpr (Kind == QZThreadProxyKind::Delayed)
            QZ::performAfterDelay(m_delay, std::forward<Call>(bound));
        else   // a one-way call through a main-thread proxy
            QZ::performOnMainThread(std::forward<Call>(bound));
    }

    T *m_object;
    double m_delay;
};

namespace QZ {

// Calls on the main thread, waiting for the result.
template<typename T>
QZThreadProxy<T, QZThreadProxyKind::MainThread> mainThreadProxy(T *object)
{
    return QZThreadProxy<T, QZThreadProxyKind::MainThread>(object);
}

// Calls on a new detached thread each.
template<typename T>
QZThreadProxy<T, QZThreadProxyKind::NewThread> createThreadProxy(T *object)
{
    return QZThreadProxy<T, QZThreadProxyKind::NewThread>(object);
}

// Void calls through the safe main-thread queue; others as mainThreadProxy.
template<typename T>
QZThreadProxy<T, QZThreadProxyKind::SafeMainThread> safeMainThreadProxy(T *object)
{
    return QZThreadProxy<T, QZThreadProxyKind::SafeMainThread>(object);
}

// Calls after `seconds` on the calling thread's event loop.
template<typename T>
QZThreadProxy<T, QZThreadProxyKind::Delayed> delayedProxy(T *object, double seconds)
{
    return QZThreadProxy<T, QZThreadProxyKind::Delayed>(object, seconds);
}

} // namespace QZ
