// disktool --tour: a run through every subsystem without a user, for a first look and for tests.
#pragma once

#include <QString>

namespace disktool {

// Runs every step on a scratch folder, printing one line per step that ends in "ok" or the
// reason it failed, and saves a screenshot of each window into `screenshots` (made if needed).
// Returns 0 when every step worked, 1 otherwise.
int runTour(const QString &screenshots);

// Drops the offscreen platform's warnings about what it cannot do, which say nothing about the
// tour; every other message passes.
void quietPlatformMessages();

// The helper program to run directly as the calling user: the installed one beside the
// executable's libexec folder, or the one in the build tree.
QString directHelperPath();

} // namespace disktool
