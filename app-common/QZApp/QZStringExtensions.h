// String extensions: shell-style argument quoting, backslash escaping with a character map, and
// human-readable sizes.
//
// A command line is built from arguments so that a shell (or the helper program) reads it back
// as the same arguments: shell-special characters get a backslash, line breaks and tabs become
// \r, \n and \t, and only an empty argument is written with quotes ("").
#pragma once

#include <QZApp/QZGlobal.h>

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVariant>

namespace QZ {

// Command lines

// Appends one argument: a blank first unless the line is empty, then the argument escaped with
// stringByEscapingShellCharacters(). An empty argument appends a blank and "" even to an empty
// line.
QZAPP_EXPORT void appendArgument(QString &commandLine, const QString &argument);
// Appends each argument in order.
QZAPP_EXPORT void appendArgument(QString &commandLine, const QStringList &arguments);
// Appends a string, or each element of a list (nested lists are flattened); any other value
// is appended as its string form, and an invalid QVariant appends nothing.
QZAPP_EXPORT void appendArgument(QString &commandLine, const QVariant &argument);

// The command line of `arguments`; empty for an empty list. Every element, the first included,
// goes through appendArgument(), so an empty first element gives a leading blank and "".
QZAPP_EXPORT QString stringWithArgumentArray(const QStringList &arguments);

// The command line of `first` and `rest`: the first argument escaped without a blank (and
// without quotes when empty), the others through appendArgument(). A null `first` gives "".
template<typename... Rest>
QString stringWithArguments(const QString &first, const Rest &...rest);

// `receiver` followed by each argument as appendArgument() adds it.
template<typename... Arguments>
QString stringByAppendingArguments(const QString &receiver, const Arguments &...arguments);

// Escaping

// The characters that get a backslash in a command line: | & ; < > ( ) $ ` " ' blank tab
// line feed carriage return * ? [ # ~ = % and backslash.
QZAPP_EXPORT QStringView shellSpecialCharacters();
// A character map is two halves of equal length separated by one NUL byte: a character at
// position i of the first half is written as the character at i of the second half when
// escaped, and back when unescaped. Only characters below 256 are looked up. The default map
// turns carriage return, line feed and tab into r, n and t.
QZAPP_EXPORT QByteArray defaultEscapeMap();

QZAPP_EXPORT QString stringByEscapingShellCharacters(const QString &string);
QZAPP_EXPORT QString stringByEscapingCharactersInSet(const QString &string, QStringView set);
// Every character of `set` becomes a backslash and the character (mapped through `map`);
// other characters are left alone.
QZAPP_EXPORT QString stringByEscapingCharactersInSet(const QString &string, QStringView set,
                                                     const QByteArray &map);
QZAPP_EXPORT QString unescapedString(const QString &string);
// The inverse of escaping with the same map: a backslash and a character become the character
// (mapped back through `map`); a backslash at the very end stays.
QZAPP_EXPORT QString unescapedStringWithMap(const QString &string, const QByteArray &map);

// Sizes

// "0", "999 bytes", "1 KB", "1.5 KB", ... "12.3 TB" with the system locale's separators and the
// localised unit texts ("%@ bytes", "%@ KB", "%@ MB", "%@ GB", "%@ TB"). Base 10 counts in
// units of 1000, any other base in units of 1024. The largest 64-bit value gives a null string.
QZAPP_EXPORT QString sizeStringFromUnsignedLongLong(quint64 value, unsigned base);
QZAPP_EXPORT QString sizeStringFromUnsignedLongLong(quint64 value);

// Template definitions

template<typename... Rest>
QString stringWithArguments(const QString &first, const Rest &...rest)
{
    if (first.isNull())
        return QStringLiteral("");
    QString line = stringByEscapingShellCharacters(first);
    (appendArgument(line, rest), ...);
    return line;
}

template<typename... Arguments>
QString stringByAppendingArguments(const QString &receiver, const Arguments &...arguments)
{
    QString line = receiver;
    (appendArgument(line, arguments), ...);
    return line;
}

} // namespace QZ
