// qzutil helper and qzutil auth-cat as whole processes, with the helper beside qzutil.
#include "support/QzutilRunner.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QTemporaryDir>

namespace {

TEST(QzutilHelper, RunsCommandsThroughTheHelperBesideItAndCopiesFiles)
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("doomed file"));
    const QByteArray text(100000, 'q');
    QFile output(file);
    ASSERT_TRUE(output.open(QIODevice::WriteOnly) && output.write(text) == text.size());
    output.close();
    const QString helper = QStringLiteral("helper"), unlink = QStringLiteral("unlink"), cat = QStringLiteral("auth-cat");
    // Each run: arguments, exit code, output, how standard error ends.
    const struct {
        QStringList arguments;
        int exitCode;
        QByteArray out, errorEnd;
    } runs[] = {
        { { cat, file }, 0, text, "" },
        { { helper, unlink, file }, 0, "status 0\n", "" },
        { { helper, unlink, file }, 1, "status 2\n", "qzutil: unlink: No such file or directory (status 2)\n" },
        { { helper, QStringLiteral("--helper"), QStringLiteral("/nonexistent"), unlink, file }, 1, "status 10002\n",
          "start helper: /nonexistent: No such file or directory\n"
          "qzutil: unlink: the helper could not be reached (status 10002)\n" },
        { { cat, file }, 1, "", ": No such file or directory\n" },
    };
    for (const auto &each : runs) {
        const qztest::ToolResult result = qztest::runQzutil(each.arguments);
        EXPECT_EQ(result.exitCode, each.exitCode) << each.arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_EQ(result.out, each.out);
        EXPECT_TRUE(result.err.endsWith(each.errorEnd)) << result.err.toStdString();
    }
}

} // namespace
