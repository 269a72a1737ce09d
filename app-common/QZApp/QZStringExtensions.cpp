#include "QZStringExtensions.h"

#include "QZLocalizedString.h"
#include "helper/helper_protocol.h"

#include <QLocale>

#include <array>
#include <cmath>
#include <limits>

namespace {

// One map, parsed: for each character below 256, its counterpart in the other half (or -1).
struct MapTable {
    std::array<short, 256> escaped;     // first half -> second half
    std::array<short, 256> unescaped;   // second half -> first half

    explicit MapTable(const QByteArray &map)
    {
        escaped.fill(-1);
        unescaped.fill(-1);
        const qsizetype separator = map.indexOf('\0');
        const QByteArray first = separator < 0 ? map : map.left(separator);
        const QByteArray second = separator < 0 ? QByteArray() : map.mid(separator + 1);
        const qsizetype count = std::min(first.size(), second.size());
        // The first occurrence wins, as a search from the start of each half finds it.
        for (qsizetype i = count - 1; i >= 0; --i) {
            escaped[static_cast<uchar>(first[i])] = static_cast<uchar>(second[i]);
            unescaped[static_cast<uchar>(second[i])] = static_cast<uchar>(first[i]);
        }
    }
};

QChar mapped(QChar c, const std::array<short, 256> &table)
{
    if (c.unicode() < 256 && table[c.unicode()] >= 0)
        return QChar(table[c.unicode()]);
    return c;
}

QString localizedSize(const char *key, const QString &number)
{
    QString text = QZLocalizedString(key);
    const qsizetype placeholder = text.indexOf(QLatin1String("%@"));
    if (placeholder >= 0)
        text.replace(placeholder, 2, number);
    return text;
}

} // namespace

namespace QZ {

void appendArgument(QString &commandLine, const QString &argument)
{
    if (argument.isEmpty()) {
        commandLine += QLatin1String(" \"\"");
        return;
    }
    if (!commandLine.isEmpty())
        commandLine += QLatin1Char(' ');
    commandLine += stringByEscapingShellCharacters(argument);
}

void appendArgument(QString &commandLine, const QStringList &arguments)
{
    for (const QString &argument : arguments)
        appendArgument(commandLine, argument);
}

void appendArgument(QString &commandLine, const QVariant &argument)
{
    if (!argument.isValid())
        return;
    if (argument.typeId() != QMetaType::QString && argument.canConvert<QVariantList>()) {
        const QVariantList elements = argument.toList();
        for (const QVariant &element : elements)
            appendArgument(commandLine, element);
        return;
    }
    appendArgument(commandLine, argument.toString());
}

QString stringWithArgumentArray(const QStringList &arguments)
{
    QString line(QLatin1String(""));
    appendArgument(line, arguments);
    return line;
}

QStringView shellSpecialCharacters()
{
    static const QString set = QStringLiteral(HELPER_SHELL_SPECIAL);
    return set;
}

QByteArray defaultEscapeMap()
{
    static constexpr char map[] = HELPER_ESCAPED_CONTROLS "\0" HELPER_ESCAPE_LETTERS;
    return QByteArray(map, sizeof(map) - 1);
}

QString stringByEscapingShellCharacters(const QString &string)
{
    static const MapTable defaultTable(defaultEscapeMap());
    // A table of the shell set, so the common case needs no search per character.
    static const std::array<bool, 128> special = [] {
        std::array<bool, 128> table {};
        for (QChar c : shellSpecialCharacters())
            table[c.unicode()] = true;
        return table;
    }();
    QString escaped;
    escaped.reserve(string.size() + string.size() / 4);
    for (QChar c : string) {
        if (c.unicode() < 128 && special[c.unicode()]) {
            escaped += QLatin1Char('\\');
            escaped += mapped(c, defaultTable.escaped);
        } else {
            escaped += c;
        }
    }
    return escaped;
}

QString stringByEscapingCharactersInSet(const QString &string, QStringView set)
{
    return stringByEscapingCharactersInSet(string, set, defaultEscapeMap());
}

QString stringByEscapingCharactersInSet(const QString &string, QStringView set, const QByteArray &map)
{
    const MapTable table(map);
    QString escaped;
    escaped.reserve(string.size());
    for (QChar c : string) {
        if (set.contains(c)) {
            escaped += QLatin1Char('\\');
            escaped += mapped(c, table.escaped);
        } else {
            escaped += c;
        }
    }
    return escaped;
}

QString unescapedString(const QString &string)
{
    return unescapedStringWithMap(string, defaultEscapeMap());
}

QString unescapedStringWithMap(const QString &string, const QByteArray &map)
{
    const MapTable table(map);
    QString plain;
    plain.reserve(string.size());
    for (qsizetype i = 0; i < string.size(); ++i) {
        const QChar c = string[i];
        if (c != QLatin1Char('\\')) {
            plain += c;
        } else if (i + 1 == string.size()) {
            plain += c;   // a backslash at the very end stays
        } else {
            plain += mapped(string[++i], table.unescaped);
        }
    }
    return plain;
}

QString sizeStringFromUnsignedLongLong(quint64 value, unsigned base)
{
    if (value == 0)
        return QStringLiteral("0");
    const quint64 unit = base == 10 ? 1000 : 1024;
    const QLocale locale;
    if (value < unit)
        return localizedSize("%@ bytes", locale.toString(value));

    struct Scale { quint64 divisor; quint64 limit; const char *key; };
    const quint64 unit2 = unit * unit, unit3 = unit2 * unit, unit4 = unit3 * unit;
    const Scale scales[] = {
        { unit, unit2, "%@ KB" },
        { unit2, unit3, "%@ MB" },
        { unit3, unit4, "%@ GB" },
        { unit4, std::numeric_limits<quint64>::max(), "%@ TB" },
    };
    for (const Scale &scale : scales) {
        if (value >= scale.limit)
            continue;
        const double shown = static_cast<double>(value) / static_cast<double>(scale.divisor);
        if (value % scale.divisor == 0)
            return localizedSize(scale.key, locale.toString(shown, 'f', 0));
        // One decimal, rounded half to even as a number formatter rounds by default.
        return localizedSize(scale.key, locale.toString(std::nearbyint(shown * 10.0) / 10.0, 'f', 1));
    }
    return QString();   // the largest 64-bit value lies beyond the TB scale
}

QString sizeStringFromUnsignedLongLong(quint64 value)
{
    return sizeStringFromUnsignedLongLong(value, 1024);
}

} // namespace QZ
