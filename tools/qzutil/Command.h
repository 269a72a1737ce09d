// The command table of qzutil: each command family registers its commands from its own unit.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

#include <optional>

namespace qzutil {

enum ExitStatus { Success = 0, Failure = 1, UsageError = 2 };

struct Command {
    const char *name;    // the first word after "qzutil"
    const char *usage;   // what follows the name in the usage line
    const char *summary; // one line for the command list
    int (*run)(const QStringList &arguments);   // the words after the name
};

// Adds a command to the table; used through QZUTIL_COMMAND.
struct Registration {
    explicit Registration(const Command &command);
};

#define QZUTIL_CONCAT_(a, b) a##b
#define QZUTIL_CONCAT(a, b) QZUTIL_CONCAT_(a, b)
#define QZUTIL_COMMAND(...) \
    static const ::qzutil::Registration QZUTIL_CONCAT(qzutilRegistration, __LINE__)({ __VA_ARGS__ })

// "usage: qzutil NAME USAGE" on standard error; returns UsageError.
int usage(const char *name);
// "qzutil: REASON" on standard error; returns Failure.
int fail(const QString &reason);

// Standard output, unchanged bytes.
void writeOut(const QByteArray &bytes);
// Standard output, one line of text in UTF-8.
void printLine(const QString &line);

// Opens a file, or standard input for "-" or an empty path, for reading.
bool openInput(QFile &file, const QString &path, QString *error);
// The name of an input in messages: the path, or "standard input".
QString inputName(const QString &path);
// Reads a whole file, or standard input for "-" or an empty path.
std::optional<QByteArray> readInput(const QString &path, QString *error);

// An unsigned decimal number, or nothing when the text is not one.
std::optional<quint64> parseUnsigned(const QString &text);

} // namespace qzutil
