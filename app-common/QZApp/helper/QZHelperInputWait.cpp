#include "QZHelperInputWait_p.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <sched.h>

namespace {

// Tells the processor that this thread is polling (and lets a sibling hardware thread run).
inline void cpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// True when this process may run on more than one processor.
bool severalProcessors()
{
    cpu_set_t allowed;
    return sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) > 1;
}

} // namespace

std::atomic<QZHelperInputWait::Clock::rep> QZHelperInputWait::s_busyUntil { 0 };

bool QZHelperInputWait::processorsBusy(bool probe)
{
    const Clock::time_point before = Clock::now();
    if (before.time_since_epoch().count() < s_busyUntil.load(std::memory_order_relaxed))
        return true;
    if (!probe)
        return false;
    sched_yield();
    const Clock::time_point after = Clock::now();
    if (after - before <= kSlowYield)
        return false;
    s_busyUntil.store((after + kCoolDown).time_since_epoch().count(), std::memory_order_relaxed);
    return true;
}

QZHelperInputWait::QZHelperInputWait()
    : m_canLinger(severalProcessors())
{
}

void QZHelperInputWait::wait(int socket, int waitingCallers)
{
    const Clock::time_point now = Clock::now();
    const Clock::time_point until = m_lastInput + kLinger;
    if (m_canLinger && waitingCallers <= 1 && now < until && now >= m_busyUntil
            && (m_failures < kMostFailures || ++m_declined % kProbeEvery == 0)) {
        const Linger outcome = linger(socket, until);
        if (outcome == Linger::Arrived)
            return;
        if (outcome == Linger::Nothing)
            m_failures += (kFailureScale - m_failures) / 16;
    }
    pollfd watched { socket, POLLIN, 0 };
    while (::poll(&watched, 1, -1) < 0 && errno == EINTR) {
    }
}

// Polls the socket without sleeping until it has input or `until` has passed, giving way every
// kGiveWay, starting at once.
QZHelperInputWait::Linger QZHelperInputWait::linger(int socket, Clock::time_point until)
{
    pollfd watched { socket, POLLIN, 0 };
    Clock::time_point nextGiveWay = Clock::now();
    for (unsigned i = 1;; ++i) {
        cpuRelax();
        if (i % 16 != 0)
            continue;
        if (::poll(&watched, 1, 0) != 0) {
            m_failures -= m_failures / 16;
            return Linger::Arrived;
        }
        const Clock::time_point now = Clock::now();
        if (now >= until)
            return Linger::Nothing;
        if (now >= nextGiveWay) {
            if (!giveWay())
                return Linger::Busy;
            nextGiveWay = Clock::now() + kGiveWay;
        }
    }
}

// Yields the processor; false when the machine turned out to be busy.
bool QZHelperInputWait::giveWay()
{
    const Clock::time_point before = Clock::now();
    sched_yield();
    const Clock::time_point after = Clock::now();
    if (after - before <= kSlowYield)
        return true;
    const Clock::time_point lastSlowYield = std::exchange(m_lastSlowYield, after);
    if (after - lastSlowYield > kWindow)
        return true;
    // Busy: for kCoolDown if it was not busy lately, else for twice as long as last time.
    m_coolDown = after - m_busyUntil > kLongestCoolDown ? Clock::duration(kCoolDown)
                                                        : std::min<Clock::duration>(2 * m_coolDown, kLongestCoolDown);
    m_busyUntil = after + m_coolDown;
    s_busyUntil.store(m_busyUntil.time_since_epoch().count(), std::memory_order_relaxed);
    return false;
}
