// Work off the main thread, its result back on it.
#pragma once

#include <QZApp/QZApplication.h>
#include <QZApp/QZThreadProxy.h>

#include <functional>
#include <memory>
#include <utility>

namespace disktool {

namespace detail {

// One piece of work: run on a thread of its own by a thread proxy, then its result handed to
// the main thread through the safe perform, so that it never lands in the middle of an event
// (a menu or a message box the user has open).
template<typename Result>
struct BackgroundTask
{
    std::function<Result()> work;
    std::function<void(Result)> done;

    struct Delivery
    {
        std::function<void(Result)> done;
        Result result;
        void deliver() { done(std::move(result)); }
    };

    void run()
    {
        auto delivery = std::make_shared<Delivery>(Delivery { std::move(done), work() });
        QZ::safelyPerformSelectorOnMainThread(delivery, &Delivery::deliver);
        delete this;
    }
};

} // namespace detail

// Runs `work` on a new thread and then `done` with what it returned, on the main thread.
template<typename Result>
void runInBackground(std::function<Result()> work, std::function<void(Result)> done)
{
    auto *task = new detail::BackgroundTask<Result> { std::move(work), std::move(done) };
    QZ::createThreadProxy(task).call(&detail::BackgroundTask<Result>::run);
}

} // namespace disktool
