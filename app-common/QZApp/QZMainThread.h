// Running work on the main thread, or later on the calling thread.
//
// The main thread is the thread of the QCoreApplication object. Work sent to it runs from its
// event loop in the order it was posted; without an application object nothing is delivered.
// The hand-over is guarded by the library's own mutex, so everything the posting thread wrote
// before posting is visible to the work (and to ThreadSanitizer).
#pragma once

#include <QZApp/QZGlobal.h>

#include <functional>

namespace QZ {

// True on the thread of the QCoreApplication object (false when there is none).
QZAPP_EXPORT bool isMainThread();

// Queues `work` to run on the main thread and returns at once, also on the main thread itself.
// Returns false, and drops the work, when there is no application object.
QZAPP_EXPORT bool performOnMainThread(std::function<void()> work);

// Runs `work` on the main thread and waits until it has run: directly when called on the main
// thread, else through the main thread's event loop. An exception thrown by the work is
// rethrown to the caller. Returns false when the work could not run (no application object,
// or the application went away first).
QZAPP_EXPORT bool performOnMainThreadAndWait(std::function<void()> work);

// Runs `work` on the calling thread's event loop after `seconds` (a single-shot timer). A thread
// without an event dispatcher never runs it; one whose loop never runs again never runs it
// either.
QZAPP_EXPORT void performAfterDelay(double seconds, std::function<void()> work);

} // namespace QZ
