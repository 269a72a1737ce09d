// The report identifiers of the library's assertions: for each source unit, the unit's name and
// the line that each of its assertion reports states.
//
// A report's unit and line identify the failed check to hosts, their logs and their handlers,
// so they are fixed: they do not follow the code when it moves within a file or to another
// file, they are never renumbered and never given to another check. That is why every check
// passes them to QZ_CHECK (or QZFatalAssertion) by name instead of taking __FILE__ or __LINE__.
// Not installed.
#pragma once

namespace QZAssertionReport {

// QZCondition: misuse of the lock.
namespace Condition {
inline constexpr char kUnit[] = "app-common/QZApp/QZCondition";
inline constexpr int kDestroyedWhileHeldLine = 28;          // fatal "!thread_with_lock", destructor
inline constexpr int kLockDeadLockLine = 41;                 // "Dead lock!", lock
inline constexpr int kLockAlreadyLockedLine = 47;            // "Already locked!", lock
inline constexpr int kTryLockDeadLockLine = 56;              // "Dead lock!", tryLock
inline constexpr int kTryLockAlreadyLockedLine = 63;         // "Already locked!", tryLock
inline constexpr int kUnlockNotLockedLine = 74;              // "Not locked!", unlock
inline constexpr int kWaitNotLockedLine = 85;                // "Not locked!", wait
inline constexpr int kWaitAlreadyLockedLine = 92;            // "Already locked!", wait, after waking
inline constexpr int kWaitUntilDateNotLockedLine = 101;      // "Not locked!", waitUntilDate
inline constexpr int kWaitUntilDateAlreadyLockedLine = 119;  // "Already locked!", waitUntilDate, after waking
} // namespace Condition

// QZValueFuture.
namespace Future {
inline constexpr char kUnit[] = "app-common/QZApp/QZFuture";
inline constexpr int kSetTwiceLine = 160;   // "Cannot set futures twice!", setValue
} // namespace Future

// The safe perform without a QZApplication.
namespace Application {
inline constexpr char kUnit[] = "app-common/QZApp/QZApplication";
inline constexpr int kSafePerformUnsupportedLine = 20;      // safelyPerformSelectorOnMainThread
inline constexpr int kDelayedPerformUnsupportedLine = 32;   // safelyPerformSelector, after a delay
} // namespace Application

// QZResourceHolder.
namespace ResourceHolder {
inline constexpr char kUnit[] = "app-common/QZApp/QZResourceHolder";
inline constexpr int kUnrecognizedMethodLine = 55;   // "unrecognized method ...", releaseResource
} // namespace ResourceHolder

// The helper channel, whichever of its files raises the report.
namespace HelperTool {
inline constexpr char kUnit[] = "app-common/QZApp/helper/QZHelperTool";
inline constexpr int kSecondInstanceLine = 73;       // "Oops!", a second QZHelperTool
inline constexpr int kInvalidReplyStatusLine = 356;  // "Helper returned invalid error!", receiver
} // namespace HelperTool

} // namespace QZAssertionReport
