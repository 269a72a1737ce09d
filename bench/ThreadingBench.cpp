// Futures and main-thread calls against what a Qt developer would otherwise use, in one run:
//
//   1. resolve-to-wake latency: a thread blocked on a future is woken by another thread that
//      resolves it; QZValueFuture against std::promise/std::future;
//   2. round trip of a main-thread call from a worker thread that waits for the result:
//      QZ::mainThreadProxy against QMetaObject::invokeMethod with Qt::BlockingQueuedConnection
//      (functor and by name).
//
// Samples of the contenders alternate, so both see the same machine. Prints medians and
// ratios (ours / theirs; below 1 is faster).
//
//   threading_bench [SAMPLES]      (default 4000 per contender)
#include <QZApp/QZApplication.h>
#include <QZApp/QZFuture.h>
#include <QZApp/QZThreadProxy.h>

#include <QMetaObject>
#include <QObject>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double micros(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

double median(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

void report(const char *what, const char *ours, const std::vector<double> &mine,
            const char *theirs, const std::vector<double> &other)
{
    const double a = median(mine), b = median(other);
    std::printf("%-34s %-16s %8.2f us   %-34s %8.2f us   ratio %.3f\n", what, ours, a, theirs, b, a / b);
    // With QZ_BENCH_SUMMARY set to a file, the ratio also goes there, for the summary of all
    // benchmarks.
    if (const char *summary = std::getenv("QZ_BENCH_SUMMARY"); summary && *summary) {
        if (FILE *file = std::fopen(summary, "a")) {
            std::fprintf(file, "| %s: %s vs %s | %.2f |\n", what, ours, theirs, a / b);
            std::fclose(file);
        }
    }
}

// One waiting thread, reused: each round hands it a fresh future, lets it fall asleep on it,
// then resolves it and takes the time from just before the resolution to just after the wake.
class WakeBench
{
public:
    explicit WakeBench(int samples) : m_samples(samples) {}

    void run()
    {
        std::vector<double> ours, theirs;
        std::thread waiter([this] { waitLoop(); });
        for (int i = 0; i < 2 * (m_samples + kWarmUp); ++i) {
            const bool qz = i % 2 == 0;
            const double latency = qz ? round(Kind::Qz) : round(Kind::Std);
            if (i >= 2 * kWarmUp)
                (qz ? ours : theirs).push_back(latency);
        }
        m_kind.store(Kind::Stop, std::memory_order_release);
        m_generation.fetch_add(1, std::memory_order_acq_rel);
        waiter.join();
        report("future resolve-to-wake", "QZValueFuture", ours, "std::future", theirs);
    }

private:
    enum class Kind { Qz, Std, Stop };
    static constexpr int kWarmUp = 200;

    double round(Kind kind)
    {
        std::promise<int> promise;
        m_std = promise.get_future();
        m_qz = QZValueFuture::future();
        m_kind.store(kind, std::memory_order_relaxed);
        m_asleep.store(false, std::memory_order_relaxed);
        m_done.store(false, std::memory_order_relaxed);
        m_generation.fetch_add(1, std::memory_order_acq_rel);
        while (!m_asleep.load(std::memory_order_acquire))
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::microseconds(150));   // well asleep by now
        const Clock::time_point start = Clock::now();
        if (kind == Kind::Qz)
            m_qz->setValue(1);
        else
            promise.set_value(1);
        while (!m_done.load(std::memory_order_acquire))
            std::this_thread::yield();
        return micros(m_woken - start);
    }

    void waitLoop()
    {
        unsigned seen = 0;
        for (;;) {
            while (m_generation.load(std::memory_order_acquire) == seen)
                std::this_thread::yield();
            seen = m_generation.load(std::memory_order_acquire);
            const Kind kind = m_kind.load(std::memory_order_acquire);
            if (kind == Kind::Stop)
                return;
            m_asleep.store(true, std::memory_order_release);
            int value = 0;
            if (kind == Kind::Qz)
                value = m_qz->value().toInt();
            else
                value = m_std.get();
            m_woken = Clock::now();
            if (value != 1)
                std::abort();
            m_done.store(true, std::memory_order_release);
        }
    }

    const int m_samples;
    std::atomic<unsigned> m_generation { 0 };
    std::atomic<Kind> m_kind { Kind::Qz };
    std::atomic<bool> m_asleep { false }, m_done { false };
    std::future<int> m_std;
    std::shared_ptr<QZValueFuture> m_qz;
    Clock::time_point m_woken;
};

// The object whose method the worker calls on the main thread.
class Counter : public QObject
{
    Q_OBJECT
public:
    Q_INVOKABLE int add(int n)
    {
        m_total += n;
        return m_total;
    }

private:
    int m_total = 0;
};

// A worker thread calls the main thread's counter, waiting each time, while the main thread
// sits in its event loop.
void roundTripBench(Counter &counter, int samples)
{
    std::vector<double> proxy, functor, byName;
    constexpr int kWarmUp = 200;
    auto time = [](auto &&call) {
        const Clock::time_point start = Clock::now();
        call();
        return micros(Clock::now() - start);
    };
    for (int i = 0; i < 3 * (samples + kWarmUp); ++i) {
        int result = 0;
        double t = 0;
        switch (i % 3) {
        case 0:
            t = time([&] { result = QZ::mainThreadProxy(&counter).call(&Counter::add, 1); });
            break;
        case 1:
            t = time([&] {
                QMetaObject::invokeMethod(&counter, [&] { return counter.add(1); }, Qt::BlockingQueuedConnection, &result);
            });
            break;
        default:
            t = time([&] {
                QMetaObject::invokeMethod(&counter, "add", Qt::BlockingQueuedConnection, Q_RETURN_ARG(int, result),
                                          Q_ARG(int, 1));
            });
            break;
        }
        if (result == 0)
            std::abort();
        if (i >= 3 * kWarmUp)
            (i % 3 == 0 ? proxy : i % 3 == 1 ? functor : byName).push_back(t);
    }
    report("main-thread call round trip", "mainThreadProxy", proxy, "invokeMethod blocking (functor)", functor);
    report("main-thread call round trip", "mainThreadProxy", proxy, "invokeMethod blocking (by name)", byName);
}

} // namespace

int main(int argc, char **argv)
{
    const int samples = argc > 1 ? std::max(1, std::atoi(argv[1])) : 4000;
    std::printf("%d samples per contender, medians\n", samples);
    WakeBench(samples).run();

    QZApplication app(argc, argv);
    Counter counter;
    std::thread worker([&] {
        roundTripBench(counter, samples);
        QZ::performOnMainThread([] { QCoreApplication::quit(); });
    });
    const int status = app.exec();
    worker.join();
    return status;
}

#include "ThreadingBench.moc"
