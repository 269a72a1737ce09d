// What the qzutil program itself holds, without Qt: where it lies, and the tree commands copy
// and delete, which run from here when their command line is plain, so that they start as fast
// as the tools they stand in for. Everything else, the full parser included, is in the core
// module (Qt Core), which the program loads for any other command line.
#pragma once

#include <QZApp/utils.h>

#include <cstdint>

namespace qzutil {

#define QZUTIL_HOST __attribute__((visibility("default")))

enum ExitStatus { Success = 0, Failure = 1, UsageError = 2 };

// The folder of the running program: from /proc, or where /proc is missing (a chroot), from the
// name it was started by. (The program uses the C library alone, so that it starts at once.)
QZUTIL_HOST const char *programFolder();

// Copies `source` to `destination` with `options`; on failure says why on standard error and
// returns the failure status.
QZUTIL_HOST int runCopy(const copy_file_options &options, const char *source, const char *destination);
// Deletes `path` on `jobs` threads; on failure says why, the refusals plainly.
QZUTIL_HOST int runDelete(const char *path, uint32_t jobs);

// When the words are "copy" or "delete" with options the command knows, each at most once and
// with valid values, before the right number of operands, runs the command and stores its exit
// status. Otherwise (help, "--", a doubtful word) returns false, and the full parser decides.
bool runTreeCommandDirectly(int argc, char **argv, int *status);

} // namespace qzutil
