// qzutil quote | escape | unescape | size: the string extensions.
#include "Command.h"

#include <QZApp/QZStringExtensions.h>

namespace qzutil {
namespace {

// Prints the line the argument-array constructor builds.
int quote(const Invocation &invocation)
{
    printLine(QZ::stringWithArgumentArray(invocation.operands()));
    return Success;
}

int escape(const Invocation &invocation)
{
    const QStringList &arguments = invocation.operands();
    if (arguments.size() != 1)
        return usage("escape");
    printLine(QZ::stringByEscapingShellCharacters(arguments.front()));
    return Success;
}

int unescape(const Invocation &invocation)
{
    const QStringList &arguments = invocation.operands();
    if (arguments.size() != 1)
        return usage("unescape");
    printLine(QZ::unescapedString(arguments.front()));
    return Success;
}

int size(const Invocation &invocation)
{
    unsigned base = 1024;
    if (invocation.isSet("base")) {
        const std::optional<quint64> requested = parseUnsigned(invocation.value("base"));
        if (!requested || *requested > 0xFFFFFFFFu)
            return usage("size");
        base = static_cast<unsigned>(*requested);
    }
    const QStringList &words = invocation.operands();
    if (words.size() != 1)
        return usage("size");
    const std::optional<quint64> bytes = parseUnsigned(words.front());
    if (!bytes)
        return usage("size");
    const QString text = QZ::sizeStringFromUnsignedLongLong(*bytes, base);
    if (text.isNull())
        return fail(QStringLiteral("%1 bytes lies beyond the largest unit").arg(words.front()));
    printLine(text);
    return Success;
}

QZUTIL_COMMAND(.name = "quote", .usage = "ARG...", .summary = "print the command line that quotes the arguments",
               .run = quote,
               .operands = { { "ARG", "an argument, its shell-special characters escaped with backslashes;\n"
                                     "an empty one is written \"\"" } },
               .textOperands = true);
QZUTIL_COMMAND(.name = "escape", .usage = "TEXT", .summary = "escape shell-special characters with backslashes",
               .run = escape, .operands = { { "TEXT", "the text; | & ; < > ( ) $ ` \" ' blank tab line feed carriage return\n"
                                                  "* ? [ # ~ = % and backslash get a backslash (tab, line feed and\n"
                                                  "carriage return as \\t, \\n and \\r)" } }, .textOperands = true);
QZUTIL_COMMAND(.name = "unescape", .usage = "TEXT", .summary = "undo backslash escaping", .run = unescape,
               .operands = { { "TEXT", "the text; a backslash and a character become the character (\\t, \\n\n"
                                   "and \\r a tab, line feed and carriage return), a final backslash stays" } },
               .textOperands = true);
QZUTIL_COMMAND(.name = "size", .usage = "[--base N] BYTES", .summary = "print a byte count as a human-readable size",
               .run = size,
               .options = { { "base", "N", "10 counts in units of 1000 (KB, MB, ...); any other number,\n"
                                           "and the default, in units of 1024" } },
               .operands = { { "BYTES", "the byte count, an unsigned decimal number" } });

} // namespace
} // namespace qzutil
