// How the helper channel's receiver waits for input.
//
// It does not sleep in recvmsg: a thread asleep in a read on a Unix socket is also woken each
// time the peer takes in bytes that this side wrote (the socket's write-space wake-up), that is
// once for every request, whereas poll() wakes only for input.
//
// While at most one caller waits, it may also linger: poll without sleeping for up to kLinger
// after input came, since a caller that has just had its reply usually sends the next request
// at once. On a machine whose other processors are idle, waking a sleeping thread (and the idle
// processor under it) costs more than the helper's whole answer: lingering took the median
// one-thread round trip from 60-70 µs to 11-13 µs, 2 to 3 times the rate (docs/benchmarks.md,
// "Helper channel"). On a busy machine it would hold up the helper and the caller, so lingering
// gives way:
// - it yields the processor at once (the helper may have been woken onto this processor) and
//   then every kGiveWay;
// - a yield returns at once unless other work waits for this processor; two yields within
//   kWindow that took longer than kSlowYield (one alone may be the hypervisor's doing) show a
//   busy machine, and then the receiver does not linger for kCoolDown, doubling up to
//   kLongestCoolDown while the machine stays busy;
// - it stops lingering while more than kMostFailures (in 1/kFailureScale) of recent lingers
//   ended with nothing read (callers that pause between commands), and then tries one round in
//   kProbeEvery only;
// - it never lingers on a machine with one processor.
//
// What the receiver learns about a busy machine also tells callers how to wait for their
// replies (processorsBusy()): on an idle machine a caller yields the processor a few times
// before it sleeps, which lets several callers share two processors without sleeping; on a
// saturated one each of those yields can cost a whole time slice behind other programs, so
// callers sleep at once.
#pragma once

#include <atomic>
#include <chrono>

class QZHelperInputWait
{
public:
    using Clock = std::chrono::steady_clock;

    QZHelperInputWait();

    // Notes that input came now.
    void received() { m_lastInput = Clock::now(); }
    // Returns when `socket` has input (or has ended); `waitingCallers` callers wait for replies.
    void wait(int socket, int waitingCallers);

    // True while other programs were lately seen waiting for this process's processors. A
    // caller about to wait asks this; with `probe` it first yields once and times the yield.
    static bool processorsBusy(bool probe);

private:
    // Long enough to cover the helper's answer to the next request (about 10 µs) several times.
    static constexpr auto kLinger = std::chrono::microseconds(60);
    // Short against a round trip, so that a helper woken onto this processor runs soon.
    static constexpr auto kGiveWay = std::chrono::microseconds(5);
    // A yield on an idle processor returns within a few microseconds; this long, another
    // thread ran.
    static constexpr auto kSlowYield = std::chrono::microseconds(200);
    static constexpr auto kWindow = std::chrono::milliseconds(20);
    static constexpr auto kCoolDown = std::chrono::milliseconds(50);
    static constexpr auto kLongestCoolDown = std::chrono::seconds(2);
    // The share of lingers that found nothing, as a moving average over about 16 lingers.
    static constexpr int kFailureScale = 1024;
    static constexpr int kMostFailures = kFailureScale * 3 / 10;
    static constexpr unsigned kProbeEvery = 64;

    enum class Linger { Arrived, Nothing, Busy };
    Linger linger(int socket, Clock::time_point until);
    bool giveWay();

    // Until when callers sleep at once (a steady-clock count); shared by every receiver.
    static std::atomic<Clock::rep> s_busyUntil;

    const bool m_canLinger;
    Clock::time_point m_lastInput = Clock::now();
    int m_failures = 0;          // recent lingers that read nothing, in 1/kFailureScale
    unsigned m_declined = 0;     // lingers passed over since the last one tried
    Clock::time_point m_lastSlowYield {};
    Clock::time_point m_busyUntil {};
    Clock::duration m_coolDown = kCoolDown;
};
