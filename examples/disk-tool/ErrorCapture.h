// The report lines that the file utilities write to standard error while a piece of work runs.
#pragma once

#include <QStringList>

#include <functional>

namespace disktool {

// Runs `work` with the process's standard error going into a pipe and returns what was written
// there, one entry per line. Standard error is process-wide: only one capture may run at a
// time, and whatever else the process writes meanwhile is captured too.
QStringList captureStandardError(const std::function<void()> &work);

} // namespace disktool
