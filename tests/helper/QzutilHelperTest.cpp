// qzutil helper and qzutil auth-cat as whole processes, with the helper beside qzutil.
#include "support/QzutilRunner.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QTemporaryDir>

using qztest::runQzutil;

namespace {

TEST(QzutilHelper, RunsACommandThroughTheHelperBesideIt)
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("doomed file"));
    QFile(file).open(QIODevice::WriteOnly);

    qztest::ToolResult result = runQzutil({ QStringLiteral("helper"), QStringLiteral("unlink"), file });
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_EQ(result.out, QByteArray("status 0\n"));
    EXPECT_FALSE(QFile::exists(file));

    result = runQzutil({ QStringLiteral("helper"), QStringLiteral("unlink"), file });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, QByteArray("status 2\n"));
    EXPECT_EQ(result.err, QByteArray("qzutil: unlink: No such file or directory (status 2)\n"));

    result = runQzutil({ QStringLiteral("helper"), QStringLiteral("--helper"), QStringLiteral("/nonexistent"),
                         QStringLiteral("unlink"), file });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, QByteArray("status 10002\n"));
    // The library's console log says why, then qzutil gives its one-line reason.
    EXPECT_TRUE(result.err.contains("Exception caught whilst trying to start helper: /nonexistent: ")) << result.err.toStdString();
    EXPECT_TRUE(result.err.endsWith("qzutil: unlink: the helper could not be reached (status 10002)\n"));

    result = runQzutil({ QStringLiteral("helper") });
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err, QByteArray("usage: qzutil helper [--helper PATH] WORD [ARG...]\n"));
}

TEST(QzutilHelper, AuthCatCopiesAFile)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("text"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    const QByteArray text(100000, 'q');
    file.write(text);
    file.close();
    qztest::ToolResult result = runQzutil({ QStringLiteral("auth-cat"), path });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, text);
    result = runQzutil({ QStringLiteral("auth-cat"), dir.filePath(QStringLiteral("missing")) });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.err.endsWith(": No such file or directory\n")) << result.err.toStdString();
}

} // namespace
