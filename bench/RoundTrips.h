// Round-trip measurements shared by the helper benchmarks: calls repeated from several threads
// for a fixed time, with their latencies.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace {

// What a series of measurements of one kind of call gathered.
struct Samples {
    std::vector<double> latencies;   // microseconds
    double seconds = 0;
    long failures = 0;

    double perSecond() const { return seconds > 0 ? static_cast<double>(latencies.size()) / seconds : 0; }
    double percentile(size_t percent)
    {
        if (latencies.empty())
            return 0;
        std::sort(latencies.begin(), latencies.end());
        return latencies[std::min(latencies.size() - 1, latencies.size() * percent / 100)];
    }
};

// Runs `call` from `threads` threads for `seconds` and adds what it saw to `samples`; a call
// returns false when it failed.
void measure(int threads, double seconds, const std::function<bool()> &call, Samples *samples)
{
    std::vector<std::vector<double>> latencies(static_cast<size_t>(threads));
    std::atomic<long> failures { 0 };
    std::atomic<bool> stop { false };
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            auto &mine = latencies[static_cast<size_t>(t)];
            mine.reserve(1 << 18);
            while (!stop.load(std::memory_order_relaxed)) {
                const auto before = std::chrono::steady_clock::now();
                if (!call())
                    ++failures;
                mine.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - before).count());
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (std::thread &worker : workers)
        worker.join();
    samples->seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (const auto &each : latencies)
        samples->latencies.insert(samples->latencies.end(), each.begin(), each.end());
    samples->failures += failures;
}

} // namespace
