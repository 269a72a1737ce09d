// Disk Tool's part in bug reports: who receives them, which product they are about, and what
// the user is told when one has gone.
#pragma once

class QMainWindow;
class QZBugReporter;

namespace disktool {

// The shared bug reporter with Disk Tool's vendor and product set. A window passed here shows
// the thanks in its status bar once a report has gone to the mail program.
QZBugReporter *bugReporter(QMainWindow *window = nullptr);

} // namespace disktool
