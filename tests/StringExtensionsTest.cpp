// String extensions: quoting that a reader splits back into the same arguments, escaping
// with maps, and size strings.
#include "support/TestSupport.h"

#include <QZApp/QZStringExtensions.h>

#include <QLocale>
#include <QRandomGenerator>

namespace {

using namespace QZ;

TEST(StringExtensions, AppendArgumentQuotesOnlyEmptyArguments)
{
    QString line;
    appendArgument(line, QStringLiteral("ab"));
    appendArgument(line, QStringLiteral("c d"));
    appendArgument(line, QString());
    EXPECT_EQ(line, QStringLiteral("ab c\\ d \"\""));

    QString empty;
    appendArgument(empty, QStringLiteral(""));
    EXPECT_EQ(empty, QStringLiteral(" \"\""));   // the blank comes even first
    EXPECT_EQ(stringWithArgumentArray(QStringList { QString(), QStringLiteral("x") }), QStringLiteral(" \"\" x"));
    EXPECT_EQ(stringWithArgumentArray(QStringList {}), QString(QLatin1String("")));
}

TEST(StringExtensions, StringWithArgumentsWritesTheFirstWithoutBlankOrQuotes)
{
    EXPECT_EQ(stringWithArguments(QStringLiteral("a b"), QStringLiteral("c"), QStringList { QStringLiteral("d"), QStringLiteral("") }),
              QStringLiteral("a\\ b c d \"\""));
    EXPECT_EQ(stringWithArguments(QStringLiteral("")), QString(QLatin1String("")));
    EXPECT_EQ(stringWithArguments(QString(), QStringLiteral("ignored")), QString(QLatin1String("")));
    EXPECT_EQ(stringByAppendingArguments(QStringLiteral("cmd"), QStringLiteral("x"), QVariant(), QVariant(QVariantList { QStringLiteral("y"), QVariantList { 3 } })),
              QStringLiteral("cmd x y 3"));
    EXPECT_EQ(stringByAppendingArguments(QStringLiteral("cmd")), QStringLiteral("cmd"));
}

TEST(StringExtensions, EscapesEveryShellCharacterWithOneBackslash)
{
    EXPECT_EQ(stringByEscapingShellCharacters(QStringLiteral("a\tb\nc\rd e\\f")), QStringLiteral("a\\tb\\nc\\rd\\ e\\\\f"));
    for (QChar c : shellSpecialCharacters()) {
        const QString escaped = stringByEscapingShellCharacters(QString(c));
        EXPECT_EQ(escaped.size(), 2);
        EXPECT_EQ(escaped[0], QLatin1Char('\\'));
    }
    EXPECT_EQ(stringByEscapingShellCharacters(QStringLiteral("plain-é_1.txt")), QStringLiteral("plain-é_1.txt"));
    EXPECT_EQ(stringByEscapingCharactersInSet(QStringLiteral("a-b\tc"), u"-\t"), QStringLiteral("a\\-b\\tc"));
    const QByteArray map("x\0y", 3);
    EXPECT_EQ(stringByEscapingCharactersInSet(QStringLiteral("axb"), u"x", map), QStringLiteral("a\\yb"));
    EXPECT_EQ(unescapedStringWithMap(QStringLiteral("a\\yb"), map), QStringLiteral("axb"));
}

TEST(StringExtensions, UnescapeKeepsATrailingBackslashAndDropsOthers)
{
    EXPECT_EQ(unescapedString(QStringLiteral("abc\\")), QStringLiteral("abc\\"));
    EXPECT_EQ(unescapedString(QStringLiteral("\\q\\t\\\\\\ ")), QStringLiteral("q\t\\ "));
    EXPECT_EQ(unescapedString(QStringLiteral("\\é")), QStringLiteral("é"));
    EXPECT_EQ(unescapedStringWithMap(QStringLiteral("\\n"), QByteArray("unmatched")), QStringLiteral("n"));
}

// Escaping and unescaping with the same map gives the text back, for any set that does not
// hold a letter of the map's second half (an escaped "r" reads back as a carriage return).
TEST(StringExtensions, UnescapeInvertsEscapeForRandomTexts)
{
    QRandomGenerator random(20261122);
    const QString alphabet = QStringLiteral("ab \t\n\r\\\"'$*?#~=%|&;<>()[]`rnté\u2026");
    for (int round = 0; round < 2000; ++round) {
        QString text;
        const int length = random.bounded(12);
        for (int i = 0; i < length; ++i)
            text += alphabet[random.bounded(alphabet.size())];
        EXPECT_EQ(unescapedString(stringByEscapingShellCharacters(text)), text);
        EXPECT_EQ(unescapedString(stringByEscapingCharactersInSet(text, u"ab$\\")), text);
    }
}

TEST(StringExtensions, SizeStringsPickTheUnitAndOneDecimal)
{
    const QLocale previous;
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    const struct { quint64 value; unsigned base; const char *expected; } cases[] = {
        { 0, 1024, "0" },
        { 999, 10, "999 bytes" },
        { 1000, 10, "1 KB" },
        { 1023, 2, "1,023 bytes" },
        { 1536, 2, "1.5 KB" },
        { 1280, 1024, "1.2 KB" },          // ties round to even
        { 1048576, 1024, "1 MB" },
        { 1048575, 1024, "1,024.0 KB" },
        { 1500000000, 10, "1.5 GB" },
        { 1ull << 40, 1024, "1 TB" },
        { 1ull << 60, 1024, "1,048,576 TB" },
        { 18446744073709551614ull, 10, "18,446,744.1 TB" },
    };
    for (const auto &c : cases)
        EXPECT_EQ(sizeStringFromUnsignedLongLong(c.value, c.base), QLatin1String(c.expected)) << c.value;
    EXPECT_EQ(sizeStringFromUnsignedLongLong(1536), QStringLiteral("1.5 KB"));
    EXPECT_TRUE(sizeStringFromUnsignedLongLong(18446744073709551615ull).isNull());
    QLocale::setDefault(previous);
}

} // namespace
