// qzutil quote / escape / unescape / size / version as whole processes, with their exit statuses.
#include "support/QzutilRunner.h"
#include "support/TestSupport.h"

using qztest::runQzutil;

namespace {

TEST(QzutilStrings, PrintsTheDocumentedExamples)
{
    const struct { QStringList arguments; const char *out; } cases[] = {
        { { QStringLiteral("quote"), QStringLiteral("ab"), QStringLiteral("c d"), QString() }, "ab c\\ d \"\"\n" },
        { { QStringLiteral("escape"), QStringLiteral("a b\tc") }, "a\\ b\\tc\n" },
        { { QStringLiteral("unescape"), QStringLiteral("a\\ b\\tc\\") }, "a b\tc\\\n" },
        { { QStringLiteral("size"), QStringLiteral("--base"), QStringLiteral("10"), QStringLiteral("1000") }, "1 KB\n" },
        { { QStringLiteral("size"), QStringLiteral("1536") }, "1.5 KB\n" },
        { { QStringLiteral("size"), QStringLiteral("0") }, "0\n" },
        { { QStringLiteral("version"), QStringLiteral("compare"), QStringLiteral("10.0"), QStringLiteral("9.0") }, "-1\n" },
        { { QStringLiteral("version"), QStringLiteral("compare"), QStringLiteral("1.2"), QStringLiteral("1.2f7") }, "0\n" },
    };
    for (const auto &c : cases) {
        const qztest::ToolResult result = runQzutil(c.arguments);
        EXPECT_EQ(result.exitCode, 0) << c.arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_EQ(result.out, QByteArray(c.out));
    }
}

TEST(QzutilStrings, VersionParsePrintsEveryField)
{
    const qztest::ToolResult result = runQzutil({ QStringLiteral("version"), QStringLiteral("parse"), QStringLiteral("1.0d") });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, QByteArray("string: 1.0d(null)\nmajor: 1\nminor: 0\nstatus: 0\nbuild: (null)\nreal: (none)\n"));
    const qztest::ToolResult os = runQzutil({ QStringLiteral("version"), QStringLiteral("os") });
    EXPECT_EQ(os.exitCode, 0);
    EXPECT_TRUE(os.out.startsWith("kernel: ")) << os.out.toStdString();
    EXPECT_TRUE(os.out.contains("\nversion: 10.")) << os.out.toStdString();
}

TEST(QzutilStrings, FailuresAndUsageErrorsHaveTheirOwnStatus)
{
    const qztest::ToolResult bad = runQzutil({ QStringLiteral("version"), QStringLiteral("parse"), QStringLiteral("x1.0") });
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_EQ(bad.err, QByteArray("qzutil: not a version: x1.0\n"));
    const qztest::ToolResult huge = runQzutil({ QStringLiteral("size"), QStringLiteral("18446744073709551615") });
    EXPECT_EQ(huge.exitCode, 1);
    EXPECT_EQ(huge.err.count('\n'), 1);

    for (const QStringList &arguments : { QStringList { QStringLiteral("size"), QStringLiteral("-5") },
                                          QStringList { QStringLiteral("size"), QStringLiteral("99999999999999999999") },
                                          QStringList { QStringLiteral("escape") },
                                          QStringList { QStringLiteral("version"), QStringLiteral("compare"), QStringLiteral("1") },
                                          QStringList { QStringLiteral("no-such-command") },
                                          QStringList {} }) {
        const qztest::ToolResult result = runQzutil(arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_TRUE(result.err.startsWith("usage: qzutil")) << result.err.toStdString();
    }
}

} // namespace
