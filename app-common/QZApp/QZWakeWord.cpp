#include "QZWakeWord_p.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// futex(2) on the word; the result is the system call's (-1 with errno on failure).
long futex(std::atomic<int> &word, int operation, int value, const timespec *timeout)
{
    static_assert(sizeof(std::atomic<int>) == sizeof(int), "a futex word is a plain int");
    return syscall(SYS_futex, reinterpret_cast<int *>(&word), operation, value, timeout, nullptr,
                   FUTEX_BITSET_MATCH_ANY);
}

// Announces a sleeper: true if the word is still unset (and now says so), false once set.
bool markSleeper(std::atomic<int> &word)
{
    int state = word.load(std::memory_order_acquire);
    while (state == QZ::detail::WakeWordUnset) {
        if (word.compare_exchange_weak(state, QZ::detail::WakeWordSleepers, std::memory_order_acquire))
            return true;
    }
    return state == QZ::detail::WakeWordSleepers;
}

} // namespace

namespace QZ::detail {

void setWakeWord(std::atomic<int> &word)
{
    if (word.exchange(WakeWordSet, std::memory_order_acq_rel) == WakeWordSleepers)
        futex(word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr);
}

void waitForWakeWord(std::atomic<int> &word)
{
    // EAGAIN (the word changed first) and EINTR just test again.
    while (markSleeper(word))
        futex(word, FUTEX_WAIT_PRIVATE, WakeWordSleepers, nullptr);
}

bool waitForWakeWord(std::atomic<int> &word, qint64 deadlineMSecsSinceEpoch)
{
    timespec deadline {};
    deadline.tv_sec = static_cast<time_t>(deadlineMSecsSinceEpoch / 1000);
    deadline.tv_nsec = static_cast<long>(deadlineMSecsSinceEpoch % 1000) * 1000000L;
    if (deadline.tv_nsec < 0) {
        deadline.tv_sec -= 1;
        deadline.tv_nsec += 1000000000L;
    }
    if (deadline.tv_sec < 0)
        deadline = {};   // before the epoch: long past, and the kernel refuses negative times
    // The bitset form takes an absolute deadline on the wall clock, as a date is.
    while (markSleeper(word)) {
        if (futex(word, FUTEX_WAIT_BITSET_PRIVATE | FUTEX_CLOCK_REALTIME, WakeWordSleepers,
                  &deadline) == -1 && errno == ETIMEDOUT)
            return isWakeWordSet(word);
    }
    return true;
}

} // namespace QZ::detail
