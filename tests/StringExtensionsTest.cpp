// String extensions: quoting arguments, escaping with maps, and size strings.
#include "support/TestSupport.h"

#include <QZApp/QZStringExtensions.h>

#include <QLocale>

namespace {

using namespace QZ;

TEST(StringExtensions, QuotingEscapesAndMarksOnlyEmptyArguments)
{
    const QString empty = QString(QLatin1String(""));
    EXPECT_EQ(stringWithArgumentArray({ QString(), QStringLiteral("ab"), QStringLiteral("c d"), empty }),
              QStringLiteral(" \"\" ab c\\ d \"\""));   // a blank even before the first
    EXPECT_EQ(stringWithArgumentArray(QStringList {}), empty);
    // The first argument is written without blank or quotes.
    EXPECT_EQ(stringWithArguments(QStringLiteral("a b"), QStringLiteral("c"), QStringList { QStringLiteral("d"), empty }),
              QStringLiteral("a\\ b c d \"\""));
    EXPECT_EQ(stringWithArguments(empty), empty);
    EXPECT_EQ(stringWithArguments(QString(), QStringLiteral("ignored")), empty);
    EXPECT_EQ(stringByAppendingArguments(QStringLiteral("cmd"), QStringLiteral("x"), QVariant(),
                                         QVariant(QVariantList { QStringLiteral("y"), QVariantList { 3 } })),
              QStringLiteral("cmd x y 3"));
}

TEST(StringExtensions, EscapingUsesOneBackslashAndUnescapingDropsAllButATrailingOne)
{
    EXPECT_EQ(stringByEscapingShellCharacters(QStringLiteral("a\tb\nc\rd e\\f")), QStringLiteral("a\\tb\\nc\\rd\\ e\\\\f"));
    for (QChar c : shellSpecialCharacters()) {
        const QString escaped = stringByEscapingShellCharacters(QString(c));
        EXPECT_TRUE(escaped.size() == 2 && escaped[0] == u'\\') << int(c.unicode());
    }
    EXPECT_EQ(stringByEscapingShellCharacters(QStringLiteral("plain-é_1.txt")), QStringLiteral("plain-é_1.txt"));
    EXPECT_EQ(stringByEscapingCharactersInSet(QStringLiteral("a-b\tc"), u"-\t"), QStringLiteral("a\\-b\\tc"));
    const QByteArray map("xxz\0yzz", 7);   // a repeated character: its first occurrence counts
    EXPECT_EQ(stringByEscapingCharactersInSet(QStringLiteral("axb"), u"x", map), QStringLiteral("a\\yb"));
    EXPECT_EQ(unescapedStringWithMap(QStringLiteral("a\\yb\\z"), map), QStringLiteral("axbx"));
    EXPECT_EQ(unescapedStringWithMap(QStringLiteral("\\n"), QByteArray("unmatched")), QStringLiteral("n"));
    EXPECT_EQ(unescapedString(QStringLiteral("\\q\\t\\\\\\ \\éabc\\")), QStringLiteral("q\t\\ éabc\\"));
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
        { 1280, 1024, "1.2 KB" },          // ties round to even
        { 1048576, 1024, "1 MB" },
        { 1048575, 1024, "1,024.0 KB" },
        { 1500000000, 10, "1.5 GB" },
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
