// The command table and the one parser every command goes through. Options come before the
// first operand; from that word on (or after "--") every word is an operand, whatever it starts
// with. Help goes to standard output with status 0; a word the parser rejects gives the
// command's usage line on standard error and status 2, as a command's own checks do.
#include "CommandLine.h"

#include "Command.h"

#include <QCommandLineOption>
#include <QCommandLineParser>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <utility>

#include <dlfcn.h>

namespace qzutil {
namespace {

std::map<std::string, Command> &commands()
{
    static std::map<std::string, Command> table;
    return table;
}

// Loads the command module, once: its commands register themselves as it loads. It lies at a
// fixed place relative to the program. When it cannot be loaded, the program goes on with its
// own commands after saying why.
void loadCommandModule()
{
    static bool tried = false;
    if (tried)
        return;
    tried = true;
    const std::string path = std::string(programFolder()) + "/" QZUTIL_COMMAND_MODULE;
    if (!dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
        std::fprintf(stderr, "qzutil: %s\n", dlerror());
}

// The command of that name, from the program or else from the command module.
const Command *findCommand(const std::string &name)
{
    auto found = commands().find(name);
    if (found == commands().end()) {
        loadCommandModule();
        found = commands().find(name);
    }
    return found == commands().end() ? nullptr : &found->second;
}

// The usage error of the whole program: the command list on standard error.
int listCommands()
{
    loadCommandModule();
    std::fputs("usage: qzutil COMMAND [ARGUMENT...]\ncommands:\n", stderr);
    for (const auto &[name, command] : commands())
        std::fprintf(stderr, "  %-10s %s\n", name.c_str(), command.summary);
    return UsageError;
}

const QCommandLineOption &helpOption()
{
    static const QCommandLineOption option({ QStringLiteral("h"), QStringLiteral("help") },
                                           QStringLiteral("print this help"));
    return option;
}

// A parser that reads options up to the first operand.
void prepare(QCommandLineParser &parser)
{
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    parser.addOption(helpOption());
}

// The words as text, one for one.
QStringList textOf(const QList<QByteArray> &words)
{
    QStringList text;
    text.reserve(words.size());
    for (const QByteArray &word : words)
        text.append(QString::fromLocal8Bit(word));
    return text;
}

// Parses `words` and returns the operands as bytes, or nothing on a usage error. The operands
// are the last words: the parser also takes a lone "-" as an operand without ending the options
// there, so an option after it is refused here, as after any other operand.
std::optional<QList<QByteArray>> parse(QCommandLineParser &parser, const QList<QByteArray> &words)
{
    const QStringList text = textOf(words);
    if (!parser.parse(QStringList { QStringLiteral("qzutil") } + text))
        return std::nullopt;
    const QStringList operands = parser.positionalArguments();
    const qsizetype first = text.size() - operands.size();
    if (text.mid(first) != operands)
        return std::nullopt;
    return words.mid(first);
}

// "  NAME  DESCRIPTION" lines, the descriptions in one column; a description's further lines
// start in that column too.
QByteArray table(const std::vector<std::pair<QByteArray, QByteArray>> &rows)
{
    qsizetype width = 0;
    for (const auto &[name, description] : rows)
        width = std::max(width, name.size());
    const QByteArray indent(width + 4, ' ');
    QByteArray text;
    for (const auto &[name, description] : rows)
        text += "  " + name.leftJustified(width + 2) + QByteArray(description).replace("\n", "\n" + indent) + '\n';
    return text;
}

constexpr const char *kStatuses = "Exit status 0 on success, 1 on failure (with a one-line reason on standard error),\n"
                                  "2 on a usage error (with a usage line).\n";

void printHelp(const Command &command)
{
    QByteArray text = QByteArray("usage: qzutil ") + command.name + ' ' + command.usage + '\n' + command.summary + '\n';
    std::vector<std::pair<QByteArray, QByteArray>> rows;
    for (const Operand &operand : command.operands)
        rows.emplace_back(operand.name, operand.description);
    if (!rows.empty())
        text += "\noperands:\n" + table(rows);
    if (command.textOperands) {
        text += "Every word is an operand, whatever it starts with; only a first word \"-h\" or \"--help\"\n"
                "asks for this help.\n";
    } else {
        rows.clear();
        for (const Option &option : command.options) {
            rows.emplace_back(QByteArray("--") + option.name
                                      + (option.valueName ? QByteArray(" ") + option.valueName : QByteArray()),
                              option.description);
        }
        rows.emplace_back("-h, --help", "print this help");
        text += "\noptions:\n" + table(rows) + "Options come before the operands; \"--\" ends them early.\n";
    }
    writeOut(text + '\n' + kStatuses);
}

void printHelp()
{
    loadCommandModule();
    QByteArray text = "usage: qzutil COMMAND [OPTION...] [OPERAND...]\n"
                      "       qzutil COMMAND --help\n"
                      "       qzutil --help | --version\n"
                      "The framework's command-line front end, for scripting, testing a helper and benchmarking.\n"
                      "\ncommands:\n";
    std::vector<std::pair<QByteArray, QByteArray>> rows;
    for (const auto &[name, command] : commands())
        rows.emplace_back(QByteArray::fromStdString(name), command.summary);
    text += table(rows) + "\noptions:\n";
    text += table({ { "-h, --help", "print this help; \"qzutil COMMAND --help\" explains a command" },
                    { "-v, --version", "print the version of qzutil" } });
    writeOut(text + '\n' + kStatuses);
}

int runCommand(const Command &command, const QList<QByteArray> &words)
{
    QCommandLineParser parser;
    prepare(parser);
    for (const Option &option : command.options) {
        parser.addOption(option.valueName
                                 ? QCommandLineOption(QLatin1String(option.name), QLatin1String(option.description),
                                                      QLatin1String(option.valueName))
                                 : QCommandLineOption(QLatin1String(option.name), QLatin1String(option.description)));
    }
    const bool asksForHelp = !words.isEmpty() && (words.front() == "-h" || words.front() == "--help");
    if (command.textOperands && !asksForHelp)
        return command.run(Invocation(parser, textOf(words), words));
    const std::optional<QList<QByteArray>> operands = parse(parser, words);
    if (!operands)
        return usage(command.name);
    if (parser.isSet(helpOption())) {
        printHelp(command);
        return Success;
    }
    return command.run(Invocation(parser, parser.positionalArguments(), *operands));
}

} // namespace

const Command *commandNamed(const QByteArray &word)
{
    if (word.isEmpty() || word.startsWith('-'))
        return nullptr;
    return findCommand(word.toStdString());
}

Registration::Registration(const Command &command)
{
    commands().emplace(command.name, command);
}

int usage(const char *name)
{
    const auto found = commands().find(name);
    std::fprintf(stderr, "usage: qzutil %s %s\n", name, found == commands().end() ? "" : found->second.usage);
    return UsageError;
}

int runCommandLine(const QList<QByteArray> &words)
{
    QCommandLineParser parser;
    prepare(parser);
    const QCommandLineOption version({ QStringLiteral("v"), QStringLiteral("version") },
                                     QStringLiteral("print the version"));
    parser.addOption(version);
    const std::optional<QList<QByteArray>> operands = parse(parser, words);
    if (!operands)
        return listCommands();
    if (parser.isSet(helpOption())) {
        printHelp();
        return Success;
    }
    if (parser.isSet(version)) {
        writeOut("qzutil " QZUTIL_VERSION "\n");
        return Success;
    }
    if (operands->isEmpty())
        return listCommands();
    const Command *command = findCommand(operands->front().toStdString());
    if (!command)
        return listCommands();
    return runCommand(*command, operands->mid(1));
}

} // namespace qzutil
