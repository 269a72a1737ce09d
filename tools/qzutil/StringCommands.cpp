// qzutil quote | escape | unescape | size: the string extensions.
#include "Command.h"

#include <QZApp/QZStringExtensions.h>

namespace qzutil {
namespace {

// Prints the line the argument-array constructor builds.
int quote(const QStringList &arguments)
{
    printLine(QZ::stringWithArgumentArray(arguments));
    return Success;
}

int escape(const QStringList &arguments)
{
    if (arguments.size() != 1)
        return usage("escape");
    printLine(QZ::stringByEscapingShellCharacters(arguments.front()));
    return Success;
}

int unescape(const QStringList &arguments)
{
    if (arguments.size() != 1)
        return usage("unescape");
    printLine(QZ::unescapedString(arguments.front()));
    return Success;
}

int size(const QStringList &arguments)
{
    QStringList words = arguments;
    unsigned base = 1024;
    if (words.size() == 3 && words.front() == QLatin1String("--base")) {
        const std::optional<quint64> requested = parseUnsigned(words[1]);
        if (!requested || *requested > 0xFFFFFFFFu)
            return usage("size");
        base = static_cast<unsigned>(*requested);
        words = words.mid(2);
    }
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

QZUTIL_COMMAND("quote", "ARG...", "print the command line that quotes the arguments", quote);
QZUTIL_COMMAND("escape", "TEXT", "escape shell-special characters with backslashes", escape);
QZUTIL_COMMAND("unescape", "TEXT", "undo backslash escaping", unescape);
QZUTIL_COMMAND("size", "[--base N] BYTES", "print a byte count as a human-readable size", size);

} // namespace
} // namespace qzutil
