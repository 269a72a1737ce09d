// A one-shot wake-up over one futex word: any number of threads wait until one thread sets it.
//
// The word is 0 while unset with nobody asleep, 2 while unset with sleepers, 1 once set (for
// good). Setting publishes everything the setter wrote before it (release); a waiter that sees
// the word set has acquired it. Waking costs a system call only when somebody sleeps, and a
// sleeper is woken directly by the kernel, with no mutex to take on the way out.
//
// Private to the library.
#pragma once

#include <QtCore/qglobal.h>

#include <atomic>

namespace QZ::detail {

enum WakeWordState : int { WakeWordUnset = 0, WakeWordSet = 1, WakeWordSleepers = 2 };

// Sets the word and wakes every sleeper. The word's memory is not touched after the store, so a
// waiter may destroy it as soon as it sees the word set.
void setWakeWord(std::atomic<int> &word);

// True once the word is set (an acquire load).
inline bool isWakeWordSet(const std::atomic<int> &word)
{
    return word.load(std::memory_order_acquire) == WakeWordSet;
}

// Blocks until the word is set.
void waitForWakeWord(std::atomic<int> &word);

// Blocks until the word is set or the wall clock reaches `deadlineMSecsSinceEpoch` (a deadline
// in the past returns at once). True if the word is set.
bool waitForWakeWord(std::atomic<int> &word, qint64 deadlineMSecsSinceEpoch);

} // namespace QZ::detail
