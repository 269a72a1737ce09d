// Library-internal view of the main-thread perform.
#pragma once

class QObject;

namespace QZ::detail {

// True if `object` receives the main-thread perform's wake-up events. Main thread only. Those
// events are posted from other threads through Qt's queue, which ThreadSanitizer cannot see
// into: code on the main thread must not read them before the perform's own lock has ordered
// it after their allocation.
bool isMainThreadPerformer(const QObject *object);

} // namespace QZ::detail
