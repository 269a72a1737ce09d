// qzutil's command line: the global options, the choice of command, the command's options and
// the help texts, all read with one QCommandLineParser set-up.
#pragma once

#include <QByteArray>
#include <QList>

namespace qzutil {

// Runs the command that the words after the program name select, and returns the exit status.
// `words` are the bytes of the argument vector, program name excluded; commands see them as
// text (the system's encoding) and, where they ask, as the bytes themselves.
int runCommandLine(const QList<QByteArray> &words);

struct Command;
// The command that a first word names, looking in the command module too; null for an option
// or an unknown name.
const Command *commandNamed(const QByteArray &word);

} // namespace qzutil
