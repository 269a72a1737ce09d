// The command table of qzutil: each command family registers its commands from its own unit,
// with the options and operands that the shared parser (CommandLine.cpp) reads and explains.
//
// The program itself holds the parser and the commands that need no more than Qt Core (base64);
// every other command lives in the command module, which the program loads only when such a
// command is named or the whole list is shown. The module registers its commands and uses the
// functions below from the program, which exports them (QZUTIL_HOST).
#pragma once

#include "Launcher.h"

#include <QByteArray>
#include <QCommandLineParser>
#include <QFile>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

QT_BEGIN_NAMESPACE
class QCoreApplication;
QT_END_NAMESPACE

namespace qzutil {

// An option of a command, "--NAME" or, with a value name, "--NAME VALUE".
struct Option {
    const char *name;
    const char *valueName;     // null for an option without a value
    const char *description;   // for the help text; '\n' starts another line
};

// An operand of a command, for the help text only.
struct Operand {
    const char *name;          // as written in the usage line
    const char *description;
};

// A command's words once the parser has taken its options. Options are read up to the first
// operand (or "--"): every word from there on is an operand, so `run sh -c` and
// `helper WORD -x` hand "-c" and "-x" on unchanged.
class Invocation
{
public:
    Invocation(const QCommandLineParser &parser, QStringList operands, QList<QByteArray> operandBytes)
        : m_parser(parser), m_operands(std::move(operands)), m_operandBytes(std::move(operandBytes))
    {
    }

    bool isSet(const char *option) const { return m_parser.isSet(QLatin1String(option)); }
    // The value given last, or a null string.
    QString value(const char *option) const { return m_parser.value(QLatin1String(option)); }
    // Every value of an option that may be given more than once, in order.
    QStringList values(const char *option) const { return m_parser.values(QLatin1String(option)); }
    // The operands as text (the system's encoding, UTF-8).
    const QStringList &operands() const { return m_operands; }
    // The same operands as the bytes of the process's argument vector, for commands that must
    // pass on bytes that are not valid text.
    const QList<QByteArray> &operandBytes() const { return m_operandBytes; }

private:
    const QCommandLineParser &m_parser;
    QStringList m_operands;
    QList<QByteArray> m_operandBytes;
};

struct Command {
    const char *name;      // the first word after "qzutil"
    const char *usage;     // what follows the name in the usage line
    const char *summary;   // one line for the command list and the command's help
    int (*run)(const Invocation &invocation);
    std::vector<Option> options = {};
    std::vector<Operand> operands = {};
    // Every word is an operand, whatever it starts with; only a first word "-h" or "--help"
    // asks for the help text. For commands whose operands are arbitrary text.
    bool textOperands = false;
    // The application object the command runs in, when a plain QCoreApplication is not enough
    // (a command that uses widgets makes a QApplication). Called before anything else.
    QCoreApplication *(*makeApplication)(int &argc, char **argv) = nullptr;
};

// Adds a command to the table; used through QZUTIL_COMMAND with designated initialisers.
struct Registration {
    QZUTIL_HOST explicit Registration(const Command &command);
};

#define QZUTIL_CONCAT_(a, b) a##b
#define QZUTIL_CONCAT(a, b) QZUTIL_CONCAT_(a, b)
#define QZUTIL_COMMAND(...) \
    static const ::qzutil::Registration QZUTIL_CONCAT(qzutilRegistration, __LINE__)({ __VA_ARGS__ })

// "usage: qzutil NAME USAGE" on standard error; returns UsageError.
QZUTIL_HOST int usage(const char *name);
// "qzutil: REASON" on standard error; returns Failure.
QZUTIL_HOST int fail(const QString &reason);

// Standard output, unchanged bytes.
QZUTIL_HOST void writeOut(const QByteArray &bytes);
// Standard output, one line of text in UTF-8.
QZUTIL_HOST void printLine(const QString &line);

// Opens a file, or standard input for "-" or an empty path, for reading.
QZUTIL_HOST bool openInput(QFile &file, const QString &path, QString *error);
// The name of an input in messages: the path, or "standard input".
QZUTIL_HOST QString inputName(const QString &path);
// Reads a whole file, or standard input for "-" or an empty path.
QZUTIL_HOST std::optional<QByteArray> readInput(const QString &path, QString *error);

// The input operand of a command that takes at most one: empty for standard input; nothing when
// there are more operands.
QZUTIL_HOST std::optional<QString> inputPath(const Invocation &invocation);

// An unsigned decimal number, or nothing when the text is not one.
QZUTIL_HOST std::optional<quint64> parseUnsigned(const QString &text);

} // namespace qzutil
